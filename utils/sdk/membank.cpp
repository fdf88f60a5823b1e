// SPDX-License-Identifier: MIT
// The arena allocator with bins.
//
// membank.h shows what a free block looks like; what the arenas do alike is arena_steps.h and
// chain.h.
#include "utils/sdk/membank.h"

#include <bit>
#include <new>

#include "utils/sdk/memory/arena_steps.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/membank";

constexpr int BINS = 27;

int binOf(unsigned size) { return static_cast<int>(std::bit_width(size)) - 1; }

}  // namespace

// The steps below the members. Taking a part of a free block, and a free block growing by a freed
// one, change the totals by the difference and write each head word once: steps that read again
// what the step before has just written took 1.4 times as long on a churn of 1 to 64 KiB.
struct Bank : ArenaSteps {
  using MemHead = MemoryBank::MemHead;

  // A block of a bin, and the one that the bin has before it, null for its first.
  struct Place {
    MemHead* head_;
    const MemHead* previous_;
    int bin_;
  };

  static MemHead* takeFit(MemoryBank& b, unsigned amt);
  static int lowestBin(const MemoryBank& b, int bin);
  static Place findFit(const MemoryBank& b, unsigned amt);
  static void joinFree(MemoryBank& b, MemHead* h, unsigned size, unsigned color);
  static bool remove(MemoryBank& b, MemHead* h);

  static void link(MemoryBank& b, MemHead* h, int bin);
  static void unlink(MemoryBank& b, MemHead* h, int bin);

  static bool canBe(const MemoryBank& b, const MemHead* h) {
    return Chain::Places(chain(b), SMALLEST_BLOCK).has(addressOf(h));
  }
  static bool isLinked(const MemoryBank& b, Place place);
  static bool isWhole(const MemoryBank& b, Place place);
  static bool holds(const MemoryBank& b, MemHead* h);
  static void repair(MemoryBank& b, Place place);
  static void keepWholeLinks(MemoryBank& b, int bin, FreeSums& sums);
  static const MemHead* damagedOf(const MemoryBank& b, Place place);
  static void check(const MemoryBank& b);
  static bool checkBin(const MemoryBank& b, int bin, FreeSums& sums);
};

// --- Construction ---

MemoryBank::MemoryBank() : parent_(nullptr), lock_("membank") { init(); }

MemoryBank::MemoryBank(Allocator* parent) : parent_(parent), lock_("membank") { init(); }

MemoryBank::~MemoryBank() {}

void MemoryBank::init() {
  ArenaSteps::init(*this);
  for (MemHead*& bin : bins_) bin = nullptr;
}

void* MemoryBank::operator new(std::size_t size) noexcept {
  return ::operator new(size, std::nothrow);
}

void* MemoryBank::operator new(std::size_t, void* place) noexcept { return place; }

void MemoryBank::operator delete(void* mem) noexcept { ::operator delete(mem); }

// --- Allocation and freeing ---

void* MemoryBank::alloc(unsigned size, unsigned color) {
  lock_.lock();
  void* mem = _alloc(size, color);
  lock_.unlock();
  return mem;
}

void* MemoryBank::alloc(unsigned size) {
  lock_.lock();
  void* mem = _alloc(size, defaultColor_);
  lock_.unlock();
  return mem;
}

void MemoryBank::free(void* mem) {
  if (!mem) return;
  lock_.lock();
  allocatedMemory_ -= _free(mem);
  lock_.unlock();
}

void* MemoryBank::_alloc(unsigned size, unsigned color) {
  if (size > LARGEST_REQUEST) return nullptr;
  const unsigned amt = blockSize(size);
  MemHead* h = Bank::takeFit(*this, amt);
  if (!h) h = Bank::newChunk(*this, amt, 12, SOURCE);
  return h ? Bank::handOverChecked(*this, h, color, SOURCE) : nullptr;
}

unsigned MemoryBank::_free(void* mem) {
  const auto block = Bank::takeBack(*this, mem, SMALLEST_BLOCK, "s == TAIL(h)->size", SOURCE);
  if (block.head_)
    Bank::joinFree(*this, static_cast<MemHead*>(block.head_), block.size_, block.color_);
  return block.size_;
}

// --- Bins ---

inline void Bank::link(MemoryBank& b, MemHead* h, int bin) {
  MemHead*& first = b.bins_[bin];
  h->next_ = first;
  h->prev_ = nullptr;
  if (first) first->prev_ = h;
  first = h;
}

inline void Bank::unlink(MemoryBank& b, MemHead* h, int bin) {
  (h->prev_ ? h->prev_->next_ : b.bins_[bin]) = h->next_;
  if (h->next_) h->next_->prev_ = h->prev_;
}

// The first bin from that one on that has blocks; BINS for none.
inline int Bank::lowestBin(const MemoryBank& b, int bin) {
  while (bin < BINS && !b.bins_[bin]) bin++;
  return bin;
}

// Whether the links of a free block agree with those of the blocks that they lead to.
inline bool Bank::isLinked(const MemoryBank& b, Place place) {
  const MemHead* h = place.head_;
  if (h->prev_ != place.previous_ || (!place.previous_ && b.bins_[place.bin_] != h)) return false;
  return !h->next_ || (canBe(b, h->next_) && h->next_->prev_ == h);
}

