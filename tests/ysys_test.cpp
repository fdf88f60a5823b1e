// The system interface, asked what it promises: by real threads, forked processes, files and pipes.
#include "utils/sdk/ysys.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"
#include "utils/sdk/platform.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define IS_SANITIZED 1
#endif
#endif
#ifndef IS_SANITIZED
#define IS_SANITIZED 0
#endif

namespace {

using testing::HasSubstr;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A test that hangs ends by a signal.
class Watchdog : public testing::Environment {
 public:
  void SetUp() override { alarm(120); }
};
const auto* const _watchdog = testing::AddGlobalTestEnvironment(new Watchdog);

double secondsOf(const std::function<void()>& action) {
  const auto begun = Clock::now();
  action();
  return std::chrono::duration<double>(Clock::now() - begun).count();
}

bool comesTrue(const std::function<bool()>& condition) {
  for (int i = 0; i < 5000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

bool isAsleep(unsigned long task) {
  const std::string stat = "/proc/self/task/" + std::to_string(task) + "/stat";
  std::ifstream file(stat);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const size_t end = text.rfind(')');
  return end != std::string::npos && text.compare(end, 3, ") S") == 0;
}

// Threads that all do the same; joined at the end.
class Tasks {
 public:
  Tasks(int count, const std::function<void(int)>& body) : ids_(static_cast<size_t>(count)) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, i, body] {
        ids_[static_cast<size_t>(i)] = YIF_CurrentTaskId();
        body(i);
      });
    }
  }
  ~Tasks() { join(); }
  void join() {
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }
  bool fallAsleep() const {
    return std::ranges::all_of(ids_, [](const std::atomic<unsigned long>& id) {
      return comesTrue([&] { return id != 0 && isAsleep(id); });
    });
  }

 private:
  std::vector<std::atomic<unsigned long>> ids_;
  std::vector<std::thread> threads_;
};

class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) {
    setenv(name, value.c_str(), 1);
  }
  ~Variable() { unsetenv(name_); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* name_;
};

class Death : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// --- Task identity ---

TEST(TaskId, DiffersAmongLivingTasksAndStays) {
  std::vector<unsigned long> ids(8);
  std::atomic<int> arrived{0};
  Tasks(8, [&](int i) {
    ids[static_cast<size_t>(i)] = YIF_CurrentTaskIdCoop();
    ++arrived;
    EXPECT_TRUE(comesTrue([&] { return arrived == 8; }));
    EXPECT_EQ(YIF_CurrentTaskIdCoop(), ids[static_cast<size_t>(i)]);
  }).join();
  ids.push_back(YIF_CurrentTaskIdCoop());
  EXPECT_EQ(std::set<unsigned long>(ids.begin(), ids.end()).size(), 9u);
  EXPECT_EQ(std::ranges::count(ids, static_cast<unsigned long>(-1)), 0);
}

TEST(TaskId, IsNewInTheChildOfAFork) {
  const unsigned long parent = YIF_CurrentTaskIdCoop();
  const auto child = runInChild([&] {
    const bool isNew = YIF_CurrentTaskIdCoop() != parent && YIF_CurrentTaskId() != parent;
    return isNew && YIF_CurrentTaskId() == static_cast<unsigned long>(gettid()) ? 0 : 1;
  });
  EXPECT_EQ(child.status, 0);
}

// --- Mutexes and critical sections ---

struct LockKind {
  YIF_Handle (*create)() noexcept;
  void (*destroy)(YIF_Handle) noexcept;
  void (*enter)(YIF_Handle) noexcept;
  void (*exit)(YIF_Handle) noexcept;
};

class Locks : public testing::TestWithParam<LockKind> {
 protected:
  void SetUp() override { lock_ = GetParam().create(); }
  void TearDown() override { GetParam().destroy(lock_); }
  void enter() { GetParam().enter(lock_); }
  void exit() { GetParam().exit(lock_); }

  YIF_Handle lock_ = 0;
};

INSTANTIATE_TEST_SUITE_P(
    Both, Locks,
    testing::Values(LockKind{YIF_CreateMutex, YIF_DestroyMutex, YIF_EnterMutex, YIF_ExitMutex},
                    LockKind{YIF_CreateCriticalSection, YIF_DestroyCriticalSection,
                             YIF_EnterCriticalSection, YIF_ExitCriticalSection}),
    [](const auto& kind) { return kind.index == 0 ? "Mutex" : "CriticalSection"; });

TEST_P(Locks, LetOneTaskIn) {
  int count = 0;
  Tasks(4, [&](int) {
    for (int i = 0; i < 20000; ++i) {
      enter();
      ++count;
      exit();
    }
  }).join();
  EXPECT_EQ(count, 80000);
}

