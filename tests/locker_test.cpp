// SPDX-License-Identifier: MIT
// The exact order of lines and system calls, who ends what is shared, and real contention.
#include "utils/sdk/locker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <sstream>

#include "gmock/gmock.h"
#include "support/child_process.h"
#include "support/contention.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "utils/sdk/platform.h"
#include "utils/testing/failing_allocator.h"

// --- The system's operations, noted ---

YIF_Handle _made = 0, _used = 0;  // the latest

unsigned long YIF_CurrentTaskId() noexcept {
  SystemCalls::note("id");
  return 2480;
}

#define NOTED(NAME, NOTE)                                    \
  void NAME(YIF_Handle handle) noexcept {                    \
    SystemCalls::note(NOTE);                                 \
    if (SystemCalls::isNoting()) _used = handle;             \
    static const auto real = SystemCalls::real(NAME, #NAME); \
    real(handle);                                            \
  }
#define NOTED_MAKER(NAME)                                    \
  YIF_Handle NAME() noexcept {                               \
    SystemCalls::note("create");                             \
    static const auto real = SystemCalls::real(NAME, #NAME); \
    const YIF_Handle made = real();                          \
    if (SystemCalls::isNoting()) _made = made;               \
    return made;                                             \
  }

NOTED_MAKER(YIF_CreateMutex)
NOTED(YIF_DestroyMutex, "destroy")
NOTED(YIF_EnterMutex, "enter")
NOTED(YIF_ExitMutex, "exit")
NOTED_MAKER(YIF_CreateCriticalSection)
NOTED(YIF_DestroyCriticalSection, "destroy")
NOTED(YIF_EnterCriticalSection, "enter")
NOTED(YIF_ExitCriticalSection, "exit")

namespace {

using namespace Utils;
using testing::ElementsAre;
using testing::IsEmpty;
using Utils::Testing::FailingAllocator;

template <class Kind>
const char* nameOf();
template <>
const char* nameOf<Mutex>() {
  return "mutex ";
}
template <>
const char* nameOf<CriticalSection>() {
  return "critical section ";
}

template <class Kind>
struct Locks : testing::Test {
  Locks() { Log::theLog()->setVerbosity(0); }

  // A line of the lock that was made last.
  static std::string line(int level, const char* step) {
    return "debug[" + std::to_string(level) + "]|utils|2480 " + step + " " + nameOf<Kind>() +
           std::to_string(_made);
  }
};

using Kinds = testing::Types<Mutex, CriticalSection>;
TYPED_TEST_SUITE(Locks, Kinds);

TYPED_TEST(Locks, AreTracedStepByStep) {
  const TracedUpTo traced(2);
  const SystemCalls calls;
  {
    TypeParam lock;
    EXPECT_THAT(calls.take(), ElementsAre("create", "id", this->line(0, "Created")));
    {
      const Locker locker(&lock, "a%s.cpp", 77);
      EXPECT_THAT(
          calls.take(),
          ElementsAre("id", "debug[2]|utils|2480 Taking lock at file:'a%s.cpp', line:77", "id",
                      this->line(2, "Waiting for"), "enter", "id", this->line(2, "Got")));
    }
    EXPECT_THAT(
        calls.take(),
        ElementsAre("id", "debug[2]|utils|2480 Freeing lock taken at file:'a%s.cpp', line:77", "id",
                    this->line(2, "Exiting"), "exit"));
  }
  EXPECT_THAT(calls.take(), ElementsAre("id", this->line(0, "Destroying"), "destroy"));
}

TYPED_TEST(Locks, AskForNoTaskWhereALineIsOff) {
  for (int level : {-1, 0, 1}) {
    const TracedUpTo traced(level);
    const SystemCalls calls;
    {
      TypeParam lock;
      calls.take();
      const Locker locker(&lock, "a.cpp", 77);
    }
    if (level < 0) {
      EXPECT_THAT(calls.take(), ElementsAre("enter", "exit", "destroy"));
    } else {
      EXPECT_THAT(calls.take(),
                  ElementsAre("enter", "exit", "id", this->line(0, "Destroying"), "destroy"));
    }
  }
}

TYPED_TEST(Locks, ThatAreCopiesShareOneAndEndItOnce) {
  const SystemCalls calls;
  {
    TypeParam first;
    const YIF_Handle shared = _made;
    auto second = std::make_unique<TypeParam>(first);
    TypeParam third;
    calls.take();
    third = *second;
    EXPECT_THAT(calls.take(), ElementsAre("destroy")) << "nobody had the third's own any more";
    EXPECT_EQ(_used, _made);
    third = *&third;
    first = third;
    second.reset();
    EXPECT_THAT(calls.take(), IsEmpty());
    third.enter();
    EXPECT_EQ(_used, shared);
    first.exit();
    calls.take();
  }
  EXPECT_THAT(calls.take(), ElementsAre("destroy"));
}

// Sixteen are counted without memory. Beyond that nothing is ended: a second end of one object
// would stop the process.
TYPED_TEST(Locks, ThatCannotBeCountedAreNotEnded) {
  for (const int shared : {16, 17}) {
    const auto child = runInChild([&] {
      std::vector<std::unique_ptr<TypeParam>> locks;
      for (int i = 0; i < shared; i++) locks.emplace_back(new TypeParam);
      {
        const std::vector<std::unique_ptr<TypeParam>> ends = std::move(locks);
        std::vector<TypeParam*> copies(ends.size());
        {
          FailingAllocator allocator;
          alignas(TypeParam) static char room[17][sizeof(TypeParam)];
          allocator.failFrom(1);
          for (std::size_t i = 0; i < ends.size(); i++)
            copies[i] = new (room[i]) TypeParam(*ends[i]);
        }
        for (TypeParam* copy : copies) copy->~TypeParam();
      }
      const SystemCalls calls;
      TypeParam().enter();
      return static_cast<int>(calls.take().size());
    });
    EXPECT_EQ(child.status, shared == 16 ? 3 : 2) << child.errorOutput;
  }
}

TYPED_TEST(Locks, Exclude) {
  TypeParam lock;
  EXPECT_EQ(countUnder([&](auto step) {
              const Locker outer(&lock, __FILE__, __LINE__);
              const Locker again(&lock, __FILE__, __LINE__);
              step();
            }),
            20000u);
}

TYPED_TEST(Locks, ComeAndGoWhileOthersAreCopied) {
  TypeParam original;
  std::atomic<unsigned> tasks{0};
  inTasks(3, [&] {
    const bool copies = tasks++ == 0;
    for (int i = 0; i < 2000; i++) {
      const TypeParam lock = copies ? TypeParam(original) : TypeParam();
      lock.enter();
      lock.exit();
    }
  });
}

// --- Lines from many tasks ---

constexpr unsigned TASKS = 4, TIMES = 300;

std::atomic<unsigned> _shown{0};  // on the debugger channel and on screen

std::string formatOf(unsigned i) { return "%u %u" + std::string(i * 5, 'x'); }

// Each task prints while it holds two locks that print, too.
void printFromManyTasks(Logger* sink) {
  Log& hub = *Log::theLog();
  hub.getCategory("many");
  Mutex mutex;
  CriticalSection section;
  hub.setLogger(sink);
  hub.getCategory("utils", 2, true);
  hub.resetLogStats();
  std::atomic<unsigned> tasks{0};
  inTasks(TASKS, [&, task = 0u]() mutable {
    task = tasks++;
    for (unsigned i = 0; i < TIMES; i++) {
      const Locker outer(&mutex, "a.cpp", 1), inner(&section, "a.cpp", 2);
      hub.print(Info, "many", -1, "f", 1, formatOf(i).c_str(), task, i);
    }
  });
  unsigned errors, warnings, infos, debugs;
  hub.logStats(errors, warnings, infos, debugs);
  EXPECT_EQ(infos, TASKS * TIMES);
  EXPECT_EQ(debugs, 10 * infos);
  hub.setLogger(nullptr);
  hub.getCategory("utils", 0, false);
}

TEST(ManyTasks, PrintToEverySink) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("out");
  std::fflush(stdout);
  const int out = dup(STDOUT_FILENO);
  dup2(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600), STDOUT_FILENO);
  for (Logger* sink : std::initializer_list<Logger*>{
           new NullLogger, new SystemLogger(nullptr), new DialogLogger,
           new StdLogger(StdLogger::Stdout), new FileLogger(path.c_str(), FileLogger::Append)})
    printFromManyTasks(sink);
  dup2(out, STDOUT_FILENO);
  EXPECT_EQ(_shown, 2 * 11 * TASKS * TIMES);
  const std::string text = directory.read("out");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2 * 11 * TASKS * TIMES);
  unsigned next[TASKS] = {}, task, i;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    ASSERT_FALSE(line.empty()) << "the text and its end were torn apart";
    if (line.back() != '\r') continue;  // of a stream
    if (std::sscanf(line.c_str(), "info|many|%u %u", &task, &i) == 2) {
      ASSERT_EQ(i, next[task]++);
      const std::string start = "info|many|" + std::to_string(task) + " " + std::to_string(i);
      ASSERT_EQ(line, (start + formatOf(i).substr(5)).substr(0, 478) + "\r");
    } else {
      ASSERT_THAT(line, testing::MatchesRegex("debug.2.\\|utils\\|2480 [^|]+\r"));
    }
  }
  EXPECT_THAT(next, testing::Each(TIMES));
}

TEST(Lockers, ThatAreAssignedEnterAndLeaveNothing) {
  Mutex first, second;
  {
    Locker locker(&first, "a.cpp", 1);
    Locker other(&second, "b.cpp", 2);
    second.enter();
    const SystemCalls calls;
    locker = other;
    EXPECT_THAT(calls.take(), IsEmpty());
  }
  first.exit();
}

}  // namespace

void OutputDebugStringA(const char*) noexcept { _shown++; }

int MessageBoxA(void*, const char*, const char*, unsigned int) noexcept {
  _shown++;
  return 1;
}
