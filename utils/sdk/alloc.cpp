// alloc.cpp: the arena allocator.
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

#include "utils/sdk/arena_steps.h"
#include "utils/sdk/wtree_steps.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

constexpr char SOURCE[] = "utils/sdk/alloc";

constexpr unsigned LARGEST_SMALL = 512;
constexpr unsigned LARGEST_SMALL_REQUEST = LARGEST_SMALL - 8;
constexpr unsigned SMALLEST_LARGE = 1024;
constexpr unsigned PAGE = 10240;

static_assert(offsetof(MemTail, size) == 0 && sizeof(MemTail) == 4);

MemHead* headAt(void* address) { return static_cast<MemHead*>(address); }

MemHead* headOfNode(WTreeNodeBase* node) { return static_cast<MemHead*>(node); }
const MemHead* headOfNode(const WTreeNodeBase* node) { return static_cast<const MemHead*>(node); }

// The class of a small request: log2 of the block size.
unsigned classOf(unsigned request) {
  return static_cast<unsigned>(std::bit_width((request + 7) | 16));
}

// The link of a free small block lies where a large one has its node.
struct SmallLink {
  MemHead* next_;
};

SmallLink* linkOf(MemHead* h) { return static_cast<SmallLink*>(behind(h, 4)); }

// Orders free blocks by size, then by address. Sizes seldom tie, so that the usual case has no
// branch that is hard to foresee.
inline int compareBlocks(const MemHead* block, unsigned size, std::uintptr_t address) {
  if (block->sizeandcolor_ != size) [[likely]]
    return block->sizeandcolor_ < size ? 1 : -1;
  const std::uintptr_t blockAddress = addressOf(block);
  return blockAddress == address ? 0 : blockAddress < address ? 1 : -1;
}

// Where a free block of that size and address stands in the tree.
struct PlaceOfBlock {
  explicit PlaceOfBlock(const MemHead* h) : size_(h->sizeandcolor_), address_(addressOf(h)) {}

  int operator()(const WTreeNodeBase* node) const {
    return compareBlocks(headOfNode(node), size_, address_);
  }

  unsigned size_;
  std::uintptr_t address_;
};

// Below all blocks of that size: the first one behind it is the best fit.
struct PlaceOfFit {
  int operator()(const WTreeNodeBase* node) const {
    return headOfNode(node)->sizeandcolor_ < amt_ ? 1 : -1;
  }

  unsigned amt_;
};

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
  static MemHead* popSmall(MemoryAllocator& a, unsigned k);
  static void* takeFromPage(MemoryAllocator& a, unsigned request, unsigned color);
  static void* takeLarge(MemoryAllocator& a, unsigned request, unsigned color);

  static bool giveSmall(MemoryAllocator& a, void* mem, unsigned& size);
  static void pushSmall(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color);
  static unsigned giveLarge(MemoryAllocator& a, void* mem);
  static void giveAndCount(MemoryAllocator& a, void* mem);

  static MemHead* findFit(WTreePath& path, unsigned amt, const WTreeNodeBase*& lower);
  static MemHead* takeFit(MemoryAllocator& a, unsigned amt);
  static MemHead* takeWhole(MemoryAllocator& a, WTreePath& path, MemHead* fit);
  static void joinFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color);
  static void grow(MemoryAllocator& a, MemHead* old, MemHead* grown, unsigned size);
  static void insert(MemoryAllocator& a, MemHead* h);
  static void lost(MemoryAllocator& a, MemHead* h);

  static void fillClass(MemoryAllocator& a, unsigned k);
  static unsigned cutPage(MemoryAllocator& a, MemHead* page);
};

inline void* Arena::take(MemoryAllocator& a, unsigned request, unsigned color) {
  if (request > LARGEST_SMALL_REQUEST) return takeLarge(a, request, color);
  const unsigned k = classOf(request);
  if (MemHead* h = popSmall(a, k)) return handOver(a, h, 1u << k, color);
  return takeFromPage(a, request, color);
}

// The first of the list, null for none; its head word is still that of a free block.
inline MemHead* Arena::popSmall(MemoryAllocator& a, unsigned k) {
  MemHead* h = a.smallFree_[k];
  if (!h) [[unlikely]]
    return nullptr;
  const unsigned size = 1u << k;
  a.smallFree_[k] = linkOf(h)->next_;
  __builtin_prefetch(a.smallFree_[k]);  // soon asked for; after churn the list leads all over
  a.internalFree_ -= size;
  a.freeColorMemory_[h->color_] -= size;
  return h;
}