TEST_P(Locks, AreFreeAfterAsManyExitsAsEnters) {
  std::atomic<bool> isIn{false};
  for (int i = 0; i < 3; ++i) enter();
  Tasks other(1, [&](int) {
    enter();
    isIn = true;
    exit();
  });
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(other.fallAsleep());
    EXPECT_FALSE(isIn);
    exit();
  }
  other.join();
  EXPECT_TRUE(isIn);
}

TEST_P(Locks, ReportTheExitOfATaskThatIsNotIn) {
  const Variable goOn("YSYS_ASSERT", "continue");
  std::atomic<bool> isIn{false};
  enter();
  testing::internal::CaptureStderr();
  Tasks(1, [&](int) { exit(); }).join();
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report, HasSubstr("assertion failed: held by the calling task, ysys/lock:"));
  Tasks other(1, [&](int) {
    enter();
    isIn = true;
    exit();
  });
  EXPECT_TRUE(other.fallAsleep());
  EXPECT_FALSE(isIn);
  exit();
}

TEST_P(Locks, AreFreeInTheChildOfAFork) {
  std::atomic<bool> isIn{false}, mayLeave{false};
  Tasks holder(1, [&](int) {
    enter();
    enter();
    isIn = true;
    EXPECT_TRUE(comesTrue([&] { return mayLeave.load(); }));
    exit();
    exit();
  });
  EXPECT_TRUE(comesTrue([&] { return isIn.load(); }));
  Tasks waiting(2, [&](int) {
    enter();
    exit();
  });
  EXPECT_TRUE(waiting.fallAsleep());
  const auto child = runInChild([&] {
    enter();
    exit();
    setenv("YSYS_ASSERT", "continue", 1);
    exit();
    return 0;
  });
  mayLeave = true;
  EXPECT_EQ(child.status, 0);
  EXPECT_THAT(child.errorOutput, HasSubstr("held by the calling task"));
}

// --- Handles ---

TEST(Handles, OfLivingObjectsDifferAndOldOnesDoNotComeBackSoon) {
  std::set<YIF_Handle> seen;
  std::vector<YIF_Handle> living;
  for (int i = 0; i < 700; ++i) living.push_back(YIF_CreateEvent(0, 0));
  seen.insert(living.begin(), living.end());
  for (int i = 0; i < 5000; ++i) {
    const YIF_Handle event = YIF_CreateEvent(0, 1);
    EXPECT_TRUE(seen.insert(event).second);
    EXPECT_TRUE(event != 0 && event < 0x80000000u);
    EXPECT_EQ(YIF_WaitEventTimed(event, 0), 1);
    YIF_DestroyEvent(event);
  }
  for (YIF_Handle event : living) YIF_DestroyEvent(event);
}

using HandleDeath = Death;

TEST_F(HandleDeath, StaleHandleIsCaught) {
  const YIF_Handle event = YIF_CreateEvent(0, 0);
  const YIF_Handle mutex = YIF_CreateMutex();
  YIF_DestroyEvent(event);
  YIF_DestroyMutex(mutex);
  EXPECT_DEATH(YIF_SetEvent(event), "YIF_SetEvent: 0x[0-9a-f]+ is no handle");
  EXPECT_DEATH(YIF_DestroyEvent(event), "YIF_DestroyEvent: 0x");
  EXPECT_DEATH(YIF_EnterMutex(mutex), "YIF_EnterMutex: 0x");
}

TEST_F(HandleDeath, HandleOfAnotherFamilyIsCaught) {
  const YIF_Handle section = YIF_CreateCriticalSection();
  const YIF_Handle coop = YIF_CreateEventCoop(0, 1);
  EXPECT_DEATH(YIF_EnterMutex(section), "YIF_EnterMutex: 0x");
  EXPECT_DEATH(YIF_WaitEvent(coop), "YIF_WaitEvent: 0x");
  EXPECT_DEATH(YIF_SetEventCoop(0), "YIF_SetEventCoop: 0x0 is");
  EXPECT_DEATH(YIF_Write(YIF_NO_FILE, "x", 1), "YIF_Write: 0xffffffff is");
  YIF_DestroyCriticalSection(section);
  YIF_DestroyEventCoop(coop);
}

// --- Events ---

