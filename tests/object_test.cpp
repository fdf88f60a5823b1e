// SPDX-License-Identifier: MIT
// Counts, references and messages, with every object accounted for and with memory that runs out.
#include "utils/sdk/object.h"

#include <cstdint>
#include <string>
#include <utility>

#include "gtest/gtest.h"
#include "support/huge_text.h"
#include "utils/testing/failing_allocator.h"

namespace {

using namespace Utils;
using Utils::Testing::FailingAllocator;

struct Probe : Object {
  Probe() { made_++; }
  Probe(const Probe& other) : Object(other) { made_++; }
  Probe& operator=(const Probe&) = default;
  ~Probe() override { ended_++; }

  static inline int made_ = 0;
  static inline int ended_ = 0;
  Ref<Probe> inner_;
};

unsigned held() { return Allocator::theAllocator()->allocatedMemory(); }

TEST(Ref, OwnsFromTheFirstToTheLast) {
  const unsigned before = held();
  Probe::made_ = Probe::ended_ = 0;
  auto* p = new Probe;
  EXPECT_TRUE(Allocator::theAllocator()->valid(p));
  EXPECT_EQ(p->refCount(), 0u);
  {
    Ref<Probe> a(p);
    EXPECT_EQ(p->refCount(), 1u);
    Ref<Probe> b(a);
    EXPECT_EQ(b->refCount(), 2u);
    a = Ref<Probe>(nullptr);
    EXPECT_FALSE(a.valid());
    const Ref<Probe>& same = b;
    b = same;
    EXPECT_EQ(p->refCount(), 1u);
    EXPECT_EQ(Probe::ended_, 0);
    a = b;
    a = Ref<Probe>(new Probe);
    EXPECT_EQ(p->refCount(), 1u);
    b = a;
    EXPECT_EQ(Probe::ended_, 1);
    Ref<Object> base(b), moved(std::move(base));
    base = std::move(moved);
    base.swap(moved);
    EXPECT_TRUE(moved == a && base == nullptr && a->refCount() == 3u);
    base = std::move(moved);
    base = Ref<Probe>();
    EXPECT_TRUE(!moved && !base && a->refCount() == 2u);
  }
  EXPECT_EQ(Probe::made_, 2);
  EXPECT_EQ(Probe::ended_, 2);
  EXPECT_EQ(held(), before);
}

TEST(Ref, TakesOverWhatItsOwnObjectHeld) {
  Probe::made_ = Probe::ended_ = 0;
  Ref<Probe> list(new Probe);
  list->inner_ = Ref<Probe>(new Probe);
  list->inner_->inner_ = Ref<Probe>(new Probe);
  list = list->inner_;
  EXPECT_EQ(Probe::ended_, 1);
  EXPECT_EQ(list->refCount(), 1u);
  EXPECT_TRUE(list->inner_.valid());
}

// Puts a Probe into the reference that it leaves.
struct Succeeded : Object {
  explicit Succeeded(Ref<Object>& place) : place_(place) {}
  ~Succeeded() override { place_ = Ref<Object>(new Probe); }
  Ref<Object>& place_;
};

TEST(Ref, OwnsWhatADestructorAssignsToIt) {
  Probe::made_ = Probe::ended_ = 0;
  {
    Ref<Object> ref;
    for (Object* object :
         {static_cast<Object*>(new Succeeded(ref)), static_cast<Object*>(new Probe),
          static_cast<Object*>(new Succeeded(ref))})
      ref = Ref<Object>(object);
    EXPECT_EQ(Probe::ended_, 2);
  }
  EXPECT_EQ(Probe::made_, 3);
  EXPECT_EQ(Probe::ended_, 3);
}

TEST(Object, CopiesItsCount) {
  Probe a;
  a.incRef();
  a.incRef();
  const Probe b(a);
  EXPECT_EQ(b.refCount(), 2u);
  EXPECT_EQ(a.decRef(), 1u);
  Probe c;
  c = a;
  EXPECT_EQ(c.refCount(), 1u);
  EXPECT_EQ(c.decRef(), 0u);
}

TEST(Problem, KeepsUpTo511Characters) {
  const unsigned before = held();
  for (const std::size_t length : {0u, 1u, 510u, 511u, 512u, 600u}) {
    const std::string text(length, 'x');
    const Problem problem("%s", text.c_str());
    EXPECT_EQ(problem.msg(), text.substr(0, 511)) << length;
    EXPECT_EQ(held() - before, length < 25 ? 32u : 1024u) << "one block of the text's own size";
  }
  const char* const huge = hugeText();
  if (!huge) GTEST_SKIP() << "the address space has no room for such a text";
  for (const char* format : {"%s%s%s", "%-3s%s%s"}) {
    const Problem problem(format, huge, huge, huge);
    EXPECT_EQ(problem.msg(), std::string(511, 'x'));
  }
  EXPECT_EQ(held(), before);
}

TEST(Problem, CopiesOwnTheirText) {
  const unsigned before = held();
  {
    Problem copy("none");
    {
      const Problem source("%s at %d", "broken", 7);
      copy = source;
      const Problem& same = copy;
      copy = same;
      EXPECT_NE(copy.msg(), source.msg());
    }
    const Problem second(copy);
    EXPECT_STREQ(copy.msg(), "broken at 7");
    EXPECT_STREQ(second.msg(), "broken at 7");
  }
  EXPECT_EQ(held(), before);
}

TEST(Exhaustion, GivesNullAndKeepsWhatWasThere) {
  Problem kept("kept");
  const Problem longer("%s", std::string(100, 'y').c_str());
  Probe::made_ = 0;
  {
    FailingAllocator allocator;
    allocator.failFrom(1);
    EXPECT_EQ(new Probe, nullptr);
    EXPECT_EQ(Probe::made_, 0) << "no constructor runs on nothing";
    EXPECT_EQ(new Utils::MemoryAllocator, nullptr);
    kept = longer;
    EXPECT_STREQ(kept.msg(), "kept");
    EXPECT_STREQ(Problem("text").msg(), "out of memory for the message");
  }
  kept = longer;
  EXPECT_STREQ(kept.msg(), longer.msg());
  EXPECT_EQ(Object::operator new(SIZE_MAX / 4 + 1), nullptr);
}

}  // namespace
