// SPDX-License-Identifier: MIT
// The small allocators, and how the process allocator is created.
#include "utils/sdk/allocator.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "gmock/gmock.h"
#include "support/assertion_recorder.h"
#include "support/system_calls.h"
#include "utils/sdk/alloc.h"
#include "utils/sdk/object.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/result.h"

// The calls of the system layer. With SYSTEM_MEMORY_FAILS_AT_LOAD in the environment all requests
// fail until the first reset.
struct SystemMemory {
  static void reset() {
    wasReset_ = true;
    fails_ = false;
    inits_ = 0;
    sizes_.clear();
  }

  static inline bool wasReset_ = false;
  static inline bool fails_ = false;
  static inline unsigned inits_ = 0;
  static inline std::vector<unsigned> sizes_;  // every request
  static inline int attached_ = 0;
};

extern "C" {

[[gnu::visibility("default")]] void YIF_MemInit(unsigned int flags) noexcept {
  SystemMemory::inits_++;
  SystemCalls::real(YIF_MemInit, "YIF_MemInit")(flags);
}

[[gnu::visibility("default")]] void* YIF_MemAlloc(unsigned int size) noexcept {
  SystemMemory::sizes_.push_back(size);
  const bool failsAtLoad = !SystemMemory::wasReset_ && std::getenv("SYSTEM_MEMORY_FAILS_AT_LOAD");
  if (SystemMemory::fails_ || failsAtLoad) return nullptr;
  return SystemCalls::real(YIF_MemAlloc, "YIF_MemAlloc")(size);
}
}

int DisableThreadLibraryCalls(void*) noexcept { return ++SystemMemory::attached_; }

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Utils::Allocator;

constexpr unsigned RESERVED = 20971528;

TEST(HostAllocator, PassesOnAndKnowsNothing) {
  AssertionRecorder recorder;
  SystemMemory::reset();
  Utils::HostAllocator host;
  Allocator* allocator = &host;
  void* mem = allocator->alloc(100, 70);
  EXPECT_NE(mem, nullptr);
  EXPECT_NE(host.alloc(50, 'x'), nullptr);
  EXPECT_NE(host.alloc(50, 3), nullptr);
  EXPECT_THAT(SystemMemory::sizes_, ElementsAre(100u, 50u, 50u));
  unsigned old = 77;
  EXPECT_EQ(allocator->setDefaultColor(5, &old), Utils::RESULT_NOT_IMPLEMENTED);
  EXPECT_EQ(old, 77u);
  EXPECT_EQ(allocator->setColor(mem, 5), Utils::RESULT_NOT_IMPLEMENTED);
  allocator->adjustColorMemory(5, 100);
  allocator->free(mem);
  EXPECT_FALSE(allocator->valid(mem));
  EXPECT_EQ(allocator->color(mem) + allocator->size(mem) + allocator->defaultColor() +
                allocator->allocatedMemory() + allocator->internalFree() +
                allocator->allocatedColorMemory(5) + allocator->freeColorMemory(5),
            0u);
  EXPECT_THAT(recorder.take(), IsEmpty());
  SystemMemory::fails_ = true;
  EXPECT_EQ(host.alloc(100), nullptr);
  EXPECT_THAT(recorder.take(), ElementsAre("m"));
  EXPECT_THAT(recorder.files_, ElementsAre("utils/sdk/allocator"));
}

TEST(AllocationLimiter, CutsItsPoolToTheLastByte) {
  SystemMemory::reset();
  Utils::AllocationLimiter limiter(100);
  EXPECT_TRUE(SystemMemory::sizes_.empty());
  char* base = static_cast<char*>(limiter.alloc(60));
  EXPECT_NE(limiter.alloc(41), base + 60) << "does not fit and comes from the system layer";
  Utils::AllocationLimiter copy(limiter);
  EXPECT_EQ(limiter.alloc(40), base + 60);
  EXPECT_NE(limiter.alloc(1), base + 100);
  EXPECT_EQ(limiter.alloc(0), base + 100);
  EXPECT_EQ(copy.alloc(1, 'x'), base + 60) << "a copy has a cursor of its own";
  limiter.free(base);
  EXPECT_EQ(limiter.size(base) + limiter.allocatedMemory() + limiter.internalFree(), 0u);
  EXPECT_THAT(SystemMemory::sizes_, ElementsAre(100u, 41u, 1u));
  EXPECT_EQ(Utils::AllocationLimiter::theLimiter(), nullptr);
}

