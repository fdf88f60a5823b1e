// SPDX-License-Identifier: MIT
// The steps of the general-purpose arena allocator.
//
// alloc.h shows the layout of a block. arena_steps.h and chain.h have what the arenas share,
// free_tree.h has the tree of the free large blocks.
#include "utils/sdk/alloc.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <new>

#include "utils/sdk/memory/arena_steps.h"
#include "utils/sdk/memory/free_tree.h"
#include "utils/sdk/memory/heap_moments.h"
#include "utils/sdk/memory/watched_steps.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

struct AllocTraits {
  using Arena = MemoryAllocator;
  static constexpr unsigned LEAST_FREE = SMALLEST_LARGE;
  static constexpr unsigned CHUNK_EXTRA = 8;
  static constexpr char SOURCE[] = "utils/sdk/alloc";
  static constexpr bool HAS_PAGES = true;
};

constexpr unsigned LARGEST_SMALL = 512;
constexpr unsigned LARGEST_SMALL_REQUEST = LARGEST_SMALL - OVERHEAD;
constexpr unsigned CLASSES = std::bit_width(LARGEST_SMALL);  // by log2 of the block size

static_assert(CLASSES == SmallBlocks::LARGEST_CLASS + 1);
static_assert(offsetof(MemTail, size) == 0 && sizeof(MemTail) == 4);

MemHead* headAt(void* address) { return static_cast<MemHead*>(address); }

// Returns the class of a small request less one, so that the block size is 2 << half: the fewest
// instructions for both. A request that needs less than the smallest block gets that.
unsigned halfClassOf(unsigned request) {
  constexpr unsigned LEAST = SMALLEST_BLOCK / 2;
  return 31 - static_cast<unsigned>(__builtin_clz((request + OVERHEAD - 1) | LEAST));
}

// Returns the class of a small block; for any other size an index at which SMALL_SIZES has another
// number.
unsigned classOfSize(unsigned size) {
  return static_cast<unsigned>(__builtin_ctz(size | 0x80000000u));
}

// of_[k] is the block size of class k. If there is no such class, it is a number that classOfSize
// does not map to k.
constexpr struct SmallSizes {
  constexpr SmallSizes() {
    for (unsigned k = 1; k < 32; k++) {
      const bool isSmall = 1u << k >= SMALLEST_BLOCK && 1u << k <= LARGEST_SMALL;
      of_[k] = isSmall ? 1u << k : 1;
    }
  }

  unsigned of_[32] = {2};
} SMALL_SIZES;
static_assert(std::has_single_bit(SMALLEST_BLOCK) && std::has_single_bit(LARGEST_SMALL));

// A free small block. Its link has the place of a large block's node. Aligned to 1, because a link
// that the program has overwritten can lead to any address of the chain.
#pragma pack(push, 1)
struct FreeSmall {
  unsigned size_;
  MemHead* next_;
  char unused_[sizeof(MemHead) - 8 - sizeof(MemHead*)];
  unsigned label_;
};
#pragma pack(pop)
static_assert(offsetof(FreeSmall, label_) == sizeof(MemHead) - 4);

FreeSmall* freeSmallAt(MemHead* h) { return static_cast<FreeSmall*>(static_cast<void*>(h)); }

}  // namespace

// The order of the free tree as a WTreeCompare. The keys are the addresses of the blocks' color_.
int nodeCompareSame(const void* a, const void* b) {
  const auto headOfKey = [](const void* key) {
    return reinterpret_cast<const MemHead*>(static_cast<const char*>(key) - (sizeof(MemHead) - 4));
  };
  const MemHead* other = headOfKey(b);
  return compareBlocks(headOfKey(a), other->sizeandcolor_, addressOf(other));
}

// The way of a request:
//
// 1. A request of up to 504 bytes takes the first block from the list of its class (allocate,
//    popSmall).
// 2. If the list is empty, a page is cut into blocks of the class (allocateFromPage, allocSmall,
//    refill, fillClass). The page is the lowest free block that is large enough (findPage,
//    cutPage), else a large block from steps 3 and 4 (_alloc).
// 3. A larger request, and a small one without a page, takes the best fit of the free tree
//    (allocateLarge, takeFit): the whole block, or its first part if at least 1024 bytes remain.
// 4. If no free block is large enough, the parent allocates a chunk, whose first part is the block
//    (newChunk). The request returns null if the parent has no memory.
// 5. The block is counted as the caller's and its head word is written (handOver).
//
// A block that is freed returns to the list of its class (releaseSmall, pushSmall), or is joined
// with its free neighbours and put into the tree (releaseLarge, joinFree). A step that meets a
// damaged block reports it, rebuilds the tree and the lists from the undamaged ones (repair), and
// is repeated.
//
// The steps of 1 and of releaseSmall are inlined into every entry. The others are functions of
// their own, so that the entries need no stack frame for them.
struct AllocSteps : ArenaSteps<AllocTraits> {
  static void* allocate(MemoryAllocator& a, unsigned request, unsigned color);
  static MemHead* popSmall(MemoryAllocator& a, unsigned k, unsigned size);
  static void* allocateFromPage(MemoryAllocator& a, unsigned request, unsigned color);
  static void* allocateLarge(MemoryAllocator& a, unsigned request, unsigned color);

