// chain.cpp: walking, joining and reporting the chain of an arena's blocks.
#include "utils/sdk/chain.h"

#include <bit>
#include <cstdio>

#include "utils/sdk/ysys.h"

namespace Utils {

bool Chain::holdsBusy(const void* mem) const {
  if (!mem || addressOf(mem) % ALIGN != 0) return false;
  const void* head = headOfMemory(mem);
  return addressOf(head) >= addressOf(first_) && addressOf(head) < addressOf(end_) &&
         isBusy(wordAt(head));
}

const void* Chain::next(const void* head, const char* source) const {
  if (addressOf(head) >= addressOf(end_)) return nullptr;
  const unsigned size = sizeOf(wordAt(head));
  if (size == 0 || size > addressOf(end_) - addressOf(head)) return nullptr;
  const unsigned tail = wordAt(behind(head, size - 4));
  if (size != (tail & ~1u)) YfAssert__("size == (t->size & ~1)", source, __LINE__);
  const void* behindIt = behind(head, size);
  return behindIt == end_ || wordAt(behindIt) == SEAM ? nullptr : behindIt;
}

void Chain::report(const char* source) const {
  constexpr int BUCKETS = 27;
  struct Bucket {
    unsigned count, used, free, biggest;
  };
  Bucket buckets[BUCKETS] = {};
  for (const void* head = first_; head; head = next(head, source)) {
    const unsigned word = wordAt(head);
    const unsigned size = sizeOf(word);
    Bucket& bucket = buckets[std::bit_width(size | 1) - 1];
    (isBusy(word) ? bucket.used : bucket.free) += size;
    bucket.count++;
    if (size > bucket.biggest) bucket.biggest = size;
  }
  std::printf("Arenas: \nArena Count  Used       Free Biggest\n");
  for (int i = 0; i < BUCKETS; i++) {
    const Bucket& b = buckets[i];
    if (b.count == 0) continue;
    std::printf("%5d %6d %7d %7d %d\n", i, static_cast<int>(b.count), static_cast<int>(b.used),
                static_cast<int>(b.free), static_cast<int>(b.biggest));
  }
}

namespace {

// The head of the one block of a chunk that does not begin right behind `end`. Where a gap block
// can join the two, it is made; else the chain is cut.
void* joinAcrossGap(void* end, void* chunk) {
  const std::uintptr_t gap = addressOf(chunk) - addressOf(end) + 4;
  wordAt(chunk) = EDGE;
  if (end && addressOf(chunk) > addressOf(end) && gap < BLOCK_LIMIT) {
    wordAt(end) = static_cast<unsigned>(gap) + 1;
    wordAt(chunk) = static_cast<unsigned>(gap) + 1;
  }
  return behind(chunk, 4);
}

}  // namespace

void* joinChunk(void* end, void* chunk, unsigned need) {
  const bool continues = end && chunk == behind(end, 4) && need < BLOCK_LIMIT;
  void* head = continues ? end : joinAcrossGap(end, chunk);
  const unsigned size = continues ? need : need - 8;
  wordAt(head) = size + 1;
  writeTail(head, size);
  wordAt(behind(head, size)) = SEAM;
  return head;
}

}  // namespace Utils
