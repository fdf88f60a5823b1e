// SPDX-License-Identifier: MIT
// Asks the runtime library for files above 2 GiB and times after 2038 on every pointer
// size.
//
// It is not a list of system headers: a source includes it first of all, before any of them, and
// then the ones that it needs. Sources that neither open files nor ask for the time of day do
// without it.
#pragma once

#ifdef _FEATURES_H
#error "posix.h comes before every system header"
#endif

#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif
#ifndef _TIME_BITS
#define _TIME_BITS 64
#endif