  static bool releaseSmall(MemoryAllocator& a, void* mem, unsigned& size);
  static bool releaseSmall(MemoryAllocator& a, MemHead* h, unsigned& size);
  static void pushSmall(MemoryAllocator& a, MemHead* h, unsigned k, unsigned size, unsigned color);
  static unsigned releaseLarge(MemoryAllocator& a, void* mem);
  static bool releaseSlowly(MemoryAllocator& a, void* mem, unsigned& size);
  static void releaseAndCount(MemoryAllocator& a, void* mem);
  static unsigned release(MemoryAllocator& a, void* mem);
  static void* allocateSlowly(MemoryAllocator& a, unsigned request, unsigned color);
  static void interrupt(MemoryAllocator& a) {
    a.slow_ = static_cast<unsigned short>(a.slow_ | INTERRUPTED);
  }
  static bool isWhole(const MemoryAllocator& a, const void* mem);

  static MemHead* findFit(const MemoryAllocator& a, FreePath& path, unsigned amt,
                          const WTreeNodeBase*& lower);
  static MemHead* takeFit(MemoryAllocator& a, FreePath& path, unsigned amt);
  static MemHead* takeFit(MemoryAllocator& a, unsigned amt);
  static MemHead* takeWhole(MemoryAllocator& a, FreePath& path, MemHead* fit);
  static MemHead* takeWhole(MemoryAllocator& a, unsigned amt);
  static void joinFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color);
  static void markFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color);
  static void makeFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color);
  static bool grow(MemoryAllocator& a, MemHead* old, MemHead* grown, unsigned size, unsigned color);
  static bool isBeforeNext(FreePath& path, WTreeSteps::End end, const MemHead* grown,
                           unsigned size);
  static void insert(MemoryAllocator& a, MemHead* h);
  static bool detach(MemoryAllocator& a, MemHead* h);
  static bool remove(MemoryAllocator& a, MemHead* h);
  static WTreeSteps::End find(MemoryAllocator& a, FreePath& path, MemHead* h);

  static MemHead* takeFromChunk(MemoryAllocator& a, unsigned amt);
  static MemHead* refill(MemoryAllocator& a, unsigned k);
  static void fillClass(MemoryAllocator& a, unsigned k);
  static MemHead* findPage(MemoryAllocator& a);
  static unsigned cutPage(MemoryAllocator& a, MemHead* page);

  static bool lose(MemoryAllocator& a, MemHead* h);
  static const MemHead* damagedOf(const MemoryAllocator& a, const WTreeNodeBase* node,
                                  const WTreeNodeBase* parent);
  static void repair(MemoryAllocator& a, const WTreeNodeBase* node, const WTreeNodeBase* parent);
  static void repair(MemoryAllocator& a, const MemHead* damaged);
  static void reportDamaged(const MemoryAllocator& a, const MemHead* damaged, const char* source);
  static void rebuildTree(MemoryAllocator& a, FreeSums& sums);
  static void rebuildList(MemoryAllocator& a, unsigned k, FreeSums& sums);
  static bool check(const MemoryAllocator& a, const char* source);
  static bool checkTree(const MemoryAllocator& a, FreeSums& sums, const char* source);
  static bool checkList(const MemoryAllocator& a, unsigned k, FreeSums& sums, const char* source);
};

using Watched = WatchedSteps<AllocSteps>;
using Reading = Watched::Reading;
using Quiet = Sight::Quiet;

// --- Construction ---

MemoryAllocator::MemoryAllocator() : parent_(nullptr), lock_("allocator") { init(); }

MemoryAllocator::MemoryAllocator(Allocator* parent) : parent_(parent), lock_("allocator") {
  init();
}

MemoryAllocator::~MemoryAllocator() {
  if (slow_) [[unlikely]]
    Watched::destroy(*this);
}

void MemoryAllocator::init() {
  static_assert(sizeof smallFree_ == CLASSES * sizeof(MemHead*));
  AllocSteps::init(*this);
  for (MemHead*& list : smallFree_) list = nullptr;
}

void* MemoryAllocator::operator new(std::size_t size) noexcept {
  return ::operator new(size, std::nothrow);
}

void* MemoryAllocator::operator new(std::size_t, void* place) noexcept { return place; }

void MemoryAllocator::operator delete(void* mem) noexcept { ::operator delete(mem); }

// --- Allocation and freeing ---