class Event {
 public:
  Event(int manualReset, int initiallySet) : handle_(YIF_CreateEvent(manualReset, initiallySet)) {}
  ~Event() { YIF_DestroyEvent(handle_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void set() { YIF_SetEvent(handle_); }
  void reset() { YIF_ResetEvent(handle_); }
  void wait() { YIF_WaitEvent(handle_); }
  int wait(double seconds) { return YIF_WaitEventTimed(handle_, seconds); }

 private:
  YIF_Handle handle_;
};

TEST(Events, StartAsAsked) {
  for (int set : {0, 1}) {
    Event once(0, set), manual(1, set);
    EXPECT_EQ(once.wait(0), set);
    EXPECT_EQ(once.wait(0), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(manual.wait(0), set);
    manual.reset();
    EXPECT_EQ(manual.wait(0), 0);
  }
}

TEST(Events, RememberOneSet) {
  Event event(0, 0);
  event.set();
  event.set();
  EXPECT_EQ(event.wait(0), 1);
  EXPECT_EQ(event.wait(0), 0);
  event.set();
  event.reset();
  EXPECT_EQ(event.wait(0), 0);
}

// Six tasks wait; three sets let three of them through, three more the rest.
void expectOneThroughForEachSet(const std::function<void()>& wait, const std::function<void()>& set,
                                const std::function<void()>& afterSets) {
  std::atomic<int> through{0};
  Tasks waiting(6, [&](int) {
    wait();
    ++through;
  });
  ASSERT_TRUE(waiting.fallAsleep());
  for (int expected : {3, 6}) {
    for (int i = 0; i < 3; ++i) set();
    afterSets();
    EXPECT_TRUE(comesTrue([&] { return through == expected; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(through, expected);
  }
}

TEST(Events, LetOneWaiterThroughForEachSet) {
  Event event(0, 0);
  const auto nothing = [] {};
  const auto wait = [&] { event.wait(); };
  const auto set = [&] { event.set(); };
  expectOneThroughForEachSet(wait, set, nothing);
  EXPECT_EQ(event.wait(0), 0);
  expectOneThroughForEachSet(wait, set, [&] { event.reset(); });
  const YIF_Handle coop = YIF_CreateEventCoop(0, 0);
  expectOneThroughForEachSet([&] { YIF_WaitEventCoop(coop); }, [&] { YIF_SetEventCoop(coop); },
                             nothing);
  YIF_DestroyEventCoop(coop);
}

TEST(Events, LetTheWaiterThroughAndNotTheNewcomer) {
  Event event(0, 0);
  for (int i = 0; i < 20; ++i) {
    Tasks waiting(1, [&](int) { event.wait(); });
    ASSERT_TRUE(waiting.fallAsleep());
    event.set();
    EXPECT_EQ(event.wait(0), 0);
  }
}

TEST(Events, ManualSetLetsAllThroughThoughResetAtOnce) {
  Event event(1, 0);
  for (int i = 0; i < 20; ++i) {
    Tasks waiting(3, [&](int) { EXPECT_EQ(event.wait(10), 1); });
    ASSERT_TRUE(waiting.fallAsleep());
    event.set();
    event.reset();
    waiting.join();
    EXPECT_EQ(event.wait(0), 0);
  }
}

TEST(Events, TimedWaitEndsInTimeAndSleeps) {
  for (int manualReset : {0, 1}) {
    Event event(manualReset, 0);
    for (double none : {0.0, -1.0, -HUGE_VAL, std::nan("")}) {
      EXPECT_LT(secondsOf([&] { EXPECT_EQ(event.wait(none), 0); }), 0.05);
    }
    const clock_t begun = clock();
    const double waited = secondsOf([&] { EXPECT_EQ(event.wait(0.2), 0); });
    EXPECT_GE(waited, 0.2);
    EXPECT_LT(waited, 2);
    EXPECT_LT(static_cast<double>(clock() - begun) / CLOCKS_PER_SEC, 0.1);
    EXPECT_EQ(event.wait(1e-12), 0);
    event.set();
    EXPECT_EQ(event.wait(1e-12), 1);
  }
}

TEST(Events, HugeLimitsAreNone) {
  Event event(0, 0);
  std::atomic<int> through{0};
  const double limits[] = {INFINITY, 1e300, 9.3e9, 1e9};
  Tasks waiting(4, [&](int i) { through += event.wait(limits[i]); });
  EXPECT_TRUE(waiting.fallAsleep());
  EXPECT_EQ(through, 0);
  for (int i = 0; i < 4; ++i) event.set();
  waiting.join();
  EXPECT_EQ(through, 4);
}

TEST(Events, HandOverWhatWasWrittenBeforeTheSet) {
  Event there(0, 0), back(0, 0);
  int value = 0;
  Tasks other(1, [&](int) {
    for (int i = 0; i < 3000; ++i) {
      there.wait();
      ++value;
      back.set();
    }
  });
  for (int i = 0; i < 3000; ++i) {
    there.set();
    back.wait();
    ASSERT_EQ(value, i + 1);
  }
}

TEST(Events, CooperativeEventServesAsTheTicketOfALock) {
  const YIF_Handle ticket = YIF_CreateEventCoop(0, 1);
  int count = 0;
  Tasks(4, [&](int) {
    for (int i = 0; i < 10000; ++i) {
      YIF_WaitEventCoop(ticket);
      ++count;
      YIF_SetEventCoop(ticket);
    }
  }).join();
  EXPECT_EQ(count, 40000);
  YIF_DestroyEventCoop(ticket);
}

// Some waits run out of time as they are let through; none of the passes is lost or doubled.
TEST(Events, TimeoutsLoseNoSet) {
  Event event(0, 0);
  std::atomic<int> through{0};
  std::atomic<bool> done{false};
  Tasks waiting(3, [&](int) {
    while (!done) through += event.wait(2e-5);
  });
  int stocked = 0;
  for (int i = 0; i < 500; ++i) {
    const int before = through;
    event.set();
    EXPECT_TRUE(comesTrue([&] { return through == before + 1; }));
    ++stocked;
  }
  done = true;
  waiting.join();
  EXPECT_EQ(through, stocked);
}

TEST(Events, KeepTheirStateInTheChildOfAFork) {
  Event set(0, 1), waitedFor(0, 0), manual(1, 1);
  Tasks waiting(2, [&](int) { waitedFor.wait(); });
  EXPECT_TRUE(waiting.fallAsleep());
  const auto child = runInChild([&] {
    if (set.wait(0) != 1 || set.wait(0) != 0 || manual.wait(0) != 1) return 1;
    waitedFor.set();
    waitedFor.set();
    if (waitedFor.wait(0) != 1) return 2;
    return waitedFor.wait(0) == 0 ? 0 : 3;
  });
  EXPECT_EQ(child.status, 0);
  waitedFor.set();
  waitedFor.set();
}

// --- Raw memory ---

TEST(Memory, ChunksAreContiguousAlignedAndClear) {
  char* next = static_cast<char*>(YIF_MemAlloc(0)) + 16;
  for (unsigned size : {1u, 16u, 17u, 4096u, 3u << 20, 100u, 1u << 26}) {
    char* chunk = static_cast<char*>(YIF_MemAlloc(size));
    ASSERT_EQ(chunk, next);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk) % 16, 0u);
    EXPECT_EQ(chunk[0] | chunk[size / 2] | chunk[size - 1], 0);
    chunk[0] = chunk[size - 1] = 'x';
    next = chunk + (size + 15) / 16 * 16;
  }
}

TEST(Memory, LargeRequestsLieApart) {
  char* before = static_cast<char*>(YIF_MemAlloc(16));
  char* large = static_cast<char*>(YIF_MemAlloc((1u << 26) + 1));
  ASSERT_NE(large, nullptr);
  large[0] = large[1u << 26] = 'x';
  EXPECT_EQ(static_cast<char*>(YIF_MemAlloc(16)), before + 16);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large) % 16, 0u);
  if constexpr (sizeof(void*) == 4) {
    EXPECT_EQ(YIF_MemAlloc(UINT_MAX), nullptr);
  }
}

TEST(Memory, TasksNeverShareAChunk) {
  constexpr int EACH = 2000;
  std::vector<std::vector<uintptr_t>> given(4);
  Tasks(4, [&](int i) {
    for (int n = 0; n < EACH; ++n) {
      void* chunk = YIF_MemAlloc(static_cast<unsigned>(64 + i * 16));
      given[static_cast<size_t>(i)].push_back(reinterpret_cast<uintptr_t>(chunk));
      *static_cast<int*>(chunk) = i;
    }
  }).join();
  std::vector<std::pair<uintptr_t, uintptr_t>> chunks;
  for (size_t i = 0; i < 4; ++i) {
    for (uintptr_t at : given[i]) chunks.emplace_back(at, at + 64 + i * 16);
  }
  std::ranges::sort(chunks);
  ASSERT_EQ(chunks.size(), 4u * EACH);
  for (size_t i = 1; i < chunks.size(); ++i) ASSERT_LE(chunks[i - 1].second, chunks[i].first);
}

TEST(Memory, AnExhaustedWindowGivesNull) {
  const auto child = runInChild([] {
    int chunks = 0;
    for (unsigned size = 1u << 26; size != 0; size /= 2) {
      while (YIF_MemAlloc(size) != nullptr) ++chunks;
    }
    const bool isEmpty = YIF_MemAlloc(1) == nullptr && YIF_MemAlloc(0) == nullptr;
    return isEmpty && chunks > 2 ? 0 : 1;
  });
  EXPECT_EQ(child.status, 0);
}

TEST(Memory, ARefusalChangesNothing) {
  if (IS_SANITIZED) GTEST_SKIP() << "a sanitizer needs the memory that is refused here";
  const auto child = runInChild([] {
    char* before = static_cast<char*>(YIF_MemAlloc(16));
    const rlimit none = {1, RLIM_INFINITY}, all = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_DATA, &none);
    if (YIF_MemAlloc(1u << 25) != nullptr || YIF_MemAlloc(1u << 27) != nullptr) return 1;
    setrlimit(RLIMIT_DATA, &all);
    return YIF_MemAlloc(1u << 25) == before + 16 ? 0 : 2;
  });
  EXPECT_EQ(child.status, 0);
}

// Run by the next test in a process that has 700 MiB of addresses, so it is disabled by itself.
TEST(Memory, DISABLED_WorksInNarrowAddresses) {
  char* chunk = static_cast<char*>(YIF_MemAlloc(4u << 20));
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(YIF_MemAlloc(16), chunk + (4u << 20));
  void* others = mmap(nullptr, 300u << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(others, MAP_FAILED);
}

TEST(Memory, WorksInNarrowAddresses) {
  if (IS_SANITIZED) GTEST_SKIP() << "a sanitizer needs more addresses";
  const auto child = runInChild([] {
    const rlimit narrow = {700u << 20, 700u << 20};
    setrlimit(RLIMIT_AS, &narrow);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execl("/proc/self/exe", "ysys_test", "--gtest_also_run_disabled_tests",
          "--gtest_filter=Memory.DISABLED_WorksInNarrowAddresses", nullptr);
    return 1;
  });
  EXPECT_EQ(child.status, 0) << child.errorOutput;
}

// --- Configuration ---

constexpr const char* UNTOUCHED = "untouched";

// The text of a setting or UNTOUCHED; checks that the result says the same.
std::string stringSetting(const char* key, unsigned capacity = 1024) {
  char buffer[1024] = "untouched";
  const int result = YIF_GetConfigString(key, buffer, capacity);
  EXPECT_EQ(result != 0, buffer == std::string(UNTOUCHED));
  return buffer;
}

int numberSetting(const char* key) {
  int value = -777;
  const int result = YIF_GetConfigNumber(key, &value);
  EXPECT_EQ(result != 0, value == -777);
  return value;
}

TEST(Config, FileIsReadLineByLine) {
  const TemporaryDirectory directory;
  const std::string longLine(5000, 'l');
  const std::string path = directory.write(
      "settings", "# A.Comment = 1\n\n  Plain=text\nSpaced \t=  two words \t\r\nPlain = second\n" +
                      longLine + " Inside = 1\nLong = " + std::string(1000, 'v') +
                      "  \nPrefix.More = 1\nEmpty =\nEmpty.Spaces =   \nNoValue\nEquals = a=b#c\n" +
                      std::string(3000, ' ') + "Far = end\r\nLast = no line end");
  const Variable file("YSYS_CONFIG", path);
  const std::pair<const char*, std::string> settings[] = {
      {"Plain", "text"},
      {"Spaced", "two words"},
      {"Long", std::string(1000, 'v')},
      {"Prefix.More", "1"},
      {"Prefix", UNTOUCHED},
      {"Prefix.More.Still", UNTOUCHED},
      {"Empty", ""},
      {"Empty.Spaces", ""},
      {"NoValue", UNTOUCHED},
      {"Equals", "a=b#c"},
      {"Far", "end"},
      {"Last", "no line end"},
      {"A.Comment", UNTOUCHED},
      {"# A.Comment", UNTOUCHED},
      {"Inside", UNTOUCHED},
      {"plain", UNTOUCHED},
      {"", UNTOUCHED},
      {"Missing", UNTOUCHED},
  };
  for (const auto& [key, value] : settings) EXPECT_EQ(stringSetting(key), value) << key;
}

TEST(Config, EnvironmentGoesBeforeTheFileAndTheExactNameFirst) {
  const TemporaryDirectory directory;
  const Variable file("YSYS_CONFIG", directory.write("settings", "Test.Order.One = file\n"));
  EXPECT_EQ(stringSetting("Test.Order.One"), "file");
  const Variable underscored("Test_Order_One", " underscored ");
  EXPECT_EQ(stringSetting("Test.Order.One"), " underscored ");
  const Variable exact("Test.Order.One", "");
  EXPECT_EQ(stringSetting("Test.Order.One"), "");
}

TEST(Config, AFileThatCannotBeReadIsNone) {
  const TemporaryDirectory directory;
  mkfifo(directory.pathOf("fifo").c_str(), 0600);
  for (const char* name : {"missing", "fifo", "."}) {
    const Variable file("YSYS_CONFIG", directory.pathOf(name));
    EXPECT_EQ(stringSetting("Key"), UNTOUCHED) << name;
  }
}

TEST(Config, NumbersAreDecimalAndOf32Bits) {
  const TemporaryDirectory directory;
  constexpr int NONE = -777;
  const std::pair<const char*, int> texts[] = {
      {"0", 0},
      {"42", 42},
      {"+7", 7},
      {"-7", -7},
      {" 12\t", 12},
      {"007", 7},
      {"2147483647", INT_MAX},
      {"2147483648", NONE},
      {"-2147483648", INT_MIN},
      {"-2147483649", NONE},
      {"99999999999999999999999", NONE},
      {"", NONE},
      {" ", NONE},
      {"-", NONE},
      {"+-1", NONE},
      {"0x10", NONE},
      {"1 2", NONE},
      {"3a", NONE},
      {"- 1", NONE},
  };
  const auto child = runInChild([&] {
    for (const auto& [text, number] : texts) {
      const std::string line = std::string("Test.Number = ") + text + "\n";
      const Variable file("YSYS_CONFIG", directory.write("settings", line));
      EXPECT_EQ(numberSetting("Test.Number"), number) << text;
      const Variable variable("Test_Number", text);
      EXPECT_EQ(numberSetting("Test.Number"), number) << text;
    }
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.errorOutput,
            "ysys: setting Test.Number is not a 32-bit decimal number; it is not used\n");
}

TEST(Config, CapacityIsExactAndTellsOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("settings", "Test.InFile = 1234567\n");
  const Variable file("YSYS_CONFIG", path), variable("Test.InEnvironment", "1234567");
  const auto child = runInChild([&] {
    for (const char* key : {"Test.InFile", "Test.InEnvironment"}) {
      EXPECT_EQ(stringSetting(key, 8), "1234567");
      for (unsigned capacity : {7u, 1u, 0u}) EXPECT_EQ(stringSetting(key, capacity), UNTOUCHED);
    }
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.errorOutput,
            "ysys: setting Test.InFile is too long a text; it is not used\n"
            "ysys: setting Test.InEnvironment is too long a text; it is not used\n");
}

// --- Time ---

TEST(Clock, TellsTheTimeOfDayWithAFraction) {
  const time_t before = time(nullptr);
  const double first = YIF_CurrentTime();
  std::this_thread::sleep_for(5ms);
  const double second = YIF_CurrentTime();
  EXPECT_GE(first, static_cast<double>(before));
  EXPECT_LE(second, static_cast<double>(time(nullptr) + 1));
  EXPECT_NEAR(second - first, 0.005, 1);
  EXPECT_NE(first, second);
}

// --- Files ---

void writeText(YIF_Handle file, const std::string& text) {
  YIF_Write(file, text.data(), static_cast<unsigned>(text.size()));
}

void writeFile(const std::string& path, int mode, const std::string& text) {
  const YIF_Handle file = YIF_Open(path.c_str(), mode, 1);
  ASSERT_NE(file, YIF_NO_FILE);
  writeText(file, text);
  YIF_Flush(file);
  YIF_Close(file);
}

TEST(Files, AppendKeepsAndReplaceEmpties) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("log");
  writeFile(path, YIF_OPEN_APPEND, "first\n");
  writeFile(path, YIF_OPEN_APPEND, "second\n");
  writeFile(path, 0, "third\n");
  EXPECT_EQ(directory.read("log"), "first\nsecond\nthird\n");
  writeFile(path, YIF_OPEN_REPLACE, "new\n");
  EXPECT_EQ(directory.read("log"), "new\n");
}

TEST(Files, WhatCannotBeOpenedIsNoFile) {
  const TemporaryDirectory directory;
  mkfifo(directory.pathOf("fifo").c_str(), 0600);
  for (const char* name : {"", "no/such/place", "fifo"}) {
    EXPECT_EQ(YIF_Open(directory.pathOf(name).c_str(), YIF_OPEN_APPEND, 1), YIF_NO_FILE) << name;
  }
  EXPECT_EQ(YIF_Open(nullptr, YIF_OPEN_APPEND, 1), YIF_NO_FILE);
}

TEST(Files, ProcessesThatAppendLoseNoLine) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("log");
  const auto append = [&](const std::string& line) {
    const YIF_Handle file = YIF_Open(path.c_str(), YIF_OPEN_APPEND, 1);
    for (int i = 0; i < 500; ++i) writeText(file, line);
    YIF_Close(file);
    return 0;
  };
  const std::string ours(60, 'a'), theirs(90, 'b');
  const pid_t child = startChild([&] { return append(theirs + "\n"); });
  append(ours + "\n");
  EXPECT_EQ(waitForChild(child), 0);
  std::ifstream log(path);
  std::multiset<std::string> lines;
  for (std::string line; std::getline(log, line);) lines.insert(line);
  EXPECT_EQ(lines.count(ours), 500u);
  EXPECT_EQ(lines.count(theirs), 500u);
  EXPECT_EQ(lines.size(), 1000u);
}

TEST(Files, DoNotPassToProgramsThatAreStarted) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("log");
  const YIF_Handle file = YIF_Open(path.c_str(), YIF_OPEN_APPEND, 1);
  int found = 0;
  for (int descriptor = 0; descriptor < 100; ++descriptor) {
    std::error_code error;
    const auto link = "/proc/self/fd/" + std::to_string(descriptor);
    if (std::filesystem::read_symlink(link, error) != path) continue;
    ++found;
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 1);
  YIF_Close(file);
}

bool pipeSignalIsPending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

TEST(Files, AReaderThatHasGoneRaisesNoSignal) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("fifo");
  mkfifo(path.c_str(), 0600);
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  const YIF_Handle file = YIF_Open(path.c_str(), YIF_OPEN_APPEND, 1);
  ASSERT_NE(file, YIF_NO_FILE);
  writeText(file, "read");
  char text[8] = {};
  EXPECT_EQ(read(reader, text, sizeof text), 4);
  close(reader);
  errno = 12345;
  writeText(file, "dropped");
  EXPECT_EQ(errno, 12345);
  EXPECT_FALSE(pipeSignalIsPending());
  sigset_t pipe, before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  raise(SIGPIPE);
  writeText(file, "dropped");
  EXPECT_TRUE(pipeSignalIsPending());
  int signal = 0;
  sigwait(&pipe, &signal);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  YIF_Close(file);
}