inline bool Bank::isWhole(const MemoryBank& b, Place place) {
  return isFree(b, place.head_, SMALLEST_BLOCK) &&
         binOf(place.head_->sizeandcolor_) == place.bin_ && isLinked(b, place);
}

// The first block of the bins above that of the request, where all blocks fit, else the first of
// its own bin that is large enough; null if there is none. Stops at one that is not linked.
inline Bank::Place Bank::findFit(const MemoryBank& b, unsigned amt) {
  const int own = binOf(amt);
  const int above = lowestBin(b, own + 1);
  if (above < BINS) return {b.bins_[above], nullptr, above};
  Place place{b.tryHard_ ? b.bins_[own] : nullptr, nullptr, own};
  while (place.head_ && place.head_->sizeandcolor_ < amt && isLinked(b, place)) {
    place.previous_ = place.head_;
    place.head_ = place.head_->next_;
  }
  return place;
}

// A busy block of amt bytes, or of less than 32 more, out of the free ones; null.
inline MemoryBank::MemHead* Bank::takeFit(MemoryBank& b, unsigned amt) {
  const Place place = findFit(b, amt);
  MemHead* h = place.head_;
  if (!h) return nullptr;
  if (!isWhole(b, place) || h->sizeandcolor_ < amt) [[unlikely]] {
    repair(b, place);
    return takeFit(b, amt);
  }
  unlink(b, h, place.bin_);
  const unsigned size = h->sizeandcolor_;
  if (size - amt < SMALLEST_BLOCK) {
    amt = size;
    b.setBusy(h);
  } else {
    link(b, cut(h, size, amt), binOf(size - amt));
  }
  countFree(b, 0 - amt, h->color_);
  return h;
}

// coalesce and freeLoser in one, for a busy block.
inline void Bank::joinFree(MemoryBank& b, MemHead* h, unsigned size, unsigned color) {
  const auto sum = join(b, h, size, SMALLEST_BLOCK, SOURCE,
                        [&](MemHead* neighbour) { return remove(b, neighbour); });
  sum.head_->sizeandcolor_ = sum.size_;
  sum.head_->color_ = color;
  writeTail(sum.head_, sum.size_);
  link(b, sum.head_, binOf(sum.size_));
  countFree(b, sum.size_, color);
}

inline bool Bank::holds(const MemoryBank& b, MemHead* h) {
  const MemHead* previous = h->prev_;
  if (previous && (!canBe(b, previous) || previous->next_ != h)) return false;
  return isLinked(b, {h, previous, binOf(h->sizeandcolor_)});
}

// Takes a free block out of its bin. One that no bin holds stays busy from then on, so that no
// neighbour looks for it again; then false.
inline bool Bank::remove(MemoryBank& b, MemHead* h) {
  const int bin = binOf(h->sizeandcolor_);
  if (!holds(b, h)) [[unlikely]] {
    repair(b, {h, h->prev_, bin});
    if (!holds(b, h)) {
      b.setBusy(h);
      return false;
    }
  }
  unlink(b, h, bin);
  uncount(b, h);
  return true;
}

MemoryBank::MemHead* MemoryBank::allocCandidate(int bin) {
  bin = Bank::lowestBin(*this, bin);
  if (bin >= BINS) return nullptr;
  MemHead* h = bins_[bin];
  if (!Bank::isWhole(*this, {h, nullptr, bin})) {
    Bank::repair(*this, {h, nullptr, bin});
    return allocCandidate(bin);
  }
  Bank::unlink(*this, h, bin);
  Bank::uncount(*this, h);
  setBusy(h);
  return h;
}

void MemoryBank::freeLoser(MemHead* h, int bin) {
  resetBusy(h);
  Bank::link(*this, h, bin);
  Bank::count(*this, h);
}

void MemoryBank::splitBlock(MemHead* h, unsigned amt) {
  const unsigned size = h->sizeandcolor_ - 1;
  if (size - amt >= SMALLEST_BLOCK) freeLoser(Bank::cut(h, size, amt), binOf(size - amt));
}

MemoryBank::MemHead* MemoryBank::coalesce(MemHead* h) {
  return Bank::coalesce(*this, h, SMALLEST_BLOCK, SOURCE,
                        [this](MemHead* neighbour) { return Bank::remove(*this, neighbour); });
}

// --- After damage ---

// Of two blocks whose links disagree, the second is damaged if the link leads to a true block.
const MemoryBank::MemHead* Bank::damagedOf(const MemoryBank& b, Place place) {
  const MemHead* h = place.head_;
  const MemHead* next = h->next_;
  const bool isSecond = isFree(b, h, SMALLEST_BLOCK) && h->prev_ == place.previous_ && next &&
                        canBe(b, next) && next->prev_ != h && chain(b).leadsTo(next);
  return isSecond ? next : h;
}

