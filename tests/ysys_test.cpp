// SPDX-License-Identifier: MIT
// The system interface, asked what it promises: by real threads, forked processes, files and pipes.
#include "utils/sdk/ysys.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "utils/sdk/platform.h"

namespace {

using namespace std::chrono_literals;

[[maybe_unused]] const unsigned _watchdog = alarm(120);  // a test that hangs ends by a signal
const bool _isSanitized = dlsym(RTLD_DEFAULT, "__sanitizer_print_stack_trace") != nullptr;

bool comesTrue(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

bool isAsleep(unsigned long task) {
  std::ifstream file("/proc/self/task/" + std::to_string(task) + "/stat");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return text.find(") S ") != std::string::npos;
}

// Threads that all do the same, each with its number; they are joined at the end.
struct Tasks {
  Tasks(unsigned count, const std::function<void(unsigned)>& body) : ids_(count) {
    for (unsigned i = 0; i < count; ++i) {
      threads_.emplace_back([this, i, body] {
        ids_[i] = YIF_CurrentTaskId();
        body(i);
      });
    }
  }
  void join() { threads_.clear(); }
  bool fallAsleep() const {
    return std::ranges::all_of(ids_, [](const std::atomic<unsigned long>& id) {
      return comesTrue([&] { return id != 0 && isAsleep(id); });
    });
  }

  std::vector<std::atomic<unsigned long>> ids_;
  std::vector<std::jthread> threads_;
};

// Sets a variable of the environment until the result is destroyed.
std::shared_ptr<const char> variable(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);
  return {name, unsetenv};
}

// The handler of the stop may use the layer.
void expectStop(const std::function<void()>& action, const std::string& message) {
  const auto child = runInChild([&] {
    signal(SIGABRT, [](int) {
      YIF_DestroyMutex(YIF_CreateMutex());
      YIF_DestroyEvent(YIF_CreateEvent(0, 0));
      YIF_Close(YIF_Open("/dev/null", YIF_OPEN_APPEND, 1));
    });
    action();
    return 0;
  });
  EXPECT_EQ(child.status, -SIGABRT) << message;
  EXPECT_THAT(child.errorOutput, testing::StartsWith(message));
}

// --- Task identity ---

TEST(TaskId, DiffersAmongLivingTasksAndStaysInTheChildOfAFork) {
  const unsigned long mine = YIF_CurrentTaskIdCoop();
  std::set<unsigned long> ids = {mine, static_cast<unsigned long>(-1)};
  std::atomic<unsigned long> theirs[8];
  std::atomic<int> arrived{0};
  Tasks(8, [&](unsigned i) {
    theirs[i] = YIF_CurrentTaskIdCoop();
    ++arrived;
    EXPECT_TRUE(comesTrue([&] { return arrived == 8; }));
    EXPECT_EQ(YIF_CurrentTaskIdCoop(), theirs[i]);
  });
  ids.insert(std::begin(theirs), std::end(theirs));
  EXPECT_EQ(ids.size(), 10u);
  EXPECT_EQ(YIF_CurrentTaskId(), static_cast<unsigned long>(gettid()));
  expectInChild([&] {
    EXPECT_EQ(YIF_CurrentTaskId(), static_cast<unsigned long>(gettid()));
    EXPECT_EQ(YIF_CurrentTaskIdCoop(), mine);
  });
}

// --- Mutexes and critical sections ---

struct LockKind {
  YIF_Handle (*create)() noexcept;
  void (*destroy)(YIF_Handle) noexcept;
  void (*enter)(YIF_Handle) noexcept;
  void (*exit)(YIF_Handle) noexcept;
};

// An event that is set serves as the ticket of a lock.
constexpr LockKind LOCKS[] = {{YIF_CreateMutex, YIF_DestroyMutex, YIF_EnterMutex, YIF_ExitMutex},
                              {YIF_CreateCriticalSection, YIF_DestroyCriticalSection,
                               YIF_EnterCriticalSection, YIF_ExitCriticalSection},
                              {[]() noexcept { return YIF_CreateEvent(0, 1); }, YIF_DestroyEvent,
                               YIF_WaitEvent, YIF_SetEvent},
                              {[]() noexcept { return YIF_CreateEventCoop(0, 1); },
                               YIF_DestroyEventCoop, YIF_WaitEventCoop, YIF_SetEventCoop}};

TEST(Locks, LikeTicketsLetOneTaskIn) {
  for (const LockKind& kind : LOCKS) {
    const YIF_Handle lock = kind.create();
    int count = 0;
    Tasks(4, [&](unsigned) {
      for (int i = 0; i < 10000; ++i) {
        kind.enter(lock);
        ++count;
        kind.exit(lock);
      }
    });
    EXPECT_EQ(count, 40000);
    kind.destroy(lock);
  }
}

TEST(Locks, AreLeftByTheirHolderOnly) {
  const auto goOn = variable("YSYS_ASSERT", "continue");
  for (const LockKind& kind : {LOCKS[0], LOCKS[1]}) {
    const YIF_Handle lock = kind.create();
    testing::internal::CaptureStderr();
    kind.enter(lock);
    Tasks(1, [&](unsigned) { kind.exit(lock); });
    kind.exit(lock);
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        testing::MatchesRegex("assertion failed: held by the calling task, ysys/lock:[0-9]+\n"));
    kind.destroy(lock);
  }
}