// A slow reader and a timer's signals make the system take the bytes in many parts.
TEST(Files, InterruptedWritesAreFinished) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("fifo");
  mkfifo(path.c_str(), 0600);
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  const YIF_Handle file = YIF_Open(path.c_str(), YIF_OPEN_APPEND, 1);
  ASSERT_NE(file, YIF_NO_FILE);
  std::string sent(1 << 20, '\0'), received;
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 4096);
  struct sigaction tick = {}, usual;
  tick.sa_handler = [](int) {};
  sigaction(SIGVTALRM, &tick, &usual);
  std::atomic<bool> done{false};
  const pthread_t writer = pthread_self();
  Tasks tasks(2, [&](int i) {
    while (i == 0 && !done) {
      pthread_kill(writer, SIGVTALRM);
      std::this_thread::sleep_for(300us);
    }
    char part[10000];
    while (i == 1 && received.size() < sent.size()) {
      pollfd ready = {reader, POLLIN, 0};
      if (poll(&ready, 1, 5000) != 1) break;
      received.append(part,
                      static_cast<size_t>(std::max<ssize_t>(read(reader, part, sizeof part), 0)));
      std::this_thread::sleep_for(200us);
    }
  });
  writeText(file, sent);
  done = true;
  tasks.join();
  sigaction(SIGVTALRM, &usual, nullptr);
  EXPECT_TRUE(received == sent);
  YIF_Close(file);
  close(reader);
}

