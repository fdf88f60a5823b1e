// SPDX-License-Identifier: MIT
// Requests files above 2 GiB and times after 2038 from the runtime library for every pointer size.
//
// Not a list of system headers: a source includes it before every system header and then those that
// it needs. Sources that neither open files nor read the time of day do not need it.
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
