// SPDX-License-Identifier: MIT
// The arena allocator.
//
// A request goes to the list of its small class, else to the best fit of the free tree, else to a
// new chunk. alloc.h shows the layout of a block; what the arenas do alike is arena_steps.h and
// chain.h.
#include "utils/sdk/alloc.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <new>

#include "utils/sdk/memory/arena_steps.h"
#include "utils/sdk/memory/free_tree.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/alloc";

constexpr unsigned LARGEST_SMALL = 512;
constexpr unsigned LARGEST_SMALL_REQUEST = LARGEST_SMALL - 8;
constexpr unsigned PAGE = 10240;
constexpr unsigned CLASSES = 10;

static_assert(offsetof(MemTail, size) == 0 && sizeof(MemTail) == 4);

MemHead* headAt(void* address) { return static_cast<MemHead*>(address); }

// The class of a small request: log2 of the block size, less one, for the shortest way to both.
unsigned halfClassOf(unsigned request) {
  return 31 - static_cast<unsigned>(__builtin_clz((request + 7) | 16));
}

// The class of a small block, for any size; a size of 0 comes to the last. SIZE_OF_CLASS is the
// size of the blocks of a class, or a number that is none of the sizes that come to it.
unsigned classOfSize(unsigned size) {
  return static_cast<unsigned>(__builtin_ctz(size | 0x80000000u));
}
constexpr unsigned SIZE_OF_CLASS[32] = {2, 1, 1, 1, 1, 32, 64, 128, 256, 512, 1, 1, 1, 1, 1, 1,
                                        1, 1, 1, 1, 1, 1,  1,  1,   1,   1,   1, 1, 1, 1, 1, 1};

// A free small block. Its link lies where a large one has its node. Aligned to 1, since a link that
// was written over can lead to any address of the chain.
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

// The order of the free tree, for the tree's exported operations: both arguments are the addresses
// of the blocks' color_.
int nodeCompareSame(const void* a, const void* b) {
  const auto headOfKey = [](const void* key) {
    return reinterpret_cast<const MemHead*>(static_cast<const char*>(key) - (sizeof(MemHead) - 4));
  };
  const MemHead* other = headOfKey(b);
  return compareBlocks(headOfKey(a), other->sizeandcolor_, addressOf(other));
}

// --- Construction ---

MemoryAllocator::MemoryAllocator() : parent_(nullptr), lock_("allocator") { init(); }

MemoryAllocator::MemoryAllocator(Allocator* parent) : parent_(parent), lock_("allocator") {
  init();
}

MemoryAllocator::~MemoryAllocator() {}

void MemoryAllocator::init() {
  ArenaSteps::init(*this);
  for (MemHead*& list : smallFree_) list = nullptr;
}

void* MemoryAllocator::operator new(std::size_t size) noexcept {
  return ::operator new(size, std::nothrow);
}

void* MemoryAllocator::operator new(std::size_t, void* place) noexcept { return place; }

void MemoryAllocator::operator delete(void* mem) noexcept { ::operator delete(mem); }

// --- Allocation and freeing ---

// The steps below the members. What a small request runs through is inlined into every entry; the
// rest stands apart, so that the entries need no frame for it.
struct Arena : ArenaSteps {
  static void* take(MemoryAllocator& a, unsigned request, unsigned color);
  static MemHead* popSmall(MemoryAllocator& a, unsigned k, unsigned size);
  static void* takeFromPage(MemoryAllocator& a, unsigned request, unsigned color);
  static void* takeLarge(MemoryAllocator& a, unsigned request, unsigned color);

  static bool giveSmall(MemoryAllocator& a, void* mem, unsigned& size);
  static bool giveSmall(MemoryAllocator& a, MemHead* h, unsigned& size);
  static void pushSmall(MemoryAllocator& a, MemHead* h, unsigned k, unsigned size, unsigned color);
  static unsigned giveLarge(MemoryAllocator& a, void* mem);
  static void giveAndCount(MemoryAllocator& a, void* mem);

  static MemHead* findFit(FreePath& path, unsigned amt, const WTreeNodeBase*& lower);
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

  static MemHead* refill(MemoryAllocator& a, unsigned k);
  static void fillClass(MemoryAllocator& a, unsigned k);
  static MemHead* findPage(MemoryAllocator& a);
  static unsigned cutPage(MemoryAllocator& a, MemHead* page);

