// SPDX-License-Identifier: MIT
// The small allocators, the birth of the process allocator and its life to the last instruction.
// Each birth is one of a process of its own: the tests that need it run in a child.
#include "utils/sdk/allocator.h"

#include <cstdio>
#include <cstdlib>

#include "gmock/gmock.h"
#include "support/assertion_recorder.h"
#include "support/nth_failure.h"
#include "support/system_memory.h"
#include "utils/sdk/alloc.h"
#include "utils/sdk/object.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/result.h"

namespace {

int _attached = 0;

}  // namespace

int DisableThreadLibraryCalls(void*) noexcept { return ++_attached; }

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using Utils::Allocator;

constexpr unsigned RESERVED = 20971528;

Utils::MemoryAllocator* theArena() {
  return static_cast<Utils::MemoryAllocator*>(Allocator::theAllocator());
}

// Runs the body in a child and requires that all of its own checks held.
template <class Body>
void inAChild(Body body) {
  EXPECT_EXIT(
      {
        SystemMemory::reset();
        body();
        std::fflush(stdout);
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      ExitedWithCode(0), "");
}

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
  SystemMemory::failFrom_ = 1;
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
  SystemMemory::failFrom_ = 1;
  Utils::AllocationLimiter limiter(100);
  EXPECT_EQ(limiter.alloc(100), nullptr);
  EXPECT_EQ(limiter.alloc(101), nullptr);
  EXPECT_THAT(SystemMemory::sizes_, ElementsAre(100u, 100u, 101u));
  SystemMemory::failFrom_ = 0;
  EXPECT_NE(limiter.alloc(100), nullptr);
  EXPECT_EQ(SystemMemory::sizes_.size(), 4u);
  EXPECT_THAT(recorder.take(), IsEmpty());
}

// What the library has asked for before this program's own objects came.
const unsigned _initsAtLoad = SystemMemory::inits_;
const std::vector<unsigned> _sizesAtLoad = SystemMemory::sizes_;

TEST(TheAllocator, IsBuiltOnceWithItsReservation) {
  EXPECT_EQ(_attached, 1);
  EXPECT_EQ(_initsAtLoad, 1u);
  EXPECT_THAT(_sizesAtLoad, ElementsAre(0x1400010u));
  inAChild([] {
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
  });
}

// The child begins anew, and its library is loaded without memory.
TEST(TheAllocator, DoesWithoutItsReservation) {
  setenv("SYSTEM_MEMORY_FAILS_AT_LOAD", "1", 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  inAChild([] {
    Allocator* allocator = Allocator::theAllocator();
    EXPECT_EQ(allocator->internalFree(), 0u);
    EXPECT_STREQ(Utils::resultToString(0), "Success #0x00000000");
    EXPECT_NE(allocator->alloc(2000), nullptr);
    EXPECT_THAT(SystemMemory::sizes_, ElementsAre(131072u));
  });
  GTEST_FLAG_SET(death_test_style, "fast");
  unsetenv("SYSTEM_MEMORY_FAILS_AT_LOAD");
}

// With every request failing in turn, what was given stays whole and what could not be had is null.
TEST(TheAllocator, SurvivesAnExhaustedSystem) {
  failEveryNth(12, [](unsigned n) {
    bool through = false;
    EXPECT_EXIT(
        {
          AssertionRecorder recorder;
          SystemMemory::reset();
          SystemMemory::failFrom_ = n;
          Allocator* allocator = Allocator::theAllocator();
          bool failed = allocator->internalFree() == 0;
          std::vector<void*> live;
          for (unsigned i = 0; i < 9; i++) {
            void* mem = allocator->alloc(i % 3 == 2 ? 40 : 12000000);
            failed = failed || !mem;
            if (mem) live.push_back(mem);
          }
          for (void* mem : live) {
            if (!allocator->valid(mem)) std::exit(3);
            allocator->free(mem);
          }
          theArena()->checkArena();
          std::exit(failed ? 1 : 0);
        },
        [&](int status) {
          through = ExitedWithCode(0)(status);
          return through || ExitedWithCode(1)(status);
        },
        "");
    return through;
  });
}

TEST(TheAllocator, ServesStaticDestructorsAndExitHandlers) {
  inAChild([] {
    static struct Last {
      ~Last() {
        void* more = Utils::Object::operator new(3000);
        if (!theArena()->valid(more) || !theArena()->valid(held_)) std::_Exit(7);
        Utils::Object::operator delete(more);
        Utils::Object::operator delete(held_);
        theArena()->checkArena();
      }
      void* held_ = nullptr;
    } last;
    last.held_ = Utils::Object::operator new(100);
    std::atexit([] { last.held_ = Allocator::theAllocator()->alloc(10000); });
  });
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