inline void* AllocSteps::allocate(MemoryAllocator& a, unsigned request, unsigned color) {
  if ((request | a.slow_) > LARGEST_SMALL_REQUEST) [[unlikely]]
    return allocateLarge(a, request, color);
  const unsigned half = halfClassOf(request);
  if (MemHead* h = popSmall(a, half + 1, 2u << half)) return handOver(a, h, 2u << half, color);
  return allocateFromPage(a, request, color);
}

// Unlinks the first block of the list and returns it, its head word still that of a free block.
// Returns null if the list is empty, or if the program has written to that block since it was
// freed. The block's link is checked here; the head word of the block that it leads to is checked
// by the call that pops that block.
inline MemHead* AllocSteps::popSmall(MemoryAllocator& a, unsigned k, unsigned size) {
  MemHead* h = a.smallFree_[k];
  if (!h) [[unlikely]]
    return nullptr;
  const FreeSmall& block = *freeSmallAt(h);
  if (block.size_ != size) [[unlikely]]
    return nullptr;
  MemHead* next = block.next_;
  if (!isInChain(a, next)) [[unlikely]] {
    if (next && !a.cut_) return nullptr;
  }
  a.smallFree_[k] = next;
  __builtin_prefetch(next);  // needed soon; after churn the list has no order in memory
  countFree(a, 0 - size, block.label_);
  return h;
}

// A small request for which there is neither a free block nor a page gets a large block: when a
// smaller one is freed, it could not be distinguished from the blocks of a page.
[[gnu::noinline]] void* AllocSteps::allocateFromPage(MemoryAllocator& a, unsigned request,
                                                     unsigned color) {
  const unsigned k = halfClassOf(request) + 1;
  if (MemHead* h = a.allocSmall(k)) return handOver(a, h, 1u << k, color);
  return allocateLarge(a, request, color);
}

[[gnu::noinline]] void* AllocSteps::allocateLarge(MemoryAllocator& a, unsigned request,
                                                  unsigned color) {
  if (a.slow_) [[unlikely]]
    return allocateSlowly(a, request, color);
  if (request > LARGEST_REQUEST) return nullptr;
  const unsigned amt = std::max(blockSize(request), SMALLEST_LARGE);
  MemHead* h = takeFit(a, amt);
  if (!h) h = takeFromChunk(a, amt);
  if (!h) return nullptr;
  return handOverChecked(a, h, color);
}

MemHead* AllocSteps::takeFromChunk(MemoryAllocator& a, unsigned amt) {
  beforeChunk(&a);
  MemHead* h = newChunk(a, amt);
  if (!h) afterRefusal(&a);
  return h;
}

[[gnu::cold, gnu::noinline]] void* AllocSteps::allocateSlowly(MemoryAllocator& a, unsigned request,
                                                              unsigned color) {
  if ((a.slow_ & INTERRUPTED) != 0) {
    a.slow_ = static_cast<unsigned short>(a.slow_ & ~INTERRUPTED);
    beforeRequest(&a);
  }
  if (Watched::isWatched(a)) return Watched::allocate(a, request, color);
  return allocate(a, request, color);
}

// The handler of a signal may interrupt a step that changes `slow_` itself: then the picture is
// written at the next chunk.
void leaveFastPath(const Allocator* arena) {
  AllocSteps::interrupt(*const_cast<MemoryAllocator*>(static_cast<const MemoryAllocator*>(arena)));
}

// Frees a small block and stores its size. Returns false, nothing changed, if `mem` is no busy
// small block; null is none.
inline bool AllocSteps::releaseSmall(MemoryAllocator& a, void* mem, unsigned& size) {
  if (a.slow_ || !isInChain(a, mem) || addressOf(mem) % ALIGN != 0) [[unlikely]]
    return false;
  return releaseSmall(a, headAt(headOfMemory(mem)), size);
}

inline bool AllocSteps::releaseSmall(MemoryAllocator& a, MemHead* h, unsigned& size) {
  const unsigned word = h->sizeandcolor_;
  size = (word & SIZE_MASK) - 1;
  const unsigned k = classOfSize(size);
  if (size != SMALL_SIZES.of_[k]) [[unlikely]]
    return false;
  a.allocatedColorMemory_[colorOf(word)] -= size;
  pushSmall(a, h, k, size, colorOf(word));
  return true;
}

inline void AllocSteps::pushSmall(MemoryAllocator& a, MemHead* h, unsigned k, unsigned size,
                                  unsigned color) {
  MemHead*& list = a.smallFree_[k];
  h->sizeandcolor_ = size;
  h->color_ = color;
  freeSmallAt(h)->next_ = list;
  list = h;
  countFree(a, size, color);
}

// Frees a block of an arena that is watched, cut, or between interrupt() and the next request.
// Small ones may come here. Returns false, nothing changed, if releaseLarge() can go on.
[[gnu::cold, gnu::noinline]] bool AllocSteps::releaseSlowly(MemoryAllocator& a, void* mem,
                                                            unsigned& size) {
  if (Watched::isWatched(a)) {
    size = Watched::release(a, mem);
    return true;
  }
  return (a.cut_ || isInChain(a, mem)) && addressOf(mem) % ALIGN == 0 &&
         releaseSmall(a, headAt(headOfMemory(mem)), size);
}