  static bool isWholeFree(const MemoryAllocator& a, const MemHead* h);
  static bool lost(MemoryAllocator& a, MemHead* h);
  static const MemHead* damagedOf(const MemoryAllocator& a, const WTreeNodeBase* node,
                                  const WTreeNodeBase* parent);
  static void repair(MemoryAllocator& a, const WTreeNodeBase* node, const WTreeNodeBase* parent);
  static void repair(MemoryAllocator& a, const MemHead* damaged);
  static void reportDamaged(const MemoryAllocator& a, const MemHead* damaged);
  static void keepWholeNodes(MemoryAllocator& a, FreeSums& sums);
  static void keepWholeLinks(MemoryAllocator& a, unsigned k, FreeSums& sums);
  static void check(const MemoryAllocator& a);
  static bool checkTree(const MemoryAllocator& a, FreeSums& sums);
  static bool checkList(const MemoryAllocator& a, unsigned k, FreeSums& sums);
};

inline void* Arena::take(MemoryAllocator& a, unsigned request, unsigned color) {
  if (request > LARGEST_SMALL_REQUEST) [[unlikely]]
    return takeLarge(a, request, color);
  const unsigned half = halfClassOf(request);
  if (MemHead* h = popSmall(a, half + 1, 2u << half)) return handOver(a, h, 2u << half, color);
  return takeFromPage(a, request, color);
}

// The first of the list, its head word still that of a free block; null if the list is empty, or if
// that block was written to after it was freed. Its link is looked at before the list begins there,
// the head word that the link leads to when its turn comes.
inline MemHead* Arena::popSmall(MemoryAllocator& a, unsigned k, unsigned size) {
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
  __builtin_prefetch(next);  // soon asked for; after churn the list leads all over
  countFree(a, 0 - size, block.label_);
  return h;
}

// A small request that finds neither list nor page becomes a large block: a smaller one could not
// be told from the blocks of a page when it is freed.
[[gnu::noinline]] void* Arena::takeFromPage(MemoryAllocator& a, unsigned request, unsigned color) {
  const unsigned k = halfClassOf(request) + 1;
  if (MemHead* h = a.allocSmall(k)) return handOver(a, h, 1u << k, color);
  return takeLarge(a, request, color);
}

[[gnu::noinline]] void* Arena::takeLarge(MemoryAllocator& a, unsigned request, unsigned color) {
  if (request > LARGEST_REQUEST) return nullptr;
  const unsigned amt = std::max(blockSize(request), SMALLEST_LARGE);
  MemHead* h = takeFit(a, amt);
  if (!h) h = newChunk(a, amt, 8, SOURCE);
  if (!h) return nullptr;
  return handOverChecked(a, h, color, SOURCE);
}

// Gives false for what is no busy small block, null included: that is left alone.
inline bool Arena::giveSmall(MemoryAllocator& a, void* mem, unsigned& size) {
  if (!isInChain(a, mem) || addressOf(mem) % ALIGN != 0) [[unlikely]]
    return false;
  return giveSmall(a, headAt(headOfMemory(mem)), size);
}

inline bool Arena::giveSmall(MemoryAllocator& a, MemHead* h, unsigned& size) {
  const unsigned word = h->sizeandcolor_;
  size = (word & SIZE_MASK) - 1;
  const unsigned k = classOfSize(size);
  if (size != SIZE_OF_CLASS[k]) [[unlikely]]
    return false;
  a.allocatedColorMemory_[colorOf(word)] -= size;
  pushSmall(a, h, k, size, colorOf(word));
  return true;
}

inline void Arena::pushSmall(MemoryAllocator& a, MemHead* h, unsigned k, unsigned size,
                             unsigned color) {
  MemHead*& list = a.smallFree_[k];
  h->sizeandcolor_ = size;
  h->color_ = color;
  freeSmallAt(h)->next_ = list;
  list = h;
  countFree(a, size, color);
}

// Gives the size of the block, 0 for what is no busy block: that is left alone. Small blocks come
// here only where they lie outside of a chain that was cut.
inline unsigned Arena::giveLarge(MemoryAllocator& a, void* mem) {
  if (!mem) return 0;
  unsigned size;
  if (a.cut_ && addressOf(mem) % ALIGN == 0 && giveSmall(a, headAt(headOfMemory(mem)), size))
    return size;
  const Returned block = takeBack(a, mem, SMALLEST_LARGE, "s+1 == TAIL(h)->size", SOURCE);
  if (block.head_) joinFree(a, headAt(block.head_), block.size_, block.color_);
  return block.size_;
}

