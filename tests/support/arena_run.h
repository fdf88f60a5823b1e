// SPDX-License-Identifier: MIT
// A seeded random run of an arena allocator beside a model of it.
//
// Every block that lives keeps a pattern of its own, read again before it is freed. After every
// step the addresses, sizes, colours and totals are those of the model, and the arena's own checker
// is content.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/scripted_parent.h"
#include "support/seed.h"

template <class Arena, class Model>
struct ArenaRun {
  struct Live {
    unsigned char* mem_;
    unsigned size_;
    unsigned char pattern_;
  };

  explicit ArenaRun(unsigned seed)
      : random_(seed), arena_(&parent_), model_([this](unsigned need) { return chunkFor(need); }) {}

  void run(unsigned steps, std::size_t mostLive) {
    for (unsigned step = 0; step < steps && !testing::Test::HasFailure(); step++) {
      SCOPED_TRACE("step " + std::to_string(step));
      const std::size_t aim = (step / 500 % 3 + 1) * mostLive / 3;
      if (random_.below(20) == 0) parent_.skip(16 * random_.below(1000));
      parent_.failFrom(random_.below(30) == 0 ? 1 : 0);
      if (live_.size() < aim * (1 + random_.below(8)) / 8) {
        alloc();
      } else if (!live_.empty()) {
        free(random_.below(static_cast<unsigned>(live_.size())));
      }
      compare();
    }
    while (!live_.empty() && !testing::Test::HasFailure()) free(live_.size() - 1);
    compare();
    EXPECT_EQ(parent_.freed_, 0u);
  }

  unsigned someSize() {
    switch (random_.below(8)) {
      case 0:
        return random_.below(32);
      case 1:
      case 2:
        return random_.below(505);
      case 3:
        return 480 + random_.below(600);
      case 4:
      case 5:
        return random_.below(5000);
      case 6:
        return random_.below(40000);
      default:
        return random_.below(200000);
    }
  }

  void alloc() {
    const unsigned size = someSize();
    const unsigned color = random_.below(80);
    unsigned char* mem;
    if (random_.below(2) == 0) {
      mem = static_cast<unsigned char*>(arena_.alloc(size, color));
    } else {
      arena_.setDefaultColor(color, nullptr);
      mem = static_cast<unsigned char*>(arena_.alloc(size));
    }
    const auto head = model_.alloc(size, color);
    if (head == 0) {
      ASSERT_EQ(mem, nullptr);
      return;
    }
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(mem), head + 4) << "size " << size;
    EXPECT_EQ(arena_.size(mem), model_.at(head).size_);
    EXPECT_GE(arena_.size(mem), size + 8);
    EXPECT_EQ(arena_.color(mem), color & 63);
    EXPECT_TRUE(arena_.valid(mem));
    EXPECT_TRUE(Arena::busy(mem));
    live_.push_back({mem, size, static_cast<unsigned char>(1 + random_.below(255))});
    fill(live_.back());
  }

  // Marks the ends of what the caller may use; a whole large block would cost more than it shows.
  static constexpr unsigned MARKED = 256;

  static void fill(const Live& l) {
    const unsigned n = std::min(l.size_, MARKED);
    std::memset(l.mem_, l.pattern_, n);
    std::memset(l.mem_ + l.size_ - n, l.pattern_, n);
  }

  static bool intact(const Live& l) {
    const unsigned n = std::min(l.size_, MARKED);
    for (unsigned i = 0; i < n; i++) {
      if (l.mem_[i] != l.pattern_ || l.mem_[l.size_ - 1 - i] != l.pattern_) return false;
    }
    return true;
  }

  void free(std::size_t index) {
    const Live l = live_[index];
    live_[index] = live_.back();
    live_.pop_back();
    ASSERT_TRUE(intact(l));
    model_.free(reinterpret_cast<std::uintptr_t>(l.mem_) - 4);
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
    ASSERT_EQ(arena_.chain().size(), model_.chain_.size());
    arena_.check();
  }

  std::uintptr_t chunkFor(unsigned need) {
    EXPECT_LT(chunk_, parent_.sizes_.size()) << "the model asks for a chunk that was not asked for";
    if (chunk_ >= parent_.sizes_.size()) return 0;
    EXPECT_EQ(parent_.sizes_[chunk_], need);
    return reinterpret_cast<std::uintptr_t>(parent_.chunks_[chunk_++]);
  }

  Random random_;
  ScriptedParent parent_;
  Arena arena_;
  std::size_t chunk_ = 0;  // chunks that the model was given
  Model model_;
  std::vector<Live> live_;
};