// --- Handles ---

TEST(Handles, OfLivingObjectsDifferAndOldOnesDoNotComeBackSoon) {
  std::set<YIF_Handle> living, seen;
  while (living.size() < 700) living.insert(YIF_CreateEvent(0, 0));
  seen = living;
  for (int i = 0; i < 16128; ++i) {
    const YIF_Handle event = YIF_CreateEvent(0, 1);
    EXPECT_TRUE(seen.insert(event).second);
    EXPECT_TRUE(event != 0 && event < 0x80000000u);
    EXPECT_EQ(YIF_WaitEventTimed(event, 0), 1);
    YIF_DestroyEvent(event);
  }
  const YIF_Handle event = *living.insert(YIF_CreateEvent(0, 0)).first;
  const auto formerlyInItsPlace = std::ranges::find_if(
      seen, [&](YIF_Handle each) { return each % (1u << 22) == event % (1u << 22); });
  ASSERT_NE(formerlyInItsPlace, seen.end());
  expectStop([&] { YIF_SetEvent(*formerlyInItsPlace); }, "ysys: YIF_SetEvent: 0x3");
}

TEST(Handles, StaleAndForeignOnesAreCaught) {
  const YIF_Handle event = YIF_CreateEvent(0, 0), mutex = YIF_CreateMutex();
  const YIF_Handle section = YIF_CreateCriticalSection(), coop = YIF_CreateEventCoop(0, 1);
  YIF_DestroyEvent(event);
  YIF_DestroyMutex(mutex);
  expectStop([&] { YIF_SetEvent(event); }, "ysys: YIF_SetEvent: 0x3");
  expectStop([&] { YIF_DestroyEvent(event); }, "ysys: YIF_DestroyEvent: 0x3");
  expectStop([&] { YIF_DestroyMutex(mutex); }, "ysys: YIF_DestroyMutex: 0x1");
  expectStop([&] { YIF_EnterMutex(mutex); }, "ysys: YIF_EnterMutex: 0x1");
  expectStop([&] { YIF_EnterMutex(section); }, "ysys: YIF_EnterMutex: 0x2");
  expectStop([&] { YIF_WaitEvent(coop); }, "ysys: YIF_WaitEvent: 0x4");
  expectStop([&] { YIF_SetEventCoop(0); }, "ysys: YIF_SetEventCoop: 0x0 is no handle");
  expectStop([] { YIF_Write(YIF_NO_FILE, "x", 1); }, "ysys: YIF_Write: 0xffffffff is no handle");
}

TEST(Handles, AreRefusedWithoutMemoryForThem) {
  if (_isSanitized) GTEST_SKIP() << "a sanitizer needs the memory that is refused here";
  const auto child = runInChild([] {
    const rlimit none = {1, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &none);
    for (YIF_Handle file = 1; file != YIF_NO_FILE;) {
      file = YIF_Open("/dev/null", YIF_OPEN_APPEND, 1);
      if (file == 0) return 1;
    }
    while (true) YIF_CreateMutex();
    return 0;
  });
  EXPECT_EQ(child.status, -SIGABRT);
  EXPECT_EQ(child.errorOutput, "ysys: YIF_CreateMutex: no room for another lock\n");
}

// --- Events ---

struct Event {
  Event(int manualReset, int initiallySet) : handle_(YIF_CreateEvent(manualReset, initiallySet)) {}
  void set() { YIF_SetEvent(handle_); }
  void reset() { YIF_ResetEvent(handle_); }
  void wait() { YIF_WaitEvent(handle_); }
  int wait(double seconds) { return YIF_WaitEventTimed(handle_, seconds); }