[[gnu::noinline]] void Arena::giveAndCount(MemoryAllocator& a, void* mem) {
  a.allocatedMemory_ -= giveLarge(a, mem);
}

void* MemoryAllocator::alloc(unsigned size, unsigned color) {
  lock_.lock();
  void* mem = Arena::take(*this, size, color);
  lock_.unlock();
  return mem;
}

void* MemoryAllocator::alloc(unsigned size) {
  lock_.lock();
  void* mem = Arena::take(*this, size, defaultColor_);
  lock_.unlock();
  return mem;
}

void MemoryAllocator::free(void* mem) {
  lock_.lock();
  unsigned size;
  if (Arena::giveSmall(*this, mem, size)) {
    allocatedMemory_ -= size;
  } else {
    Arena::giveAndCount(*this, mem);
  }
  lock_.unlock();
}

void* MemoryAllocator::_alloc(unsigned size, unsigned color) {
  return Arena::take(*this, size, color);
}

unsigned MemoryAllocator::_free(void* mem) {
  unsigned size;
  return Arena::giveSmall(*this, mem, size) ? size : Arena::giveLarge(*this, mem);
}

// --- Large blocks ---

// Taking a part of a free block and growing a free block by a freed one leave another free block
// behind. Where it stands between the same neighbours in the order, it takes over the node's place
// in the tree, which saves a removal and an insertion.
//
// A node that a path has refused is reported after the step, and the tree is rebuilt from its sound
// nodes. A step that could not be done is then repeated.

bool Arena::isWholeFree(const MemoryAllocator& a, const MemHead* h) {
  return isFree(a, h, SMALLEST_LARGE);
}

// The block is in the totals already.
[[gnu::noinline]] void Arena::insert(MemoryAllocator& a, MemHead* h) {
  AddingPath path(WTreeSteps::rootOf(a.tree_), chain(a), h);
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

// The place of a free block in the tree, with the path that leads there.
inline WTreeSteps::End Arena::find(MemoryAllocator& a, FreePath& path, MemHead* h) {
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(h));
  if (path.isSound()) [[likely]]
    return end;
  repair(a, path.refused_, path.refusedBelow_);
  path = FreePath(WTreeSteps::rootOf(a.tree_), chain(a));
  return WTreeSteps::descend(path, PlaceOfBlock(h));
}

// The smallest and then lowest free block of at least amt bytes, with the path that leads to it,
// and its lower neighbour in the order if that lies on the way. Null if there is none, and if the
// path is not sound: it may then lead round in circles.
inline MemHead* Arena::findFit(FreePath& path, unsigned amt, const WTreeNodeBase*& lower) {
  const auto end = WTreeSteps::descend(path, PlaceOfFit{amt});
  if (end.upper_ == 0 || !path.isSound()) return nullptr;
  unsigned level = path.depth_;
  while (level > 0 && headOfNode(path.nodes_[level - 1])->sizeandcolor_ >= amt) level--;
  lower = level > 0 ? path.nodes_[level - 1] : nullptr;
  path.depth_ = end.upper_ - 1;
  MemHead* candidate = headOfNode(path.nodes_[path.depth_]);
  if (candidate->sizeandcolor_ < amt)
    brokenBlock("candidate->sizeandcolor_ >= amt", SOURCE, __LINE__, candidate);
  return candidate;
}

// Makes a free block that the path leads to a busy one as it is; null if the path refuses a node.
MemHead* Arena::takeWhole(MemoryAllocator& a, FreePath& path, MemHead* fit) {
  if (!WTreeSteps::detach(path, fit)) return nullptr;
  uncount(a, fit);
  a.setBusy(fit);
  return fit;
}

