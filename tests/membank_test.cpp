// SPDX-License-Identifier: MIT
// MemoryBank: random runs beside a model, exhaustion at every request, and the cases that the model
// cannot see. What it has in common with MemoryAllocator is tested in alloc_test.cpp.
#include "utils/sdk/membank.h"

#include "gmock/gmock.h"
#include "support/arena_check.h"
#include "support/arena_model.h"
#include "support/arena_run.h"
#include "support/assertion_recorder.h"
#include "support/nth_failure.h"
#include "support/scripted_parent.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

char* bytes(void* mem) { return static_cast<char*>(mem); }

TEST(MemoryBank, RandomRunsFollowTheModel) {
  AssertionRecorder recorder;
  unsigned foundBehindOthers = 0;
  for (const auto& [steps, mostLive, hard] :
       {std::tuple{5000u, std::size_t{300}, true}, {3000u, 12, true}, {1500u, 60, false}}) {
    ArenaRun<OpenBank, BankModel> run(steps);
    run.arena_.tryHard(hard);
    run.model_.tryHard_ = hard;
    run.run(steps, mostLive);
    foundBehindOthers += run.model_.foundBehindOthers_;
  }
  EXPECT_GT(foundBehindOthers, 0u) << "no search of a bin that went past its first block";
  EXPECT_THAT(recorder.take(), IsEmpty());
}

TEST(MemoryBank, EveryFailingChunkLeavesItWhole) {
  AssertionRecorder recorder;
  failEveryNth(60, [](unsigned n) {
    ScriptedParent parent;
    OpenBank bank(&parent);
    parent.failFrom(n);
    std::vector<void*> live;
    bool failed = false;
    for (unsigned i = 0; i < 120; i++) {
      const unsigned before = bank.allocatedMemory() + bank.internalFree();
      void* mem = bank.alloc(i % 4 == 0 ? 60000u : 20u << (i % 5), i);
      if (mem) {
        live.push_back(mem);
      } else {
        failed = true;
        EXPECT_EQ(bank.allocatedMemory() + bank.internalFree(), before);
      }
      bank.check();
    }
    for (void* mem : live) bank.free(mem);
    bank.check();
    EXPECT_EQ(bank.allocatedMemory(), 0u);
    return !failed;
  });
  EXPECT_THAT(recorder.take(), IsEmpty());
}

TEST(MemoryBank, NumbersOfAFirstChunk) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  void* mem = bank.alloc(0);
  EXPECT_THAT(parent.sizes_, ElementsAre(131072u));
  EXPECT_EQ(bank.size(mem), 32u);
  EXPECT_EQ(bank.internalFree(), 131032u);
  EXPECT_EQ(bank.bin(16).size(), 1u);
  testing::internal::CaptureStdout();
  bank.report();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Arenas: \nArena Count  Used       Free Biggest\n"
            "    5      1      32       0 32\n"
            "   16      1       0  131032 131032\n");
  bank.free(mem);
  EXPECT_THAT(bank.bin(16), ElementsAre(mem));
  EXPECT_EQ(bank.internalFree(), 131064u);
  bank.alloc(131056);
  EXPECT_EQ(parent.sizes_.size(), 1u) << "the own bin has a block of just that size";
  bank.alloc(131056);
  EXPECT_EQ(parent.sizes_.back(), 131088u);
  EXPECT_EQ(bank.internalFree(), 0u) << "of 131088 bytes 24 more than asked for are not split off";
}

// With one block of each of these sizes free and nothing else, freed in that order.
void makeFree(OpenBank& bank, std::initializer_list<unsigned> sizes, std::vector<void*>& blocks) {
  for (const unsigned size : sizes) {
    blocks.push_back(bank.alloc(size - 8));
    bank.alloc(24);
  }
  while (bank.internalFree() >= 32) bank.alloc(bank.internalFree() - 8);
  for (void* mem : blocks) bank.free(mem);
  bank.check();
}

TEST(MemoryBank, LooksAboveItsOwnBinFirst) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  std::vector<void*> blocks;
  makeFree(bank, {48, 100000}, blocks);
  EXPECT_EQ(bank.alloc(40), blocks[1]) << "48 bytes would fit better";
  EXPECT_EQ(bank.bin(16).size(), 1u);
}

