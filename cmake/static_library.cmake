# SPDX-License-Identifier: MIT
# The static library: one object of all sources, from which only the interface leaves.
#
# A plain archive would replace the `operator new` of the whole program by that of the library. Here
# the objects are linked to one, and every symbol that is not in cmake/static.symbols becomes local
# to it. That needs GNU ld, for --force-group-allocation: a copy of an inline function that became
# local must not be dropped in favour of the program's copy.

# Makes the library NAME, libyutils.a, from the objects of the shared libraries. EXCLUDE_FROM_ALL
# unless it is installed.
function(yutils_static_library name)
  separate_arguments(machine UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  list(FILTER machine INCLUDE REGEX "^-m")
  if(CMAKE_CXX_COMPILER_TARGET)
    list(APPEND machine "--target=${CMAKE_CXX_COMPILER_TARGET}")
  endif()
  set(objects)
  foreach(library IN LISTS ARGN)
    list(APPEND objects $<TARGET_OBJECTS:${library}>)
  endforeach()
  set(symbols "${PROJECT_SOURCE_DIR}/cmake/static.symbols")
  set(object "${CMAKE_CURRENT_BINARY_DIR}/yutils_static$<$<BOOL:${CMAKE_CONFIGURATION_TYPES}>:-$<CONFIG>>.o")
  add_custom_command(
    OUTPUT "${object}"
    COMMAND "${CMAKE_CXX_COMPILER}" ${machine} -r -nostdlib -Wl,--force-group-allocation
            -o "${object}" ${objects}
    COMMAND "${CMAKE_OBJCOPY}" --wildcard --localize-hidden "--keep-global-symbols=${symbols}"
            $<$<CONFIG:Release,MinSizeRel>:--strip-debug> "${object}"
    COMMAND "${CMAKE_COMMAND}" -D "NM=${CMAKE_NM}" -D "OBJCOPY=${CMAKE_OBJCOPY}" -D "OBJECT=${object}"
            -P "${PROJECT_SOURCE_DIR}/cmake/weaken_unique.cmake"
    DEPENDS ${objects} "${symbols}"
    COMMENT "Linking the object of the static library" COMMAND_EXPAND_LISTS VERBATIM)
  if(YUTILS_INSTALL)
    set(exclude)
  else()
    set(exclude EXCLUDE_FROM_ALL)
  endif()
  add_library(${name} STATIC ${exclude} "${object}")
  add_library(yutils::${name} ALIAS ${name})
  add_dependencies(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME yutils LINKER_LANGUAGE CXX)
  target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_compile_features(${name} INTERFACE cxx_std_17)
  target_link_libraries(${name} INTERFACE -pthread)
endfunction()
