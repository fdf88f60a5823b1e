// SPDX-License-Identifier: MIT
// The steps of the arena allocator with bins.
//
// membank.h shows the layout of a free block. arena_steps.h and chain.h have what the arenas share.
#include "utils/sdk/membank.h"

#include <bit>
#include <new>

#include "utils/sdk/memory/arena_steps.h"
#include "utils/sdk/memory/watched_steps.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

struct BankTraits {
  using Arena = MemoryBank;
  static constexpr unsigned LEAST_FREE = SMALLEST_BLOCK;
  static constexpr unsigned CHUNK_EXTRA = 12;
  static constexpr char SOURCE[] = "utils/sdk/membank";
  static constexpr bool HAS_PAGES = false;
};

int binOf(unsigned size) { return static_cast<int>(std::bit_width(size)) - 1; }

}  // namespace

// The steps of the members. Where a request takes a part of a free block, or a freed block grows a
// free one, the totals change by the difference and each head word is written once: steps that read
// again what the step before had just written took 1.4 times as long on a churn of 1 to 64 KiB.
struct BankSteps : ArenaSteps<BankTraits> {
  using MemHead = MemoryBank::MemHead;

  // A block of a bin, and the one before it in the bin, null for the first.
  struct Place {
    MemHead* head_;
    const MemHead* previous_;
    int bin_;
  };

  static void* allocate(MemoryBank& b, unsigned request, unsigned color);
  static unsigned release(MemoryBank& b, void* mem);
  static bool isWhole(const MemoryBank& b, const void* mem) { return agrees(b, mem); }

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
  static void rebuildBin(MemoryBank& b, int bin, FreeSums& sums);
  static const MemHead* damagedOf(const MemoryBank& b, Place place);
  static bool check(const MemoryBank& b, const char* source);
  static bool checkBin(const MemoryBank& b, int bin, FreeSums& sums, const char* source);
};

using Watched = WatchedSteps<BankSteps>;
using Reading = Watched::Reading;
using Quiet = Sight::Quiet;

// --- Construction ---

MemoryBank::MemoryBank() : parent_(nullptr), lock_("membank") { init(); }

MemoryBank::MemoryBank(Allocator* parent) : parent_(parent), lock_("membank") { init(); }

MemoryBank::~MemoryBank() {
  if (slow_) [[unlikely]]
    Watched::destroy(*this);
}