// --- Assertions ---

// The library's own operation, also where the program has put another in its place.
template <class Operation>
Operation* ofLibrary(const char* name) {
  return reinterpret_cast<Operation*>(dlsym(RTLD_NEXT, name));
}
using Report = void(const char*, const char*, unsigned);
void report(const char* condition, const char* file, unsigned line) {
  ofLibrary<Report>("YfAssert__")(condition, file, line);
}
void outputDebugString(const char* text) {
  ofLibrary<void(const char*)>("OutputDebugStringA")(text);
}

using AssertionDeath = Death;

TEST_F(AssertionDeath, StopsTheProcess) {
  EXPECT_EXIT(report("a < b", "some/file", 17), testing::KilledBySignal(SIGABRT),
              "assertion failed: a < b, some/file:17");
  EXPECT_EXIT(_assert("b < c", "other/file", 18), testing::KilledBySignal(SIGABRT),
              "assertion failed: b < c, other/file:18");
}

TEST(Assertion, GoesOnWhenAskedTo) {
  const Variable goOn("YSYS_ASSERT", "continue");
  testing::internal::CaptureStderr();
  report("a < b", "some/file", 17);
  _assert(nullptr, nullptr, UINT_MAX);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "assertion failed: a < b, some/file:17\nassertion failed: , :4294967295\n");
}