  YIF_Handle handle_;
};

// Six tasks wait; three sets let three of them through, three more the rest. What they have coming
// no newcomer takes and no reset, where there are such. A limit of 31 years is none. A set without
// a waiting task is remembered once, until a wait or a reset.
TEST(Events, LetOneWaiterThroughForEachSet) {
  Event event(0, 0);
  const YIF_Handle coop = YIF_CreateEventCoop(0, 0);
  for (bool isCoop : {false, true, false, true, false, false}) {
    std::atomic<int> through{0};
    Tasks waiting(6, [&](unsigned i) {
      const double limits[] = {INFINITY, 1e300, 9.3e9, 1e9};
      if (isCoop) YIF_WaitEventCoop(coop);
      if (!isCoop && i >= 4) event.wait();
      through += isCoop || i >= 4 || event.wait(limits[i]) == 1;
    });
    EXPECT_TRUE(waiting.fallAsleep());
    for (int expected : {3, 6}) {
      for (int i = 0; i < 3; ++i) isCoop ? YIF_SetEventCoop(coop) : event.set();
      if (expected == 3) event.reset();
      EXPECT_EQ(event.wait(0), 0);
      EXPECT_TRUE(comesTrue([&] { return through == expected; }));
      std::this_thread::sleep_for(20ms);
      EXPECT_EQ(through, expected);
    }
    for (int remembered : {1, 0}) {
      for (int i = 0; i < 2; ++i) event.set();
      if (remembered == 0) event.reset();
      EXPECT_EQ(event.wait(0), remembered);
      EXPECT_EQ(event.wait(0), 0);
    }
  }
  YIF_DestroyEventCoop(coop);
}

TEST(Events, ManualSetLetsAllThroughThoughResetAtOnce) {
  Event event(1, 0);
  for (int i = 0; i < 20; ++i) {
    Tasks waiting(3, [&](unsigned) { EXPECT_EQ(event.wait(10), 1); });
    EXPECT_TRUE(waiting.fallAsleep());
    event.set();
    event.reset();
    waiting.join();
    EXPECT_EQ(event.wait(0), 0);
  }
}

TEST(Events, TimedWaitEndsInTimeAndSleeps) {
  for (int manualReset : {0, 1}) {
    Event event(manualReset, 0);
    const auto begun = std::chrono::steady_clock::now();
    const auto passed = [&] { return (std::chrono::steady_clock::now() - begun) / 1.0s; };
    const clock_t busy = clock();
    for (double none : {0.0, -1.0, -HUGE_VAL, std::nan(""), 1e-12}) EXPECT_EQ(event.wait(none), 0);
    EXPECT_LT(passed(), 0.1);
    EXPECT_EQ(event.wait(0.2), 0);
    EXPECT_GE(passed(), 0.2);
    EXPECT_LT(passed(), 2);
    EXPECT_LT(clock() - busy, CLOCKS_PER_SEC / 10);
    event.set();
    EXPECT_EQ(event.wait(1e-12), 1);
  }
}

