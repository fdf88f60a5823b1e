// SPDX-License-Identifier: MIT
// The system interface, the only way in which the library asks the operating system.
//
// 29 plain functions in nine families and one assertion report; `ysys/` keeps these promises on
// POSIX, and any system that keeps them carries the whole library. Nothing here logs, throws, or
// uses the library's allocation operators. All of it works from the moment the library is loaded,
// and may be called from several tasks at once.
//
// In the child of a fork the task that forked keeps its identity and all that it held, as often as
// it had entered; scopes may span the fork, and handlers of pthread_atfork may enter before it and
// leave after it. Locks of other tasks are free. Set events stay set, and nobody waits.
//
// No operation is a cancellation point: a task that is cancelled in one finishes it, and one that
// is cancelled while it waits goes on waiting.
//
// What cannot be done for a caller who has no way to hear of it (a lock that cannot be made, a
// handle that is stale or of another kind) is told on standard error and stops the process.
#pragma once

// A system object: a mutex, a critical section, an event, a cooperative event or a file. Opaque,
// never 0, below 2^31; of use only to the operations of its own family, and stale once it was
// ended. A stale handle is recognised as such until at least 16128 more objects of its kind were
// created; then a new object may get it (earlier only if memory for handles runs out). The file
// family alone has an invalid value, YIF_NO_FILE.
using YIF_Handle = unsigned int;

constexpr YIF_Handle YIF_NO_FILE = 0xffffffffu;

#pragma GCC visibility push(default)
extern "C" {

// --- Task identity ---

// The number of the calling task that people see, here and in the system's own tools. The child of
// a fork has a new one.
unsigned long YIF_CurrentTaskId() noexcept;

// The identity of the calling task that logic compares: constant for its life, different from that
// of every other living task of the process, never (unsigned long)-1. May be given again after the
// task has ended. The task that forks has the same one in the child.
unsigned long YIF_CurrentTaskIdCoop() noexcept;

// --- Mutexes and critical sections: recursive, a task leaves as often as it entered ---

YIF_Handle YIF_CreateMutex() noexcept;
void YIF_DestroyMutex(YIF_Handle mutex) noexcept;  // requires: no task holds it or waits for it
void YIF_EnterMutex(YIF_Handle mutex) noexcept;    // blocks until the calling task holds it
void YIF_ExitMutex(YIF_Handle mutex) noexcept;     // requires: held by the calling task

YIF_Handle YIF_CreateCriticalSection() noexcept;
void YIF_DestroyCriticalSection(YIF_Handle section) noexcept;  // requires: as for a mutex
void YIF_EnterCriticalSection(YIF_Handle section) noexcept;
void YIF_ExitCriticalSection(YIF_Handle section) noexcept;

// --- Events ---

// A manual-reset event stays set until it is reset, and setting it lets every waiting task through,
// also when it is reset at once. Any other clears itself as it lets one task through: each set lets
// one waiting task through, and a set that finds none is kept for the next wait, one at the most.
// Both arguments are 0 or 1.
YIF_Handle YIF_CreateEvent(int manualReset, int initiallySet) noexcept;
void YIF_DestroyEvent(YIF_Handle event) noexcept;  // requires: no task waits
void YIF_SetEvent(YIF_Handle event) noexcept;
void YIF_ResetEvent(YIF_Handle event) noexcept;
void YIF_WaitEvent(YIF_Handle event) noexcept;

// Waits for at most `seconds`: not at all for 0, a negative value or a NaN, without end for
// infinity. Gives 1 when the event let this task through, 0 when the time ran out.
int YIF_WaitEventTimed(YIF_Handle event, double seconds) noexcept;

// The same for cooperative events, which are never reset and never waited for with a limit. There a
// task that just comes to wait may go through in place of one that waits. One that is created with
// the arguments 0 and 1 is the ticket of a lock: in the child of a fork it is clear only if the
// task that forked went through and nobody has set it since.
YIF_Handle YIF_CreateEventCoop(int manualReset, int initiallySet) noexcept;
void YIF_DestroyEventCoop(YIF_Handle event) noexcept;
void YIF_SetEventCoop(YIF_Handle event) noexcept;
void YIF_WaitEventCoop(YIF_Handle event) noexcept;

// --- Raw memory ---

// Reserves the address window that memory is handed out from; further calls change nothing. The
// argument is 0.
void YIF_MemInit(unsigned int flags) noexcept;

// `size` bytes, cleared, aligned to 16, never given back; null when there is none. Sizes are
// rounded up to 16 (0 counts as 1). Up to 2^26 bytes come from the window, each behind the one
// before without a gap; a larger request gets a mapping of its own, so that it never stands between
// two chunks. The window takes at most half of the addresses that a limit leaves when it is
// reserved, and at most 4 GiB (1 GiB with 32-bit pointers); it does not grow.
void* YIF_MemAlloc(unsigned int size) noexcept;

// --- Configuration ---

// A setting is looked up as the environment variable named exactly as the key, else as the one with
// '_' for each '.', else as a line `key = value` of the regular file that the variable YSYS_CONFIG
// names. Any other file, and one that cannot be read, is reported once on standard error and has no
// settings. In the file a UTF-8 byte order mark at the start and white space around key and value
// do not count, lines that begin with '#' do not either, and the first line with the key decides. A
// program that runs with more rights than its caller sees no settings.

// Stores the decimal number and gives 0; gives non-zero, `value` untouched, when the setting is
// absent. A text that is no 32-bit number is told on standard error, once, and counts as absent.
int YIF_GetConfigNumber(const char* key, int* value) noexcept;

// Copies the text and its terminator to `buffer` and gives 0; gives non-zero, `buffer` untouched,
// when the setting is absent. A text that `capacity` bytes do not hold is told once and counts as
// absent.
int YIF_GetConfigString(const char* key, char* buffer, unsigned int capacity) noexcept;

// --- Time ---

// Seconds since the start of 1970, UTC, with the fraction that the clock has.
double YIF_CurrentTime() noexcept;

// --- Files ---

constexpr int YIF_OPEN_REPLACE = 2;  // what the file holds goes
constexpr int YIF_OPEN_APPEND = 4;   // what the file holds stays, each write lands behind it

// Opens for writing, made where missing (mode 0666 less the umask), not passed on to programs that
// are started. Any mode but YIF_OPEN_REPLACE keeps the content; all append. `share` is 1. Gives
// YIF_NO_FILE when it cannot, as for a FIFO that nobody reads.
YIF_Handle YIF_Open(const char* path, int mode, int share) noexcept;

// Writes all bytes, in one system call unless the system takes them in parts; what cannot be
// written is dropped. A reader that has gone raises no signal, nor does the limit on file sizes if
// the file was opened under it.
void YIF_Write(YIF_Handle file, const void* bytes, unsigned int count) noexcept;
void YIF_Flush(YIF_Handle file) noexcept;  // what was written is with the system then
void YIF_Close(YIF_Handle file) noexcept;

// --- Assertion ---

// Prints on standard error that `condition` does not hold at `line` of `file`, and stops the
// process. Called when the test failed. Two conditions report that memory has run out, "m" of
// utils/sdk/allocator and "h" of utils/sdk/alloc: for each of them the first call prints, and every
// call returns. With the environment variable YSYS_ASSERT set to "continue" all calls print and
// return; set to "stop", all print and stop the process.
void YfAssert__(const char* condition, const char* file, unsigned int line) noexcept;

}  // extern "C"
#pragma GCC visibility pop
