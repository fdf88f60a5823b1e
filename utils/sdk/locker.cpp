// SPDX-License-Identifier: MIT
// The locks and their lines in the log. Both kinds run the same steps.
#include "utils/sdk/locker.h"

#include "utils/sdk/logging/trace.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/sync/shared_handles.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/locker";

// --- Steps, with their lines ---

struct MutexKind {
  static constexpr auto CREATE = YIF_CreateMutex;
  static constexpr auto DESTROY = YIF_DestroyMutex;
  static constexpr auto ENTER = YIF_EnterMutex;
  static constexpr auto TRY = YfTryEnterMutex;
  static constexpr auto EXIT = YIF_ExitMutex;
  static constexpr char CREATED[] = "%d Created mutex %ld";
  static constexpr char DESTROYING[] = "%d Destroying mutex %ld";
  static constexpr char ENTERING[] = "%d Waiting for mutex %ld";
  static constexpr char ENTERED[] = "%d Got mutex %ld";
  static constexpr char EXITING[] = "%d Exiting mutex %ld";

  static inline constinit SharedHandles shared_;
};

struct SectionKind {
  static constexpr auto CREATE = YIF_CreateCriticalSection;
  static constexpr auto DESTROY = YIF_DestroyCriticalSection;
  static constexpr auto ENTER = YIF_EnterCriticalSection;
  static constexpr auto TRY = YfTryEnterCriticalSection;
  static constexpr auto EXIT = YIF_ExitCriticalSection;
  static constexpr char CREATED[] = "%d Created critical section %ld";
  static constexpr char DESTROYING[] = "%d Destroying critical section %ld";
  static constexpr char ENTERING[] = "%d Waiting for critical section %ld";
  static constexpr char ENTERED[] = "%d Got critical section %ld";
  static constexpr char EXITING[] = "%d Exiting critical section %ld";

  static inline constinit SharedHandles shared_;
};

// Requires: traces(level).
[[gnu::noinline]] void print(TraceLevel level, unsigned line, const char* format,
                             YIF_Handle handle) {
  const auto task = static_cast<int>(YIF_CurrentTaskId());
  Log::theLog()->print(Debug, LIBRARY_CATEGORY, level, SOURCE, line, format, task,
                       static_cast<long>(handle));
}

template <class Kind>
YIF_Handle create() {
  const YIF_Handle handle = Kind::CREATE();
  if (traces(TRACE_LIFETIME)) print(TRACE_LIFETIME, __LINE__, Kind::CREATED, handle);
  return handle;
}

template <class Kind>
void destroy(YIF_Handle handle) {
  if (traces(TRACE_LIFETIME)) print(TRACE_LIFETIME, __LINE__, Kind::DESTROYING, handle);
  Kind::DESTROY(handle);
}

template <class Kind>
YIF_Handle share(YIF_Handle handle) {
  Kind::shared_.add(handle);
  return handle;
}

template <class Kind>
YIF_Handle reassign(YIF_Handle own, YIF_Handle other) {
  return reassign(Kind::shared_, own, other, destroy<Kind>);
}

template <class Kind>
void release(YIF_Handle handle) {
  if (Kind::shared_.remove(handle)) destroy<Kind>(handle);
}

template <class Kind>
void enter(YIF_Handle handle) {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, Kind::ENTERING, handle);
  Kind::ENTER(handle);
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, Kind::ENTERED, handle);
}

template <class Kind>
bool tryEnter(YIF_Handle handle) {
  const bool entered = Kind::TRY(handle) != 0;
  if (entered && traces(TRACE_USE)) print(TRACE_USE, __LINE__, Kind::ENTERED, handle);
  return entered;
}

template <class Kind>
void exit(YIF_Handle handle) {
  if (traces(TRACE_USE)) print(TRACE_USE, __LINE__, Kind::EXITING, handle);
  Kind::EXIT(handle);
}

}  // namespace

// --- The locks ---

Lock::~Lock() {}

void* Lock::operator new(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

void Lock::operator delete(void* mem) noexcept { ::operator delete(mem); }

Mutex::Mutex() : handle_(create<MutexKind>()) {}

Mutex::Mutex(const Mutex& other) : Lock(other), handle_(share<MutexKind>(other.handle_)) {}

Mutex& Mutex::operator=(const Mutex& other) {
  handle_ = reassign<MutexKind>(handle_, other.handle_);
  return *this;
}

Mutex::~Mutex() { release<MutexKind>(handle_); }

void Mutex::enter() const { Utils::enter<MutexKind>(handle_); }

bool Mutex::try_lock() const { return tryEnter<MutexKind>(handle_); }

void Mutex::exit() const { Utils::exit<MutexKind>(handle_); }

CriticalSection::CriticalSection() : handle_(create<SectionKind>()) {}

CriticalSection::CriticalSection(const CriticalSection& other)
    : Lock(other), handle_(share<SectionKind>(other.handle_)) {}

CriticalSection& CriticalSection::operator=(const CriticalSection& other) {
  handle_ = reassign<SectionKind>(handle_, other.handle_);
  return *this;
}

CriticalSection::~CriticalSection() { release<SectionKind>(handle_); }

void CriticalSection::enter() const { Utils::enter<SectionKind>(handle_); }

bool CriticalSection::try_lock() const { return tryEnter<SectionKind>(handle_); }

void CriticalSection::exit() const { Utils::exit<SectionKind>(handle_); }

// --- Locker ---

namespace {

// Requires: traces(TRACE_USE).
void print(unsigned line, const char* format, const char* takenIn, unsigned takenAt) {
  const auto task = static_cast<int>(YIF_CurrentTaskId());
  Log::theLog()->print(Debug, LIBRARY_CATEGORY, TRACE_USE, SOURCE, line, format, task, takenIn,
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
