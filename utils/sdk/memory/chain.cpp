// SPDX-License-Identifier: MIT
// The walk over the chain of an arena's blocks, its growth, and its reports.
#include "utils/sdk/memory/chain.h"

#include <bit>
#include <cstdio>

#include "utils/sdk/allocator.h"
#include "utils/sdk/ysys.h"

namespace Utils {

bool Chain::holds(const void* head) const {
  return addressOf(head) % ALIGN == 4 && addressOf(head) >= addressOf(first_) &&
         addressOf(head) < addressOf(end_);
}

bool Chain::holdsBusy(const void* mem) const {
  return mem && holds(headOfMemory(mem)) && isBusy(wordAt(headOfMemory(mem)));
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
  return fits(head, word - 1, ALIGN) && wordAt(offsetBy(head, word - 5)) == word;
}

unsigned Chain::setColor(void* mem, unsigned color, unsigned* totals) const {
  color &= COLOR_MASK;
  if (color == 0 || !holdsBusy(mem) || !canBeHead(headOfMemory(mem)))
    return RESULT_INVALID_ARGUMENT;
  unsigned& word = wordAt(headOfMemory(mem));
  if (colorOf(word) != 0) return RESULT_INVALID_ARGUMENT;
  totals[color] += sizeOf(word);
  word |= color << COLOR_SHIFT;
  return 0;
}

// For a block of any kind: the block of a gap has as few as 8 bytes, and in a chain that was cut
// the end may lie within it.
bool Chain::canBeHead(const void* head) const {
  const unsigned word = wordAt(head);
  const unsigned size = sizeOf(word);
  if (!isBusy(word) && colorOf(word) != 0) return false;
  return cut_ ? size >= ALIGN && size % ALIGN == 0 : fits(head, size, ALIGN);
}

// Returns null at the end and, if the chain was cut, at the end marker of a chunk.
const void* Chain::next(const void* head, const char* source, unsigned line, bool& isWhole) const {
  constexpr char CONDITION[] = "size == (t->size & ~1)";
  const bool canBe = canBeHead(head);
  const unsigned size = sizeOf(wordAt(head));
  if (!canBe || size != (wordAt(offsetBy(head, size - 4)) & ~1u)) {
    isWhole = false;
    brokenBlock(*this, CONDITION, source, line, head);
  }
  if (!canBe) return nullptr;
  const void* next = offsetBy(head, size);
  return next == end_ || (cut_ && wordAt(next) == SEAM) ? nullptr : next;
}

void* Chain::nextBlock(const void* mem, const char* source, unsigned line) const {
  if (!mem || !holds(headOfMemory(mem))) return nullptr;
  bool isWhole = true;
  const void* head = next(headOfMemory(mem), source, line, isWhole);
  return head ? offsetBy(const_cast<void*>(head), 4) : nullptr;
}

bool Chain::check(const char* source, unsigned line) const {
  bool isWhole = true;
  const void* last = first_;
  for (const void* head = first_; head; head = next(head, source, line, isWhole)) last = head;
  if (isWhole && !cut_ && end_ && wordAt(end_) != SEAM) {
    isWhole = false;
    brokenBlock(*this, "*endHead_ == SEAM", source, line, last);
  }
  return isWhole;
}

const void* Chain::after(const void* head) const {
  if (!canBeHead(head)) return nullptr;
  const void* next = offsetBy(head, sizeOf(wordAt(head)));
  return holds(next) ? next : nullptr;
}

// A block that ends after `head`, or whose size is impossible, is the damaged one.
const void* Chain::blockBefore(const void* head) const {
  const void* at = first_;
  while (addressOf(at) < addressOf(head)) {
    const void* next = after(at);
    if (!next || addressOf(next) >= addressOf(head)) return at;
    at = next;
  }
  return head;
}

bool Chain::leadsTo(const void* head) const {
  const void* at = first_;
  while (at && addressOf(at) < addressOf(head)) at = after(at);
  return at == head;
}

void Chain::report(const char* source, unsigned line) const {
  struct Bucket {
    unsigned count, used, free, biggest;
  };
  Bucket buckets[BINS] = {};
  bool isWhole = true;
  for (const void* head = first_; head; head = next(head, source, line, isWhole)) {
    const unsigned word = wordAt(head);
    const unsigned size = sizeOf(word);
    Bucket& bucket = buckets[std::bit_width(size | 1) - 1];
    (isBusy(word) ? bucket.used : bucket.free) += size;
    bucket.count++;
    if (size > bucket.biggest) bucket.biggest = size;
  }
  std::printf("Arenas: \nArena Count  Used       Free Biggest\n");
  for (int i = 0; i < BINS; i++) {
    const Bucket& b = buckets[i];
    if (b.count == 0) continue;
    std::printf("%5d %6d %7d %7d %d\n", i, static_cast<int>(b.count), static_cast<int>(b.used),
                static_cast<int>(b.free), static_cast<int>(b.biggest));
  }
}

namespace {

// Returns the head of the one block of a chunk that does not begin directly after the end marker.
// Joins the two by a gap block if that is possible, else cuts the chain.
void* joinAcrossGap(void* end, void* chunk, bool& isCut) {
  const std::uintptr_t gap = addressOf(chunk) - addressOf(end) + 4;
  wordAt(chunk) = EDGE;
  if (end && addressOf(chunk) > addressOf(end) && gap < BLOCK_LIMIT) {
    wordAt(end) = static_cast<unsigned>(gap) + 1;
    wordAt(chunk) = static_cast<unsigned>(gap) + 1;
  } else if (end) {
    isCut = true;
  }
  return offsetBy(chunk, 4);
}

}  // namespace

void* joinChunk(void* end, void* chunk, unsigned need, bool& isCut) {
  const bool continues = end && chunk == offsetBy(end, 4) && need < BLOCK_LIMIT;
  void* head = continues ? end : joinAcrossGap(end, chunk, isCut);
  const unsigned size = continues ? need : need - 8;
  wordAt(head) = size + 1;
  writeTail(head, size);
  wordAt(offsetBy(head, size)) = SEAM;
  return head;
}

}  // namespace Utils
