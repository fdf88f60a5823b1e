// SPDX-License-Identifier: MIT
// Containers of the standard library, and arenas, on the process allocator: what their colours
// hold, how memory is aligned, and what happens without memory.
#include <map>
#include <new>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "support/seed.h"
#include "utils/sdk/alloc.h"
#include "utils/sdk/chunk_parent.h"
#include "utils/sdk/color_resource.h"
#include "utils/sdk/membank.h"
#include "utils/testing/arena_check.h"
#include "utils/testing/failing_allocator.h"

namespace {

using namespace Utils;
using namespace Utils::Testing;

unsigned heldBy(unsigned color) { return Allocator::theAllocator()->allocatedColorMemory(color); }

struct alignas(64) Wide {
  char bytes_[64] = {};
};

// Every alignment, sizes up to 2000, in any order of release.
TEST(ColorResource, AlignsAndReturnsAll) {
  struct Block {
    void* mem_;
    std::size_t size_, align_;
  };
  ColorResource resource(41);
  std::vector<Block> blocks;
  Random random(1);
  for (unsigned i = 0; i < 4000; i++) {
    if (random.below(2) == 0 || blocks.empty()) {
      const std::size_t size = random.below(2000), align = std::size_t{1} << random.below(13);
      blocks.push_back({resource.allocate(size, align), size, align});
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back().mem_) % align, 0u);
      std::memset(blocks.back().mem_, 1, size);
    } else {
      std::swap(blocks[random.below(static_cast<unsigned>(blocks.size()))], blocks.back());
      resource.deallocate(blocks.back().mem_, blocks.back().size_, blocks.back().align_);
      blocks.pop_back();
    }
  }
  for (const Block& each : blocks) resource.deallocate(each.mem_, each.size_, each.align_);
  EXPECT_EQ(heldBy(41), 0u);
  EXPECT_TRUE(static_cast<MemoryAllocator*>(Allocator::theAllocator())->isWhole());
}

TEST(ColorResource, CountsContainersAndThrowsWithoutMemory) {
  const ColorAllocator<int> two(42);
  ColorResource resource(43), other(43);
  EXPECT_FALSE(resource == other);
  {
    std::vector<Wide, ColorAllocator<Wide>> wide(3, two);
    std::map<int, int, std::less<>, ColorAllocator<std::pair<const int, int>>> map(two);
    map[1] = 2;
    EXPECT_GE(heldBy(42), 4 * 64u);
    EXPECT_TRUE(wide.get_allocator() == two && two != ColorAllocator<char>(43));
    std::pmr::vector<std::pmr::string> lines(&resource);
    lines.emplace_back("a line that does not fit into the string itself");
    EXPECT_GE(heldBy(43), sizeof(std::pmr::string) + 48);
    FailingAllocator memory;
    memory.failFrom(1);
    EXPECT_THROW(lines.emplace_back(100, 'x'), std::bad_alloc);
    EXPECT_THROW(wide.reserve(100), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(ColorAllocator<Wide>(two).allocate(~std::size_t{0} / 64)),
                 std::bad_alloc);
    EXPECT_EQ(lines.size() + wide.size(), 4u);
  }
  EXPECT_EQ(heldBy(42) + heldBy(43), 0u);
}

// Its chunks lie on both halves of an alignment to 16.
template <class Arena>
void runOnTheProcessAllocator(unsigned color) {
  ChunkParent parent(Allocator::theAllocator(), color);
  Arena arena(&parent);
  unsigned held = 0;
  for (unsigned i = 0; i < 40; i++) {
    EXPECT_NE(Allocator::theAllocator()->alloc(1000 + i * 8, color + 1), nullptr);
    void* mem = arena.alloc(90000);
    ASSERT_NE(mem, nullptr);
    std::memset(mem, 1, 90000);
    held += arena.size(mem);
    EXPECT_EQ(brokenInvariant(arena), "");
  }
  EXPECT_EQ(arena.allocatedMemory(), held);
  EXPECT_GT(heldBy(color), held) << "the chunks";
  FailingAllocator memory;
  memory.failFrom(1);
  EXPECT_EQ(arena.alloc(1000000), nullptr);
  EXPECT_EQ(parent.alloc(0xffffffff), nullptr);
}

TEST(ChunkParent, PutsArenasOnTheProcessAllocator) {
  runOnTheProcessAllocator<MemoryAllocator>(44);
  runOnTheProcessAllocator<MemoryBank>(46);
}

}  // namespace
