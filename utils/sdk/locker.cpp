// locker.cpp: the locks and their lines in the log.
#include "utils/sdk/locker.h"

#include <new>

#include "utils/sdk/sharers.h"
#include "utils/sdk/trace.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/locker";

constinit Sharers _mutexes;
constinit Sharers _sections;

// Requires: traces(level).
void print(TraceLevel level, unsigned line, const char* format, YIF_Handle handle) {
  const auto task = static_cast<int>(YIF_CurrentTaskId());
  Log::theLog()->print(Debug, "utils", level, SOURCE, line, format, task,
                       static_cast<long>(handle));
}

}  // namespace

Lock::~Lock() {}

void* Lock::operator new(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

void Lock::operator delete(void* mem) noexcept { ::operator delete(mem); }

// --- Mutex ---

namespace {

void endMutex(YIF_Handle handle) {
  if (traces(TRACE_LIFETIME)) print(TRACE_LIFETIME, __LINE__, "%d Destroying mutex %ld", handle);
  YIF_DestroyMutex(handle);
}

}  // namespace

Mutex::Mutex() : handle_(YIF_CreateMutex()) {
  if (traces(TRACE_LIFETIME)) print(TRACE_LIFETIME, __LINE__, "%d Created mutex %ld", handle_);
}

Mutex::Mutex(const Mutex& other) : Lock(other), handle_(other.handle_) { _mutexes.add(handle_); }

Mutex& Mutex::operator=(const Mutex& other) {
  handle_ = shareInstead(_mutexes, handle_, other.handle_, endMutex);
  return *this;
}

Mutex::~Mutex() {
  if (_mutexes.remove(handle_)) endMutex(handle_);
}

void Mutex::enter() const {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Waiting for mutex %ld", handle_);
  YIF_EnterMutex(handle_);
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Got mutex %ld", handle_);
}

void Mutex::exit() const {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Exiting mutex %ld", handle_);
  YIF_ExitMutex(handle_);
}

// --- CriticalSection ---

namespace {

void endSection(YIF_Handle handle) {
  if (traces(TRACE_LIFETIME))
    print(TRACE_LIFETIME, __LINE__, "%d Destroying critical section %ld", handle);
  YIF_DestroyCriticalSection(handle);
}

}  // namespace

CriticalSection::CriticalSection() : handle_(YIF_CreateCriticalSection()) {
  if (traces(TRACE_LIFETIME))
    print(TRACE_LIFETIME, __LINE__, "%d Created critical section %ld", handle_);
}

CriticalSection::CriticalSection(const CriticalSection& other)
    : Lock(other), handle_(other.handle_) {
  _sections.add(handle_);
}

CriticalSection& CriticalSection::operator=(const CriticalSection& other) {
  handle_ = shareInstead(_sections, handle_, other.handle_, endSection);
  return *this;
}

CriticalSection::~CriticalSection() {
  if (_sections.remove(handle_)) endSection(handle_);
}

void CriticalSection::enter() const {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Waiting for critical section %ld", handle_);
  YIF_EnterCriticalSection(handle_);
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Got critical section %ld", handle_);
}

void CriticalSection::exit() const {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, "%d Exiting critical section %ld", handle_);
  YIF_ExitCriticalSection(handle_);
}

// --- Locker ---

namespace {

// Requires: traces(TRACE_USE).
void print(unsigned line, const char* format, const char* takenIn, unsigned takenAt) {
  const auto task = static_cast<int>(YIF_CurrentTaskId());
  Log::theLog()->print(Debug, "utils", TRACE_USE, SOURCE, line, format, task, takenIn,
                       static_cast<int>(takenAt));
}

}  // namespace

Locker::Locker(Lock* lock, const char* file, unsigned line)
    : lock_(lock), file_(file), line_(line) {
  if (traces(TRACE_USE)) print(__LINE__, "%d Taking lock at file:'%s', line:%d", file_, line_);
  lock_->enter();
}

Locker::~Locker() {
  if (traces(TRACE_USE))
    print(__LINE__, "%d Freeing lock taken at file:'%s', line:%d", file_, line_);
  lock_->exit();
}

}  // namespace Utils
