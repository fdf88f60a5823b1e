// membank.cpp: the arena allocator with bins.
//
// membank.h shows what a free block looks like; what the arenas do alike is arena_steps.h and
// chain.h.
#include "utils/sdk/membank.h"

#include <bit>
#include <new>

#include "utils/sdk/arena_steps.h"

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

  static MemHead* takeFit(MemoryBank& b, unsigned amt);
  static int lowestBin(const MemoryBank& b, int bin);
  static MemHead* searchBin(const MemoryBank& b, int bin, unsigned amt);
  static void joinFree(MemoryBank& b, MemHead* h, unsigned size, unsigned color);

  static void link(MemoryBank& b, MemHead* h, int bin);
  static void unlink(MemoryBank& b, MemHead* h, int bin);
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
  const auto block = Bank::takeBack(*this, mem, "s == TAIL(h)->size", SOURCE);
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

// The first block of the bin that is large enough, or null.
inline MemoryBank::MemHead* Bank::searchBin(const MemoryBank& b, int bin, unsigned amt) {
  MemHead* h = b.bins_[bin];
  while (h && h->sizeandcolor_ < amt) h = h->next_;
  return h;
}

// A busy block of amt bytes, or of less than 32 more, out of the free ones; null. All blocks of the
// bins above that of the request fit; those of its own bin are looked at last.
inline MemoryBank::MemHead* Bank::takeFit(MemoryBank& b, unsigned amt) {
  const int own = binOf(amt);
  int bin = lowestBin(b, own + 1);
  MemHead* h = bin < BINS ? b.bins_[bin] : nullptr;
  if (!h && b.tryHard_) h = searchBin(b, bin = own, amt);
  if (!h) return nullptr;
  unlink(b, h, bin);
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
  const auto sum = join(h, size, [&](MemHead* neighbour) {
    const unsigned joined = neighbour->sizeandcolor_;
    unlink(b, neighbour, binOf(joined));
    b.freeColorMemory_[neighbour->color_] -= joined;
    b.freeColorMemory_[color] += joined;
  });
  sum.head_->sizeandcolor_ = sum.size_;
  sum.head_->color_ = color;
  writeTail(sum.head_, sum.size_);
  link(b, sum.head_, binOf(sum.size_));
  countFree(b, size, color);
}

MemoryBank::MemHead* MemoryBank::allocCandidate(int bin) {
  bin = Bank::lowestBin(*this, bin);
  if (bin >= BINS) return nullptr;
  MemHead* h = bins_[bin];
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
  return Bank::coalesce(h, [this](MemHead* neighbour) {
    Bank::unlink(*this, neighbour, binOf(neighbour->sizeandcolor_));
    Bank::uncount(*this, neighbour);
  });
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

void MemoryBank::checkArena() const { ArenaSteps::chain(*this).check(SOURCE); }

void MemoryBank::report() { ArenaSteps::chain(*this).report(SOURCE); }

}  // namespace Utils
