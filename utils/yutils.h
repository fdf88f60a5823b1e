// SPDX-License-Identifier: MIT
// All of the library in one include, for small programs and for a first look.
//
// Heavy: 17000 lines after the preprocessor, a sixth more than uid.h alone. A header that many
// sources include takes the parts that it needs instead. The interface to the system (ysys.h,
// platform.h), the headers for tests (utils/testing/) and those that need much of the standard
// library (atree_std.h, chrono.h, color_allocator.h, color_resource.h, format.h, hash.h) are not
// part of it.
#pragma once

#include "utils/sdk/alloc.h"
#include "utils/sdk/allocator.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/block.h"
#include "utils/sdk/chunk_parent.h"
#include "utils/sdk/colors.h"
#include "utils/sdk/event.h"
#include "utils/sdk/export.h"
#include "utils/sdk/locker.h"
#include "utils/sdk/log.h"
#include "utils/sdk/membank.h"
#include "utils/sdk/object.h"
#include "utils/sdk/result.h"
#include "utils/sdk/result_codes.h"
#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/version.h"
#include "utils/sdk/wtree.h"