// allocCandidate and splitBlock in one.
inline MemHead* Arena::takeFit(MemoryAllocator& a, FreePath& path, unsigned amt) {
  const WTreeNodeBase* lower;
  MemHead* h = findFit(path, amt, lower);
  if (!h) return nullptr;
  if (!isWholeFree(a, h)) [[unlikely]] {
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

inline MemHead* Arena::takeFit(MemoryAllocator& a, unsigned amt) {
  for (;;) {
    FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
    MemHead* h = takeFit(a, path, amt);
    if (path.isSound()) [[likely]]
      return h;
    repair(a, path.refused_, path.refusedBelow_);
    if (h) return h;
  }
}

// coalesce and freeLoser in one, for a busy block.
inline void Arena::joinFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  MemHead* next = freeBehind(a, h, size, SMALLEST_LARGE, SOURCE);
  MemHead* previous = freeBefore(a, h, SMALLEST_LARGE, SOURCE);
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

// The words of a free block, and its bytes in the totals.
inline void Arena::markFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  h->sizeandcolor_ = size;
  h->color_ = color;
  writeTail(h, size);
  count(a, h);
}

inline void Arena::makeFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  markFree(a, h, size, color);
  insert(a, h);
}

// The free block `old` becomes `grown`, of `size` bytes. False if the tree does not hold it.
inline bool Arena::grow(MemoryAllocator& a, MemHead* old, MemHead* grown, unsigned size,
                        unsigned color) {
  FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
  auto end = find(a, path, old);
  if (!end.found_) [[unlikely]]
    return lost(a, old);
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

// Whether a block of that size stands before the node that follows the end of the path; false if
// that node is not sound.
inline bool Arena::isBeforeNext(FreePath& path, WTreeSteps::End end, const MemHead* grown,
                                unsigned size) {
  const WTreeNodeBase* next = end.upper_ ? path.nodes_[end.upper_ - 1] : nullptr;
  if (end.found_->right()) {
    next = WTreeSteps::leftmost(path, end.found_, end.found_->right());
    if (!next) return false;
  }
  return !next || compareBlocks(headOfNode(next), size, addressOf(grown)) < 0;
}

// Takes a free block out of the tree; false if the tree does not hold it.
bool Arena::detach(MemoryAllocator& a, MemHead* h) {
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

bool Arena::remove(MemoryAllocator& a, MemHead* h) { return detach(a, h) || lost(a, h); }

// The tree does not hold a free block: the heap is damaged. Prints what it does hold. The block
// stays busy from then on, so that no neighbour looks for it again. Returns false.
[[gnu::cold]] bool Arena::lost(MemoryAllocator& a, MemHead* h) {
  FreeWalk walk(chain(a));
  walk.inOrder(a.tree_.top(), [&](WTreeNodeBase* node) {
    std::printf("%d ", static_cast<int>(headOfNode(node)->sizeandcolor_));
    if (headOfNode(node) == h) brokenBlock("n != h", SOURCE, __LINE__, h);
  });
  brokenBlock("0", SOURCE, __LINE__, h);
  a.setBusy(h);
  return false;
}

MemHead* Arena::takeWhole(MemoryAllocator& a, unsigned amt) {
  for (;;) {
    FreePath path(WTreeSteps::rootOf(a.tree_), chain(a));
    const WTreeNodeBase* lower;
    MemHead* h = findFit(path, amt, lower);
    if (h) h = takeWhole(a, path, h);
    if (path.isSound()) return h;
    repair(a, path.refused_, path.refusedBelow_);
    if (h) return h;
  }
}

MemHead* MemoryAllocator::allocCandidate(unsigned amt) { return Arena::takeWhole(*this, amt); }

void MemoryAllocator::splitBlock(MemHead* h, unsigned amt) {
  const unsigned size = h->sizeandcolor_ - 1;
  if (size - amt >= SMALLEST_LARGE) freeLoser(ArenaSteps::cut(h, size, amt));
}

void MemoryAllocator::freeLoser(MemHead* h) {
  resetBusy(h);
  Arena::count(*this, h);
  Arena::insert(*this, h);
}

MemHead* MemoryAllocator::coalesce(MemHead* h) {
  return Arena::coalesce(*this, h, SMALLEST_LARGE, SOURCE,
                         [this](MemHead* neighbour) { return Arena::remove(*this, neighbour); });
}

void MemoryAllocator::removeMe(MemHead* h) { Arena::remove(*this, h); }

// --- Small blocks ---

MemHead* MemoryAllocator::allocSmall(unsigned k) {
  MemHead* h = Arena::popSmall(*this, k, 1u << k);
  if (!h) h = Arena::refill(*this, k);
  if (!h) {
    YfAssert__("h", SOURCE, __LINE__);
    return nullptr;
  }
  setBusy(h);
  return h;
}

void MemoryAllocator::freeSmall(MemHead* h) {
  const unsigned size = h->sizeandcolor_ - 1;
  Arena::pushSmall(*this, h, classOfSize(size), size, h->color_);
}

// The lowest free block that is large enough for a page; null if there is none.
MemHead* Arena::findPage(MemoryAllocator& a) {
  for (;;) {
    FreeWalk walk(chain(a));
    MemHead* page = walk.lowestFit(a.tree_.top(), PAGE + 8);
    if (page && walk.isSound() && !isWholeFree(a, page)) walk.refuse(page, page);
    if (walk.isSound()) return page;
    repair(a, walk.refused_, walk.refusedBelow_);
  }
}

// Makes a free block a page, counted as neither free nor allocated. Gives its usable bytes, 0 if
// the tree does not hold it.
unsigned Arena::cutPage(MemoryAllocator& a, MemHead* page) {
  if (!detach(a, page)) {
    brokenBlock("b == HEADBASE(node)", SOURCE, __LINE__, page);
    return 0;
  }
  page->color_ = 0;
  a.setBusy(page);
  a.splitBlock(page, PAGE);
  return page->sizeandcolor_ - 9;
}

// A page is the lowest free block that is large enough, else a new large block, which then stays in
// the totals of allocated memory. Without either the class stays empty.
void Arena::fillClass(MemoryAllocator& a, unsigned k) {
  MemHead* page = findPage(a);
  unsigned payload = page ? cutPage(a, page) : 0;
  char* mem = static_cast<char*>(payload != 0 ? behind(page, 4) : a._alloc(PAGE, 0));
  if (!mem) return;
  if (payload == 0) payload = PAGE;
  const unsigned size = 1u << k;
  const unsigned unaligned = static_cast<unsigned>(addressOf(mem) & (ALIGN - 1));
  const unsigned start = (unaligned + 11) / ALIGN * ALIGN - 4 - unaligned;
  for (unsigned offset = start; payload - offset >= size; offset += size)
    pushSmall(a, headAt(mem + offset), k, size, 0);
}

// A block of a class whose list is empty or has a damaged block as its first; null without memory.
MemHead* Arena::refill(MemoryAllocator& a, unsigned k) {
  if (a.smallFree_[k]) repair(a, a.smallFree_[k]);
  if (!a.smallFree_[k]) fillClass(a, k);
  return popSmall(a, k, 1u << k);
}

// --- After damage ---

// The damaged block: that of a node which was refused, or that of its parent if the link does not
// lead to a block.
const MemHead* Arena::damagedOf(const MemoryAllocator& a, const WTreeNodeBase* node,
                                const WTreeNodeBase* parent) {
  const bool isNode =
      !parent || (FreeGuard(chain(a)).canBegin(node) && !isWholeFree(a, headOfNode(node)) &&
                  chain(a).leadsTo(headOfNode(node)));
  return headOfNode(isNode ? node : parent);
}

[[gnu::cold]] void Arena::repair(MemoryAllocator& a, const WTreeNodeBase* node,
                                 const WTreeNodeBase* parent) {
  repair(a, damagedOf(a, node, parent));
}

[[gnu::cold]] void Arena::reportDamaged(const MemoryAllocator& a, const MemHead* damaged) {
  const bool canBe = Chain::Places(chain(a), ALIGN).has(addressOf(damaged));
  (canBe ? brokenBlock : strayBlock)("isWhole(h)", SOURCE, __LINE__, damaged);
}

// Reports the block, and makes the tree, the lists and the totals anew of the free blocks that can
// still be reached and are whole. The others are lost.
[[gnu::cold]] void Arena::repair(MemoryAllocator& a, const MemHead* damaged) {
  reportDamaged(a, damaged);
  FreeSums sums;
  keepWholeNodes(a, sums);
  for (unsigned k = 0; k < CLASSES; k++) keepWholeLinks(a, k, sums);
  recount(a, sums);
}

void Arena::keepWholeNodes(MemoryAllocator& a, FreeSums& sums) {
  WTreeNodeBase* former = a.tree_.top();
  a.tree_ = WTreeBase();
  FreeWalk(chain(a)).inOrder(former, [&](WTreeNodeBase* node) {
    MemHead* h = headOfNode(node);
    if (!chain(a).isFree(h, SMALLEST_LARGE)) return;
    if (h->color_ > COLOR_MASK) h->color_ = 0;
    sums.add(h->sizeandcolor_, h->color_);
    AddingPath path(WTreeSteps::rootOf(a.tree_), chain(a), h);
    WTreeSteps::attach(path, WTreeSteps::descend(path, PlaceOfBlock(h)), h);
  });
}

// The blocks that were gone through count as busy for the moment, so that none comes twice.
void Arena::keepWholeLinks(MemoryAllocator& a, unsigned k, FreeSums& sums) {
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

// The chain, then whatever is kept of the free blocks, then their totals.
void Arena::check(const MemoryAllocator& a) {
  FreeSums sums;
  if (!chain(a).check(SOURCE) || !checkTree(a, sums)) return;
  for (unsigned k = 0; k < CLASSES; k++) {
    if (!checkList(a, k, sums)) return;
  }
  if (!isCounted(a, sums)) YfAssert__("isCounted(sums)", SOURCE, __LINE__);
}

// Every node is a free block, and every free block of the chain is a node.
bool Arena::checkTree(const MemoryAllocator& a, FreeSums& sums) {
  FreeWalk walk(chain(a));
  walk.inOrder(a.tree_.top(), [&](WTreeNodeBase* node) {
    const MemHead* h = headOfNode(node);
    if (!isWholeFree(a, h)) walk.refuse(node, node);
    sums.add(h->sizeandcolor_, h->color_);
  });
  const MemHead* damaged =
      walk.isSound() ? nullptr : damagedOf(a, walk.refused_, walk.refusedBelow_);
  for (void* mem = a.firstBlock(); mem && !damaged; mem = a.nextBlock(mem)) {
    const MemHead* h = headAt(headOfMemory(mem));
    if (!isBusy(h->sizeandcolor_) && !walk.holds(a.tree_.top(), h)) damaged = h;
  }
  if (damaged) reportDamaged(a, damaged);
  return !damaged;
}

bool Arena::checkList(const MemoryAllocator& a, unsigned k, FreeSums& sums) {
  const Chain::Places places(chain(a), SMALLEST_BLOCK);
  const MemHead* last = nullptr;
  for (MemHead* h = a.smallFree_[k]; h; h = freeSmallAt(h)->next_) {
    const bool leadsOn = places.has(addressOf(h)) && sums.total_ < a.internalFree_;
    if (!leadsOn || h->sizeandcolor_ != 1u << k || h->color_ > COLOR_MASK) {
      reportDamaged(a, leadsOn || !last ? h : last);
      return false;
    }
    sums.add(1u << k, h->color_);
    last = h;
  }
  return true;
}

// --- Questions ---

unsigned MemoryAllocator::size(const void* mem) const { return ArenaSteps::chain(*this).size(mem); }

unsigned MemoryAllocator::allocatedMemory() const { return allocatedMemory_; }

unsigned MemoryAllocator::internalFree() const { return internalFree_; }

unsigned MemoryAllocator::color(const void* mem) const {
  return ArenaSteps::chain(*this).color(mem);
}

// Small blocks have no tail: what tells them is their size.
bool MemoryAllocator::valid(const void* mem) const {
  const unsigned bytes = size(mem);
  if (bytes > LARGEST_SMALL) return ArenaSteps::chain(*this).valid(mem);
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
  return freeColorMemory_[color & COLOR_MASK];
}

void MemoryAllocator::adjustColorMemory(unsigned color, int delta) {
  allocatedColorMemory_[color & COLOR_MASK] += static_cast<unsigned>(delta);
}

unsigned MemoryAllocator::color(void* mem, unsigned color) {
  return ArenaSteps::chain(*this).setColor(mem, color, allocatedColorMemory_);
}

bool MemoryAllocator::busy(const void* mem) { return mem && isBusy(wordAt(headOfMemory(mem))); }

// --- The chain ---

void* MemoryAllocator::firstBlock() const { return ArenaSteps::chain(*this).firstBlock(); }

void* MemoryAllocator::nextBlock(const void* mem) const {
  return ArenaSteps::chain(*this).nextBlock(mem, SOURCE);
}

void MemoryAllocator::checkArena() const { Arena::check(*this); }

void MemoryAllocator::report() {
  ArenaSteps::chain(*this).report(SOURCE);
  const unsigned long long used = allocatedMemory_;
  const unsigned long long free = internalFree_;
  std::printf("%dk used + %dk (free) = %dk\n", static_cast<int>(used >> 10),
              static_cast<int>(free >> 10), static_cast<int>((used + free) >> 10));
}

}  // namespace Utils