// Reports the block, and makes the bins and the totals anew of the free blocks that can still be
// reached and are whole. The blocks of the bins count as busy for the moment: no block comes twice,
// and a block that is free in the chain then is lost. It stays busy, so that no neighbour joins it.
[[gnu::cold, gnu::noinline]] void Bank::repair(MemoryBank& b, Place place) {
  brokenBlock("isWhole(h)", SOURCE, __LINE__, damagedOf(b, place));
  FreeSums sums;
  for (int bin = 0; bin < BINS; bin++) keepWholeLinks(b, bin, sums);
  const Chain all = chain(b);
  for (const void* head = b.cut_ ? nullptr : all.first_; head; head = all.after(head)) {
    if (all.isFree(head, SMALLEST_BLOCK)) wordAt(const_cast<void*>(head)) |= 1;
  }
  for (MemHead* first : b.bins_) {
    for (MemHead* h = first; h; h = h->next_) b.resetBusy(h);
  }
  recount(b, sums);
}

// One block that is not whole is passed over if its links are.
void Bank::keepWholeLinks(MemoryBank& b, int bin, FreeSums& sums) {
  const Chain::Places places(chain(b), SMALLEST_BLOCK);
  bool mayPass = true;
  MemHead* previous = nullptr;
  for (MemHead* h = b.bins_[bin]; h && places.has(addressOf(h)); h = h->next_) {
    const bool isWhole = chain(b).isFree(h, SMALLEST_BLOCK) && binOf(h->sizeandcolor_) == bin;
    if (!isWhole &&
        (!mayPass || !h->next_ || !places.has(addressOf(h->next_)) || h->next_->prev_ != h))
      break;
    if (!isWhole) {
      mayPass = false;
      continue;
    }
    (previous ? previous->next_ : b.bins_[bin]) = h;
    h->prev_ = previous;
    if (h->color_ > COLOR_MASK) h->color_ = 0;
    sums.add(h->sizeandcolor_, h->color_);
    b.setBusy(h);
    previous = h;
  }
  (previous ? previous->next_ : b.bins_[bin]) = nullptr;
}

// The chain, then the bins, then whether these hold every free block, then the totals.
void Bank::check(const MemoryBank& b) {
  FreeSums sums;
  if (!chain(b).check(SOURCE)) return;
  for (int bin = 0; bin < BINS; bin++) {
    if (!checkBin(b, bin, sums)) return;
  }
  for (void* mem = b.firstBlock(); mem; mem = b.nextBlock(mem)) {
    MemHead* h = static_cast<MemHead*>(headOfMemory(mem));
    if (isBusy(h->sizeandcolor_) || holds(b, h)) continue;
    brokenBlock("isWhole(h)", SOURCE, __LINE__, h);
    return;
  }
  if (!isCounted(b, sums)) YfAssert__("isCounted(sums)", SOURCE, __LINE__);
}

bool Bank::checkBin(const MemoryBank& b, int bin, FreeSums& sums) {
  Place place{b.bins_[bin], nullptr, bin};
  while (place.head_) {
    if (!isWhole(b, place)) {
      brokenBlock("isWhole(h)", SOURCE, __LINE__, damagedOf(b, place));
      return false;
    }
    sums.add(place.head_->sizeandcolor_, place.head_->color_);
    place.previous_ = place.head_;
    place.head_ = place.head_->next_;
  }
  return true;
}

// --- Questions ---

unsigned MemoryBank::size(const void* mem) const { return ArenaSteps::chain(*this).size(mem); }

unsigned MemoryBank::allocatedMemory() const { return allocatedMemory_; }

unsigned MemoryBank::internalFree() const { return internalFree_; }

unsigned MemoryBank::color(const void* mem) const { return ArenaSteps::chain(*this).color(mem); }

bool MemoryBank::valid(const void* mem) const { return ArenaSteps::chain(*this).valid(mem); }

unsigned MemoryBank::setDefaultColor(unsigned color, unsigned* oldColor) {
  if (oldColor) *oldColor = defaultColor_;
  defaultColor_ = color;
  return 0;
}

unsigned MemoryBank::defaultColor() const { return defaultColor_; }

unsigned MemoryBank::allocatedColorMemory(unsigned color) const {
  return allocatedColorMemory_[color & COLOR_MASK];
}

unsigned MemoryBank::freeColorMemory(unsigned color) const {
  return freeColorMemory_[color & COLOR_MASK];
}

void MemoryBank::adjustColorMemory(unsigned color, int delta) {
  allocatedColorMemory_[color & COLOR_MASK] += static_cast<unsigned>(delta);
}

unsigned MemoryBank::color(void* mem, unsigned color) {
  return ArenaSteps::chain(*this).setColor(mem, color, allocatedColorMemory_);
}

bool MemoryBank::busy(const void* mem) { return mem && isBusy(wordAt(headOfMemory(mem))); }

// --- The chain ---

void* MemoryBank::firstBlock() const { return ArenaSteps::chain(*this).firstBlock(); }

void* MemoryBank::nextBlock(const void* mem) const {
  return ArenaSteps::chain(*this).nextBlock(mem, SOURCE);
}

void MemoryBank::checkArena() const { Bank::check(*this); }

void MemoryBank::report() { ArenaSteps::chain(*this).report(SOURCE); }

}  // namespace Utils
