// SPDX-License-Identifier: MIT
// Formats expanded into rooms of fixed size. Private to the library.
#pragma once

#include <cstdarg>

namespace Utils {

// As vsnprintf, and quicker for plain %s, %d, %u, %ld and %lu; a text of any length is cut to the
// room. Returns the length of the text in the room up to its first NUL, or -1 if the format cannot
// be expanded. Leaves `errno` as it was. Requires: size is not 0.
int expandText(char* room, unsigned size, const char* format, std::va_list args);

}  // namespace Utils
