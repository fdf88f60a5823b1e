// SPDX-License-Identifier: MIT
// The names of memory colours.
//
// For the library's own sources, not installed; colors.h declares the operations. The table is
// static memory and exported, so that a debugger finds it by its symbol in a library without other
// symbols. The name of colour c is a text of up to 31 bytes at theColorNames[c], 32 * c bytes from
// the start; the rest of its 32 bytes is 0, and a colour without a name has only such. Example:
// after nameColor(2, "net") the bytes from 64 on are 6e 65 74 00.
//
// Thread safety: the caller serialises.
#pragma once

#include "utils/sdk/colors.h"
#include "utils/sdk/export.h"
#include "utils/sdk/memory/chain.h"

namespace Utils {

constexpr unsigned COLOR_NAME_ROOM = 32;

extern YUTILS_EXPORT char theColorNames[COLORS][COLOR_NAME_ROOM];

}  // namespace Utils
