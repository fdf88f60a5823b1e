// SPDX-License-Identifier: MIT
// Events: the calls of the system layer, the two lines in the log, and copies.
#include "utils/sdk/event.h"

#include <chrono>

#include "gmock/gmock.h"
#include "support/sharing.h"
#include "support/system_calls.h"

unsigned long YIF_CurrentTaskId() noexcept { return 2480; }

NOTED_MAKER(YIF_CreateEvent, (int manualReset, int initiallySet), (manualReset, initiallySet))
NOTED(YIF_DestroyEvent, "destroy")

namespace {

using namespace Utils;
using testing::ElementsAre;

std::string line(const char* step) {
  char text[100];
  std::snprintf(text, sizeof text, "debug[0]|utils|9b0 %s event %x", step, SystemCalls::made_);
  return text;
}

TEST(Events, AreTracedAtBirthAndEnd) {
  const TracedUpTo traced(0);
  const SystemCalls calls;
  for (const bool manualReset : {false, true}) {
    for (const bool initiallySet : {false, true}) {
      {
        const Ref<WaitableEvent> event(new WaitableEvent(manualReset, initiallySet));
        EXPECT_THAT(calls.take(), ElementsAre("create", line("Created")));
        EXPECT_EQ(event->wait(0.0), initiallySet);
        EXPECT_EQ(event->wait(0.0), initiallySet && manualReset);
        event->set();
        event->wait();
        EXPECT_EQ(event->wait(-1), manualReset);
        event->reset();
        const auto begun = std::chrono::steady_clock::now();
        EXPECT_FALSE(event->wait(0.01));
        EXPECT_GE((std::chrono::steady_clock::now() - begun).count(), 10000000);
        EXPECT_THAT(calls.take(), testing::IsEmpty());
      }
      EXPECT_THAT(calls.take(), ElementsAre(line("Destroying"), "destroy"));
    }
  }
}

TEST(Events, ThatAreCopiesShareOneAndEndItOnce) {
  expectSharing<WaitableEvent>(
      "destroy", [](auto& event) { event.emplace(true, false); },
      [](WaitableEvent& event) { event.set(); });
}

}  // namespace
