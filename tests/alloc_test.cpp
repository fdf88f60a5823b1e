// SPDX-License-Identifier: MIT
// MemoryAllocator: a random run beside a model, with chunks refused at random, and the cases that
// the model cannot see.
#include "utils/sdk/alloc.h"

#include <ctime>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "support/arena_check.h"
#include "support/arena_model.h"
#include "support/arena_run.h"
#include "support/assertion_recorder.h"
#include "support/scripted_parent.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

char* bytes(void* mem) { return static_cast<char*>(mem); }

TEST(MemoryAllocator, RandomRunFollowsTheModel) {
  AssertionRecorder recorder;
  ArenaRun<OpenArena, ArenaModel>(1).run(5000, 300);
  ArenaRun<OpenArena, ArenaModel>(2).run(1500, 12);
  // Small blocks that find no page fail "h" before they are served otherwise; nothing else fails.
  EXPECT_THAT(recorder.take(), testing::Each("h"));
}

TEST(MemoryAllocator, Colors) {
  OpenArena arena;  // on the system layer itself
  unsigned old = 99;
  EXPECT_EQ(arena.setDefaultColor(70, &old), 0u);
  EXPECT_EQ(old, 0u);
  EXPECT_EQ(arena.defaultColor(), 70u);
  void* mem = arena.alloc(100);
  EXPECT_EQ(arena.color(mem), 6u);
  EXPECT_EQ(arena.allocatedColorMemory(70), 128u);
  EXPECT_EQ(arena.color(mem, 5), Utils::RESULT_INVALID_ARGUMENT) << "it has a colour";
  void* plain = arena.alloc(3000, 64);
  const unsigned size = arena.size(plain);
  EXPECT_EQ(arena.color(plain, 128), Utils::RESULT_INVALID_ARGUMENT) << "128 is colour 0";
  EXPECT_EQ(arena.color(plain, 66), 0u);
  EXPECT_EQ(arena.color(plain), 2u);
  EXPECT_EQ(arena.allocatedColorMemory(2), size);
  arena.free(plain);
  EXPECT_EQ(arena.allocatedColorMemory(2), 0u);
  EXPECT_EQ(arena.allocatedColorMemory(0), 10248u + size) << "recolouring left it there";
  arena.adjustColorMemory(66, -24);
  EXPECT_EQ(arena.allocatedColorMemory(2), 0u - 24u);
  arena.check();
}

// An arena on chunks of the test's own, whole at the end of each test. No assertion may fail but
// those that the test has taken from the recorder.
struct Arena : testing::Test {
  void TearDown() override {
    arena.check();
    EXPECT_THAT(recorder.take(), IsEmpty());
  }

  AssertionRecorder recorder;
  ScriptedParent parent;
  OpenArena arena{&parent};
};

// It gets a large block, which must merge like one.
TEST_F(Arena, SmallRequestWithoutAPage) {
  void* filler = arena.alloc(131064 - 3 * 2048 - 8);
  parent.failFrom(1);
  void* a = arena.alloc(10);
  void* b = arena.alloc(500);
  void* c = arena.alloc(1);
  EXPECT_THAT(recorder.take(), ElementsAre("h", "h", "h"));
  EXPECT_EQ(arena.size(a), 1024u);
  for (void* mem : {b, c, a, filler}) {
    EXPECT_TRUE(arena.valid(mem));
    arena.free(mem);
    arena.check();
  }
  EXPECT_EQ(arena.internalFree(), 131064u);
  EXPECT_EQ(arena.alloc(200000), nullptr);
}

// The lowest block that is large enough is found in the mean of logarithmic time. The model
// compares what is found; this counts steps.
TEST_F(Arena, PagesAreFoundFastBesideManyFreeBlocks) {
  std::vector<void*> blocks;
  for (int i = 0; i < 20000; i++) {
    blocks.push_back(arena.alloc(10240));
    arena.alloc(1016);
  }
  for (void* mem : blocks) arena.free(mem);
  const std::clock_t begin = std::clock();
  for (int i = 0; i < 19 * 8000; i++) arena.alloc(500);
  EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC) << "0.05 s, or 2 s if all are looked at";
}

// Numbers that were worked out by hand: those of the model are as good as its rules.
TEST_F(Arena, NumbersOfAFirstChunk) {
  EXPECT_EQ(arena.firstBlock(), nullptr);
  void* mem = arena.alloc(1);
  EXPECT_THAT(parent.sizes_, ElementsAre(131072u));
  EXPECT_EQ(arena.size(mem), 32u);
  EXPECT_EQ(arena.list(5).size(), 318u);
  EXPECT_EQ(arena.allocatedMemory(), 10280u);
  EXPECT_EQ(arena.internalFree(), 130992u);
  arena.free(mem);
  EXPECT_EQ(arena.allocatedMemory(), 10248u);
  EXPECT_EQ(arena.internalFree(), 131024u);
  const std::pair<unsigned, unsigned> sizes[] = {{30, 64}, {504, 512}, {505, 1024}, {1017, 1032}};
  for (const auto& [request, size] : sizes) EXPECT_EQ(arena.size(arena.alloc(request)), size);
}

