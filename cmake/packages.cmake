# SPDX-License-Identifier: MIT
# Debian packages: `cmake --preset packages`, then `cmake --build --preset packages`.
#
# libyutils1 has the two shared libraries, libyutils-dev headers, static library and pages,
# libyutils-gdb the script for gdb and yutils-heap. The symbols for debuggers are in libyutils1-dbgsym.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME yutils)
set(YUTILS_MAINTAINER "yutils authors <yutils@example.org>" CACHE STRING "Maintainer of the packages")
set(CPACK_PACKAGE_CONTACT "${YUTILS_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "allocators with memory counted by colour, containers, log, locks")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL lib dev doc gdb)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/package_documents.cmake")
set(CPACK_YUTILS_SOURCE "${PROJECT_SOURCE_DIR}")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libyutils${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIB_DESCRIPTION
"The shared libraries libyutils and libysys, its system layer. All memory is
counted by colour, so that a program can show who holds how much of it.")
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIB_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_BINARY_DIR}/packages/triggers;${CMAKE_CURRENT_BINARY_DIR}/packages/shlibs")
file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/packages/triggers" "activate-noawait ldconfig\n")
file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/packages/shlibs"
  "libysys ${PROJECT_VERSION_MAJOR} libyutils${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n"
  "libyutils ${PROJECT_VERSION_MAJOR} libyutils${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n")

set(of_this_version "libyutils${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libyutils-dev)
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Development files: the headers, the static library,
and the files for CMake and pkg-config.")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${of_this_version}")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libyutils-gdb")

set(CPACK_DEBIAN_GDB_PACKAGE_NAME libyutils-gdb)
set(CPACK_DEBIAN_GDB_DESCRIPTION
"A script that shows the objects of the library, its heap and its locks in
gdb, and yutils-heap, which shows and compares snapshots of the heap.")
set(CPACK_DEBIAN_GDB_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_GDB_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_GDB_PACKAGE_RECOMMENDS "gdb, ${of_this_version}")

include(CPack)
cpack_add_component_group(lib)
cpack_add_component_group(dev)
cpack_add_component_group(gdb)
cpack_add_component(lib GROUP lib)
cpack_add_component(dev GROUP dev)
cpack_add_component(doc GROUP dev)
cpack_add_component(gdb GROUP gdb)