// A small request that finds neither list nor page becomes a large block: a smaller one could not
// be told from the blocks of a page when it is freed.
[[gnu::noinline]] void* Arena::takeFromPage(MemoryAllocator& a, unsigned request, unsigned color) {
  const unsigned k = classOf(request);
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

// Gives false for what is no busy small block: that is left alone.
inline bool Arena::giveSmall(MemoryAllocator& a, void* mem, unsigned& size) {
  MemHead* h = headAt(headOfMemory(mem));
  const unsigned word = h->sizeandcolor_;
  size = sizeOf(word);
  if (!isBusy(word) || size > LARGEST_SMALL) return false;
  a.allocatedColorMemory_[colorOf(word)] -= size;
  pushSmall(a, h, size, colorOf(word));
  return true;
}

inline void Arena::pushSmall(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  MemHead*& list = a.smallFree_[static_cast<unsigned>(__builtin_ctz(size))];
  h->sizeandcolor_ = size;
  h->color_ = color;
  linkOf(h)->next_ = list;
  list = h;
  a.internalFree_ += size;
  a.freeColorMemory_[color] += size;
}

// Gives the size of the block, 0 for what is no busy block: that is left alone.
inline unsigned Arena::giveLarge(MemoryAllocator& a, void* mem) {
  const Returned block = takeBack(a, mem, "s+1 == TAIL(h)->size", SOURCE);
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
  if (!mem) return;
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

[[gnu::noinline]] void Arena::insert(MemoryAllocator& a, MemHead* h) {
  WTreePath path(WTreeSteps::rootOf(a.tree_));
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(h));
  WTreeSteps::attach(path, end, h);
}

// The smallest and then lowest free block of at least amt bytes, with the path that leads to it,
// and its lower neighbour in the order if that lies on the way.
inline MemHead* Arena::findFit(WTreePath& path, unsigned amt, const WTreeNodeBase*& lower) {
  const auto end = WTreeSteps::descend(path, PlaceOfFit{amt});
  if (end.upper_ == 0) return nullptr;
  unsigned level = path.depth_;
  while (level > 0 && headOfNode(path.nodes_[level - 1])->sizeandcolor_ >= amt) level--;
  lower = level > 0 ? path.nodes_[level - 1] : nullptr;
  path.depth_ = end.upper_ - 1;
  MemHead* candidate = headOfNode(path.nodes_[path.depth_]);
  if (candidate->sizeandcolor_ < amt)
    brokenBlock("candidate->sizeandcolor_ >= amt", SOURCE, __LINE__, candidate);
  return candidate;
}

// Makes a free block that the path leads to a busy one as it is.
MemHead* Arena::takeWhole(MemoryAllocator& a, WTreePath& path, MemHead* fit) {
  WTreeSteps::detach(path, fit);
  uncount(a, fit);
  a.setBusy(fit);
  return fit;
}

// allocCandidate and splitBlock in one.
inline MemHead* Arena::takeFit(MemoryAllocator& a, unsigned amt) {
  WTreePath path(WTreeSteps::rootOf(a.tree_));
  const WTreeNodeBase* lower;
  MemHead* h = findFit(path, amt, lower);
  if (!h) return nullptr;
  const unsigned size = h->sizeandcolor_;
  if (size - amt < SMALLEST_LARGE) return takeWhole(a, path, h);
  countFree(a, 0 - amt, h->color_);
  MemHead* rest = cut(h, size, amt);
  if (!lower || PlaceOfBlock(rest)(lower) > 0) {
    WTreeSteps::replace(WTreeSteps::linkTo(path, path.depth_, h), h, rest);
  } else {
    WTreeSteps::detach(path, h);
    insert(a, rest);
  }
  return h;
}

// coalesce and freeLoser in one, for a busy block.
inline void Arena::joinFree(MemoryAllocator& a, MemHead* h, unsigned size, unsigned color) {
  MemHead* grown = h;
  MemHead* next = headAt(behind(h, size));
  MemHead* previous = headAt(previousHead(h));
  MemHead* old = joins(next, size) ? next : nullptr;
  if (old) size += next->sizeandcolor_;
  if (joins(previous, size)) {
    if (old) a.removeMe(next);
    size += previous->sizeandcolor_;
    grown = old = previous;
  }
  if (old) {
    uncount(a, old);
    grow(a, old, grown, size);
  } else {
    h->sizeandcolor_ = size;
    insert(a, h);
  }
  grown->color_ = color;
  writeTail(grown, size);
  count(a, grown);
}

// The free block `old` becomes `grown`, of `size` bytes.
inline void Arena::grow(MemoryAllocator& a, MemHead* old, MemHead* grown, unsigned size) {
  WTreePath path(WTreeSteps::rootOf(a.tree_));
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(old));
  if (!end.found_) return lost(a, old);
  grown->sizeandcolor_ = size;
  const WTreeNodeBase* upper = end.upper_ ? path.nodes_[end.upper_ - 1] : nullptr;
  if (old->right()) upper = WTreeSteps::leftmost(old->right());
  if (!upper || PlaceOfBlock(grown)(upper) < 0) {
    WTreeSteps::replace(WTreeSteps::linkTo(path, path.depth_, old), old, grown);
  } else {
    WTreeSteps::detach(path, old);
    insert(a, grown);
  }
}

