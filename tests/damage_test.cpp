// SPDX-License-Identifier: MIT
// Damage: every word of an arena's bookkeeping is written over, one at a time, with everything that
// programs leave there. Nothing outside of the arena may be read or written, no two blocks may
// overlap, and the walk must name the damaged block.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "support/arena_check.h"
#include "support/assertion_recorder.h"
#include "support/scripted_parent.h"
#include "support/seed.h"

namespace {

constexpr unsigned CHUNK = 131072;

enum class Kind { HEAD, TAIL, LINK, LABEL, HINT };

struct Word {
  char* at_;
  const char* head_;  // of the block that it belongs to
  Kind kind_;
  bool isOfChain_;
  unsigned size_ = 1;  // of that block, as far as it matters
  unsigned bytes_ = 4;
};

constexpr unsigned POINTER = sizeof(void*);
constexpr unsigned LABEL = sizeof(Utils::MemHead) - 4;

// Of a free block, at that offset from its head.
Word wordOf(const char* head, unsigned offset, Kind kind, bool isOfChain, unsigned bytes = 4) {
  return {const_cast<char*>(head) + offset, head, kind, isOfChain, peek<unsigned>(head), bytes};
}

// The words that the arena keeps beside heads and tails.
void addOwnWords(std::vector<Word>& words, const OpenArena& arena) {
  for (const auto& [head, word] : arena.chain()) {
    if (ChainBlocks::isBusy(word)) continue;
    words.push_back(wordOf(head, 4, Kind::LINK, true));
    words.push_back(wordOf(head, 4 + POINTER, Kind::LINK, true, POINTER));
    words.push_back(wordOf(head, 4 + 2 * POINTER, Kind::LINK, true, POINTER));
    words.push_back(wordOf(head, LABEL, Kind::LABEL, true));
    words.push_back(wordOf(head, LABEL + 4, Kind::HINT, true, POINTER));
  }
  for (unsigned k = 5; k < 10; k++) {
    const auto list = arena.list(k);
    for (std::size_t i = 0; i < list.size(); i += 1 + i / 3) {
      words.push_back(wordOf(list[i], 0, Kind::HEAD, false));
      words.push_back(wordOf(list[i], 4, Kind::LINK, false, POINTER));
      words.push_back(wordOf(list[i], LABEL, Kind::LABEL, false));
    }
  }
}

void addOwnWords(std::vector<Word>& words, const OpenBank& bank) {
  for (const auto& [head, word] : bank.chain()) {
    if (ChainBlocks::isBusy(word)) continue;
    words.push_back(wordOf(head, 4, Kind::LINK, true, POINTER));
    words.push_back(wordOf(head, 4 + POINTER, Kind::LINK, true, POINTER));
    words.push_back(wordOf(head, 4 + 2 * POINTER, Kind::LABEL, true));
  }
}

template <class Arena>
struct Damage : testing::Test {
  struct Held {
    char* mem_;
    unsigned bytes_;
    char pattern_;
  };

  Damage() {
    for (unsigned i = 0; i < 60; i++) alloc();
    alloc(3000);
    alloc(2000);
    for (unsigned i = 0; i < 40; i++) free(random_.below(unsigned(held_.size())));
    arena_.check();
  }

  void alloc(unsigned size = 0) {
    const unsigned sizes[] = {20, 50, 100, 200, 500, 1000, 1500, 4000, 12000};
    if (size == 0) size = sizes[random_.below(9)];
    char* mem = static_cast<char*>(arena_.alloc(size, random_.below(64)));
    if (!mem) return;
    ASSERT_TRUE(mem >= parent_.base_ && mem + size <= parent_.base_ + CHUNK);
    for (const Held& other : held_)
      ASSERT_TRUE(mem + size <= other.mem_ || other.mem_ + other.bytes_ <= mem);
    held_.push_back({mem, size, static_cast<char>(random_.below(2) * (0x61 + random_.below(20)))});
    std::memset(mem, held_.back().pattern_, size);
  }

  void free(unsigned index) {
    const Held freed = held_[index];
    held_[index] = held_.back();
    held_.pop_back();
    for (unsigned i = 0; i < freed.bytes_; i++) ASSERT_EQ(freed.mem_[i], freed.pattern_);
    arena_.free(freed.mem_);
  }

  std::vector<Word> words() const {
    std::vector<Word> all;
    const auto chain = arena_.chain();
    for (const auto& [head, word] : chain) {
      const unsigned size = ChainBlocks::sizeOf(word);
      all.push_back({const_cast<char*>(head), head, Kind::HEAD, true, size});
      all.push_back({const_cast<char*>(head) + size - 4, head, Kind::TAIL, true, size});
    }
    all.push_back({parent_.base_ + CHUNK - 4, chain.rbegin()->first, Kind::HEAD, true});
    all.push_back({parent_.base_, nullptr, Kind::HINT, true});
    for (const Held& held : held_) {
      char* head = held.mem_ - 4;
      if (chain.count(head) == 0) all.push_back({head, head, Kind::HEAD, false});
    }
    addOwnWords(all, arena_);
    return all;
  }

