// SPDX-License-Identifier: MIT
// The system interface: the library uses the operating system only through it, the services of
// platform.h and the runtime library.
//
// 29 plain functions in nine families and one assertion report. `ysys/` implements them for Linux;
// the library runs on every system for which these contracts are kept. No operation logs, throws,
// or uses the library's allocation operators. All operations work from the moment the library is
// loaded.
//
// In the child of a fork the task that forked keeps its identity and all that it held, as often as
// it had entered; scopes may span the fork, and handlers of pthread_atfork may enter before it and
// leave after it. Locks that other tasks held are free. Set events stay set, and no task waits.
//
// No operation is a cancellation point: a task that is cancelled in an operation finishes it, and a
// task that is cancelled while it waits continues to wait.
//
// An operation that cannot report failure to its caller (a lock that cannot be created, a handle
// that is stale or of another kind) reports it on standard error and stops the process.
//
// Thread safety: all operations may be called from several tasks at once.
#pragma once

// A system object: a mutex, a critical section, an event, a cooperative event or a file. Opaque,
// never 0, below 2^31, for the operations of its own family only, and stale once the object was
// destroyed. A stale handle is recognised until at least 16128 more objects of its kind were
// created; then a new object may get the same handle (earlier only if memory for handles runs out).
// Only the file family has an invalid value, YIF_NO_FILE.
using YIF_Handle = unsigned int;

constexpr YIF_Handle YIF_NO_FILE = 0xffffffffu;

