// SPDX-License-Identifier: MIT
// Locks that hold nobody, and two that do: their steps on the event, violations, copies, and real
// contention.
#include "utils/sdk/block.h"

#include <atomic>
#include <memory>
#include <type_traits>

#include "gmock/gmock.h"
#include "support/assertion_recorder.h"
#include "support/contention.h"
#include "support/system_calls.h"

YIF_Handle YIF_CreateEventCoop(int manualReset, int initiallySet) noexcept {
  SystemCalls::note("create " + std::to_string(manualReset) + std::to_string(initiallySet));
  static const auto real = SystemCalls::real(YIF_CreateEventCoop, "YIF_CreateEventCoop");
  return real(manualReset, initiallySet);
}

#define NOTED(NAME, NOTE)                                    \
  void NAME(YIF_Handle handle) noexcept {                    \
    SystemCalls::note(NOTE);                                 \
    static const auto real = SystemCalls::real(NAME, #NAME); \
    real(handle);                                            \
  }

NOTED(YIF_DestroyEventCoop, "destroy")
NOTED(YIF_SetEventCoop, "set")
NOTED(YIF_WaitEventCoop, "wait")
NOTED(YIF_DestroyCriticalSection, "destroy section")

namespace {

using namespace Utils;
using testing::ElementsAre;
using testing::IsEmpty;

// --- The empty ones ---

static_assert(std::is_empty_v<Utils::YtBLock> && std::is_empty_v<Utils::YtBLocker>);
static_assert(std::is_empty_v<Utils::YtReadWriteBLock> &&
              std::is_empty_v<Utils::YtReadWriteBLocker>);

// Would not return if anything here waited.
TEST(EmptyLocks, HoldNobody) {
  Utils::YtBLock lock(nullptr);
  lock.unlock();
  lock.lock();
  lock.lock();
  Utils::YtBLocker first(lock);
  Utils::YtBLocker second(lock);
  second.unlock();
  Utils::YtReadWriteBLock both("both");
  both.writeLock();
  both.writeLock();
  both.readLock();
  both.readUnlock();
  both.writeUnlock();
  Utils::YtReadWriteBLocker locker(both);
  locker.writeLock();
  locker.readLock();
  locker.readUnlock();
  locker.writeUnlock();
  locker.kill();
}

// --- The light lock ---

TEST(LightLock, TouchesTheEventOnlyWhenItIsTakenAndFreed) {
  const char* const name = "light";
  const SystemCalls calls;
  {
    YtLightBLock lock(name);
    EXPECT_EQ(lock.name(), name);
    EXPECT_THAT(calls.take(), ElementsAre("create 01"));
    for (int i = 0; i < 3; i++) lock.lock();
    EXPECT_THAT(calls.take(), ElementsAre("wait"));
    lock.unlock();
    lock.unlock();
    EXPECT_THAT(calls.take(), IsEmpty());
    lock.unlock();
    EXPECT_THAT(calls.take(), ElementsAre("set"));
    {
      YtLightBLocker early(lock);
      const YtLightBLocker again(lock);
      early.unlock();
      EXPECT_THAT(calls.take(), ElementsAre("wait"));
    }
    EXPECT_THAT(calls.take(), ElementsAre("set"));
  }
  EXPECT_THAT(calls.take(), ElementsAre("destroy"));
}

TEST(LightLock, TellsOfViolationsAndGoesOn) {
  Log::theLog()->setVerbosity(0);
  const TracedUpTo traced(0);
  const char* const violation = "debug[0]|utils|BLock violation: light";
  YtLightBLock lock("light");
  {
    const SystemCalls calls;
    lock.unlock();
    EXPECT_THAT(calls.take(), ElementsAre(violation)) << "a free one: counted, and no set";
    lock.lock();
    EXPECT_THAT(calls.take(), ElementsAre("wait"));
    std::thread([&] { lock.unlock(); }).join();
    EXPECT_THAT(calls.take(), ElementsAre(violation, "set")) << "freed by a foreign task";
    lock.lock();
    YtLightBLocker twice(lock);
    twice.unlock();
    twice.unlock();
    EXPECT_THAT(calls.take(), ElementsAre("wait", "set"));
  }
  inTasks(2, [&] {
    lock.lock();
    lock.unlock();
  });
}

TEST(LightLock, AssertsWhenItEndsHeld) {
  const SystemCalls calls;
  AssertionRecorder assertions;
  {
    YtLightBLock lock("held");
    lock.lock();
    calls.take();
  }
  EXPECT_THAT(assertions.take(), ElementsAre("owner_ == (unsigned long)-1"));
  EXPECT_THAT(assertions.files_, testing::Each("utils/sdk/block"));
  EXPECT_THAT(calls.take(), ElementsAre("destroy"));
}

TEST(LightLock, LetsTheNextTaskInAfterTheLastUnlock) {
  YtLightBLock lock("light");
  std::atomic<bool> isIn{false};
  for (int i = 0; i < 3; i++) lock.lock();
  std::thread other([&] {
    const YtLightBLocker locker(lock);
    isIn = true;
  });
  for (int i = 0; i < 2; i++) lock.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(isIn);
  lock.unlock();
  other.join();
  EXPECT_TRUE(isIn);
}

// --- Both ---

TEST(Blocks, Exclude) {
  YtLightBLock light("light");
  EXPECT_EQ(countUnder([&](auto step) {
              const YtLightBLocker locker(light);
              const YtLightBLocker again(light);
              step();
            }),
            20000u);
  YtHeavyBLock heavy("heavy");
  EXPECT_EQ(countUnder([&](auto step) {
              heavy.lock();
              heavy.lock();
              step();
              heavy.unlock();
              heavy.unlock();
            }),
            20000u);
}

template <class Kind>
void expectSharing(const char* end) {
  const SystemCalls calls;
  {
    Kind first("first");
    auto second = std::make_unique<Kind>(first);
    Kind third("third");
    calls.take();
    third = *second;
    EXPECT_THAT(calls.take(), ElementsAre(end));
    second.reset();
    third.lock();
    third.unlock();
    first.lock();
    first.unlock();
    EXPECT_THAT(calls.take(), testing::Not(testing::Contains(end)));
  }
  EXPECT_THAT(calls.take(), ElementsAre(end));
}

TEST(Blocks, ThatAreCopiesShareOneAndEndItOnce) {
  expectSharing<YtLightBLock>("destroy");
  expectSharing<YtHeavyBLock>("destroy section");
}

}  // namespace
