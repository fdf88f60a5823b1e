// SPDX-License-Identifier: MIT
// The services that the library calls beside the system interface of ysys.h.
//
// They keep the names and argument lists that the library's design knows them by; `ysys/` has them
// for POSIX. All may be called from any task, none uses the library's allocation operators and none
// is a cancellation point.
#pragma once

#include <cstdarg>
#include <cstdio>

#pragma GCC visibility push(default)
extern "C" {

// Writes the text, as it stands, to the debugger channel: the file or FIFO that the environment
// variable YSYS_DEBUG_CHANNEL names (a file is made where missing and appended to), else standard
// error. Never blocks on a FIFO: text that has no reader there goes to standard error.
void OutputDebugStringA(const char* text) noexcept;

// Shows a message and returns when it was answered, always 1. Uses a real dialog where a display
// and one of the usual dialog programs is there; else asks on the controlling terminal and waits
// for Enter; else prints to standard error and returns at once. `owner` and `type` are not looked
// at.
int MessageBoxA(void* owner, const char* text, const char* caption, unsigned int type) noexcept;

// Prints the format with its arguments and a line end to a stream of the runtime library, and
// flushes the stream. A line goes out whole, also to a pipe that does not block: the call waits for
// room. Only a line of more than 1023 bytes that malloc has no room for may lose its end there. A
// pipe whose reader has gone and the limit on file sizes raise no signal; the rest of the line is
// dropped.
void YfPrintLine(std::FILE* stream, const char* format, std::va_list args) noexcept;

// Calls step(argument), which can do without the memory that it asks for: while it runs, exhaustion
// that the calling task reports to YfAssert__ is not printed and does not stop the process.
void YfWithoutExhaustionReport(void (*step)(void*), void* argument) noexcept;

// Returns 1 if the id, of YIF_CurrentTaskIdCoop, belongs to a task that stayed in the parent when
// this process was forked, else 0.
int YfStayedInParent(unsigned long task) noexcept;

// Gives up the notifications of task start and end for the library that the address lies in. There
// are none here; gives 1.
int DisableThreadLibraryCalls(void* library) noexcept;

// The runtime library's assertion report. Does what YfAssert__ does.
void _assert(const char* condition, const char* file, unsigned int line) noexcept;

}  // extern "C"
#pragma GCC visibility pop