// Frees a large block and returns its size. Returns 0 if `mem` is null, and if it is no busy block,
// which is reported.
inline unsigned AllocSteps::releaseLarge(MemoryAllocator& a, void* mem) {
  if (!mem) return 0;
  unsigned size;
  if ((a.slow_ | unsigned{a.cut_}) != 0 && releaseSlowly(a, mem, size)) [[unlikely]]
    return size;
  const Returned block = takeBack(a, mem, "s+1 == TAIL(h)->size");
  if (block.head_) joinFree(a, block.head_, block.size_, block.color_);
  return block.size_;
}

// Returns whether release() takes a busy block without a report.
bool AllocSteps::isWhole(const MemoryAllocator& a, const void* mem) {
  const unsigned size = sizeOf(wordAt(headOfMemory(mem)));
  return size == SMALL_SIZES.of_[classOfSize(size)] || agrees(a, mem);
}

[[gnu::noinline]] void AllocSteps::releaseAndCount(MemoryAllocator& a, void* mem) {
  a.allocatedMemory_ -= releaseLarge(a, mem);
}

void* MemoryAllocator::alloc(unsigned size, unsigned color) {
  lock_.lock();
  void* mem = AllocSteps::allocate(*this, size, color);
  lock_.unlock();
  return mem;
}

void* MemoryAllocator::alloc(unsigned size) {
  lock_.lock();
  void* mem = AllocSteps::allocate(*this, size, defaultColor_);
  lock_.unlock();
  return mem;
}

void MemoryAllocator::free(void* mem) {
  lock_.lock();
  unsigned size;
  if (AllocSteps::releaseSmall(*this, mem, size)) {
    allocatedMemory_ -= size;
  } else {
    AllocSteps::releaseAndCount(*this, mem);
  }
  lock_.unlock();
}

void* MemoryAllocator::_alloc(unsigned size, unsigned color) {
  return AllocSteps::allocate(*this, size, color);
}

unsigned AllocSteps::release(MemoryAllocator& a, void* mem) {
  unsigned size;
  return releaseSmall(a, mem, size) ? size : releaseLarge(a, mem);
}

unsigned MemoryAllocator::_free(void* mem) { return AllocSteps::release(*this, mem); }

// --- Large blocks ---

// If a step takes a part of a free block, or a freed block grows a free one, another free block
// takes the place of the former one. If it has the same neighbours in the tree's order, it replaces
// the former node in the tree, which saves a removal and an insertion.
//
// A node that a path has refused is reported after the step, and the tree is rebuilt from the
// undamaged nodes. A step that was not done is then repeated.

// Requires: the totals include the block.
[[gnu::noinline]] void AllocSteps::insert(MemoryAllocator& a, MemHead* h) {
  InsertPath path(WTreeSteps::rootOf(a.tree_), chain(a), h);
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(h));
  const bool hasPlace = path.isSound();
  if (hasPlace && !end.found_) [[likely]]
    WTreeSteps::attach(path, end, h);
  if (path.isSound()) [[likely]]
    return;
  repair(a, path.refused_, path.refusedBelow_);
  if (hasPlace) return;
  count(a, h);
  insert(a, h);
}

// Returns the place of a free block in the tree; the path leads there.
inline WTreeSteps::End AllocSteps::find(MemoryAllocator& a, FreePath& path, MemHead* h) {
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(h));
  if (path.isSound()) [[likely]]
    return end;
  repair(a, path.refused_, path.refusedBelow_);
  path = FreePath(WTreeSteps::rootOf(a.tree_), chain(a));
  return WTreeSteps::descend(path, PlaceOfBlock(h));
}

// Returns the smallest free block of at least amt bytes, of several such the lowest; the path leads
// to it. Sets `lower` to the node before it in the order if that lies on the path, else to null.
// Returns null if no block is large enough, and if the path is not sound: a damaged path can be a
// circle.
inline MemHead* AllocSteps::findFit(const MemoryAllocator& a, FreePath& path, unsigned amt,
                                    const WTreeNodeBase*& lower) {
  const auto end = WTreeSteps::descend(path, PlaceOfFit{amt});
  if (end.upper_ == 0 || !path.isSound()) return nullptr;
  unsigned level = path.depth_;
  while (level > 0 && headOfNode(path.nodes_[level - 1])->sizeandcolor_ >= amt) level--;
  lower = level > 0 ? path.nodes_[level - 1] : nullptr;
  path.depth_ = end.upper_ - 1;
  MemHead* candidate = headOfNode(path.nodes_[path.depth_]);
  if (candidate->sizeandcolor_ < amt)
    brokenBlock(chain(a), "candidate->sizeandcolor_ >= amt", SOURCE, __LINE__, candidate);
  return candidate;
}

