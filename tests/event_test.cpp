// SPDX-License-Identifier: MIT
// What events hand down to the system and up from it, their two lines, who ends what is shared, and
// tasks that wait.
#include "utils/sdk/event.h"

#include <atomic>
#include <memory>

#include "gmock/gmock.h"
#include "support/contention.h"
#include "support/system_calls.h"

namespace {

YIF_Handle _made = 0;  // the latest event
int _answer = -1;      // of timed waits, where not below 0
double _limit = 0;     // of the latest
}  // namespace

unsigned long YIF_CurrentTaskId() noexcept { return 2480; }

YIF_Handle YIF_CreateEvent(int manualReset, int initiallySet) noexcept {
  SystemCalls::note("create " + std::to_string(manualReset) + std::to_string(initiallySet));
  static const auto real = SystemCalls::real(YIF_CreateEvent, "YIF_CreateEvent");
  return _made = real(manualReset, initiallySet);
}

void YIF_DestroyEvent(YIF_Handle event) noexcept {
  SystemCalls::note("destroy");
  static const auto real = SystemCalls::real(YIF_DestroyEvent, "YIF_DestroyEvent");
  real(event);
}

int YIF_WaitEventTimed(YIF_Handle event, double seconds) noexcept {
  _limit = seconds;
  static const auto real = SystemCalls::real(YIF_WaitEventTimed, "YIF_WaitEventTimed");
  return _answer >= 0 ? _answer : real(event, seconds);
}

namespace {

using namespace Utils;
using testing::ElementsAre;
using testing::IsEmpty;

std::string line(const char* step) {
  char text[100];
  std::snprintf(text, sizeof text, "debug[0]|utils|9b0 %s event %x", step, _made);
  return text;
}

TEST(Events, AreTracedAtBirthAndEnd) {
  Log::theLog()->setVerbosity(0);
  const TracedUpTo traced(0);
  const SystemCalls calls;
  for (const bool manualReset : {false, true}) {
    for (const bool initiallySet : {false, true}) {
      {
        const Ref<WaitableEvent> event(new WaitableEvent(manualReset, initiallySet));
        const std::string flags = std::to_string(manualReset) + std::to_string(initiallySet);
        EXPECT_THAT(calls.take(), ElementsAre("create " + flags, line("Created")));
        EXPECT_EQ(event->wait(0.0), initiallySet);
        EXPECT_EQ(event->wait(0.0), initiallySet && manualReset);
        event->set();
        event->reset();
        EXPECT_FALSE(event->wait(-1));
        EXPECT_THAT(calls.take(), IsEmpty());
      }
      EXPECT_THAT(calls.take(), ElementsAre(line("Destroying"), "destroy"));
    }
  }
}

TEST(Events, HandTheLimitDownAndTheResultUp) {
  WaitableEvent event(false, false);
  for (int answer : {0, 1, 7}) {
    _answer = answer;
    EXPECT_EQ(event.wait(0.125 * answer), answer != 0);
    EXPECT_EQ(_limit, 0.125 * answer);
  }
  _answer = -1;
}

TEST(Events, ThatAreCopiesShareOneAndEndItOnce) {
  const SystemCalls calls;
  {
    WaitableEvent first(true, false);
    auto second = std::make_unique<WaitableEvent>(first);
    WaitableEvent third(false, false);
    calls.take();
    third = *second;
    EXPECT_THAT(calls.take(), ElementsAre("destroy"));
    second.reset();
    first.set();
    EXPECT_TRUE(third.wait(0.0));
    EXPECT_THAT(calls.take(), IsEmpty());
  }
  EXPECT_THAT(calls.take(), ElementsAre("destroy"));
}

TEST(Events, LetOneTaskOrAllThrough) {
  WaitableEvent one(false, false), all(true, false), back(false, false);
  std::atomic<int> through{0};
  std::thread waker([&] {
    for (int i = 0; i < 3; i++) {
      one.set();
      back.wait();
    }
    EXPECT_EQ(through, 3);
    all.set();
  });
  inTasks(3, [&] {
    one.wait();
    through++;
    back.set();
    all.wait();
  });
  waker.join();
}

}  // namespace