#ifdef SYS_futex_time64
// Makes the kernel refuse one system call, like one that does not know it or a filter.
bool refuse(unsigned call, unsigned error) {
  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  sock_fprog filter = {4, steps};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST(Events, AreWaitedForWhereTheKernelHasOnlyTheShortTime) {
  for (unsigned error : {ENOSYS, EPERM}) {
    const auto child = runInChild([&] {
      if (!refuse(SYS_futex_time64, error)) return 77;
      Event event(0, 0);
      const double begun = YIF_CurrentTime();
      if (event.wait(0.05) != 0 || YIF_CurrentTime() < begun + 0.04) return 1;
      Tasks waiting(
          2, [&](unsigned i) { i == 0 ? event.wait() : static_cast<void>(event.wait(9e8)); });
      if (!waiting.fallAsleep()) return 2;
      for (int i = 0; i < 2; ++i) event.set();
      waiting.join();
      return 0;
    });
    if (child.status == 77) GTEST_SKIP() << "this system has no filters";
    EXPECT_EQ(child.status, 0) << child.errorOutput;
  }
}
#endif

// Some waits run out of time as they are let through; none of the passes is lost or doubled.
TEST(Events, TimeoutsLoseNoSet) {
  Event event(0, 0);
  std::atomic<int> through{0};
  std::atomic<bool> done{false};
  Tasks waiting(3, [&](unsigned) {
    while (!done) through += event.wait(2e-5);
  });
  for (int sets = 1; sets <= 500; ++sets) {
    event.set();
    EXPECT_TRUE(comesTrue([&] { return through == sets; }));
  }
  done = true;
  waiting.join();
  EXPECT_EQ(through, 500);
}

TEST(Events, KeepTheirStateInTheChildOfAFork) {
  Event set(0, 1), manual(1, 1), waitedFor(0, 0);
  Tasks waiting(2, [&](unsigned) { waitedFor.wait(); });
  EXPECT_TRUE(waiting.fallAsleep());
  expectInChild([&] {
    EXPECT_TRUE(set.wait(0) == 1 && set.wait(0) == 0 && manual.wait(0) == 1);
    for (int i = 0; i < 2; ++i) waitedFor.set();
    EXPECT_TRUE(waitedFor.wait(0) == 1 && waitedFor.wait(0) == 0);
  });
  for (int i = 0; i < 2; ++i) waitedFor.set();
}

// --- Raw memory ---

TEST(Memory, ChunksAreContiguousAlignedAndClearAndLargeOnesApart) {
  char* next = static_cast<char*>(YIF_MemAlloc(0)) + 16;
  for (unsigned size : {1u, 16u, 17u, 4096u, 3u << 20, (1u << 26) + 1, 100u, 1u << 26, 16u}) {
    YIF_MemInit(0);
    char* chunk = static_cast<char*>(YIF_MemAlloc(size));
    ASSERT_NE(chunk, nullptr);
    ASSERT_EQ(chunk == next, size <= 1u << 26) << size;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk) % 16, 0u);
    EXPECT_EQ(chunk[0] | chunk[size / 2] | chunk[size - 1], 0);
    chunk[0] = chunk[size - 1] = 'x';
    if (chunk == next) next += (size + 15) / 16 * 16;
  }
  EXPECT_TRUE(sizeof(void*) > 4 || YIF_MemAlloc(UINT_MAX) == nullptr);
}

TEST(Memory, TasksNeverShareAChunk) {
  std::vector<void*> given(80000);
  std::atomic<int> arrived{0};
  Tasks(4, [&](unsigned i) {
    for (++arrived; arrived < 4;) std::this_thread::yield();
    for (unsigned n = 0; n < 20000; ++n) given[i * 20000 + n] = YIF_MemAlloc(64);
  });
  EXPECT_EQ(std::set<void*>(given.begin(), given.end()).size(), given.size());
}

// Lets the process have that much more of the address space.
void limitAddressSpace(size_t more) {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const size_t all = pages * static_cast<size_t>(getpagesize()) + more;
  const rlimit limit = {all, all};
  setrlimit(RLIMIT_AS, &limit);
}

void printLine(std::FILE* stream, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  YfPrintLine(stream, format, args);
  va_end(args);
}

// In a process that has no window yet.
int useScarceMemory() {
  const rlimit none = {1, RLIM_INFINITY};
  limitAddressSpace(500u << 20);
  char* chunk = static_cast<char*>(YIF_MemAlloc(4u << 20));
  if (chunk == nullptr || YIF_MemAlloc(16) != chunk + (4u << 20)) return 1;
  void* others = mmap(nullptr, 200u << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (others == MAP_FAILED) return 2;
  setrlimit(RLIMIT_DATA, &none);
  if (YIF_MemAlloc(1u << 25) != nullptr || YIF_MemAlloc((1u << 26) + 1) != nullptr) return 3;
  const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_DATA, &all);
  if (YIF_MemAlloc(1u << 25) != chunk + (4u << 20) + 16) return 4;
  int chunks = 0;
  for (unsigned size = 1u << 26; size != 0; size /= 2) {
    while (YIF_MemAlloc(size) != nullptr) ++chunks;
    if (size == 1u << 26 && chunks < 2) return 5;
  }
  return YIF_MemAlloc(0) == nullptr ? 0 : 6;
}

int useLittleMemory() {
  const std::string longLine(1u << 23, 'x');
  std::FILE* const file = std::fopen("/dev/null", "w");
  limitAddressSpace(1u << 20);
  printLine(file, "%s", longLine.c_str());
  return YIF_MemAlloc(3u << 17) != nullptr ? 0 : 1;
}

