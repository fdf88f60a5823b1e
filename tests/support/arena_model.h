// SPDX-License-Identifier: MIT
// Models of the arenas, made of maps and sets, to predict every address and total.
//
// Knows addresses only: it never touches the memory. Blocks are named by the address of their head
// word. Asks `chunk_` for what the real allocator got from its parent. ChainModel has what all
// arenas share, ArenaModel and BankModel add what makes a MemoryAllocator and a MemoryBank.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

struct ChainModel {
  using Address = std::uintptr_t;
  using Chunks = std::function<Address(unsigned need)>;

  struct Block {
    unsigned size_;
    bool busy_;
    unsigned color_;  // of a busy block its colour, of a free one its label
  };

  static constexpr unsigned LIMIT = 1u << 26;
  static constexpr unsigned LARGEST_REQUEST = LIMIT - 16;

  // Remainders of at least `leastRest` bytes are split off; `around` more bytes than the block has
  // are asked for with a chunk.
  ChainModel(Chunks chunk, unsigned leastRest, unsigned around)
      : chunk_(std::move(chunk)), leastRest_(leastRest), around_(around) {}
  virtual ~ChainModel() = default;

  // Whether a block can be asked for its size and colour.
  bool isKnown(Address h) const { return h >= first_ && h < end_; }

  bool recolor(Address h, Block& b, unsigned color) {
    if ((color & 63) == 0 || b.color_ != 0 || !isKnown(h)) return false;
    b.color_ = color & 63;
    allocatedColor_[b.color_] += b.size_;
    return true;
  }

  std::map<Address, Block> chain_;
  Address first_ = 0;
  Address end_ = 0;
  bool isCut_ = false;
  bool triesHard_ = true;
  unsigned allocated_ = 0;
  unsigned internalFree_ = 0;
  unsigned gaps_ = 0;
  unsigned allocatedColor_[64] = {};
  unsigned freeColor_[64] = {};

 protected:
  // Where the free blocks of the chain are kept.
  virtual void keep(Address h, unsigned size) = 0;
  virtual void drop(Address h, unsigned size) = 0;

  static unsigned amountFor(unsigned size) { return std::max((size + 15) & ~7u, 32u); }

  Address handOver(Address h, Block& b, unsigned color) {
    b.color_ = color & 63;
    allocated_ += b.size_;
    allocatedColor_[b.color_] += b.size_;
    return h;
  }

  void takeBack(const Block& b) {
    allocated_ -= b.size_;
    allocatedColor_[b.color_] -= b.size_;
  }

  void count(const Block& b, unsigned sign) {  // 1, or the largest number for -1
    internalFree_ += sign * b.size_;
    freeColor_[b.color_] += sign * b.size_;
  }

  void makeFree(Address h) {
    Block& b = chain_.at(h);
    b.busy_ = false;
    keep(h, b.size_);
    count(b, 1);
  }

  void makeBusy(Address h) {
    Block& b = chain_.at(h);
    drop(h, b.size_);
    count(b, 0u - 1);
    b.busy_ = true;
  }

  void split(Address h, unsigned amt) {
    Block& b = chain_.at(h);
    if (b.size_ < amt + leastRest_) return;
    const unsigned rest = b.size_ - amt;
    b.size_ = amt;
    chain_[h + amt] = {rest, true, b.color_};
    makeFree(h + amt);
  }

  Address newChunk(unsigned amt) {
    const unsigned need = (std::max(amt + around_, 131072u) + 15) & ~15u;
    const Address c = chunk_(need);
    if (!c) return 0;
    Address h = c + 4;
    unsigned size = std::min(need, LIMIT) - 8;
    const Address gap = c - end_ + 4;
    if (end_ == 0) {
      first_ = h;
    } else if (gap == 8 && need < LIMIT) {
      h = end_;
      size = need;
    } else if (c > end_ && gap < LIMIT) {
      chain_[end_] = {static_cast<unsigned>(gap), true, 0};
      gaps_ += static_cast<unsigned>(gap);
    } else {
      isCut_ = true;
    }
    chain_[h] = {size, true, 0};
    end_ = h + size;
    split(h, amt);
    return h;
  }

  void giveBack(Address h) {
    auto block = chain_.find(h);
    const unsigned color = block->second.color_;
    const auto next = std::next(block);
    if (next != chain_.end()) join(block, next, next);
    if (block != chain_.begin()) {
      const auto previous = std::prev(block);
      if (join(previous, block, previous)) block = previous;
    }
    block->second.color_ = color;
    makeFree(block->first);
  }

 private:
  using Place = std::map<Address, Block>::iterator;

