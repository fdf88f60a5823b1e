// SPDX-License-Identifier: MIT
// Locks that hold nobody, and two that do: their steps on the event, violations, copies, and real
// contention.
#include "utils/sdk/block.h"

#include <type_traits>

#include "gmock/gmock.h"
#include "support/contention.h"
#include "support/sharing.h"
#include "support/system_calls.h"

NOTED_MAKER(YIF_CreateEventCoop, (int manualReset, int initiallySet), (manualReset, initiallySet))
NOTED(YIF_DestroyEventCoop, "destroy")
NOTED(YIF_SetEventCoop, "set")
NOTED(YIF_WaitEventCoop, "wait")
NOTED(YIF_DestroyCriticalSection, "destroy")

namespace {

using namespace Utils;
using testing::ElementsAre;

// --- The empty ones ---

static_assert(std::is_empty_v<YtBLock> && std::is_empty_v<YtBLocker>);
static_assert(std::is_empty_v<YtReadWriteBLock> && std::is_empty_v<YtReadWriteBLocker>);

// Would not return if anything here waited.
TEST(EmptyLocks, HoldNobody) {
  YtBLock lock(nullptr);
  lock.unlock();
  lock.lock();
  lock.lock();
  YtBLocker first(lock);
  YtBLocker second(lock);
  second.unlock();
  YtReadWriteBLock both("both");
  both.writeLock();
  both.writeLock();
  both.readLock();
  both.readUnlock();
  both.writeUnlock();
  YtReadWriteBLocker locker(both);
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
    EXPECT_THAT(calls.take(), ElementsAre("create"));
    for (int i = 0; i < 3; i++) lock.lock();
    EXPECT_THAT(calls.take(), ElementsAre("wait"));
    lock.unlock();
    lock.unlock();
    EXPECT_THAT(calls.take(), testing::IsEmpty());
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
  const TracedUpTo traced(0);
  const char* const violation = "debug[0]|utils|BLock violation: light";
  YtLightBLock lock("other");
  lock = YtLightBLock("light");
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

// --- Both ---

template <class Kind>
struct Blocks : testing::Test {};

using Kinds = testing::Types<YtLightBLock, YtHeavyBLock>;
TYPED_TEST_SUITE(Blocks, Kinds);

TYPED_TEST(Blocks, Exclude) {
  TypeParam lock("lock");
  unsigned count = 0;
  inTasks(4, [&] {
    for (int i = 0; i < 5000; i++) {
      lock.lock();
      lock.lock();
      count++;
      lock.unlock();
      lock.unlock();
    }
  });
  EXPECT_EQ(count, 20000u);
}

TYPED_TEST(Blocks, ThatAreCopiesShareOneAndEndItOnce) {
  expectSharing<TypeParam>(
      "destroy", [](auto& lock) { lock.emplace("lock"); },
      [](TypeParam& lock) {
        lock.lock();
        lock.unlock();
      });
}

}  // namespace