// --- The debugger channel ---

std::string debugOutputToStandardError(const char* text) {
  testing::internal::CaptureStderr();
  outputDebugString(text);
  return testing::internal::GetCapturedStderr();
}

TEST(DebugChannel, IsStandardErrorUnlessNamed) {
  EXPECT_EQ(debugOutputToStandardError("100%s\n"), "100%s\n");
  EXPECT_EQ(debugOutputToStandardError(nullptr), "");
  const Variable channel("YSYS_DEBUG_CHANNEL", "/no/such/place");
  EXPECT_EQ(debugOutputToStandardError("text"), "text");
}

TEST(DebugChannel, AppendsToAFile) {
  const TemporaryDirectory directory;
  const Variable channel("YSYS_DEBUG_CHANNEL", directory.pathOf("debug"));
  EXPECT_EQ(debugOutputToStandardError("one\n"), "");
  EXPECT_EQ(debugOutputToStandardError("two\n"), "");
  EXPECT_EQ(directory.read("debug"), "one\ntwo\n");
}

TEST(DebugChannel, NeverWaitsForTheReaderOfAFifo) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("fifo");
  mkfifo(path.c_str(), 0600);
  const Variable channel("YSYS_DEBUG_CHANNEL", path);
  EXPECT_EQ(debugOutputToStandardError("no reader"), "no reader");
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(debugOutputToStandardError("read"), "");
  char text[8] = {};
  EXPECT_EQ(read(reader, text, sizeof text), 4);
  EXPECT_STREQ(text, "read");
  const std::string tooMuch(1 << 20, 'x');
  const size_t left = debugOutputToStandardError(tooMuch.c_str()).size();
  EXPECT_GT(left, 0u);
  EXPECT_LT(left, tooMuch.size());
  close(reader);
}