TEST(Memory, LeavesRoomForOthersAndIsUnchangedByARefusal) {
  if (_isSanitized) GTEST_SKIP() << "a sanitizer needs the memory that is refused here";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(useScarceMemory()), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(_exit(useLittleMemory()), testing::ExitedWithCode(0), "");
}

// --- Configuration ---

// The text of a setting, "?" when it is absent; checks that the result says the same.
std::string textOf(const std::string& key, unsigned capacity = 1024) {
  char buffer[1024] = "?";
  const bool isAbsent = YIF_GetConfigString(key.c_str(), buffer, capacity) != 0;
  EXPECT_EQ(isAbsent, buffer == std::string("?"));
  return buffer;
}

TEST(Config, FileIsReadLineByLine) {
  const TemporaryDirectory directory;
  const std::string longLine(5000, 'l'), longValue(1000, 'v'), blanks(3000, ' ');
  std::string text =
      "# A.Comment = 1\n\n  Plain=text\nSpaced \t=  two words \t\r\nPlain = second\n" + longLine +
      " Inside = 1\n" + std::string(1, '\0') + "\nLong = " + longValue +
      "  \nPrefix.More = 1\nEmpty =\nEmpty.Spaces =   \nNoValue\nEquals = a=b#c\n" + blanks +
      "Far = end\r\nLast = no line end";
  text.insert(0, (1025 - text.size() % 1024) % 1024, '\n');  // the last byte is read alone
  const auto file = variable("YSYS_CONFIG", directory.write("settings", text));
  std::string texts;
  for (const char* key :
       {"Plain", "Spaced", "Prefix.More", "Empty", "Empty.Spaces", "Equals", "Far", "Last"})
    texts += textOf(key) + "|";
  EXPECT_EQ(texts, "text|two words|1|||a=b#c|end|no line end|");
  const int lowest = dup(STDIN_FILENO);
  close(lowest);
  EXPECT_EQ(textOf("Long"), longValue);
  EXPECT_EQ(dup(STDIN_FILENO), lowest) << "the file is closed";
  close(lowest);
  for (const char* key : {"Prefix", "Prefix.More.Still", "NoValue", "A.Comment", "# A.Comment",
                          "Inside", "plain", "", "Missing"})
    EXPECT_EQ(textOf(key), "?") << key;
}

TEST(Config, EnvironmentGoesBeforeTheFileTheExactNameFirstAndNoFileIsWaitedFor) {
  const TemporaryDirectory directory;
  const auto file = variable("YSYS_CONFIG", directory.write("settings", "Test.Order.One = file\n"));
  EXPECT_EQ(textOf("Test.Order.One"), "file");
  const auto underscored = variable("Test_Order_One", " underscored ");
  EXPECT_EQ(textOf("Test.Order.One"), " underscored ");
  const auto exact = variable("Test.Order.One", "");
  EXPECT_EQ(textOf("Test.Order.One"), "");
}

TEST(Config, FileIsARegularOneAndMayBeginWithAByteOrderMark) {
  const TemporaryDirectory directory;
  const auto marked = variable("YSYS_CONFIG", directory.write("settings", "\xef\xbb\xbfKey = 5"));
  EXPECT_EQ(textOf("Key"), "5");
  const std::string fifo = directory.pathOf("fifo"), notRegular = "it is not a regular file";
  mkfifo(fifo.c_str(), 0600);
  for (const auto& [path, reason] : std::map<std::string, std::string>{
           {"/no/such/file", "No such file or directory"},
           {"/proc/self/mem", "Input/output error"},  // from its start
           {"/dev/zero", notRegular},
           {"/", notRegular},
           {fifo, notRegular}}) {
    const std::string errors = expectInChild([&path = path] {
      setenv("YSYS_CONFIG", path.c_str(), 1);
      for (int i = 0; i < 3; ++i) EXPECT_EQ(textOf("Key"), "?");
    });
    EXPECT_EQ(errors, "ysys: cannot read the settings file " + path + ": " + reason + "\n");
  }
}

