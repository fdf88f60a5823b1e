# SPDX-License-Identifier: MIT
# The page of utils/sdk/heap/page.html as C++: its text before and after the marker @HEAP@.

# Adds the generated source to a target, and makes it anew when the page changes.
function(yutils_heap_page target page)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${page}")
  file(READ "${page}" text)
  string(LENGTH "${text}" size)
  string(FIND "${text}" "@HEAP@" marker)
  string(FIND "${text}" ")page~\"" delimiter)
  if(marker EQUAL -1 OR NOT delimiter EQUAL -1 OR size GREATER 65000)
    message(FATAL_ERROR "${page}: a page has the marker @HEAP@, no )page~\" and at most 65000 bytes")
  endif()
  string(SUBSTRING "${text}" 0 ${marker} start)
  math(EXPR after "${marker} + 6")
  string(SUBSTRING "${text}" ${after} -1 end)
  set(source "${CMAKE_CURRENT_BINARY_DIR}/heap_page.cpp")
  file(WRITE "${source}.new"
    "#include \"utils/sdk/heap/forms.h\"\n"
    "const char Utils::HEAP_PAGE_START[] = R\"page~(" "${start}" ")page~\";\n"
    "const char Utils::HEAP_PAGE_END[] = R\"page~(" "${end}" ")page~\";\n")
  configure_file("${source}.new" "${source}" COPYONLY)
  target_sources(${target} PRIVATE "${source}")
endfunction()