TEST(MemoryBank, SearchesItsOwnBinLast) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  std::vector<void*> b;
  makeFree(bank, {32, 56, 48, 40, 32}, b);
  ASSERT_THAT(bank.bin(5), ElementsAre(b[4], b[3], b[2], b[1], b[0]));
  EXPECT_EQ(bank.alloc(40), b[2]);
  EXPECT_THAT(bank.bin(5), ElementsAre(b[4], b[3], b[1], b[0])) << "the others keep their order";
  EXPECT_EQ(bank.alloc(24), b[4]) << "only the search finds a power of two";
  EXPECT_EQ(bank.alloc(40), b[1]);
  EXPECT_EQ(bank.size(b[1]), 56u) << "8 bytes are not split off";
  const auto chunks = parent.sizes_.size();
  bank.tryHard(false);
  EXPECT_FALSE(bank.tryHard());
  bank.alloc(24);
  EXPECT_EQ(parent.sizes_.size(), chunks + 1);
  EXPECT_THAT(bank.bin(5), ElementsAre(b[3], b[0]));
  bank.check();
}

TEST(MemoryBank, SplitsOffTheSmallestBlock) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  std::vector<void*> b;
  makeFree(bank, {64}, b);
  EXPECT_EQ(bank.alloc(10), b[0]);
  EXPECT_EQ(bank.size(b[0]), 32u);
  EXPECT_THAT(bank.bin(5), ElementsAre(bytes(b[0]) + 32));
}

// The chunk for the largest request would hold a block that is too large, with 4 bytes more behind.
TEST(MemoryBank, RefusesWhatABlockCannotHold) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  for (const unsigned size : {67108849u, 0x7fffffffu, 0xfffffff1u, 0xffffffffu})
    EXPECT_EQ(bank.alloc(size), nullptr) << size;
  EXPECT_TRUE(parent.sizes_.empty());
  std::vector<void*> live;
  for (const unsigned size : {67108848u, 67108840u, 67108848u}) {
    live.push_back(bank.alloc(size));
    ASSERT_NE(live.back(), nullptr);
    EXPECT_TRUE(bank.valid(live.back()));
    bank.check();
  }
  EXPECT_THAT(parent.sizes_, ElementsAre((1u << 26) + 16, 1u << 26, (1u << 26) + 16));
  EXPECT_EQ(bank.size(live[0]), (1u << 26) - 8);
  bank.free(bank.alloc(100));
  for (void* mem : live) bank.free(mem);
  bank.check();
}

TEST(MemoryBank, ChunksOutsideTheChain) {
  AssertionRecorder recorder;
  ScriptedParent parent;
  OpenBank bank(&parent);
  std::vector<void*> live;
  for (const std::size_t place : {90u << 20, 180u << 20, 0u, 131072u}) {
    parent.placeAt(place);
    for (int i = 0; i < 4; i++) live.push_back(bank.alloc(32000));
    bank.checkArena();
  }
  for (std::size_t i = 0; i < live.size(); i += 2) bank.free(live[i]);
  bank.check();
  for (std::size_t i = 1; i < live.size(); i += 2) bank.free(live[i]);
  bank.check();
  bank.checkArena();
  EXPECT_EQ(bank.allocatedMemory(), 0u);
  EXPECT_THAT(recorder.take(), IsEmpty());
}