TEST_F(Arena, PagesFromTheLowestBlockThatIsLargeEnough) {
  void* tooSmall = arena.alloc(10240 - 8);
  arena.alloc(1016);
  void* justEnough = arena.alloc(10248 - 8);
  arena.alloc(1016);
  arena.free(tooSmall);
  arena.free(justEnough);
  EXPECT_EQ(arena.alloc(500), bytes(justEnough) + 8 + 18 * 512) << "the highest of the page";
  EXPECT_EQ(arena.size(justEnough), 10248u) << "no remainder is split off";
}

TEST_F(Arena, RefusesWhatABlockCannotHold) {
  for (const unsigned size :
       {67108849u, 0x7fffffffu, 0xfffffff0u, 0xfffffff1u, 0xfffffff9u, 0xffffffffu})
    EXPECT_EQ(arena.alloc(size), nullptr) << size;
  EXPECT_TRUE(parent.sizes_.empty());
  // The second such chunk continues the chain, and its block would be too large for its head.
  void* const largest[] = {arena.alloc(67108848), arena.alloc(67108848)};
  for (void* mem : largest) {
    EXPECT_EQ(arena.size(mem), (1u << 26) - 8);
    EXPECT_TRUE(arena.valid(mem));
  }
  for (void* mem : largest) arena.free(mem);
}

TEST_F(Arena, LargeNeighboursStayApart) {
  std::vector<void*> live;
  for (int i = 0; i < 4; i++) live.push_back(arena.alloc(30 << 20));
  for (void* mem : live) {
    arena.free(mem);
    arena.check();
  }
  EXPECT_EQ(arena.chain().size(), 2u);
  EXPECT_NE(arena.alloc(60 << 20), nullptr);
}

// Lower and too far: everything still allocates and frees, walks end, nothing asserts.
TEST(MemoryAllocator, ChunksOutsideTheChain) {
  const std::size_t far = std::size_t{90} << 20;
  for (const auto& places :
       {std::vector<std::size_t>{0, far}, {far, 0}, {far, 0, 131072}, {far, 2 * far, 0}}) {
    AssertionRecorder recorder;
    ScriptedParent parent;
    OpenArena arena(&parent);
    std::vector<void*> live;
    for (const std::size_t place : places) {
      parent.placeAt(place);
      for (int i = 0; i < 4; i++) live.push_back(arena.alloc(32000));
      live.push_back(arena.alloc(40));
      arena.checkArena();
    }
    for (std::size_t i = 0; i < live.size(); i += 2) arena.free(live[i]);
    arena.check();
    for (std::size_t i = 1; i < live.size(); i += 2) arena.free(live[i]);
    arena.check();
    arena.checkArena();
    for (const auto& block : arena.chain()) EXPECT_GE(block.size(), 8u);
    testing::internal::CaptureStdout();
    arena.report();
    testing::internal::GetCapturedStdout();
    EXPECT_LE(arena.allocatedMemory(), 10248u);
    EXPECT_THAT(recorder.take(), IsEmpty());
  }
}

TEST_F(Arena, AnswersForWhatIsNoBlock) {
  parent.placeAt(ScriptedParent::RANGE - 131072);
  char* mem = bytes(arena.alloc(2000));
  char* small = bytes(arena.alloc(10));
  int other = 0;
  for (void* p :
       {static_cast<void*>(nullptr), static_cast<void*>(&other), static_cast<void*>(mem - 64),
        static_cast<void*>(mem + 1), static_cast<void*>(mem + 4)}) {
    EXPECT_EQ(arena.size(p), 0u);
    EXPECT_EQ(arena.color(p), 0u);
    EXPECT_FALSE(arena.valid(p));
    EXPECT_EQ(arena.color(p, 5), Utils::RESULT_INVALID_ARGUMENT);
  }
  EXPECT_FALSE(OpenArena::busy(static_cast<void*>(nullptr)));
  // Words inside a block that look like heads, of any size.
  for (const unsigned word : {1u, 33u, 41u, 1027u, 200001u, 0xffffffffu, 0x3ffffffu, 1025u}) {
    std::memcpy(mem + 44, &word, sizeof word);
    EXPECT_EQ(arena.valid(mem + 48), word == 33u);
  }
  EXPECT_TRUE(arena.valid(small));
  arena.free(mem);
  EXPECT_FALSE(arena.valid(mem));
  EXPECT_FALSE(OpenArena::busy(mem));
  arena.free(nullptr);
  EXPECT_EQ(arena.setColor(small, 3), Utils::RESULT_NOT_IMPLEMENTED);
  EXPECT_EQ(arena.nextBlock(nullptr), nullptr);
}

TEST_F(Arena, ReportsTheChain) {
  arena.alloc(3000);
  arena.free(arena.alloc(100000));
  testing::internal::CaptureStdout();
  arena.report();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Arenas: \nArena Count  Used       Free Biggest\n"
            "   11      1    3008       0 3008\n"
            "   16      1       0  128056 128056\n"
            "2k used + 125k (free) = 127k\n");
}

