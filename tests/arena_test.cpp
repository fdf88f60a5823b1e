// SPDX-License-Identifier: MIT
// MemoryAllocator and MemoryBank: random runs beside a model, with chunks refused and placed at
// random, and the cases that the models cannot see.
#include <ctime>
#include <vector>

#include "gmock/gmock.h"
#include "support/arena_check.h"
#include "support/arena_model.h"
#include "support/arena_run.h"
#include "support/assertion_recorder.h"
#include "support/scripted_parent.h"
#include "utils/sdk/colors.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

char* bytes(void* mem) { return static_cast<char*>(mem); }

template <class Arena>
std::string reportOf(Arena& arena) {
  testing::internal::CaptureStdout();
  arena.report();
  return testing::internal::GetCapturedStdout();
}

// An arena on chunks of the test's own, whole at the end of each test. No assertion may fail but
// those that the test has taken from the recorder.
template <class ArenaType>
struct OnScriptedChunks : testing::Test {
  void TearDown() override {
    arena_.check();
    EXPECT_THAT(recorder_.take(), testing::IsEmpty());
  }

  void* filled() {
    for (volatile char& each : room_) each = 'x';
    return room_;
  }

  AssertionRecorder recorder_;
  ScriptedParent parent_;
  alignas(ArenaType) char room_[sizeof(ArenaType)];
  ArenaType& arena_ = *::new (filled()) ArenaType(&parent_);
};

// --- Both arenas ---

struct General {
  using Arena = OpenArena;
  using Model = ArenaModel;
  static constexpr bool HAS_PAGES = true;
  static constexpr char SOURCE[] = "utils/sdk/alloc";
  static constexpr char TAIL_FITS[] = "s+1 == TAIL(h)->size";
};

struct Bank {
  using Arena = OpenBank;
  using Model = BankModel;
  static constexpr bool HAS_PAGES = false;
  static constexpr char SOURCE[] = "utils/sdk/membank";
  static constexpr char TAIL_FITS[] = "s == TAIL(h)->size";
};

template <class Kind>
struct Arenas : OnScriptedChunks<typename Kind::Arena> {};
using Kinds = testing::Types<General, Bank>;
TYPED_TEST_SUITE(Arenas, Kinds);

TYPED_TEST(Arenas, FollowTheModelOnRandomRuns) {
  const RunOf runs[] = {{.steps_ = 5000, .mostLive_ = 300},
                        {.steps_ = 3000, .mostLive_ = 12},
                        {.steps_ = 1500, .mostLive_ = 60, .triesHard_ = false},
                        {.steps_ = 1500, .mostLive_ = 6, .sizeBits_ = 32},
                        {.steps_ = 2000, .mostLive_ = 60, .areaStride_ = 5},
                        {.steps_ = 2000, .mostLive_ = 60, .areaStride_ = 7}};
  unsigned seed = 9;
  for (const RunOf& how : runs) {
    ArenaRun<typename TypeParam::Arena, typename TypeParam::Model> run(++seed);
    run.run(how);
    reportOf(run.arena_);
  }
  // Small blocks that find no page fail "h" before they are served otherwise; nothing else fails.
  EXPECT_THAT(this->recorder_.take(), Each("h"));
}

TYPED_TEST(Arenas, AnswerForWhatIsNoBlock) {
  using Arena = typename TypeParam::Arena;
  auto& arena = this->arena_;
  this->parent_.placeAt(ScriptedParent::RANGE - 131072);
  char* mem = bytes(arena.alloc(2000));
  char* small = bytes(arena.alloc(10));
  unsigned other = 0;
  for (void* p :
       {static_cast<void*>(nullptr), static_cast<void*>(&other), static_cast<void*>(mem - 64),
        static_cast<void*>(mem + 1), static_cast<void*>(mem + 4)}) {
    EXPECT_EQ(arena.size(p) + arena.color(p), 0u);
    EXPECT_FALSE(arena.valid(p));
    EXPECT_EQ(arena.color(p, 5), Utils::RESULT_INVALID_ARGUMENT);
  }
  EXPECT_FALSE(Arena::busy(nullptr) || Arena::busy(static_cast<void*>(nullptr)));
  // Words inside a block that look like heads, of any size.
  for (const unsigned word : {1u, 33u, 41u, 1027u, 200001u, 0xffffffffu, 0x3ffffffu, 1025u}) {
    std::memcpy(mem + 44, &word, sizeof word);
    EXPECT_EQ(arena.valid(mem + 48), TypeParam::HAS_PAGES && word == 33u);
  }
  EXPECT_TRUE(arena.valid(small));
  arena.free(mem);
  EXPECT_FALSE(arena.valid(mem));
  EXPECT_FALSE(Arena::busy(mem));
  arena.free(nullptr);
  EXPECT_EQ(arena.nextBlock(nullptr), nullptr);
  EXPECT_EQ(arena.setColor(small, 3), Utils::RESULT_NOT_IMPLEMENTED);
  EXPECT_EQ(arena.setDefaultColor(70, &other), 0u);
  EXPECT_EQ(arena.defaultColor() + other, 70u);
  arena.adjustColorMemory(66, -24);
  EXPECT_EQ(arena.allocatedColorMemory(2), 0u - 24u);
}