  std::vector<std::uintptr_t> values(const Word& word, unsigned was) {
    constexpr std::uintptr_t FIXED[] = {0,          1,          2,          5,          8,
                                        9,          33,         49,         0x400,      0x401,
                                        0x3ffffff,  0x3fffff9,  0x21212121, 0x41414141, 0x7fffffff,
                                        0x80000000, 0xffffffff, UINTPTR_MAX};
    std::vector<std::uintptr_t> all(std::begin(FIXED), std::end(FIXED));
    for (unsigned delta : {1u, 8u, 0u - 1, 0u - 8, was}) all.push_back(was + delta);
    for (int i = 0; i < 3; i++) all.push_back(was ^ (1u << random_.below(32)));
    for (int i = 0; i < 3; i++) {
      const auto other = addressOf(held_[random_.below(unsigned(held_.size()))].mem_);
      const auto chunk = addressOf(parent_.base_), own = addressOf(word.head_);
      for (auto p : {other, other - 4, chunk + 4, chunk + CHUNK - 12, chunk + CHUNK, chunk - 60,
                     own, own + 4})
        all.push_back(p);
    }
    return all;
  }
  static std::uintptr_t addressOf(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

  // Damage that no word of the arena contradicts: a colour, the head of a small block of another
  // class, and the lowest bit of a tail, which says nothing.
  static bool isPlausible(const Word& word, unsigned was, unsigned now) {
    if (word.kind_ != Kind::HEAD) return word.kind_ == Kind::TAIL && (was ^ now) == 1;
    const unsigned size = (now & 0x3ffffff) - 1;
    const bool isSmall = size >= 32 && size <= 512 && (size & (size - 1)) == 0;
    return ((was ^ now) & 0x3ffffff) == 0 ? (was & 1) != 0 : !word.isOfChain_ && isSmall;
  }

  void damage(const Word& word, std::uintptr_t value, unsigned bytes) {
    unsigned was, now;
    std::memcpy(&was, word.at_, sizeof was);
    std::memcpy(word.at_, &value, bytes);
    std::memcpy(&now, word.at_, sizeof now);
    SCOPED_TRACE("word at " + std::to_string(word.at_ - parent_.base_) + " of kind " +
                 std::to_string(int(word.kind_)) + ", " + std::to_string(was) + " to " +
                 std::to_string(value));
    const bool isSeen =
        std::memcmp(word.at_, &before_[std::size_t(word.at_ - parent_.base_)], bytes) != 0 &&
        !isPlausible(word, was, now);
    recorder_.take();
    recorder_.reports_.clear();
    const bool isHeld = std::any_of(held_.begin(), held_.end(),
                                    [&](const Held& held) { return held.mem_ - 4 == word.head_; });
    if (isSeen && (word.isOfChain_ || !isHeld) && word.kind_ != Kind::HINT) {
      arena_.checkArena();
      EXPECT_FALSE(recorder_.texts_.empty());
      if (word.kind_ == Kind::HEAD || word.kind_ == Kind::TAIL) expectNamed(word);
    }
    if (isSeen || word.isOfChain_) useAll(word);
  }

  // The block, or what its former words show to be a block in it.
  void expectNamed(const Word& word) {
    const char* end = word.head_ + word.size_;
    bool isNamed = false;
    for (const char* at = recorder_.reports_.c_str(); (at = std::strstr(at, "block at "));
         at += 9) {
      void* memory = nullptr;
      std::sscanf(at, "block at %p", &memory);
      const char* named = static_cast<char*>(memory) - 4;
      isNamed = isNamed || (named >= word.head_ && named < end);
    }
    EXPECT_TRUE(isNamed) << recorder_.reports_;
  }

  // The damaged block is freed first if it is held, its neighbours soon.
  void useAll(const Word& word) {
    for (unsigned i = 0; i < held_.size(); i++) {
      arena_.size(held_[i].mem_);
      arena_.color(held_[i].mem_);
      arena_.valid(held_[i].mem_);
      if (held_[i].mem_ - 4 != word.head_) continue;
      recorder_.reports_.clear();
      free(i);
      if (!word.isOfChain_) expectNamed(word);
    }
    // Free blocks are asked for by their size, and as a page.
    for (unsigned i = 0; i < 3; i++) alloc(std::max(word.size_, 40u) - 8);
    for (unsigned i = 0; i < 20 && word.size_ > 10000; i++) alloc(500);
    for (unsigned i = 0; i < 30; i++) {
      const bool frees = !held_.empty() && random_.below(2) == 0;
      frees ? free(random_.below(unsigned(held_.size()))) : alloc();
    }
    arena_.checkArena();
    EXPECT_LE(arena_.internalFree(), CHUNK);
  }

  void sweep() {
    before_.assign(parent_.base_, parent_.base_ + CHUNK);
    const auto held = held_;
    std::vector<char> object(sizeof(Arena));
    std::memcpy(object.data(), static_cast<void*>(&arena_), sizeof(Arena));
    for (const Word& word : words()) {
      unsigned was;
      std::memcpy(&was, word.at_, sizeof was);
      for (const std::uintptr_t value : values(word, was)) {
        damage(word, value, random_.below(2) == 0 ? 4 : word.bytes_);
        std::memcpy(parent_.base_, before_.data(), CHUNK);
        std::memcpy(static_cast<void*>(&arena_), object.data(), sizeof(Arena));
        held_ = held;
        if (HasFailure()) return;
      }
    }
  }

  AssertionRecorder recorder_;
  ScriptedParent parent_{CHUNK};  // one chunk between pages that cannot be read
  Random random_{1};
  std::vector<Held> held_;
  std::vector<char> before_;
  Arena arena_{&parent_};
};

using Arenas = testing::Types<OpenArena, OpenBank>;
TYPED_TEST_SUITE(Damage, Arenas);

TYPED_TEST(Damage, OfAnyWordIsReportedAndDoesNotSpread) {
  testing::internal::CaptureStdout();  // a lost block prints the tree
  this->sweep();
  const std::string printed = testing::internal::GetCapturedStdout();
  if (this->HasFailure()) std::puts(printed.c_str());
}

}  // namespace