TEST(MemoryBank, Colors) {
  OpenBank bank;  // on the system layer itself
  unsigned old = 99;
  EXPECT_EQ(bank.setDefaultColor(70, &old), 0u);
  EXPECT_EQ(old, 0u);
  EXPECT_EQ(bank.defaultColor(), 70u);
  void* a = bank.alloc(100);
  void* b = bank.alloc(100, 64);
  EXPECT_EQ(bank.color(a), 6u);
  EXPECT_EQ(bank.color(a, 5), Utils::RESULT_INVALID_ARGUMENT);
  EXPECT_EQ(bank.color(b, 66), 0u);
  EXPECT_EQ(bank.allocatedColorMemory(2), 112u);
  bank.free(b);
  EXPECT_EQ(bank.allocatedColorMemory(2), 0u);
  EXPECT_EQ(bank.freeColorMemory(2), bank.internalFree()) << "what it was joined with, too";
  bank.adjustColorMemory(66, -24);
  EXPECT_EQ(bank.allocatedColorMemory(2), 0u - 24u);
  EXPECT_EQ(bank.setColor(a, 3), Utils::RESULT_NOT_IMPLEMENTED);
  EXPECT_FALSE(OpenBank::busy(static_cast<void*>(nullptr)));
  for (void* p : {static_cast<void*>(nullptr), static_cast<void*>(&old), b}) {
    EXPECT_EQ(bank.size(p) + bank.color(p), 0u);
    EXPECT_FALSE(bank.valid(p));
  }
  bank.check();
}

TEST(MemoryBank, DamageFailsTheRightAssertion) {
  AssertionRecorder recorder;
  ScriptedParent parent;
  OpenBank bank(&parent);
  char* mem = bytes(bank.alloc(24));
  mem[24] ^= 8;
  EXPECT_FALSE(bank.valid(mem));
  bank.checkArena();
  bank.free(mem);
  EXPECT_THAT(recorder.take(), ElementsAre("size == (t->size & ~1)", "s == TAIL(h)->size"));
  EXPECT_EQ(bank.allocatedMemory(), 32u) << "the block is left alone";
  mem[24] ^= 8;
  bank.free(mem);
  bank.check();
  const unsigned before = bank.internalFree();
  bank.free(mem);
  EXPECT_THAT(recorder.take(), ElementsAre("busy(h)"));
  EXPECT_EQ(bank.internalFree(), before);
  bank.check();
  parent.placeAt(400004);
  bank.alloc(300000);
  EXPECT_THAT(recorder.take(), ElementsAre("((unsigned long)candidate & (CHUNK_ALIGN - 1)) == 0",
                                           "((unsigned int)mem & (ALIGN - 1)) == 0"));
  EXPECT_THAT(recorder.files_, testing::Each("utils/sdk/membank"));
}

// The operations that derived allocators build on, step by step.
TEST(MemoryBank, ProtectedSteps) {
  ScriptedParent parent;
  OpenBank bank(&parent);
  void* first = bank._alloc(1016, 3);
  EXPECT_EQ(bank.allocCandidate(17), nullptr);
  auto* h = bank.allocCandidate(5);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->sizeandcolor_, 130040u + 1);
  EXPECT_EQ(bank.internalFree(), 0u);
  bank.splitBlock(h, 4096);
  EXPECT_EQ(h->sizeandcolor_, 4097u);
  EXPECT_EQ(bank.internalFree(), 130040u - 4096u);
  h->color_ = 9;
  EXPECT_EQ(bank.coalesce(h), h);
  EXPECT_EQ(h->sizeandcolor_, 130041u);
  bank.freeLoser(h, 16);
  EXPECT_EQ(bank.freeColorMemory(9), 130040u);
  bank.check();
  EXPECT_EQ(bank._free(first), 1024u);
  EXPECT_EQ(bank.freeColorMemory(3), 131064u);
  bank.check();
}

TEST(MemoryBank, MadeWithNewLiesInTheProcessAllocator) {
  const unsigned before = Utils::Allocator::theAllocator()->allocatedMemory();
  auto* bank = new Utils::MemoryBank(Utils::Allocator::theAllocator());
  ASSERT_NE(bank, nullptr);
  EXPECT_GT(Utils::Allocator::theAllocator()->allocatedMemory(), before);
  delete bank;
  EXPECT_EQ(Utils::Allocator::theAllocator()->allocatedMemory(), before);
}

#if defined(__i386__)
// The 32-bit layout is the design's own.
static_assert(sizeof(OpenBank::MemHead) == 16);
static_assert(sizeof(Utils::MemoryBank) == 4 * (1 + 1 + 27 + 2 + 1 + 1 + 1 + 1 + 64 + 64 + 1));
#endif

}  // namespace