// Unlinks the free block that the path leads to and returns it busy, not split. Returns null if the
// path refuses a node.
MemHead* AllocSteps::takeWhole(MemoryAllocator& a, FreePath& path, MemHead* fit) {
  if (!WTreeSteps::detach(path, fit)) return nullptr;
  uncount(a, fit);
  a.setBusy(fit);
  return fit;
}

// Returns a busy block of amt bytes, or of less than 1024 more. Does the work of allocCandidate and
// splitBlock at once.
inline MemHead* AllocSteps::takeFit(MemoryAllocator& a, FreePath& path, unsigned amt) {
  const WTreeNodeBase* lower;
  MemHead* h = findFit(a, path, amt, lower);
  if (!h) return nullptr;
  if (!isFree(a, h)) [[unlikely]] {
    path.refuse(h, h);
    return nullptr;
  }
  const unsigned size = h->sizeandcolor_;
  if (size - amt < SMALLEST_LARGE) return takeWhole(a, path, h);
  const bool staysInPlace =
      !lower || compareBlocks(headOfNode(lower), size - amt, addressOf(h) + amt) > 0;
  if (!staysInPlace && !WTreeSteps::detach(path, h)) return nullptr;
  countFree(a, 0 - amt, h->color_);
  MemHead* rest = cut(h, size, amt);
  if (staysInPlace) {
    WTreeSteps::replace(path, WTreeSteps::linkTo(path, path.depth_, h), h, rest);
  } else {
    insert(a, rest);
  }
  return h;
}

inline MemHead* AllocSteps::takeFit(MemoryAllocator& a, unsigned amt) {
  for (;;) {
    FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
    MemHead* h = takeFit(a, path, amt);
    if (path.isSound()) [[likely]]
      return h;
    repair(a, path.refused_, path.refusedBelow_);
    if (h) return h;
  }
}

// Frees a busy block, joined with its free neighbours. Does the work of coalesce and freeLoser at
// once.
inline void AllocSteps::joinFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  MemHead* next = freeAfter(a, h, size);
  MemHead* previous = freeBefore(a, h);
  if (!joins(next, size)) next = nullptr;
  if (!joins(previous, size + (next ? next->sizeandcolor_ : 0))) previous = nullptr;
  if (next && previous) {
    const unsigned joined = next->sizeandcolor_;
    if (remove(a, next)) size += joined;
    next = nullptr;
  }
  MemHead* old = previous ? previous : next;
  if (!old || !grow(a, old, previous ? previous : h, size + old->sizeandcolor_, color))
    makeFree(a, h, size, color);
}

// Writes the words of a free block and adds its bytes to the totals.
inline void AllocSteps::markFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  h->sizeandcolor_ = size;
  h->color_ = color;
  writeTail(h, size);
  count(a, h);
}

inline void AllocSteps::makeFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  markFree(a, h, size, color);
  insert(a, h);
}

// Replaces the free block `old` by `grown`, of `size` bytes. Returns false if the tree does not
// hold `old`.
inline bool AllocSteps::grow(MemoryAllocator& a, MemHead* old, MemHead* grown, unsigned size,
                             unsigned color) {
  FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
  auto end = find(a, path, old);
  if (!end.found_) [[unlikely]]
    return lose(a, old);
  const bool staysInPlace = isBeforeNext(path, end, grown, size);
  if (!path.isSound() || (!staysInPlace && !WTreeSteps::detach(path, old))) [[unlikely]] {
    repair(a, path.refused_, path.refusedBelow_);
    return grow(a, old, grown, size, color);
  }
  uncount(a, old);
  markFree(a, grown, size, color);
  if (staysInPlace) {
    WTreeSteps::replace(path, WTreeSteps::linkTo(path, path.depth_, old), old, grown);
    if (grown != old) FreePath::lower(path, grown);
  } else {
    insert(a, grown);
  }
  if (!path.isSound()) [[unlikely]]
    repair(a, path.refused_, path.refusedBelow_);
  return true;
}

// Returns whether a block of that size is ordered before the node that follows the end of the path.
// False if that node is not sound.
inline bool AllocSteps::isBeforeNext(FreePath& path, WTreeSteps::End end, const MemHead* grown,
                                     unsigned size) {
  const WTreeNodeBase* next = end.upper_ ? path.nodes_[end.upper_ - 1] : nullptr;
  if (end.found_->right()) {
    next = WTreeSteps::leftmost(path, end.found_, end.found_->right());
    if (!next) return false;
  }
  return !next || compareBlocks(headOfNode(next), size, addressOf(grown)) < 0;
}