// The tree does not hold a free block: the heap is damaged. Prints what it does hold.
[[gnu::cold]] void Arena::lost(MemoryAllocator& a, MemHead* h) {
  for (auto* n = a.tree_.minNode(); n; n = a.tree_.nextNode(n, nodeCompareSame)) {
    std::printf("%d ", static_cast<int>(headOfNode(n)->sizeandcolor_));
    if (headOfNode(n) == h) brokenBlock("n != h", SOURCE, __LINE__, h);
  }
  brokenBlock("0", SOURCE, __LINE__, h);
}

MemHead* MemoryAllocator::allocCandidate(unsigned amt) {
  WTreePath path(WTreeSteps::rootOf(tree_));
  const WTreeNodeBase* lower;
  MemHead* h = Arena::findFit(path, amt, lower);
  return h ? Arena::takeWhole(*this, path, h) : nullptr;
}

void MemoryAllocator::splitBlock(MemHead* h, unsigned amt) {
  const unsigned size = h->sizeandcolor_ - 1;
  if (size - amt >= SMALLEST_LARGE) freeLoser(ArenaSteps::cut(h, size, amt));
}

void MemoryAllocator::freeLoser(MemHead* h) {
  resetBusy(h);
  Arena::insert(*this, h);
  Arena::count(*this, h);
}

MemHead* MemoryAllocator::coalesce(MemHead* h) {
  return ArenaSteps::coalesce(h, [this](MemHead* neighbour) { removeMe(neighbour); });
}

void MemoryAllocator::removeMe(MemHead* h) {
  WTreePath path(WTreeSteps::rootOf(tree_));
  const auto end = WTreeSteps::descend(path, PlaceOfBlock(h));
  if (end.found_) {
    WTreeSteps::detach(path, h);
  } else {
    Arena::lost(*this, h);
  }
  Arena::uncount(*this, h);
}

// --- Small blocks ---

MemHead* MemoryAllocator::allocSmall(unsigned k) {
  if (!smallFree_[k]) Arena::fillClass(*this, k);
  MemHead* h = Arena::popSmall(*this, k);
  if (!h) {
    YfAssert__("h", SOURCE, __LINE__);
    return nullptr;
  }
  setBusy(h);
  return h;
}

void MemoryAllocator::freeSmall(MemHead* h) {
  Arena::pushSmall(*this, h, h->sizeandcolor_ - 1, h->color_);
}

namespace {

// The lowest free block of at least `size` bytes in the subtree, or `best` where that lies lower.
MemHead* lowestOf(WTreeNodeBase* node, unsigned size, MemHead* best) {
  for (; node; node = node->right()) {
    MemHead* h = headOfNode(node);
    if (h->sizeandcolor_ < size) continue;
    if (!best || addressOf(h) < addressOf(best)) best = h;
    best = lowestOf(node->left(), size, best);
  }
  return best;
}

}  // namespace

// Makes a free block a page, counted as neither free nor allocated. Gives its usable bytes.
unsigned Arena::cutPage(MemoryAllocator& a, MemHead* page) {
  if (page != a.tree_.remove(page, nodeCompareSame))
    brokenBlock("b == HEADBASE(node)", SOURCE, __LINE__, page);
  a.internalFree_ -= page->sizeandcolor_;
  a.freeColorMemory_[page->color_] -= page->sizeandcolor_;
  page->color_ = 0;
  a.setBusy(page);
  a.splitBlock(page, PAGE);
  return page->sizeandcolor_ - 9;
}

// A page is the lowest free block that is large enough, else a new large block, which then stays in
// the totals of allocated memory. Without either the class stays empty.
void Arena::fillClass(MemoryAllocator& a, unsigned k) {
  unsigned payload = PAGE;
  char* mem;
  if (MemHead* page = lowestOf(a.tree_.top(), PAGE + 8, nullptr)) {
    payload = cutPage(a, page);
    mem = static_cast<char*>(behind(page, 4));
  } else {
    mem = static_cast<char*>(a._alloc(PAGE, 0));
    if (!mem) return;
  }
  const unsigned size = 1u << k;
  const unsigned unaligned = static_cast<unsigned>(addressOf(mem) & (ALIGN - 1));
  const unsigned start = (unaligned + 11) / ALIGN * ALIGN - 4 - unaligned;
  for (unsigned offset = start; payload - offset >= size; offset += size)
    pushSmall(a, headAt(mem + offset), size, 0);
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

void MemoryAllocator::checkArena() const { ArenaSteps::chain(*this).check(SOURCE); }

void MemoryAllocator::report() {
  ArenaSteps::chain(*this).report(SOURCE);
  const unsigned long long used = allocatedMemory_;
  const unsigned long long free = internalFree_;
  std::printf("%dk used + %dk (free) = %dk\n", static_cast<int>(used >> 10),
              static_cast<int>(free >> 10), static_cast<int>((used + free) >> 10));
}

}  // namespace Utils