TYPED_TEST(Arenas, ReportDamageAndLeaveItAlone) {
  auto& arena = this->arena_;
  typename TypeParam::Arena other;  // on the system layer
  char* foreign = bytes(other.alloc(2000));
  char* mem = bytes(arena.alloc(2000));
  const unsigned held = arena.allocatedMemory();
  mem[2000] ^= 8;
  EXPECT_FALSE(arena.valid(mem));
  arena.checkArena();
  arena.free(mem);
  EXPECT_THAT(this->recorder_.take(), ElementsAre("size == (t->size & ~1)", TypeParam::TAIL_FITS));
  EXPECT_EQ(arena.allocatedMemory(), held);
  mem[2000] ^= 8;
  arena.free(mem);
  arena.check();
  arena.free(mem);
  arena.free(foreign);
  EXPECT_THAT(this->recorder_.take(), ElementsAre("busy(h)", "busy(h)"));
  EXPECT_THAT(this->recorder_.reports_, testing::HasSubstr("no block can be at"));
  EXPECT_EQ(arena.allocatedMemory(), held - 2008);
  arena.check();
  // A free block whose tail was written over, found by the block after it and by the one before.
  void* before = other.alloc(2000);
  void* damaged = other.alloc(2000);
  char* after = bytes(other.alloc(2000));
  other.free(damaged);
  after[-8] ^= 16;
  for (void* neighbour : {static_cast<void*>(after), before}) {
    other.free(neighbour);
    EXPECT_THAT(this->recorder_.take(), ElementsAre("size == (t->size & ~1)"));
  }
  constexpr char CHUNK_FITS[] = "((unsigned long)candidate & (CHUNK_ALIGN - 1)) == 0";
  this->parent_.placeAt(400008);
  (void)arena.alloc(300000);
  EXPECT_THAT(this->recorder_.take(), ElementsAre(CHUNK_FITS));
  this->parent_.placeAt(800004);
  other = typename TypeParam::Arena(&this->parent_);
  (void)other.alloc(300000);
  EXPECT_THAT(this->recorder_.take(),
              ElementsAre(CHUNK_FITS, "((unsigned int)mem & (ALIGN - 1)) == 0"));
  EXPECT_THAT(this->recorder_.files_, Each(TypeParam::SOURCE));
  EXPECT_THAT(this->recorder_.sourceLines(),
              Each(testing::ContainsRegex(
                  "(check|takeBack|join|freeBefore|freeAfter|newChunk|handOverChecked)\\(")))
      << "each assertion names the call in the arena's own source";
}

// The operations that derived allocators build on, step by step.
TYPED_TEST(Arenas, ProtectedSteps) {
  auto& arena = this->arena_;
  void* first = arena._alloc(1016, 3);
  auto* fit = arena.allocCandidate(TypeParam::HAS_PAGES ? 2000 : 5);
  ASSERT_NE(fit, nullptr);
  EXPECT_EQ(fit->sizeandcolor_, 130040u + 1);
  EXPECT_TRUE(arena.busy(fit));
  EXPECT_EQ(arena.internalFree(), 0u);
  EXPECT_EQ(arena.allocCandidate(TypeParam::HAS_PAGES ? 1024 : 5), nullptr);
  arena.splitBlock(fit, 4096);
  EXPECT_EQ(fit->sizeandcolor_, 4097u);
  EXPECT_EQ(arena.internalFree(), 130040u - 4096u);
  fit->color_ = 9;
  EXPECT_EQ(arena.coalesce(fit), fit);
  EXPECT_EQ(fit->sizeandcolor_, 130041u);
  if constexpr (TypeParam::HAS_PAGES) {
    arena.freeLoser(fit);
  } else {
    arena.freeLoser(fit, 16);
  }
  EXPECT_EQ(arena.freeColorMemory(9), 130040u);
  arena.check();
  EXPECT_EQ(arena._free(first), 1024u);
  EXPECT_EQ(arena.freeColorMemory(3), 131064u);
  arena.tryHard(false);
  EXPECT_FALSE(arena.tryHard());
}

// --- MemoryAllocator ---

using Arena = OnScriptedChunks<OpenArena>;