// Unlinks a free block from the tree. Returns false if the tree does not hold it.
bool AllocSteps::detach(MemoryAllocator& a, MemHead* h) {
  FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
  const auto end = find(a, path, h);
  if (!end.found_) return false;
  const bool isOut = WTreeSteps::detach(path, h);
  if (isOut) uncount(a, h);
  if (path.isSound()) [[likely]]
    return true;
  repair(a, path.refused_, path.refusedBelow_);
  return isOut || detach(a, h);
}

bool AllocSteps::remove(MemoryAllocator& a, MemHead* h) { return detach(a, h) || lose(a, h); }

// Handles a free block that the tree does not hold, which is damage: prints the sizes of the blocks
// that the tree does hold, fails an assertion, and makes the block busy for ever, so that no
// neighbour searches for it again. Returns false.
[[gnu::cold]] bool AllocSteps::lose(MemoryAllocator& a, MemHead* h) {
  FreeWalk walk(chain(a));
  walk.inOrder(a.tree_.top(), [&](WTreeNodeBase* node) {
    std::printf("%d ", static_cast<int>(headOfNode(node)->sizeandcolor_));
    if (headOfNode(node) == h) brokenBlock(chain(a), "n != h", SOURCE, __LINE__, h);
  });
  brokenBlock(chain(a), "0", SOURCE, __LINE__, h);
  a.setBusy(h);
  return false;
}

MemHead* AllocSteps::takeWhole(MemoryAllocator& a, unsigned amt) {
  for (;;) {
    FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
    const WTreeNodeBase* lower;
    MemHead* h = findFit(a, path, amt, lower);
    if (h) h = takeWhole(a, path, h);
    if (path.isSound()) return h;
    repair(a, path.refused_, path.refusedBelow_);
    if (h) return h;
  }
}

MemHead* MemoryAllocator::allocCandidate(unsigned amt) { return AllocSteps::takeWhole(*this, amt); }

void MemoryAllocator::splitBlock(MemHead* h, unsigned amt) {
  const unsigned size = h->sizeandcolor_ - 1;
  if (size - amt >= SMALLEST_LARGE) freeLoser(AllocSteps::cut(h, size, amt));
}

void MemoryAllocator::freeLoser(MemHead* h) {
  resetBusy(h);
  AllocSteps::count(*this, h);
  AllocSteps::insert(*this, h);
}

MemHead* MemoryAllocator::coalesce(MemHead* h) {
  return AllocSteps::coalesce(
      *this, h, [this](MemHead* neighbour) { return AllocSteps::remove(*this, neighbour); });
}

void MemoryAllocator::removeMe(MemHead* h) { AllocSteps::remove(*this, h); }

// --- Small blocks ---

MemHead* MemoryAllocator::allocSmall(unsigned k) {
  MemHead* h = AllocSteps::popSmall(*this, k, 1u << k);
  if (!h) h = AllocSteps::refill(*this, k);
  if (!h) {
    YfAssert__("h", AllocSteps::SOURCE, __LINE__);
    return nullptr;
  }
  setBusy(h);
  return h;
}

void MemoryAllocator::freeSmall(MemHead* h) {
  const unsigned size = h->sizeandcolor_ - 1;
  AllocSteps::pushSmall(*this, h, classOfSize(size), size, h->color_);
}

// Returns the lowest free block that is large enough for a page. Null if there is none.
MemHead* AllocSteps::findPage(MemoryAllocator& a) {
  for (;;) {
    FreeWalk walk(chain(a));
    MemHead* page = walk.lowestFit(a.tree_.top(), PAGE + OVERHEAD);
    if (page && walk.isSound() && !isFree(a, page)) walk.refuse(page, page);
    if (walk.isSound()) return page;
    repair(a, walk.refused_, walk.refusedBelow_);
  }
}

// Makes a free block a page, which is counted as neither free nor allocated. Returns its usable
// bytes, or 0 if the tree does not hold the block.
unsigned AllocSteps::cutPage(MemoryAllocator& a, MemHead* page) {
  if (!detach(a, page)) {
    brokenBlock(chain(a), "b == HEADBASE(node)", SOURCE, __LINE__, page);
    return 0;
  }
  page->color_ = 0;
  a.setBusy(page);
  a.splitBlock(page, PAGE);
  return page->sizeandcolor_ - 1 - OVERHEAD;
}

// Cuts a page into blocks of the class. The page is the lowest free block that is large enough,
// else a new large block, which stays in the totals of allocated memory. Without either the class
// stays empty.
void AllocSteps::fillClass(MemoryAllocator& a, unsigned k) {
  MemHead* page = findPage(a);
  unsigned payload = page ? cutPage(a, page) : 0;
  char* mem = static_cast<char*>(payload != 0 ? offsetBy(page, 4) : a._alloc(PAGE, 0));
  if (!mem) return;
  if (addressOf(mem) % ALIGN == 0)
    wordAt(mem) = markOfPage(payload != 0 ? PAGE_MARK : COUNTED_PAGE_MARK, mem, k);
  if (payload == 0) {
    payload = PAGE;
    notePage(&a, a.size(mem));
  }
  const unsigned size = 1u << k;
  const unsigned unaligned = static_cast<unsigned>(addressOf(mem) & (ALIGN - 1));
  const unsigned start = (unaligned + 11) / ALIGN * ALIGN - 4 - unaligned;
  for (unsigned offset = start; payload - offset >= size; offset += size)
    pushSmall(a, headAt(mem + offset), k, size, 0);
}