TEST(AllocationLimiter, AsksForItsPoolAgain) {
  AssertionRecorder recorder;
  SystemMemory::reset();
  SystemMemory::fails_ = true;
  Utils::AllocationLimiter limiter(100);
  EXPECT_EQ(limiter.alloc(100), nullptr);
  EXPECT_EQ(limiter.alloc(101), nullptr);
  EXPECT_THAT(SystemMemory::sizes_, ElementsAre(100u, 100u, 101u));
  SystemMemory::fails_ = false;
  EXPECT_NE(limiter.alloc(100), nullptr);
  EXPECT_EQ(SystemMemory::sizes_.size(), 4u);
  EXPECT_THAT(recorder.take(), IsEmpty());
}

// The requests of the library before this program's own objects were created.
const unsigned _initsAtLoad = SystemMemory::inits_;
const std::vector<unsigned> _sizesAtLoad = SystemMemory::sizes_;

TEST(TheAllocator, IsBuiltOnceWithItsReservation) {
  EXPECT_EQ(SystemMemory::attached_, 1);
  EXPECT_EQ(_initsAtLoad, 1u);
  EXPECT_THAT(_sizesAtLoad, ElementsAre(0x1400010u));
  SystemMemory::reset();
  Allocator* first = Allocator::theAllocator();
  EXPECT_EQ(first, Allocator::theAllocator());
  EXPECT_LT(first->internalFree(), RESERVED);
  EXPECT_GT(first->internalFree(), RESERVED - 20000);
  void* empty = Utils::Object::operator new(0);
  EXPECT_EQ(first->size(empty), 32u);
  Utils::Object::operator delete(empty);
  Utils::Object::operator delete(nullptr);
  EXPECT_EQ(SystemMemory::inits_, 0u);
  EXPECT_THAT(SystemMemory::sizes_, IsEmpty());
}

// Requests of others between two chunks leave gaps, more than one page of notes holds.
TEST(TheAllocator, VisitsAllBusyBlocksAndNoGap) {
  SystemMemory::reset();
  auto* arena = static_cast<Utils::MemoryAllocator*>(Allocator::theAllocator());
  for (unsigned color = 0; color < 200; color++) {
    YIF_MemAlloc(16);
    (void)arena->alloc(300000, color);
    (void)arena->alloc(color, color);
  }
  struct Sums {
    unsigned colors_[64], gaps_, countedPages_;
  } sums = {};
  const auto add = [](const Utils::BlockInfo& block, void* context) {
    Sums& all = *static_cast<Sums*>(context);
    if (block.kind == Utils::BlockInfo::BUSY) all.colors_[block.color] += block.size;
    if (block.kind == Utils::BlockInfo::COUNTED_PAGE) all.countedPages_ += block.size;
    if (block.kind == Utils::BlockInfo::GAP) all.gaps_++;
  };
  EXPECT_TRUE(arena->visitBlocks(add, &sums));
  EXPECT_GT(sums.gaps_, 62u);
  EXPECT_EQ(sums.colors_[0] + sums.countedPages_, arena->allocatedColorMemory(0));
  for (unsigned color = 1; color < 64; color++)
    EXPECT_EQ(sums.colors_[color], arena->allocatedColorMemory(color)) << color;
}

// The child begins anew, and its library is loaded without memory.
TEST(TheAllocator, DoesWithoutItsReservation) {
  setenv("SYSTEM_MEMORY_FAILS_AT_LOAD", "1", 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto useIt = [] {
    SystemMemory::reset();
    Allocator* allocator = Allocator::theAllocator();
    EXPECT_EQ(allocator->internalFree(), 0u);
    EXPECT_STREQ(Utils::resultToString(0), "Success #0x00000000");
    EXPECT_NE(allocator->alloc(2000), nullptr);
    EXPECT_THAT(SystemMemory::sizes_, ElementsAre(131072u));
    std::fflush(stdout);
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(useIt(), testing::ExitedWithCode(0), "");
  unsetenv("SYSTEM_MEMORY_FAILS_AT_LOAD");
}

TEST(MemoryColor, NestsAndPutsBack) {
  Allocator* allocator = Allocator::theAllocator();
  const unsigned before = allocator->allocatedColorMemory(9);
  {
    Utils::MemoryColor outer(9);
    void* mem = Utils::Object::operator new(100);
    EXPECT_EQ(allocator->allocatedColorMemory(9), before + 128);
    {
      Utils::MemoryColor inner(66);
      EXPECT_EQ(allocator->defaultColor(), 66u);
      inner.reset();
      EXPECT_EQ(allocator->defaultColor(), 9u);
    }
    EXPECT_EQ(allocator->defaultColor(), 9u);
    Utils::Object::operator delete(mem);
  }
  EXPECT_EQ(allocator->defaultColor(), 0u);
  EXPECT_EQ(allocator->allocatedColorMemory(9), before);
}

}  // namespace