TEST(MemoryAllocator, DamageFailsTheRightAssertion) {
  AssertionRecorder recorder;
  ScriptedParent parent;
  OpenArena arena(&parent), other;
  alignas(8) char foreign[64] = {};
  foreign[4] = 33;
  char* mem = bytes(arena.alloc(2000));
  mem[2000] ^= 1;
  const unsigned held = arena.allocatedMemory();
  arena.free(mem);
  EXPECT_THAT(recorder.take(), ElementsAre("s+1 == TAIL(h)->size"));
  EXPECT_THAT(recorder.files_, ElementsAre("utils/sdk/alloc"));
  EXPECT_EQ(arena.allocatedMemory(), held) << "the block is left alone";
  mem[2000] ^= 1;
  arena.free(mem);
  arena.check();
  const unsigned before = arena.internalFree();
  arena.free(mem);
  arena.free(foreign + 8);
  other.free(arena.firstBlock());
  EXPECT_THAT(recorder.take(), ElementsAre("busy(h)", "busy(h)", "busy(h)"));
  EXPECT_THAT(recorder.reports_, testing::HasSubstr("no block can be at"));
  EXPECT_EQ(arena.internalFree(), before);
  arena.check();
  void* lost = arena.alloc(5000);
  testing::internal::CaptureStdout();
  arena.removeMe(static_cast<Utils::MemHead*>(static_cast<void*>(bytes(lost) - 4)));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "126056 ");
  EXPECT_THAT(recorder.take(), ElementsAre("0"));
  parent.placeAt(400008);
  arena.alloc(300000);
  EXPECT_THAT(recorder.take(), ElementsAre("((unsigned long)candidate & (CHUNK_ALIGN - 1)) == 0"));
  bytes(arena.firstBlock())[5000] ^= 8;
  arena.nextBlock(arena.firstBlock());
  EXPECT_THAT(recorder.take(), ElementsAre("size == (t->size & ~1)"));
  EXPECT_THAT(recorder.sourceLines(),
              testing::Each(testing::ContainsRegex("(takeBack|newChunk|nextBlock|brokenBlock)\\(")))
      << "each assertion names the call in alloc.cpp";
}

// The operations that derived allocators build on, step by step.
TEST_F(Arena, ProtectedSteps) {
  void* first = arena.alloc(1016);
  auto* fit = arena.allocCandidate(2000);
  ASSERT_NE(fit, nullptr);
  EXPECT_EQ(fit->sizeandcolor(), 130040u + 1);
  EXPECT_EQ(arena.internalFree(), 0u);
  EXPECT_EQ(arena.allocCandidate(1024), nullptr);
  arena.splitBlock(fit, 4096);
  EXPECT_EQ(fit->sizeandcolor(), 4097u);
  EXPECT_EQ(arena.internalFree(), 130040u - 4096u);
  fit->color_ = 9;
  EXPECT_EQ(arena.coalesce(fit), fit);
  EXPECT_EQ(fit->sizeandcolor(), 130041u);
  arena.freeLoser(fit);
  EXPECT_EQ(arena.freeColorMemory(9), 130040u);
  arena.check();
  auto* small = arena.allocSmall(6);
  EXPECT_EQ(small->sizeandcolor(), 65u);
  small->color_ = 3;
  arena.freeSmall(small);
  EXPECT_EQ(arena.freeColorMemory(3), 64u);
  EXPECT_EQ(arena._free(arena._alloc(100, 1)), 128u);
  arena.free(first);
  arena.tryHard(false);
  EXPECT_FALSE(arena.tryHard());
}

// With free blocks that checkArena() accepts: beside another one, and inside a busy block.
TEST(ArenaCheck, NamesTheBrokenInvariant) {
  const auto brokenBy = [](unsigned size, void (*free)(OpenArena&, Utils::MemHead*)) {
    ScriptedParent parent;
    OpenArena arena(&parent);
    char* head = bytes(arena.alloc(3000)) + 44;
    for (char* word : {head, head + size - 4}) {
      const unsigned busy = size + 1;
      std::memcpy(word, &busy, sizeof busy);
    }
    auto* block = static_cast<Utils::MemHead*>(static_cast<void*>(head));
    block->color_ = 0;
    free(arena, block);
    return Utils::Testing::brokenInvariant(arena).substr(0, 2);
  };
  EXPECT_EQ(brokenBy(64, [](OpenArena& a, Utils::MemHead* h) { a.freeSmall(h); }), "9.");
  EXPECT_EQ(brokenBy(2000, [](OpenArena& a, Utils::MemHead* h) { a.freeLoser(h); }), "7.");
  EXPECT_EQ(brokenBy(64,
                     [](OpenArena& a, Utils::MemHead*) {
                       Utils::MemHead* fit = a.allocCandidate(2000);
                       a.splitBlock(fit, 4096);
                       a.freeLoser(fit);
                     }),
            "6.");
}

#if defined(__i386__)
// The 32-bit layout is the design's own.
static_assert(sizeof(Utils::MemHead) == 20);
static_assert(sizeof(Utils::MemoryAllocator) ==
              4 * (1 + 1 + 1 + 2 + 1 + 10 + 1 + 1 + 1 + 64 + 64 + 1));
#endif

}  // namespace