// Returns a block of a class whose list is empty or begins with a damaged block. Null if there is
// no memory.
MemHead* AllocSteps::refill(MemoryAllocator& a, unsigned k) {
  if (a.smallFree_[k]) repair(a, a.smallFree_[k]);
  if (!a.smallFree_[k]) fillClass(a, k);
  return popSmall(a, k, 1u << k);
}

// --- After damage ---

// Returns the damaged block for a node that was refused: the node's own block, or that of its
// parent if the parent's link does not lead to a block.
const MemHead* AllocSteps::damagedOf(const MemoryAllocator& a, const WTreeNodeBase* node,
                                     const WTreeNodeBase* parent) {
  const bool isNode =
      !parent || (FreeGuard(chain(a)).canBegin(node) && !isFree(a, headOfNode(node)) &&
                  chain(a).leadsTo(headOfNode(node)));
  return headOfNode(isNode ? node : parent);
}

[[gnu::cold]] void AllocSteps::repair(MemoryAllocator& a, const WTreeNodeBase* node,
                                      const WTreeNodeBase* parent) {
  repair(a, damagedOf(a, node, parent));
}

[[gnu::cold]] void AllocSteps::reportDamaged(const MemoryAllocator& a, const MemHead* damaged,
                                             const char* source) {
  const bool canBe = Chain::Places(chain(a), ALIGN).has(addressOf(damaged));
  (canBe ? brokenBlock : strayBlock)(chain(a), "isWhole(h)", source, __LINE__, damaged);
}

// Reports the block, and rebuilds the tree, the lists and the totals from the free blocks that can
// still be reached and whose words agree. The others are lost.
[[gnu::cold]] void AllocSteps::repair(MemoryAllocator& a, const MemHead* damaged) {
  reportDamaged(a, damaged, SOURCE);
  FreeSums sums;
  rebuildTree(a, sums);
  for (unsigned k = 0; k < CLASSES; k++) rebuildList(a, k, sums);
  recount(a, sums);
}

void AllocSteps::rebuildTree(MemoryAllocator& a, FreeSums& sums) {
  WTreeNodeBase* former = a.tree_.top();
  a.tree_ = WTreeBase();
  FreeWalk(chain(a)).inOrder(former, [&](WTreeNodeBase* node) {
    MemHead* h = headOfNode(node);
    if (!chain(a).isFree(h, SMALLEST_LARGE)) return;
    if (h->color_ > COLOR_MASK) h->color_ = 0;
    sums.add(h->sizeandcolor_, h->color_);
    InsertPath path(WTreeSteps::rootOf(a.tree_), chain(a), h);
    WTreeSteps::attach(path, WTreeSteps::descend(path, PlaceOfBlock(h)), h);
  });
}

// Cuts the list before its first damaged link. The visited blocks are marked busy meanwhile, so
// that a circle ends.
void AllocSteps::rebuildList(MemoryAllocator& a, unsigned k, FreeSums& sums) {
  const Chain::Places places(chain(a), SMALLEST_BLOCK);
  const unsigned size = 1u << k;
  MemHead* previous = nullptr;
  for (MemHead* h = a.smallFree_[k]; h; h = freeSmallAt(h)->next_) {
    if (!places.has(addressOf(h)) || h->sizeandcolor_ != size) {
      if (previous) freeSmallAt(previous)->next_ = nullptr;
      if (!previous) a.smallFree_[k] = nullptr;
      break;
    }
    a.setBusy(h);
    if (h->color_ > COLOR_MASK) h->color_ = 0;
    sums.add(size, h->color_);
    previous = h;
  }
  for (MemHead* h = a.smallFree_[k]; h; h = freeSmallAt(h)->next_) a.resetBusy(h);
}

// Checks the chain, then the tree and the lists, then the totals. Fails no assertion if `source` is
// null.
bool AllocSteps::check(const MemoryAllocator& a, const char* source) {
  FreeSums sums;
  if (!chain(a).check(source) || !checkTree(a, sums, source)) return false;
  for (unsigned k = 0; k < CLASSES; k++) {
    if (!checkList(a, k, sums, source)) return false;
  }
  if (isCounted(a, sums)) return true;
  wrongTotals("isCounted(sums)", source, __LINE__);
  return false;
}