// The lowest block that is large enough is found in the mean of logarithmic time. The model
// compares what is found; this counts steps.
TEST_F(Arena, PagesAreFoundFastBesideManyFreeBlocks) {
  std::vector<void*> blocks;
  for (int i = 0; i < 20000; i++) {
    blocks.push_back(arena_.alloc(10240));
    (void)arena_.alloc(1016);
  }
  for (void* mem : blocks) arena_.free(mem);
  const std::clock_t begin = std::clock();
  for (int i = 0; i < 19 * 8000; i++) (void)arena_.alloc(500);
  EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC) << "0.05 s, or 2 s if all are looked at";
}

// Numbers that were worked out by hand: those of the model are as good as its rules.
TEST_F(Arena, NumbersOfAFirstChunk) {
  EXPECT_EQ(arena_.firstBlock(), nullptr);
  void* mem = arena_.alloc(1);
  EXPECT_THAT(parent_.sizes_, ElementsAre(131072u));
  EXPECT_EQ(arena_.size(mem), 32u);
  EXPECT_EQ(arena_.internalFree(), 130992u);
  arena_.free(arena_.alloc(100000));
  EXPECT_EQ(reportOf(arena_),
            "Arenas: \nArena Count  Used       Free Biggest\n"
            "   13      1   10248       0 10248\n"
            "   16      1       0  120816 120816\n"
            "10k used + 127k (free) = 137k\n");
  for (const auto& [request, size] :
       {std::pair{30u, 64u}, {504u, 512u}, {505u, 1024u}, {1017u, 1032u}})
    EXPECT_EQ(arena_.size(arena_.alloc(request)), size);
}

// Looks at the arena without an assertion, and returns what is reported.
TEST_F(Arena, DamageIsNamed) {
  const auto reportAfter = [&](char* word, const char* bytes) {
    char whole[4];
    std::memcpy(whole, word, 4);
    std::memcpy(word, bytes, 4);
    recorder_.reports_.clear();
    EXPECT_FALSE(arena_.isWhole());
    EXPECT_THAT(recorder_.take(), IsEmpty());
    std::memcpy(word, whole, 4);
    EXPECT_TRUE(arena_.isWhole());
    return recorder_.reports_;
  };
  Utils::nameColor(9, "cache");
  char* before = bytes(arena_.alloc(2000, 3));
  char* mem = bytes(arena_.alloc(2000, 9));
  char* small = bytes(arena_.alloc(20, 5));
  char* other = bytes(arena_.alloc(20, 9));
  EXPECT_THAT(reportAfter(mem + 2000, "xxxx"),
              testing::ContainsRegex("block at .*, 2008 bytes, busy, colour 9 \\(cache\\)\n.*tail "
                                     "word 0x78787878, expected 0x000007d9.*\n.*before it .*, 2008 "
                                     "bytes, busy, colour 3\n"));
  EXPECT_THAT(reportAfter(before + 2004, "\xff\xff\xff\x01"),
              testing::HasSubstr("head word 0x01ffffff, expected a size that"));
  arena_.free(other);
  arena_.free(small);
  recorder_.reports_.clear();
  arena_.free(other);
  EXPECT_THAT(recorder_.take(), ElementsAre("busy(h)"));
  EXPECT_THAT(recorder_.reports_, testing::ContainsRegex("32 bytes, free\n.*freed twice"));
  EXPECT_THAT(reportAfter(small - 4, "xxxx"), testing::HasSubstr("its page's blocks, 32"));
}

TEST_F(Arena, StepsOfSmallAndLostBlocks) {
  auto* small = arena_.allocSmall(6);
  EXPECT_EQ(small->sizeandcolor(), 65u);
  small->color_ = 3;
  arena_.freeSmall(small);
  EXPECT_EQ(arena_.freeColorMemory(3), 64u);
  EXPECT_EQ(arena_._free(arena_._alloc(100, 1)), 128u);
  arena_.check();
  void* lost = arena_.alloc(5000);
  testing::internal::CaptureStdout();
  arena_.removeMe(static_cast<Utils::MemHead*>(static_cast<void*>(bytes(lost) - 4)));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "105568 ");
  EXPECT_THAT(recorder_.take(), ElementsAre("0"));
}

// --- MemoryBank ---

using BankNumbers = OnScriptedChunks<OpenBank>;

TEST_F(BankNumbers, OfAFirstChunk) {
  (void)arena_.alloc(0);
  EXPECT_THAT(parent_.sizes_, ElementsAre(131072u));
  EXPECT_EQ(reportOf(arena_),
            "Arenas: \nArena Count  Used       Free Biggest\n"
            "    5      1      32       0 32\n"
            "   16      1       0  131032 131032\n");
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
static_assert(sizeof(Utils::MemoryAllocator) ==
              4 * (1 + 1 + 1 + 2 + 1 + 10 + 1 + 1 + 1 + 64 + 64 + 1));
static_assert(sizeof(Utils::MemoryBank) == 4 * (1 + 1 + 27 + 2 + 1 + 1 + 1 + 1 + 64 + 64 + 1));
#endif

}  // namespace
