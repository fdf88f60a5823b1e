# SPDX-License-Identifier: MIT
# All that is installed, in the components lib, dev, doc and gdb, and the target `uninstall`.
include(GNUInstallDirs)
set(cmake_folder "${CMAKE_INSTALL_LIBDIR}/cmake/yutils")
set(pkgconfig_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# --- lib ---
# Elsewhere than in the system's own folders, libyutils finds libysys beside itself.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(yutils PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()
install(TARGETS yutils ysys EXPORT yutilsTargets
  LIBRARY COMPONENT lib NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/yutils)

# --- dev ---
# The headers directly in utils, utils/sdk and utils/testing, and the private parts that they include.
# tests/layers.py compares this list with the includes.
file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  utils/*.h utils/sdk/*.h utils/testing/*.h)
set(included_parts
  utils/sdk/base/immortal.h
  utils/sdk/text/string_inline.h
  utils/sdk/text/string_rep.h
  utils/sdk/text/substring.h
  utils/sdk/trees/choose.h)
foreach(header ${headers} ${included_parts})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/yutils/${folder} COMPONENT dev)
endforeach()
install(EXPORT yutilsTargets NAMESPACE yutils:: DESTINATION ${cmake_folder} COMPONENT dev)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/yutilsConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/yutilsConfigVersion.cmake
        DESTINATION ${cmake_folder} COMPONENT dev)
if(YUTILS_STATIC)
  install(TARGETS yutils_static EXPORT yutilsStaticTargets
    ARCHIVE COMPONENT dev INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/yutils)
  install(EXPORT yutilsStaticTargets NAMESPACE yutils:: DESTINATION ${cmake_folder} COMPONENT dev)
endif()

# pkg-config NAME DESCRIPTION LIBS: NAME.pc, whose folders are told from its own place, so that the
# prefix can be moved.
file(RELATIVE_PATH from_pc_to_include
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_FULL_INCLUDEDIR}/yutils")
function(yutils_pkg_config NAME DESCRIPTION LIBS)
  configure_file(cmake/pkgconfig.pc.in ${NAME}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${NAME}.pc DESTINATION ${pkgconfig_folder} COMPONENT dev)
endfunction()
yutils_pkg_config(ysys "the system layer of yutils" "-L\${libdir} -lysys")
# Programs call the system layer, too, from inline functions of the headers.
yutils_pkg_config(yutils "${PROJECT_DESCRIPTION}" "-L\${libdir} -lyutils -lysys")
if(YUTILS_STATIC)
  yutils_pkg_config(yutils-static "yutils as a static library" "\${libdir}/libyutils.a -pthread")
endif()

# --- doc ---
install(FILES README.md GUARANTEES.md CHANGELOG.md LICENSE
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(FILES docs/heap.svg DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT doc)

# --- gdb ---
# gdb loads the script of this name with the library, from the folder of its own data or from one that
# add-auto-load-scripts-directory names. The prefix is that of the installation.
set(gdb_folder "${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
install(FILES tools/gdb/yutils.py DESTINATION ${gdb_folder}
        RENAME libyutils.so.${PROJECT_VERSION}-gdb.py COMPONENT gdb)
# The installed tool finds the page, and the script for gdb, from its own place.
file(RELATIVE_PATH YUTILS_DATA ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_DATADIR})
configure_file(tools/yutils-heap yutils-heap @ONLY)
install(PROGRAMS ${CMAKE_CURRENT_BINARY_DIR}/yutils-heap
        DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT gdb)
install(FILES utils/sdk/heap/page.html
        DESTINATION ${CMAKE_INSTALL_DATADIR}/yutils RENAME heap.html COMPONENT gdb)

if(PROJECT_IS_TOP_LEVEL)
  add_custom_target(uninstall
    COMMAND "${CMAKE_COMMAND}" -D "BUILD=${CMAKE_CURRENT_BINARY_DIR}"
            -P "${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake" VERBATIM)
  include(cmake/packages.cmake)
endif()