// Checks that every node is a free block, and that every free block of the chain is a node.
bool AllocSteps::checkTree(const MemoryAllocator& a, FreeSums& sums, const char* source) {
  FreeWalk walk(chain(a));
  walk.inOrder(a.tree_.top(), [&](WTreeNodeBase* node) {
    const MemHead* h = headOfNode(node);
    if (!isFree(a, h)) walk.refuse(node, node);
    sums.add(h->sizeandcolor_, h->color_);
  });
  const MemHead* damaged =
      walk.isSound() ? nullptr : damagedOf(a, walk.refused_, walk.refusedBelow_);
  for (void* mem = a.firstBlock(); mem && !damaged; mem = a.nextBlock(mem)) {
    const MemHead* h = headAt(headOfMemory(mem));
    if (!isBusy(h->sizeandcolor_) && !FreeWalk::holds(a.tree_.top(), h)) damaged = h;
  }
  if (damaged) reportDamaged(a, damaged, source);
  return !damaged;
}

bool AllocSteps::checkList(const MemoryAllocator& a, unsigned k, FreeSums& sums,
                           const char* source) {
  const Chain::Places places(chain(a), SMALLEST_BLOCK);
  const MemHead* last = nullptr;
  for (MemHead* h = a.smallFree_[k]; h; h = freeSmallAt(h)->next_) {
    const bool leadsOn = places.has(addressOf(h)) && sums.total_ < a.internalFree_;
    if (!leadsOn || h->sizeandcolor_ != 1u << k || h->color_ > COLOR_MASK) {
      reportDamaged(a, leadsOn || !last ? h : last, source);
      return false;
    }
    sums.add(1u << k, h->color_);
    last = h;
  }
  return true;
}

// --- Questions ---

unsigned MemoryAllocator::size(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return AllocSteps::chain(*this).size(mem);
}

unsigned MemoryAllocator::allocatedMemory() const { return allocatedMemory_; }

unsigned MemoryAllocator::internalFree() const {
  const Reading reading(*this);
  return internalFree_;
}

unsigned MemoryAllocator::color(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return AllocSteps::chain(*this).color(mem);
}

// Small blocks have no tail, and are recognised by their size.
bool MemoryAllocator::valid(const void* mem) const {
  const unsigned bytes = size(mem);
  const Quiet quiet(slow_ != 0);
  if (bytes > LARGEST_SMALL) return AllocSteps::chain(*this).valid(mem);
  return bytes >= SMALLEST_BLOCK && std::has_single_bit(bytes);
}

unsigned MemoryAllocator::setDefaultColor(unsigned color, unsigned* oldColor) {
  if (oldColor) *oldColor = defaultColor_;
  defaultColor_ = color;
  return 0;
}

unsigned MemoryAllocator::defaultColor() const { return defaultColor_; }

unsigned MemoryAllocator::allocatedColorMemory(unsigned color) const {
  return allocatedColorMemory_[color & COLOR_MASK];
}

unsigned MemoryAllocator::freeColorMemory(unsigned color) const {
  const Reading reading(*this);
  return freeColorMemory_[color & COLOR_MASK];
}

void MemoryAllocator::adjustColorMemory(unsigned color, int delta) {
  allocatedColorMemory_[color & COLOR_MASK] += static_cast<unsigned>(delta);
}

unsigned MemoryAllocator::color(void* mem, unsigned color) {
  const Quiet quiet(slow_ != 0);
  return AllocSteps::chain(*this).setColor(mem, color, allocatedColorMemory_);
}

bool MemoryAllocator::busy(const void* mem) {
  const Quiet quiet(Sight::isOn_);
  return mem && isBusy(wordAt(headOfMemory(mem)));
}

// --- The chain ---

void* MemoryAllocator::firstBlock() const {
  const Reading reading(*this);
  return AllocSteps::chain(*this).firstBlock();
}

void* MemoryAllocator::nextBlock(const void* mem) const {
  const Quiet quiet(slow_ != 0);
  return AllocSteps::chain(*this).nextBlock(mem, AllocSteps::SOURCE);
}

void MemoryAllocator::checkArena() const {
  const Reading reading(*this);
  AllocSteps::check(*this, AllocSteps::SOURCE);
}

bool MemoryAllocator::isWhole() const {
  const Reading reading(*this);
  return AllocSteps::check(*this, nullptr);
}

bool MemoryAllocator::visitBlocks(void (*visit)(const BlockInfo&, void*), void* context) const {
  const Reading reading(*this);
  return AllocSteps::visitBlocks(*this, [=](const BlockInfo& block) { visit(block, context); });
}

void MemoryAllocator::report() {
  const Reading reading(*this);

  AllocSteps::chain(*this).report(AllocSteps::SOURCE);
  const unsigned long long used = allocatedMemory_;
  const unsigned long long free = internalFree_;
  std::printf("%dk used + %dk (free) = %dk\n", static_cast<int>(used >> 10),
              static_cast<int>(free >> 10), static_cast<int>((used + free) >> 10));
}

}  // namespace Utils
