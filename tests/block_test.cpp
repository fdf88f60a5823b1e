// SPDX-License-Identifier: MIT
// Locks that hold nobody, and two that do: their steps on the event, violations, copies, and real
// contention.
#include "utils/sdk/block.h"

#include <atomic>
#include <mutex>
#include <type_traits>

#include "gmock/gmock.h"
#include "support/contention.h"
#include "support/seed.h"
#include "support/sharing.h"
#include "support/system_calls.h"
#include "utils/sdk/locker.h"

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

// --- Both, and those of locker.h ---

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

// Two locks in either order, tried or waited for.
template <class Kind>
void excludeWithStd(Kind& a, Kind& b) {
  unsigned count = 0;
  std::atomic<unsigned> tasks{0};
  inTasks(3, [&] {
    Random random(tasks++);
    for (unsigned done = 0; done < 3000;) {
      const bool aFirst = random.below(2) == 0;
      if (random.below(2) == 0) {
        const std::scoped_lock both(aFirst ? a : b, aFirst ? b : a);
        done++, count++;
      } else if (const std::unique_lock first(a, std::try_to_lock); first.owns_lock()) {
        const std::lock_guard again(a);
        const std::unique_lock second(b, std::try_to_lock);
        if (second.owns_lock()) done++, count++;
      }
    }
    const std::lock_guard held(a);
    std::thread([&] { EXPECT_FALSE(a.try_lock()); }).join();
  });
  EXPECT_EQ(count, 9000u);
}

TYPED_TEST(Blocks, ServeTheStandardGuards) {
  TypeParam a("a"), b("b");
  excludeWithStd(a, b);
}

TEST(Locks, ServeTheStandardGuards) {
  Mutex mutexes[2];
  excludeWithStd(mutexes[0], mutexes[1]);
  CriticalSection sections[2];
  excludeWithStd(sections[0], sections[1]);
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
