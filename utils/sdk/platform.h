// SPDX-License-Identifier: MIT
// The services of the system layer that the library calls beside those of ysys.h.
//
// Their names and argument lists are part of the library's design; `ysys/` implements them for
// Linux. No service uses the library's allocation operators, and none is a cancellation point.
//
// Thread safety: all services may be called from several tasks at once.
#pragma once

#include <cstdarg>
#include <cstdio>

#pragma GCC visibility push(default)
extern "C" {

// Writes the text unchanged to the debugger channel: the file or FIFO that the environment variable
// YSYS_DEBUG_CHANNEL names (a file is created if missing and appended to), else standard error.
// Never blocks on a FIFO: a text that no reader takes goes to standard error.
void OutputDebugStringA(const char* text) noexcept;

// Shows a message and returns 1 when it was answered. Uses a dialog if there is a display and one
// of the usual dialog programs; else, in the foreground of a controlling terminal, asks there and
// waits for Enter; else prints to standard error and returns at once. `owner` and `type` are
// ignored.
int MessageBoxA(void* owner, const char* text, const char* caption, unsigned int type) noexcept;

// Prints the format with its arguments and a line end to a stream of the runtime library, and
// flushes the stream. A line is written whole, also to a pipe that does not block: the call waits
// for room. Only a line of more than 1023 bytes for which malloc has no memory may lose its end on
// such a pipe. A pipe without a reader and the limit on file sizes raise no signal; the rest of the
// line is dropped.
void YfPrintLine(std::FILE* stream, const char* format, std::va_list args) noexcept;

// Returns as strncmp does for the first `limit` bytes, with upper and lower case alike in the
// current locale.
int YfCompareIgnoringCase(const char* a, const char* b, std::size_t limit) noexcept;

// Calls step(argument), which asks for memory that it can do without: during the call, an
// exhaustion that the calling task reports to YfAssert__ is neither printed nor stops the process.
void YfWithoutExhaustionReport(void (*step)(void*), void* argument) noexcept;

// Returns 1 if the id, one of YIF_CurrentTaskIdCoop, belongs to a task of the parent that this
// process did not get in its fork, else 0.
int YfStayedInParent(unsigned long task) noexcept;

// Take a lock of ysys.h if that needs no wait: a mutex, a critical section, and a cooperative event
// as the ticket of a lock. Return 1 if the calling task has it then, or has it once more, else 0. A
// ticket is never taken twice.
int YfTryEnterMutex(unsigned int mutex) noexcept;
int YfTryEnterCriticalSection(unsigned int section) noexcept;
int YfTryWaitEventCoop(unsigned int event) noexcept;

// Returns the number of the process that the tools of the system show.
unsigned long YfProcessId() noexcept;

// A file that is written as a whole. YfBeginFile opens a file for the content of `path`; "-" is the
// standard output. Returns its descriptor, or -1 if it cannot be opened. The file is created beside
// `path` under a name that is stored in `beside`, which has `room` bytes. If none can be created
// there, and if `path` is not a regular file, `path` itself is written, and `beside` is empty.
int YfBeginFile(const char* path, char* beside, unsigned int room) noexcept;
// Returns 0, or another number if not all bytes can be written.
int YfAppend(int file, const void* bytes, unsigned int count) noexcept;
// Closes the file and gives it the name `path`, or deletes it if `isWhole` is 0. Returns 0 if
// `path` has the whole content.
int YfEndFile(int file, const char* path, const char* beside, int isWhole) noexcept;

// Lets note(number) handle the signal with that name, such as "USR2". Returns the number; 0 if
// there is no such signal or it cannot be handled. Requires: `note` does only what a handler may
// do.
int YfOnSignal(const char* name, void (*note)(int)) noexcept;

// Stops the notifications of task start and end for the library that contains the address. This
// system has none, so it does nothing. Returns 1.
int DisableThreadLibraryCalls(void* library) noexcept;

// The runtime library's assertion report. Does what YfAssert__ does.
void _assert(const char* condition, const char* file, unsigned int line) noexcept;

// --- Tools that check memory: the address sanitizer, and valgrind's memory checker ---

// Returns 1 if such a tool observes the process, else 0. Always the same in one process. 0 if the
// environment variable YSYS_MEMORY_TOOLS is "off".
int YfHasMemoryTool() noexcept;
// Returns the bytes that an arena holds back after they were freed, while a tool observes the
// process: the number that the environment variable YSYS_QUARANTINE contains, else 262144.
unsigned YfQuarantineBytes() noexcept;

// A block of memory as the tool sees it. Without a tool these do nothing.
//
// YfMarkChunk: the memory belongs to an allocator, and no access is allowed. YfUnmarkChunk: all of
// it is allowed again. YfMarkBusy: the program may use exactly these bytes; their contents are not
// defined. YfMarkFree: the block may be used no longer; `blockSize` bytes from there are forbidden.
// `isOutermost` is 0 if the memory lies in a block of another allocator that the tool knows: then
// valgrind does not count it as a block of its own, which could be leaked.
void YfMarkChunk(void* memory, std::size_t size) noexcept;
void YfUnmarkChunk(void* memory, std::size_t size) noexcept;
void YfMarkBusy(void* memory, std::size_t size, int isOutermost) noexcept;
void YfMarkFree(void* memory, std::size_t blockSize, int isOutermost) noexcept;
// Lets the tool report that memory is freed that is not busy. The sanitizer reports only an address
// that is forbidden, and stops the process. Requires: the task has paused the tool, once.
void YfReportWrongFree(void* memory) noexcept;

// Between the two calls valgrind reports no error of the calling task. Calls may be nested.
void YfPauseMemoryTool() noexcept;
void YfResumeMemoryTool() noexcept;

// Returns zero-filled memory from the system, which is never freed and not from YIF_MemAlloc. Null
// if there is none.
void* YfMapPages(std::size_t size) noexcept;

}  // extern "C"
#pragma GCC visibility pop
