// SPDX-License-Identifier: MIT
// The version of the library as macros, for programs that compile with several versions.
//
// The only place of the number: CMakeLists.txt reads it from here. Version 1.2.3 is the number
// 10203, so that `#if YUTILS_VERSION >= YUTILS_VERSION_NUMBER(1, 2, 0)` compares versions.
#pragma once

#define YUTILS_VERSION_MAJOR 1
#define YUTILS_VERSION_MINOR 0
#define YUTILS_VERSION_PATCH 0

#define YUTILS_VERSION_NUMBER(major, minor, patch) ((major)*10000 + (minor)*100 + (patch))
#define YUTILS_VERSION \
  YUTILS_VERSION_NUMBER(YUTILS_VERSION_MAJOR, YUTILS_VERSION_MINOR, YUTILS_VERSION_PATCH)