#pragma GCC visibility push(default)
extern "C" {

// --- Task identity ---

// Returns the number of the calling task that the library and the tools of the system show to
// people. In the child of a fork it is a new one.
unsigned long YIF_CurrentTaskId() noexcept;

// Returns the identity of the calling task, for comparison: constant for the life of the task,
// different from that of every other living task of the process, never (unsigned long)-1. May be
// reused after the task has ended. The task that forks keeps its identity in the child.
unsigned long YIF_CurrentTaskIdCoop() noexcept;

// --- Mutexes and critical sections: recursive, a task exits as often as it entered ---

YIF_Handle YIF_CreateMutex() noexcept;
void YIF_DestroyMutex(YIF_Handle mutex) noexcept;  // Requires: no task holds it or waits for it
void YIF_EnterMutex(YIF_Handle mutex) noexcept;    // blocks until the calling task holds it
void YIF_ExitMutex(YIF_Handle mutex) noexcept;     // Requires: held by the calling task

YIF_Handle YIF_CreateCriticalSection() noexcept;
void YIF_DestroyCriticalSection(YIF_Handle section) noexcept;  // Requires: as for a mutex
void YIF_EnterCriticalSection(YIF_Handle section) noexcept;
void YIF_ExitCriticalSection(YIF_Handle section) noexcept;

// --- Events ---

// A manual-reset event stays set until it is reset; a set releases every waiting task, even if a
// reset follows at once. An auto-reset event clears itself when it releases a task. Each set
// releases one waiting task; a set without a waiting task is remembered for the next wait. At most
// one is remembered. Both arguments are 0 or 1.
YIF_Handle YIF_CreateEvent(int manualReset, int initiallySet) noexcept;
void YIF_DestroyEvent(YIF_Handle event) noexcept;  // Requires: no task waits
void YIF_SetEvent(YIF_Handle event) noexcept;
void YIF_ResetEvent(YIF_Handle event) noexcept;
void YIF_WaitEvent(YIF_Handle event) noexcept;

// Waits for at most `seconds`: not at all for 0, a negative value or a NaN, without limit for
// infinity. Returns 1 if the event released this task, 0 if the time ran out.
int YIF_WaitEventTimed(YIF_Handle event, double seconds) noexcept;

// The same for cooperative events, which have no reset and no timed wait. A task that starts to
// wait may be released before one that waits already. A cooperative event that is created with the
// arguments 0 and 1 is the ticket of a lock: in the child of a fork it is clear only if the task
// that forked was the last that it released and no task has set it since.
YIF_Handle YIF_CreateEventCoop(int manualReset, int initiallySet) noexcept;
void YIF_DestroyEventCoop(YIF_Handle event) noexcept;
void YIF_SetEventCoop(YIF_Handle event) noexcept;
void YIF_WaitEventCoop(YIF_Handle event) noexcept;

// --- Raw memory ---

// Reserves the address window from which memory is allocated; further calls do nothing. The first
// YIF_MemAlloc reserves it if this was not called. The argument is 0.
void YIF_MemInit(unsigned int flags) noexcept;

// Returns `size` zero-filled bytes, aligned to 16 and never freed; null if there is no memory.
// Sizes are rounded up to 16 (0 counts as 1). Up to 2^26 bytes come from the window, each request
// directly after the one before; a larger request gets a mapping of its own, so that it never lies
// between two chunks. The window takes at most half of the addresses that a limit on the address
// space leaves when it is reserved, and at most 4 GiB (1 GiB with 32-bit pointers); it does not
// grow.
void* YIF_MemAlloc(unsigned int size) noexcept;

// --- Configuration ---

// A setting is looked up as the environment variable with the name of the key, else as the variable
// with '_' for each '.', else as a line `key = value` of the regular file that the variable
// YSYS_CONFIG names. A file of another kind, and one that cannot be read, is reported once on
// standard error and has no settings. In the file, a UTF-8 byte order mark at the start, white
// space around key and value, and lines that begin with '#' are ignored, and the first line with
// the key decides. A program that runs with more rights than its caller has no settings.

// Stores the decimal number and returns 0. Returns non-zero, `value` unchanged, if there is no such
// setting. A text that is not a 32-bit number is reported once on standard error and counts as
// none.
int YIF_GetConfigNumber(const char* key, int* value) noexcept;

// Copies the text and its terminator to `buffer` and returns 0. Returns non-zero, `buffer`
// unchanged, if there is no such setting. A text that has more than `capacity` bytes, with its
// terminator, is reported once and counts as none.
int YIF_GetConfigString(const char* key, char* buffer, unsigned int capacity) noexcept;

// --- Time ---

// Returns the seconds since the start of 1970, UTC, with the fraction of the system's clock.
double YIF_CurrentTime() noexcept;

// --- Files ---

constexpr int YIF_OPEN_REPLACE = 2;  // deletes the content of the file
constexpr int YIF_OPEN_APPEND = 4;   // keeps the content; each write appends

// Opens a file for writing and creates it if it is missing (mode 0666 less the umask); programs
// that the process starts do not inherit it. Every mode except YIF_OPEN_REPLACE keeps the content;
// all append. `share` is 1. Returns YIF_NO_FILE if it cannot be opened, such as a FIFO without a
// reader.
YIF_Handle YIF_Open(const char* path, int mode, int share) noexcept;

// Writes all bytes, in one system call unless the system writes them in parts; bytes that cannot be
// written are dropped. A pipe without a reader raises no signal, nor does the limit on file sizes
// if the file was opened while the limit was set.
void YIF_Write(YIF_Handle file, const void* bytes, unsigned int count) noexcept;
void YIF_Flush(YIF_Handle file) noexcept;  // passes all written bytes to the system
void YIF_Close(YIF_Handle file) noexcept;

// --- Assertion ---

// Reports on standard error that `condition` does not hold at `line` of `file`, and stops the
// process. The caller has tested the condition. Two conditions report that memory has run out,
// "m" of utils/sdk/allocator and "h" of utils/sdk/alloc: for each of them only the first call
// prints, and every call returns. If the environment variable YSYS_ASSERT is "continue", every call
// prints and returns; if it is "stop", every call prints and stops the process.
void YfAssert__(const char* condition, const char* file, unsigned int line) noexcept;

}  // extern "C"
#pragma GCC visibility pop