void MemoryBank::init() {
  static_assert(sizeof bins_ == BINS * sizeof(MemHead*));
  BankSteps::init(*this);
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

inline void* BankSteps::allocate(MemoryBank& b, unsigned request, unsigned color) {
  if (request > LARGEST_REQUEST) return nullptr;
  const unsigned amt = blockSize(request);
  MemHead* h = takeFit(b, amt);
  if (!h) h = newChunk(b, amt);
  return h ? handOverChecked(b, h, color) : nullptr;
}

inline unsigned BankSteps::release(MemoryBank& b, void* mem) {
  const auto block = takeBack(b, mem, "s == TAIL(h)->size");
  if (block.head_) joinFree(b, block.head_, block.size_, block.color_);
  return block.size_;
}

void* MemoryBank::_alloc(unsigned size, unsigned color) {
  if (slow_) [[unlikely]]
    return Watched::allocate(*this, size, color);
  return BankSteps::allocate(*this, size, color);
}

unsigned MemoryBank::_free(void* mem) {
  if (slow_) [[unlikely]]
    return Watched::release(*this, mem);
  return BankSteps::release(*this, mem);
}

// --- Bins ---

inline void BankSteps::link(MemoryBank& b, MemHead* h, int bin) {
  MemHead*& first = b.bins_[bin];
  h->next_ = first;
  h->prev_ = nullptr;
  if (first) first->prev_ = h;
  first = h;
}

inline void BankSteps::unlink(MemoryBank& b, MemHead* h, int bin) {
  (h->prev_ ? h->prev_->next_ : b.bins_[bin]) = h->next_;
  if (h->next_) h->next_->prev_ = h->prev_;
}

// Returns the first bin from that one on that has blocks. BINS if there is none.
inline int BankSteps::lowestBin(const MemoryBank& b, int bin) {
  while (bin < BINS && !b.bins_[bin]) bin++;
  return bin;
}

// Returns whether the links of a free block agree with those of the blocks that they lead to.
inline bool BankSteps::isLinked(const MemoryBank& b, Place place) {
  const MemHead* h = place.head_;
  if (h->prev_ != place.previous_ || (!place.previous_ && b.bins_[place.bin_] != h)) return false;
  return !h->next_ || (canBe(b, h->next_) && h->next_->prev_ == h);
}

inline bool BankSteps::isWhole(const MemoryBank& b, Place place) {
  return isFree(b, place.head_) && binOf(place.head_->sizeandcolor_) == place.bin_ &&
         isLinked(b, place);
}

// Returns the first block of the lowest bin above that of the request, in which all blocks are
// large enough, else the first block of the request's own bin that is large enough. Null if there
// is none. The search ends at a block whose links disagree, and returns it.
inline BankSteps::Place BankSteps::findFit(const MemoryBank& b, unsigned amt) {
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

// Unlinks a free block and returns it busy, of amt bytes or of less than 32 more. Null if there is
// none.
inline MemoryBank::MemHead* BankSteps::takeFit(MemoryBank& b, unsigned amt) {
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

// Frees a busy block, joined with its free neighbours. Does the work of coalesce and freeLoser at
// once.
inline void BankSteps::joinFree(MemoryBank& b, MemHead* h, unsigned size, unsigned color) {
  const auto sum = join(b, h, size, [&](MemHead* neighbour) { return remove(b, neighbour); });
  sum.head_->sizeandcolor_ = sum.size_;
  sum.head_->color_ = color;
  writeTail(sum.head_, sum.size_);
  link(b, sum.head_, binOf(sum.size_));
  countFree(b, sum.size_, color);
}

inline bool BankSteps::holds(const MemoryBank& b, MemHead* h) {
  const MemHead* previous = h->prev_;
  if (previous && (!canBe(b, previous) || previous->next_ != h)) return false;
  return isLinked(b, {h, previous, binOf(h->sizeandcolor_)});
}

// Unlinks a free block from its bin. Returns false if no bin holds it, which is damage: the block
// is then busy for ever, so that no neighbour searches for it again.
inline bool BankSteps::remove(MemoryBank& b, MemHead* h) {
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
  bin = BankSteps::lowestBin(*this, bin);
  if (bin >= BINS) return nullptr;
  MemHead* h = bins_[bin];
  if (!BankSteps::isWhole(*this, {h, nullptr, bin})) {
    BankSteps::repair(*this, {h, nullptr, bin});
    return allocCandidate(bin);
  }
  BankSteps::unlink(*this, h, bin);
  BankSteps::uncount(*this, h);
  setBusy(h);
  return h;
}

void MemoryBank::freeLoser(MemHead* h, int bin) {
  resetBusy(h);
  BankSteps::link(*this, h, bin);
  BankSteps::count(*this, h);
}

void MemoryBank::splitBlock(MemHead* h, unsigned amt) {
  const unsigned size = h->sizeandcolor_ - 1;
  if (size - amt >= SMALLEST_BLOCK) freeLoser(BankSteps::cut(h, size, amt), binOf(size - amt));
}

MemoryBank::MemHead* MemoryBank::coalesce(MemHead* h) {
  return BankSteps::coalesce(
      *this, h, [this](MemHead* neighbour) { return BankSteps::remove(*this, neighbour); });
}

// --- After damage ---

// Returns the damaged one of two blocks whose links disagree: the second if the link leads to a
// block of the chain, else the first.
const MemoryBank::MemHead* BankSteps::damagedOf(const MemoryBank& b, Place place) {
  const MemHead* h = place.head_;
  const MemHead* next = h->next_;
  const bool isSecond = isFree(b, h) && h->prev_ == place.previous_ && next && canBe(b, next) &&
                        next->prev_ != h && chain(b).leadsTo(next);
  return isSecond ? next : h;
}

// Reports the block, and rebuilds the bins and the totals from the free blocks that can still be
// reached and whose words agree. The blocks of the bins are marked busy meanwhile, so that none is
// visited twice and the blocks that are still free in the chain are those that no bin holds. These
// are lost: they stay busy, so that no neighbour joins them.
[[gnu::cold, gnu::noinline]] void BankSteps::repair(MemoryBank& b, Place place) {
  brokenBlock(chain(b), "isWhole(h)", SOURCE, __LINE__, damagedOf(b, place));
  FreeSums sums;
  for (int bin = 0; bin < BINS; bin++) rebuildBin(b, bin, sums);
  const Chain all = chain(b);
  for (const void* head = b.cut_ ? nullptr : all.first_; head; head = all.after(head)) {
    if (all.isFree(head, SMALLEST_BLOCK)) wordAt(const_cast<void*>(head)) |= 1;
  }
  for (MemHead* first : b.bins_) {
    for (MemHead* h = first; h; h = h->next_) b.resetBusy(h);
  }
  recount(b, sums);
}

// Cuts the bin before its first damaged block. One damaged block is skipped if its links agree.
void BankSteps::rebuildBin(MemoryBank& b, int bin, FreeSums& sums) {
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

// Checks the chain, then the bins, then that they hold every free block, then the totals. Fails no
// assertion if `source` is null.
bool BankSteps::check(const MemoryBank& b, const char* source) {
  FreeSums sums;
  if (!chain(b).check(source)) return false;
  for (int bin = 0; bin < BINS; bin++) {
    if (!checkBin(b, bin, sums, source)) return false;
  }
  for (void* mem = b.firstBlock(); mem; mem = b.nextBlock(mem)) {
    MemHead* h = static_cast<MemHead*>(headOfMemory(mem));
    if (isBusy(h->sizeandcolor_) || holds(b, h)) continue;
    brokenBlock(chain(b), "isWhole(h)", source, __LINE__, h);
    return false;
  }
  if (isCounted(b, sums)) return true;
  wrongTotals("isCounted(sums)", source, __LINE__);
  return false;
}

bool BankSteps::checkBin(const MemoryBank& b, int bin, FreeSums& sums, const char* source) {
  Place place{b.bins_[bin], nullptr, bin};
  while (place.head_) {
    if (!isWhole(b, place)) {
      brokenBlock(chain(b), "isWhole(h)", source, __LINE__, damagedOf(b, place));
      return false;
    }
    sums.add(place.head_->sizeandcolor_, place.head_->color_);
    place.previous_ = place.head_;
    place.head_ = place.head_->next_;
  }
  return true;
}

// --- Questions ---

unsigned MemoryBank::size(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return BankSteps::chain(*this).size(mem);
}

unsigned MemoryBank::allocatedMemory() const { return allocatedMemory_; }

unsigned MemoryBank::internalFree() const {
  const Reading reading(*this);
  return internalFree_;
}

unsigned MemoryBank::color(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return BankSteps::chain(*this).color(mem);
}

bool MemoryBank::valid(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return BankSteps::chain(*this).valid(mem);
}

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
  const Reading reading(*this);
  return freeColorMemory_[color & COLOR_MASK];
}

void MemoryBank::adjustColorMemory(unsigned color, int delta) {
  allocatedColorMemory_[color & COLOR_MASK] += static_cast<unsigned>(delta);
}

unsigned MemoryBank::color(void* mem, unsigned color) {
  const Quiet quiet(slow_ != 0);
  return BankSteps::chain(*this).setColor(mem, color, allocatedColorMemory_);
}

bool MemoryBank::busy(const void* mem) {
  const Quiet quiet(Sight::isOn_);
  return mem && isBusy(wordAt(headOfMemory(mem)));
}

// --- The chain ---

void* MemoryBank::firstBlock() const {
  const Reading reading(*this);
  return BankSteps::chain(*this).firstBlock();
}

void* MemoryBank::nextBlock(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return BankSteps::chain(*this).nextBlock(mem, BankSteps::SOURCE);
}

void MemoryBank::checkArena() const {
  const Reading reading(*this);
  BankSteps::check(*this, BankSteps::SOURCE);
}

bool MemoryBank::isWhole() const {
  const Reading reading(*this);
  return BankSteps::check(*this, nullptr);
}

bool MemoryBank::visitBlocks(void (*visit)(const BlockInfo&, void*), void* context) const {
  const Reading reading(*this);
  return BankSteps::visitBlocks(*this, [=](const BlockInfo& block) { visit(block, context); });
}

void MemoryBank::report() {
  const Reading reading(*this);
  BankSteps::chain(*this).report(BankSteps::SOURCE);
}

}  // namespace Utils
