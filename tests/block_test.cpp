// The empty locks have their operations, no state, and hold nobody.
#include "utils/sdk/block.h"

#include <type_traits>

#include "gtest/gtest.h"

namespace {

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

}  // namespace