TEST(Config, WhatDoesNotFitIsToldOnceAndAbsent) {
  const TemporaryDirectory directory;
  const std::string errors = expectInChild([&] {
    const auto expectNumber = [](const std::string& text, int expected) {
      const auto setting = variable("A_B", text);
      int value = -777;
      EXPECT_EQ(YIF_GetConfigNumber("A.B", &value) != 0, expected == -777) << text;
      EXPECT_EQ(value, expected) << text;
    };
    for (const char* text : {"0", "42", "+7", "-7", " 12\t", "007", "2147483647", "-2147483648"})
      expectNumber(text, atoi(text));
    for (const char* text : {"2147483648", "-2147483649", "99999999999999999999999", "", " ", "-",
                             "+-1", "0x10", "1 2", "3a", "- 1"})
      expectNumber(text, -777);
    const auto file = variable("YSYS_CONFIG", directory.write("settings", "In.File = 1234567\n"));
    const auto setting = variable("In.Environment", "1234567");
    for (const char* key : {"In.File", "In.Environment"}) {
      int value = 0;
      EXPECT_EQ(YIF_GetConfigNumber(key, &value) + value, 1234567);
      EXPECT_EQ(textOf(key, 8), "1234567");
      for (unsigned capacity : {7u, 1u, 0u}) EXPECT_EQ(textOf(key, capacity), "?");
    }
  });
  EXPECT_EQ(errors,
            "ysys: setting A.B is not a 32-bit decimal number; it is not used\n"
            "ysys: setting In.File is too long a text; it is not used\n"
            "ysys: setting In.Environment is too long a text; it is not used\n");
}

// --- Time ---

TEST(Clock, TellsTheTimeOfDayWithAFraction) {
  using Seconds = std::chrono::duration<double>;
  const auto now = [] {
    return Seconds(std::chrono::system_clock::now().time_since_epoch()).count();
  };
  const double before = now(), asked = YIF_CurrentTime();
  EXPECT_LE(before - 1e-6, asked);
  EXPECT_LE(asked, now() + 1e-6);
}

// --- Files ---

void writeText(YIF_Handle file, const std::string& text) {
  YIF_Write(file, text.data(), static_cast<unsigned>(text.size()));
}

// A FIFO with a reader that does not wait.
struct Fifo {
  Fifo() { mkfifo(path_.c_str(), 0600); }
  int openReader() { return reader_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK); }
  void closeReader() { close(reader_); }
  std::string read() {
    char part[10000];
    return {part, static_cast<size_t>(std::max<ssize_t>(::read(reader_, part, sizeof part), 0))};
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_.pathOf("fifo");
  int reader_ = -1;
};

TEST(Files, AllAppendAndNonePassesToPrograms) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("log", "former");
  std::vector<YIF_Handle> files;
  for (int mode : {YIF_OPEN_REPLACE, YIF_OPEN_APPEND, 0}) {
    const int lowest = open("/dev/null", O_RDONLY);
    close(lowest);
    files.push_back(YIF_Open(path.c_str(), mode, 1));
    EXPECT_EQ(fcntl(lowest, F_GETFD), FD_CLOEXEC);
    for (YIF_Handle each : files) writeText(each, std::to_string(mode));
  }
  EXPECT_EQ(directory.read("log"), "244000");
  for (YIF_Handle each : files) YIF_Close(each);
  EXPECT_EQ(YIF_Open(nullptr, YIF_OPEN_APPEND, 1), YIF_NO_FILE);
}