// --- Messages ---

const char* const _message = "--help <b>&\"$(touch x)`\n'C:\\new'";

// A directory that is the whole PATH of a child whose display exists and whose dialogs are scripts.
class Dialogs {
 public:
  void add(const char* program, const std::string& script) {
    const std::string path = directory_.write(program, "#!/bin/sh\n" + script + "\n");
    chmod(path.c_str(), 0755);
  }
  std::string recorded() const { return directory_.read("record"); }
  ChildResult show() const {
    return runInChild([this] {
      setsid();
      setenv("PATH", directory_.pathOf("").c_str(), 1);
      setenv("RECORD", directory_.pathOf("record").c_str(), 1);
      setenv("DISPLAY", ":77", 1);
      return MessageBoxA(nullptr, _message, "Caption", 0) == 1 ? 0 : 1;
    });
  }

 private:
  TemporaryDirectory directory_;
};

TEST(Message, IsPassedToADialogAsItIs) {
  Dialogs dialogs;
  dialogs.add("zenity", "for each; do printf '%s|' \"$each\"; done > \"$RECORD\"");
  dialogs.add("kdialog", "echo second >> \"$RECORD\"");
  const ChildResult child = dialogs.show();
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.errorOutput, "");
  EXPECT_EQ(dialogs.recorded(),
            "--info|--no-markup|--title|Caption|--text|--help <b>&\"$(touch x)`\n'C:\\\\new'|");
}

