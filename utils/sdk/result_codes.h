// SPDX-License-Identifier: MIT
// The library's own result codes by name.
//
// A result code is a 32-bit number: bit 31 is set for a failure and clear for a success. Programs
// may use any other code beside these. result.h has the texts, which the codes have from the start,
// and the last error of each task. Thread safety: constants only.
#pragma once

namespace Utils {

constexpr unsigned RESULT_SUCCESS = 0x00000000u;
constexpr unsigned RESULT_FAILURE = 0x80000000u;
constexpr unsigned RESULT_NOT_IMPLEMENTED = 0x80000001u;
constexpr unsigned RESULT_OUT_OF_MEMORY = 0x80000002u;
constexpr unsigned RESULT_INVALID_ARGUMENT = 0x80000003u;
constexpr unsigned RESULT_NO_INTERFACE = 0x80000004u;
constexpr unsigned RESULT_FILE_NOT_FOUND = 0x80040001u;
constexpr unsigned RESULT_FILE_READ_ERROR = 0x80040002u;
constexpr unsigned RESULT_FILE_WRITE_ERROR = 0x80040003u;
constexpr unsigned RESULT_FILE_CORRUPT = 0x80040004u;

}  // namespace Utils
