// SPDX-License-Identifier: MIT
// A seeded random run of an arena allocator beside a model of it.
//
// Every live block keeps a pattern of its own, which is read again before the block is freed. After
// every step the addresses, sizes, colours and totals are those of the model, and both checkers
// find the arena whole.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/scripted_parent.h"
#include "support/seed.h"

struct RunOf {
  unsigned steps_;
  std::size_t mostLive_;
  unsigned sizeBits_ = 18;   // of the requests that are not near one of the limits
  unsigned areaStride_ = 0;  // now and then, chunks move on by that many areas of 10 MiB
  bool triesHard_ = true;
};

template <class Arena, class Model>
struct ArenaRun {
  struct Live {
    unsigned char* mem_;
    unsigned size_;
    unsigned char pattern_;
  };

  explicit ArenaRun(unsigned seed)
      : random_(seed), arena_(&parent_), model_([this](unsigned need) { return chunkFor(need); }) {}

  void run(const RunOf& how) {
    arena_.tryHard(how.triesHard_);
    model_.triesHard_ = how.triesHard_;
    for (unsigned step = 0; step < how.steps_ && !testing::Test::HasFailure(); step++) {
      SCOPED_TRACE("step " + std::to_string(step));
      const std::size_t aim = (step / 500 % 3 + 1) * how.mostLive_ / 3;
      placeChunks(how.areaStride_);
      if (live_.size() < aim * (1 + random_.below(8)) / 8) {
        alloc(someSize(how.sizeBits_));
      } else if (!live_.empty()) {
        const std::size_t index = random_.below(static_cast<unsigned>(live_.size()));
        recolor(live_[index].mem_);
        free(index);
      }
      compare();
    }
    while (!live_.empty() && !testing::Test::HasFailure()) free(live_.size() - 1);
    compare();
    EXPECT_EQ(parent_.freed_, 0u);
  }

  void placeChunks(unsigned areaStride) {
    constexpr unsigned AREAS = 31;
    if (areaStride != 0 && usedAreas_ < AREAS && random_.below(50) == 0)
      parent_.placeAt(std::size_t{usedAreas_++ * areaStride % AREAS} * (10 << 20));
    if (random_.below(20) == 0) parent_.skip(16 * random_.below(1000));
    parent_.fails_ = random_.below(30) == 0;
  }

  unsigned someSize(unsigned bits) {
    const unsigned limits[] = {504, 1016, 10240, Model::LARGEST_REQUEST};
    const unsigned limit = limits[random_.below(bits < 32 ? 3 : 4)];
    if (random_.below(4) == 0) return limit - 8 + random_.below(17);
    return static_cast<unsigned>(random_.engine_()) >> (32 - bits) >> random_.below(bits);
  }

  void alloc(unsigned size) {
    const unsigned color = random_.below(80);
    const bool isDefault = random_.below(2) == 0;
    arena_.setDefaultColor(isDefault ? color : random_.below(80), nullptr);
    void* mem = isDefault ? arena_.alloc(size) : arena_.alloc(size, color);
    const auto head = model_.alloc(size, color);
    ASSERT_EQ(addressOf(mem), head == 0 ? 0 : head + 4) << "size " << size;
    if (!mem) return;
    EXPECT_GE(model_.at(head).size_, size + 8);
    checkAnswers(mem);
    live_.push_back({static_cast<unsigned char*>(mem), size,
                     static_cast<unsigned char>(1 + random_.below(255))});
    fill(live_.back());
  }

  void recolor(void* mem) {
    const unsigned color = random_.below(80);
    const bool isDone = model_.recolor(addressOf(mem) - 4, model_.at(addressOf(mem) - 4), color);
    EXPECT_EQ(arena_.color(mem, color), isDone ? 0 : Utils::RESULT_INVALID_ARGUMENT);
    checkAnswers(mem);
  }