// Writes what is refused; the host's own signal stays.
void expectNoSignal(YIF_Handle file, int signal) {
  errno = 12345;
  writeText(file, "dropped");
  EXPECT_EQ(errno, 12345);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  const timespec atOnce = {};
  for (int expected : {-1, signal}) {
    if (expected == signal) raise(signal);
    writeText(file, "dropped");
    EXPECT_EQ(sigtimedwait(&set, nullptr, &atOnce), expected);
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Every way to write beside the files; both streams and the channel are what is refused.
void writeEverywhere() {
  for (int i = 0; i < 2; ++i) {
    YfAssert__("more than 4 bytes", "file", 1);
    OutputDebugStringA("12345");
    for (std::FILE* stream : {stdout, stderr}) printLine(stream, "%d", 12345);
  }
}

// Past the limit on file sizes, and in a FIFO whose reader has gone.
TEST(Files, WritesThatAreRefusedRaiseNoSignal) {
  const TemporaryDirectory directory;
  const std::string errors = expectInChild([&] {
    Fifo fifo;
    fifo.openReader();
    const YIF_Handle pipe = YIF_Open(fifo.path_.c_str(), YIF_OPEN_APPEND, 1);
    const int stream = open(fifo.path_.c_str(), O_WRONLY);
    fifo.closeReader();
    expectNoSignal(pipe, SIGPIPE);
    const rlimit limit = {4, 4};
    setrlimit(RLIMIT_FSIZE, &limit);
    const YIF_Handle file = YIF_Open(directory.pathOf("file").c_str(), YIF_OPEN_APPEND, 1);
    writeText(file, "12345");
    expectNoSignal(file, SIGXFSZ);
    const auto goOn = variable("YSYS_ASSERT", "continue");
    setenv("YSYS_DEBUG_CHANNEL", directory.pathOf("debug").c_str(), 1);
    dup2(open(directory.pathOf("out").c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
    writeEverywhere();
    for (int each : {STDOUT_FILENO, STDERR_FILENO}) dup2(stream, each);
    unsetenv("YSYS_DEBUG_CHANNEL");
    writeEverywhere();
  });
  EXPECT_EQ(errors, "asse");
  for (const char* name : {"file", "debug", "out"}) EXPECT_EQ(directory.read(name), "1234") << name;
}

// --- Assertions ---

TEST(Assertion, StopsTheProcessUnlessAskedToGoOn) {
  expectStop([] { YfAssert__("a < b", "some/file", 17); },
             "assertion failed: a < b, some/file:17\n");
  expectStop([] { _assert("b < c", "file", 18); }, "assertion failed: b < c, file:18\n");
  const auto goOn = variable("YSYS_ASSERT", "continue");
  testing::internal::CaptureStderr();
  YfAssert__("a < b", "some/file", 17);
  _assert(nullptr, nullptr, UINT_MAX);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "assertion failed: a < b, some/file:17\nassertion failed: , :4294967295\n");
}

TEST(Assertion, OfExhaustionIsPrintedOnceAndStopsNothingUnlessAskedTo) {
  constexpr auto exhausted = [](void*) { YfAssert__("m", "utils/sdk/allocator", 1); };
  const std::string m = "assertion failed: m, utils/sdk/allocator:1\n";
  const std::string h = "assertion failed: h, utils/sdk/alloc:2\n";
  for (const auto& [choice, expected] :
       std::map<std::string, std::string>{{"", m + h}, {"continue", m + h + m + h}, {"stop", m}}) {
    const auto child = runInChild([&, choice = choice] {
      setenv("YSYS_ASSERT", choice.c_str(), 1);
      YfWithoutExhaustionReport(exhausted, nullptr);
      for (int i = 0; i < 2; ++i) {
        exhausted(nullptr);
        YfAssert__("h", "utils/sdk/alloc", 2);
      }
      return 0;
    });
    EXPECT_EQ(child.status, choice == "stop" ? -SIGABRT : 0);
    EXPECT_EQ(child.errorOutput, expected);
  }
  expectStop([] { YfAssert__("h", "utils/sdk/membank", 3); }, "assertion failed: h, ");
}

// --- Writes in many parts ---

// A slow reader makes the system take the bytes in many parts: first with a standard error that
// does not block, then with one that does, interrupted by a timer's signals.
TEST(Files, InterruptedWritesAreFinished) {
  Fifo fifo;
  pollfd ready = {fifo.openReader(), POLLIN, 0};
  std::string text;
  for (unsigned i = 0; text.size() < 400000; ++i) text += std::to_string(i * 7);
  const pid_t child = startChild([&] {
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGVTALRM, &interrupt, nullptr);
    const itimerspec often = {{0, 300000}, {0, 300000}};
    sigevent tick = {};
    tick.sigev_signo = SIGVTALRM;
    timer_t timer;
    timer_create(CLOCK_MONOTONIC, &tick, &timer);
    const YIF_Handle file = YIF_Open(fifo.path_.c_str(), YIF_OPEN_APPEND, 1);
    const auto goOn = variable("YSYS_ASSERT", "continue");
    for (bool isInterrupted : {false, true}) {
      if (isInterrupted) timer_settime(timer, 0, &often, nullptr);
      const int flag = isInterrupted ? 0 : O_NONBLOCK;
      dup2(open(fifo.path_.c_str(), O_WRONLY | flag), STDERR_FILENO);
      writeText(file, text);
      YfAssert__(text.c_str(), "file", 1);
      OutputDebugStringA((text + "\n").c_str());
      for (const char* each : {text.c_str(), "short"}) printLine(stderr, "%s%d", each, 1);
    }
    return 0;
  });
  std::string received;
  for (std::string part = " "; !part.empty() && poll(&ready, 1, 5000) == 1; received += part) {
    std::this_thread::sleep_for(200us);
    part = fifo.read();
  }
  EXPECT_EQ(waitForChild(child), 0);
  const std::string part =
      text + "assertion failed: " + text + ", file:1\n" + text + "\n" + text + "1\nshort1\n";
  EXPECT_TRUE(received == part + part) << received.size();
}

// --- The debugger channel ---

std::string debugOutputToStandardError(const char* text) {
  testing::internal::CaptureStderr();
  OutputDebugStringA(text);
  return testing::internal::GetCapturedStderr();
}

TEST(DebugChannel, NeverWaitsForTheReaderOfAFifo) {
  EXPECT_EQ(debugOutputToStandardError(nullptr), "");
  Fifo fifo;
  const auto channel = variable("YSYS_DEBUG_CHANNEL", fifo.path_);
  EXPECT_EQ(debugOutputToStandardError("no reader"), "no reader");
  fifo.openReader();
  EXPECT_EQ(debugOutputToStandardError("read"), "");
  EXPECT_EQ(fifo.read(), "read");
  const std::string tooMuch(1 << 20, 'x');
  const size_t left = debugOutputToStandardError(tooMuch.c_str()).size();
  EXPECT_GT(left, 0u);
  EXPECT_LT(left, tooMuch.size());
}

// --- Messages ---

const std::string _message = "--help <b>&\"$(touch x)`\n'C:\\new'";

// Shows the message where there is a display and the scripts are the only programs; checks what
// they have recorded and what was printed.
void expectDialogs(const std::map<std::string, std::string>& scripts, const std::string& recorded,
                   const std::string& printed = "") {
  const TemporaryDirectory directory;
  for (const auto& [program, script] : scripts)
    chmod(directory.write(program, "#!/bin/sh\n" + script + "\n").c_str(), 0755);
  const std::string errors = expectInChild([&] {
    setsid();
    setenv("PATH", directory.pathOf("").c_str(), 1);
    setenv("RECORD", directory.pathOf("record").c_str(), 1);
    setenv("DISPLAY", ":77", 1);
    EXPECT_EQ(MessageBoxA(nullptr, _message.c_str(), "Caption", 0), 1);
  });
  EXPECT_EQ(errors, printed);
  EXPECT_EQ(directory.read("record"), recorded);
}

TEST(Message, GoesAsItIsToTheFirstDialogThatCanShowIt) {
  expectDialogs({{"zenity", "for each; do printf '%s|' \"$each\"; done > \"$RECORD\""},
                 {"kdialog", "echo second >> \"$RECORD\""}},
                "--info|--no-markup|--title|Caption|--text|" + _message + "|");
  expectDialogs({{"kdialog", "for each; do printf '%s|' \"$each\"; done > \"$RECORD\""}},
                "--title|Caption|--msgbox|\u200b\n--help <b>&\"$(touch x)`\n'C:\\\\new'|");
  expectDialogs({{"zenity", "exit 1"},
                 {"kdialog", "kill -ABRT $$"},
                 {"gxmessage", "/bin/cat > /dev/null; exit 1"},
                 {"xmessage", "echo $4 > \"$RECORD\"; /bin/cat >> \"$RECORD\""}},
                "-\n" + _message);
  // One that is closed only after a while was seen.
  expectDialogs({{"zenity", "/bin/sleep 0.4; exit 1"}, {"kdialog", "echo second > \"$RECORD\""}},
                "");
  expectDialogs({}, "", "Caption: " + _message + "\n");
}

TEST(Message, AsksOnTheTerminalUnlessFromItsBackground) {
  for (bool isInFront : {true, false}) {
    const auto show = [&] {
      alarm(20);
      for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) unsetenv(name);
      if (isInFront) return MessageBoxA(nullptr, "Text", "Caption", 0);
      setpgid(0, 0);
      return MessageBoxA(nullptr, nullptr, nullptr, 0);
    };
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == -1) GTEST_SKIP() << "this system has no terminals";
    if (child == 0) _exit(isInFront ? show() : waitForChild(startChild(show)));
    const std::string expected = isInFront ? "Caption\r\n\r\nText\r\n\r\nPress Enter" : ": \r\n";
    std::string shown;
    for (char byte; shown.find(expected) == std::string::npos && read(terminal, &byte, 1) == 1;)
      shown += byte;
    EXPECT_THAT(shown, testing::HasSubstr(expected));
    std::this_thread::sleep_for(30ms);
    if (isInFront) {
      EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
      EXPECT_EQ(write(terminal, "yes\n", 4), 4);
    }
    EXPECT_EQ(waitForChild(child), 1);
    close(terminal);
  }
}

}  // namespace