TEST(Message, GoesToTheNextDialogWhenOneCannotShow) {
  Dialogs dialogs;
  dialogs.add("zenity", "exit 1");
  dialogs.add("kdialog", "kill -ABRT $$");
  dialogs.add("gxmessage", "/bin/cat > /dev/null; exit 1");
  dialogs.add("xmessage", "echo $4 > \"$RECORD\"; /bin/cat >> \"$RECORD\"");
  const ChildResult child = dialogs.show();
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.errorOutput, "");
  EXPECT_EQ(dialogs.recorded(), std::string("-\n") + _message);
}

TEST(Message, ADialogThatWasClosedIsAnswered) {
  Dialogs dialogs;
  dialogs.add("zenity", "/bin/sleep 0.4; exit 1");
  dialogs.add("kdialog", "echo second > \"$RECORD\"");
  EXPECT_EQ(dialogs.show().errorOutput, "");
  EXPECT_EQ(dialogs.recorded(), "");
}

TEST(Message, IsPrintedWhereNobodyCanAnswer) {
  const std::string printed = std::string("Caption: ") + _message + "\n";
  EXPECT_EQ(Dialogs().show().errorOutput, printed);
  const auto child = runInChild([] {
    setsid();
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    return MessageBoxA(nullptr, nullptr, nullptr, 0);
  });
  EXPECT_EQ(child.status, 1);
  EXPECT_EQ(child.errorOutput, ": \n");
}

// Reads until the terminal has shown the text, or for 5 seconds.
bool terminalShows(int terminal, const std::string& text) {
  std::string shown;
  pollfd ready = {terminal, POLLIN, 0};
  while (shown.find(text) == std::string::npos && poll(&ready, 1, 5000) == 1) {
    char part[256];
    const ssize_t count = read(terminal, part, sizeof part);
    if (count <= 0) return false;
    shown.append(part, static_cast<size_t>(count));
  }
  return shown.find(text) != std::string::npos;
}

int showWithoutDisplay() {
  alarm(20);
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  return MessageBoxA(nullptr, "Text", "Caption", 0);
}

TEST(Message, AsksOnTheTerminalAndWaitsForEnter) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == -1) GTEST_SKIP() << "this system gives no terminals";
  if (child == 0) _exit(showWithoutDisplay());
  EXPECT_TRUE(terminalShows(terminal, "Press Enter"));
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
  EXPECT_EQ(write(terminal, "yes\n", 4), 4);
  EXPECT_EQ(waitForChild(child), 1);
  close(terminal);
}

TEST(Message, DoesNotAskFromTheBackgroundOfATerminal) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == -1) GTEST_SKIP() << "this system gives no terminals";
  if (child == 0) {
    _exit(waitForChild(startChild([] {
      setpgid(0, 0);
      return showWithoutDisplay();
    })));
  }
  EXPECT_TRUE(terminalShows(terminal, "Caption: Text"));
  EXPECT_EQ(waitForChild(child), 1);
  close(terminal);
}

TEST(Platform, LibraryCallsAreGivenUp) { EXPECT_EQ(DisableThreadLibraryCalls(nullptr), 1); }

}  // namespace