  // Joins the two to one busy block if they touch and the neighbour is free.
  bool join(Place low, Place high, Place neighbour) {
    const unsigned sum = low->second.size_ + high->second.size_;
    if (neighbour->second.busy_ || low->first + low->second.size_ != high->first || sum >= LIMIT)
      return false;
    makeBusy(neighbour->first);
    low->second.size_ = sum;
    chain_.erase(high);
    return true;
  }

  Chunks chunk_;
  const unsigned leastRest_;
  const unsigned around_;
};

struct ArenaModel : ChainModel {
  explicit ArenaModel(Chunks chunk) : ChainModel(std::move(chunk), 1024, 8) {}

  // The address of the head, 0 for none.
  Address alloc(unsigned size, unsigned color) {
    if (size > LARGEST_REQUEST) return 0;
    unsigned amt = amountFor(size);
    Address h = amt <= 512 ? allocSmall(std::bit_ceil(amt)) : 0;
    if (amt < 1024) amt = 1024;
    if (!h) h = bestFit(amt);
    if (!h) h = newChunk(amt);
    return h ? handOver(h, at(h), color) : 0;
  }

  void free(Address h) {
    const Block b = at(h);
    takeBack(b);
    b.size_ <= 512 ? pushSmall(h, b.size_, b.color_) : giveBack(h);
  }

  Block& at(Address h) {
    const auto small = small_.find(h);
    return small != small_.end() ? small->second : chain_.at(h);
  }

  std::map<Address, Block> small_;  // the blocks of the pages
  std::map<unsigned, std::vector<Address>> lists_;
  std::set<std::pair<unsigned, Address>> tree_;

 private:
  void keep(Address h, unsigned size) override { tree_.emplace(size, h); }
  void drop(Address h, unsigned size) override { tree_.erase({size, h}); }

  Address bestFit(unsigned amt) {
    const auto fit = tree_.lower_bound({amt, 0});
    if (fit == tree_.end()) return 0;
    const Address h = fit->second;
    makeBusy(h);
    split(h, amt);
    return h;
  }

  Address allocSmall(unsigned size) {
    auto& list = lists_[size];
    if (list.empty()) fill(size);
    if (list.empty()) return 0;
    const Address h = list.back();
    list.pop_back();
    Block& b = small_.at(h);
    count(b, 0u - 1);
    b.busy_ = true;
    return h;
  }

  void fill(unsigned size) {
    Address page = 0;
    for (const auto& [h, b] : chain_)
      if (page == 0 && !b.busy_ && b.size_ >= 10248) page = h;
    unsigned payload = 10240;
    if (page) {
      makeBusy(page);
      chain_.at(page).color_ = 0;
      split(page, 10240);
      payload = chain_.at(page).size_ - 8;
    } else {
      page = alloc(10240, 0);
      if (!page) return;
    }
    Address h = page + 8;
    for (unsigned left = payload - 4; left >= size; left -= size, h += size) pushSmall(h, size, 0);
  }

  void pushSmall(Address h, unsigned size, unsigned label) {
    small_[h] = {size, false, label};
    lists_[size].push_back(h);
    count(small_[h], 1);
  }
};

struct BankModel : ChainModel {
  explicit BankModel(Chunks chunk) : ChainModel(std::move(chunk), 32, 12) {}

  Address alloc(unsigned size, unsigned color) {
    if (size > LARGEST_REQUEST) return 0;
    const unsigned amt = amountFor(size);
    Address h = fitAbove(amt);
    if (!h && triesHard_) h = fitInOwnBin(amt);
    if (h) {
      makeBusy(h);
      split(h, amt);
    } else {
      h = newChunk(amt);
    }
    return h ? handOver(h, at(h), color) : 0;
  }

  void free(Address h) {
    takeBack(at(h));
    giveBack(h);
  }

  Block& at(Address h) { return chain_.at(h); }

 private:
  using Bin = std::vector<Address>;  // the last one goes first

  Bin& binOf(unsigned size) { return bins_[std::bit_width(size) - 1]; }
  void keep(Address h, unsigned size) override { binOf(size).push_back(h); }
  void drop(Address h, unsigned size) override {
    Bin& bin = binOf(size);
    bin.erase(std::find(bin.begin(), bin.end(), h));
  }

  Address fitAbove(unsigned amt) {
    for (Bin* bin = &binOf(amt) + 1; bin < bins_ + 27; bin++) {
      if (!bin->empty()) return bin->back();
    }
    return 0;
  }

  Address fitInOwnBin(unsigned amt) {
    const Bin& bin = binOf(amt);
    const auto fits = [&](Address h) { return at(h).size_ >= amt; };
    const auto fit = std::find_if(bin.rbegin(), bin.rend(), fits);
    return fit == bin.rend() ? 0 : *fit;
  }

  Bin bins_[27];
};
