// SPDX-License-Identifier: MIT
// The exact order of lines and system calls, who ends what is shared, and real contention.
#include "utils/sdk/locker.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <sstream>

#include "gmock/gmock.h"
#include "support/child_process.h"
#include "support/contention.h"
#include "support/sharing.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "utils/sdk/platform.h"
#include "utils/testing/failing_allocator.h"

// --- The system's operations, noted ---

unsigned long YIF_CurrentTaskId() noexcept {
  SystemCalls::note("id");
  return 2480;
}

NOTED_MAKER(YIF_CreateMutex, (), ())
NOTED(YIF_DestroyMutex, "destroy")
NOTED(YIF_EnterMutex, "enter")
NOTED(YIF_ExitMutex, "exit")
int YfTryEnterMutex(unsigned mutex) noexcept {
  SystemCalls::note("try");
  static const auto real = SystemCalls::real(YfTryEnterMutex, "YfTryEnterMutex");
  return real(mutex);
}

int YfTryEnterCriticalSection(unsigned section) noexcept {
  SystemCalls::note("try");
  static const auto real =
      SystemCalls::real(YfTryEnterCriticalSection, "YfTryEnterCriticalSection");
  return real(section);
}

NOTED_MAKER(YIF_CreateCriticalSection, (), ())
NOTED(YIF_DestroyCriticalSection, "destroy")
NOTED(YIF_EnterCriticalSection, "enter")
NOTED(YIF_ExitCriticalSection, "exit")

namespace {

using namespace Utils;
using Utils::Testing::FailingAllocator;

template <class Kind>
struct Locks : testing::Test {};

using Kinds = testing::Types<Mutex, CriticalSection>;
TYPED_TEST_SUITE(Locks, Kinds);

// Every line asks for the task, and nothing else does.
TYPED_TEST(Locks, AreTracedStepByStep) {
  for (const int traced : {-1, 0, 1, 2}) {
    const TracedUpTo upTo(traced);
    const SystemCalls calls;
    {
      TypeParam lock;
      const Locker locker(&lock, "a%s.cpp", 77);
      const std::unique_lock again(lock, std::try_to_lock);
      std::thread([&] { EXPECT_FALSE(lock.try_lock()); }).join();
    }
    const std::string kind = std::is_same_v<TypeParam, Mutex> ? " mutex " : " critical section ";
    const std::string lock = kind + std::to_string(calls.made_);
    std::vector<std::string> expected;
    const auto call = [&](const char* name) { expected.push_back(name); };
    const auto line = [&](int level, const std::string& text) {
      if (level > traced) return;
      const std::string start = "debug[" + std::to_string(level) + "]|utils|2480 ";
      expected.insert(expected.end(), {"id", start + text});
    };
    call("create");
    line(0, "Created" + lock);
    line(2, "Taking lock at file:'a%s.cpp', line:77");
    line(2, "Waiting for" + lock);
    call("enter");
    line(2, "Got" + lock);
    call("try");
    line(2, "Got" + lock);
    call("try");
    line(2, "Exiting" + lock);
    call("exit");
    line(2, "Freeing lock taken at file:'a%s.cpp', line:77");
    line(2, "Exiting" + lock);
    call("exit");
    line(0, "Destroying" + lock);
    call("destroy");
    EXPECT_EQ(calls.take(), expected);
  }
}

TYPED_TEST(Locks, ThatAreCopiesShareOneAndEndItOnce) {
  expectSharing<TypeParam>(
      "destroy", [](auto& lock) { lock.emplace(); },
      [](TypeParam& lock) { const Locker locker(&lock, "a.cpp", 1); });
}

// Sixteen are counted without memory. Once one could not be counted, no lock is ended: a second end
// of one object would stop the process.
TYPED_TEST(Locks, ThatCannotBeCountedAreNotEnded) {
  for (const unsigned shared : {16u, 300u}) {
    expectInChild([&] {
      const SystemCalls calls;
      {
        const std::deque<TypeParam> locks(shared);
        FailingAllocator memory;
        memory.failFrom(1);
        const std::deque<TypeParam> copies(locks);
      }
      const auto notes = calls.take();
      EXPECT_EQ(std::count(notes.begin(), notes.end(), "destroy"), shared == 16 ? 16 : 0);
    });
  }
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

static_assert(std::is_trivially_copy_assignable_v<Locker>, "an assignment enters and leaves none");

}  // namespace

void OutputDebugStringA(const char*) noexcept { _shown++; }

int MessageBoxA(void*, const char*, const char*, unsigned int) noexcept {
  _shown++;
  return 1;
}
