// arena_model.h: MemoryAllocator told again with maps and sets, to predict every address and total.
//
// Knows addresses only: it never touches the memory. Blocks are named by the address of their head
// word. Asks `chunk_` for what the real allocator got from its parent.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

struct ArenaModel {
  using Address = std::uintptr_t;

  struct Block {
    unsigned size_;
    bool busy_;
    unsigned color_;  // of a busy block its colour, of a free one its label
  };

  static constexpr unsigned LIMIT = 1u << 26;

  explicit ArenaModel(std::function<Address(unsigned need)> chunk) : chunk_(std::move(chunk)) {}

  // The address of the head, 0 for none.
  Address alloc(unsigned size, unsigned color) {
    if (size > 67108848) return 0;
    unsigned amt = std::max((size + 15) & ~7u, 32u);
    Address h = 0;
    if (amt <= 512) h = allocSmall(std::bit_ceil(amt));
    if (amt < 1024) amt = 1024;
    if (!h) h = bestFit(amt);
    if (!h) h = newChunk(amt);
    if (!h) return 0;
    Block& b = at(h);
    b.color_ = color & 63;
    allocated_ += b.size_;
    allocatedColor_[b.color_] += b.size_;
    return h;
  }

  void free(Address h) {
    const Block b = at(h);
    allocated_ -= b.size_;
    allocatedColor_[b.color_] -= b.size_;
    if (b.size_ <= 512) {
      pushSmall(h, b.size_, b.color_);
    } else {
      freeLarge(h, b.color_);
    }
  }

  Block& at(Address h) {
    const auto small = small_.find(h);
    return small != small_.end() ? small->second : chain_.at(h);
  }

  std::map<Address, Block> chain_;
  std::map<Address, Block> small_;  // the blocks of the pages
  std::map<unsigned, std::vector<Address>> lists_;
  std::set<std::pair<unsigned, Address>> tree_;
  Address end_ = 0;
  unsigned allocated_ = 0;
  unsigned internalFree_ = 0;
  unsigned allocatedColor_[64] = {};
  unsigned freeColor_[64] = {};

 private:
  void count(const Block& b, int sign) {
    const unsigned delta = sign > 0 ? b.size_ : 0 - b.size_;
    internalFree_ += delta;
    freeColor_[b.color_] += delta;
  }

  void intoTree(Address h) {
    Block& b = chain_.at(h);
    b.busy_ = false;
    tree_.emplace(b.size_, h);
    count(b, 1);
  }

  void outOfTree(Address h) {
    Block& b = chain_.at(h);
    tree_.erase({b.size_, h});
    count(b, -1);
    b.busy_ = true;
  }

  Address bestFit(unsigned amt) {
    const auto fit = tree_.lower_bound({amt, 0});
    if (fit == tree_.end()) return 0;
    const Address h = fit->second;
    outOfTree(h);
    split(h, amt);
    return h;
  }

  void split(Address h, unsigned amt) {
    Block& b = chain_.at(h);
    const unsigned rest = b.size_ - amt;
    if (b.size_ < amt + 1023) return;
    b.size_ = amt;
    chain_[h + amt] = {rest, true, b.color_};
    intoTree(h + amt);
  }

  Address newChunk(unsigned amt) {
    const unsigned need = (std::max(amt + 8, 131072u) + 15) & ~15u;
    const Address c = chunk_(need);
    if (!c) return 0;
    Address h = c + 4;
    unsigned size = need - 8;
    if (end_ != 0 && c == end_ + 4 && need < LIMIT) {
      h = end_;
      size = need;
    } else if (end_ != 0) {
      chain_[end_] = {static_cast<unsigned>(c - end_ + 4), true, 0};
    }
    chain_[h] = {size, true, 0};
    end_ = c + need - 4;
    split(h, amt);
    return h;
  }

  void freeLarge(Address h, unsigned color) {
    auto it = chain_.find(h);
    const auto next = std::next(it);
    if (next != chain_.end() && joins(*it, *next)) {
      outOfTree(next->first);
      it->second.size_ += next->second.size_;
      chain_.erase(next);
    }
    if (it != chain_.begin() && joins(*it, *std::prev(it))) {
      const auto previous = std::prev(it);
      outOfTree(previous->first);
      previous->second.size_ += it->second.size_;
      chain_.erase(it);
      it = previous;
    }
    it->second.color_ = color;
    intoTree(it->first);
  }

  static bool joins(const std::pair<const Address, Block>& b,
                    const std::pair<const Address, Block>& n) {
    return !n.second.busy_ && b.second.size_ + n.second.size_ < LIMIT;
  }

  Address allocSmall(unsigned size) {
    auto& list = lists_[size];
    if (list.empty()) fill(size);
    if (list.empty()) return 0;
    const Address h = list.back();
    list.pop_back();
    Block& b = small_.at(h);
    count(b, -1);
    b.busy_ = true;
    return h;
  }

  void fill(unsigned size) {
    Address page = 0;
    for (const auto& [h, b] : chain_) {
      if (b.busy_ || b.size_ < 10248) continue;
      page = h;
      break;
    }
    unsigned payload = 10240;
    if (page) {
      outOfTree(page);
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

  std::function<Address(unsigned need)> chunk_;
};