  void checkAnswers(void* mem) {
    const auto& block = model_.at(addressOf(mem) - 4);
    const bool isKnown = model_.isKnown(addressOf(mem) - 4);
    EXPECT_EQ(arena_.size(mem), isKnown ? block.size_ : 0);
    EXPECT_EQ(arena_.color(mem), isKnown ? block.color_ : 0);
    EXPECT_EQ(arena_.valid(mem), isKnown);
    EXPECT_TRUE(Arena::busy(mem));
  }

  // Marks the ends of the bytes that the caller may use; a whole large block would cost more than
  // it shows.
  static constexpr unsigned MARKED = 256;

  static void fill(const Live& l) {
    const unsigned n = std::min(l.size_, MARKED);
    std::memset(l.mem_, l.pattern_, n);
    std::memset(l.mem_ + l.size_ - n, l.pattern_, n);
  }

  static bool intact(const Live& l) {
    const std::vector<unsigned char> marks(std::min(l.size_, MARKED), l.pattern_);
    return std::equal(marks.begin(), marks.end(), l.mem_) &&
           std::equal(marks.begin(), marks.end(), l.mem_ + l.size_ - marks.size());
  }

  void free(std::size_t index) {
    const Live l = live_[index];
    live_[index] = live_.back();
    live_.pop_back();
    ASSERT_TRUE(intact(l));
    model_.free(addressOf(l.mem_) - 4);
    arena_.free(l.mem_);
  }

  void compare() {
    ASSERT_EQ(chunk_, parent_.sizes_.size()) << "the model asked for fewer chunks";
    ASSERT_EQ(arena_.allocatedMemory(), model_.allocated_);
    ASSERT_EQ(arena_.internalFree(), model_.internalFree_);
    for (unsigned c = 0; c < 64; c++) {
      ASSERT_EQ(arena_.allocatedColorMemory(c), model_.allocatedColor_[c]) << "colour " << c;
      ASSERT_EQ(arena_.freeColorMemory(c + 64), model_.freeColor_[c]) << "colour " << c;
    }
    ASSERT_TRUE(model_.isCut_ || visitedSums() == modelSums());
    const std::size_t blocks = arena_.chain().size();
    ASSERT_TRUE(model_.isCut_ || blocks == model_.chain_.size());
    arena_.check();
    arena_.checkArena();
  }

  // The bytes of the busy blocks by their colours, and the free bytes.
  struct Sums {
    bool operator==(const Sums&) const = default;

    unsigned busy_[64] = {};
    unsigned free_ = 0;
  };

  Sums visitedSums() {
    Sums sums;
    EXPECT_TRUE(arena_.visitBlocks(
        [](const Utils::BlockInfo& block, void* context) {
          Sums& all = *static_cast<Sums*>(context);
          if (block.kind == Utils::BlockInfo::BUSY) all.busy_[block.color] += block.size;
          if (block.kind == Utils::BlockInfo::FREE) all.free_ += block.size;
        },
        &sums));
    return sums;
  }

  // The words of a gap block are those of a busy one.
  Sums modelSums() {
    Sums sums;
    sums.free_ = model_.internalFree_;
    sums.busy_[0] = model_.gaps_;
    for (const Live& l : live_) {
      const auto& block = model_.at(addressOf(l.mem_) - 4);
      sums.busy_[block.color_] += block.size_;
    }
    return sums;
  }

  std::uintptr_t chunkFor(unsigned need) {
    EXPECT_LT(chunk_, parent_.sizes_.size()) << "the model asks for a chunk that was not asked for";
    if (chunk_ >= parent_.sizes_.size()) return 0;
    EXPECT_EQ(parent_.sizes_[chunk_], need);
    return addressOf(parent_.chunks_[chunk_++]);
  }

  static std::uintptr_t addressOf(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

  Random random_;
  ScriptedParent parent_;
  Arena arena_;
  std::size_t chunk_ = 0;  // chunks that the model was given
  Model model_;
  std::vector<Live> live_;
  unsigned usedAreas_ = 1;
};
