// chain.cpp: walking, joining and reporting the chain of an arena's blocks.
#include "utils/sdk/chain.h"

#include <bit>
#include <cstdio>

#include "utils/sdk/allocator.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace Utils {

bool Chain::holdsBusy(const void* mem) const {
  if (!mem || addressOf(mem) % ALIGN != 0) return false;
  const void* head = headOfMemory(mem);
  return addressOf(head) >= addressOf(first_) && addressOf(head) < addressOf(end_) &&
         isBusy(wordAt(head));
}

unsigned Chain::size(const void* mem) const {
  return holdsBusy(mem) ? sizeOf(wordAt(headOfMemory(mem))) : 0;
}

unsigned Chain::color(const void* mem) const {
  return holdsBusy(mem) ? colorOf(wordAt(headOfMemory(mem))) : 0;
}

bool Chain::valid(const void* mem) const {
  if (!holdsBusy(mem)) return false;
  const void* head = headOfMemory(mem);
  const unsigned word = wordAt(head) & SIZE_MASK;
  const unsigned size = word - 1;
  if (size == 0 || size % ALIGN != 0) return false;
  if (size > addressOf(end_) - addressOf(head)) return false;
  return wordAt(behind(head, size - 4)) == word;
}

unsigned Chain::setColor(void* mem, unsigned color, unsigned* totals) const {
  color &= COLOR_MASK;
  if (color == 0 || !holdsBusy(mem)) return RESULT_INVALID_ARGUMENT;
  unsigned& word = wordAt(headOfMemory(mem));
  if (colorOf(word) != 0) return RESULT_INVALID_ARGUMENT;
  totals[color] += sizeOf(word);
  word |= color << COLOR_SHIFT;
  return 0;
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

void* Chain::nextBlock(const void* mem, const char* source) const {
  if (!mem) return nullptr;
  const void* head = next(headOfMemory(mem), source);
  return head ? behind(const_cast<void*>(head), 4) : nullptr;
}

void Chain::check(const char* source) const {
  for (const void* head = first_; head; head = next(head, source)) continue;
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

void brokenBlock(const char* condition, const char* source, unsigned line, const void* head) {
  char text[96];
  const unsigned word = wordAt(head);
  std::snprintf(text, sizeof text, "heap: block at %p, head word 0x%08x, size %u, colour %u\n",
                head, word, sizeOf(word), colorOf(word));
  OutputDebugStringA(text);
  YfAssert__(condition, source, line);
}

}  // namespace Utils
