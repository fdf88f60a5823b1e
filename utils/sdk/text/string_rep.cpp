// SPDX-License-Identifier: MIT
// The operations on a text that one String holds alone, and the total of string memory.
//
// Every operation computes its final size first, allocates the one buffer that it may need, and
// only then changes the text. The former buffer is freed when the operation has finished, and bytes
// are copied as by memmove, so the source may lie in the text itself.
//
// A short text and its representation are created in one block, the text first (inline):
//
//   block: text_, capacity_ bytes | StringRep | offset of the StringRep in the block
//
// 16 + 24 + 4 bytes for "abc". An inline text that must move gets a buffer of its own, and its
// former place is unused until the block is freed with the representation. A donated inline text is
// the start of its block, so the whole block is handed out. All other representations are alone in
// their blocks, with an offset of 0.
#include "utils/sdk/text/string_rep.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <new>

#include "utils/sdk/allocator.h"
#include "utils/sdk/string.h"

namespace Utils {

namespace {

unsigned _totalStringMemory = 0;

// Inline texts are shorter than this.
constexpr unsigned SHORT_LIMIT = 256;

// Two adjacent buffers of a power of two would begin a few bytes apart modulo the page; a copy
// between such addresses takes thirty times as long on some processors. So large buffers get this
// many bytes more.
constexpr unsigned LARGE_BUFFER = 1024;
constexpr unsigned SPARE = 24;

char* allocateBuffer(unsigned size) {
  const unsigned spare = size >= LARGE_BUFFER ? SPARE : 0;
  return static_cast<char*>(Allocator::theAllocator()->alloc(size + spare));
}

// The text of all representations without a buffer. Never written to.
char _emptyText[1] = {'\0'};

// Returns 0xffffffff if the sum wraps.
unsigned saturatingAdd(unsigned a, unsigned b) { return a + b < a ? 0xffffffffu : a + b; }

// Returns the code that the character functions of the runtime library take.
unsigned char codeOf(char c) { return static_cast<unsigned char>(c); }

void copyBytes(char* to, const char* from, unsigned count) {
  if (count != 0) std::memmove(to, from, count);
}

// The characters of a text and NUL as a bit set, tested in constant time. Built for every search,
// so its four words are computed in registers.
struct CharSet {
  explicit CharSet(const char* set) {
    std::uint64_t low = 1, middle = 0, high = 0, highest = 0;
    for (; *set; set++) {
      const unsigned code = codeOf(*set);
      const std::uint64_t bit = std::uint64_t{1} << (code & 63);
      low |= code < 64 ? bit : 0;
      middle |= code >> 6 == 1 ? bit : 0;
      high |= code >> 6 == 2 ? bit : 0;
      highest |= code >> 6 == 3 ? bit : 0;
    }
    words_[0] = low;
    words_[1] = middle;
    words_[2] = high;
    words_[3] = highest;
  }
  bool has(char c) const { return (words_[codeOf(c) >> 6] >> (codeOf(c) & 63) & 1) != 0; }

  std::uint64_t words_[4];
};

}  // namespace

unsigned YfTotalStringMemory() { return _totalStringMemory; }

// --- The buffer ---

// A representation on the heap.
struct StringRep::Block : StringRep {
  explicit Block(unsigned offset) : offset_(offset) {}
  void* start() { return reinterpret_cast<char*>(this) - offset_; }

  const unsigned offset_;
};

// A separate buffer never ends where its representation begins.
inline bool StringRep::isInline() const {
  return text_ + capacity_ == reinterpret_cast<const char*>(this);
}

// Frees the former buffer of a text at the end of the scope. An inline buffer is only subtracted
// from the total: it is freed with its block.
struct StringRep::DeferredFree {
  DeferredFree() : text_(nullptr) {}
  DeferredFree(const DeferredFree&) = delete;
  DeferredFree& operator=(const DeferredFree&) = delete;
  ~DeferredFree() {
    if (text_) Allocator::theAllocator()->free(text_);
  }
  void take(const StringRep& rep) {
    if (rep.isInline()) {
      _totalStringMemory -= rep.capacity_;
    } else if (rep.capacity_ != 0) {
      _totalStringMemory -= rep.capacity_;
      text_ = rep.text_;
    }
  }

  char* text_;
};

// resizeFor, with the former buffer readable until `old` is destroyed.
inline bool StringRep::moveFor(unsigned n, DeferredFree& old) {
  if (n >= SIZE_LIMIT) return false;
  if (n == 0) {
    old.take(*this);
    text_ = _emptyText;
    size_ = capacity_ = 0;
    return true;
  }
  const unsigned wanted = sizeFor(n);
  if (wanted == capacity_) return true;
  char* text = allocateBuffer(wanted);
  if (!text) return false;
  _totalStringMemory += wanted;
  const unsigned keep = std::min(size_, n);
  copyBytes(text, text_, keep);
  text[keep] = '\0';
  old.take(*this);
  text_ = text;
  size_ = keep;
  capacity_ = wanted;
  return true;
}

bool StringRep::resizeFor(unsigned n) {
  DeferredFree old;
  return moveFor(n, old);
}

int StringRep::expandTo(unsigned n) { return size_ >= n || replace(nullptr, 0, 0, n); }

// --- Construction and sharing ---

void StringRep::init() {
  size_ = capacity_ = refCount_ = 0;
  text_ = _emptyText;
}

StringRep::StringRep() { init(); }

StringRep::StringRep(const char* text) {
  init();
  *this = text;
}

StringRep::StringRep(char c) {
  init();
  *this = c;
}

StringRep::StringRep(const char* text, unsigned count) {
  init();
  if (text) append(text, count);
}

StringRep::StringRep(const char* text, unsigned from, unsigned count) {
  init();
  insert(text, count, from, 0);
}

StringRep::~StringRep() {
  DeferredFree old;
  old.take(*this);
}

StringRep* StringRep::create(const char* text, unsigned count) {
  if (!text) count = 0;
  const unsigned offset = count != 0 && count < SHORT_LIMIT ? sizeFor(count) : 0;
  auto* start = static_cast<char*>(
      Allocator::theAllocator()->alloc(offset + static_cast<unsigned>(sizeof(Block))));
  if (!start) return nullptr;
  StringRep* rep = ::new (start + offset) Block(offset);
  _totalStringMemory += static_cast<unsigned>(sizeof(StringRep)) + offset;
  rep->refCount_ = 1;
  if (offset != 0) {
    rep->text_ = start;
    rep->capacity_ = offset;
    std::memcpy(start, text, count);
    rep->finish(count);
  } else if (!rep->append(text, count)) {
    destroy(rep);
    return nullptr;
  }
  return rep;
}

void StringRep::destroy(StringRep* rep) {
  auto* block = static_cast<Block*>(rep);
  void* start = block->start();
  block->~Block();
  _totalStringMemory -= static_cast<unsigned>(sizeof(StringRep));
  Allocator::theAllocator()->free(start);
}

char* StringRep::donateAndDestroy(StringRep* rep) {
  if (!rep->isInline()) {
    char* text = rep->donate();
    destroy(rep);
    return text;
  }
  char* text = rep->text_;
  _totalStringMemory -= rep->capacity_ + static_cast<unsigned>(sizeof(StringRep));
  rep->init();
  rep->~StringRep();
  return text;
}

StringRep* StringRep::unshare() {
  if (refCount_ <= 1) return this;
  StringRep* copy = create(text_, size_);
  if (copy) --refCount_;
  return copy;
}

// --- Assignment and append ---

void StringRep::operator=(const char* text) {
  const unsigned n = lengthOf(text);
  DeferredFree old;
  if (!moveFor(n, old) || n == 0) return;
  std::memmove(text_, text, n);
  finish(n);
}

void StringRep::operator=(char c) {
  if (!resizeFor(1)) return;
  text_[0] = c;
  finish(1);
}

bool StringRep::append(const char* text, unsigned count) {
  if (!text) count = 0;
  DeferredFree old;
  if (!moveFor(saturatingAdd(size_, count), old)) return false;
  if (count == 0) return true;
  std::memmove(text_ + size_, text, count);
  finish(size_ + count);
  return true;
}

bool StringRep::append(const char* text) { return !text || append(text, lengthOf(text)); }

bool StringRep::append(StringRep* other) { return append(other->text_, other->size_); }

bool StringRep::append(char c) { return append(&c, 1); }

// --- Editing ---

bool StringRep::replace(const char* text, unsigned count, unsigned from, unsigned at) {
  if (!text) count = 0;
  const char* source = count != 0 ? text + from : text;
  const unsigned end = saturatingAdd(at, count);
  if (at < size_ && end <= size_) {
    copyBytes(text_ + at, source, count);
    return true;
  }
  DeferredFree old;
  const unsigned size = size_;
  if (!moveFor(end, old)) return false;
  if (end == 0) return true;
  copyBytes(text_ + at, source, count);
  if (at > size) std::memset(text_ + size, ' ', at - size);
  finish(end);
  return true;
}

bool StringRep::insert(const char* text, unsigned count, unsigned from, unsigned at) {
  if (!text) count = 0;
  if (at >= size_) return replace(text, count, from, at);
  return openGap(count != 0 ? text + from : text, count, at);
}

// If the source lies in the buffer and the buffer does not move, the part of the source at or after
// `at` is moved with the text, by `count`.
bool StringRep::openGap(const char* source, unsigned count, unsigned at) {
  DeferredFree old;
  const unsigned size = size_;
  if (!moveFor(saturatingAdd(size, count), old)) return false;
  const std::uintptr_t offset =
      reinterpret_cast<std::uintptr_t>(source) - reinterpret_cast<std::uintptr_t>(text_);
  unsigned still = count;
  if (offset <= size) still = offset < at ? std::min(count, at - static_cast<unsigned>(offset)) : 0;
  std::memmove(text_ + at + count, text_ + at, size - at + 1);
  copyBytes(text_ + at, source, still);
  copyBytes(text_ + at + still, source + still + count, count - still);
  finish(size + count);
  return true;
}

void StringRep::remove(unsigned from, unsigned count) {
  if (from >= size_ || count == 0) return;
  const unsigned end = count < size_ - from ? from + count : size_;
  std::memmove(text_ + from, text_ + end, size_ - end + 1);
  size_ -= end - from;
}

namespace {

unsigned occurrences(const char* text, const char* search, std::size_t searchSize) {
  unsigned n = 0;
  while ((text = std::strstr(text, search))) {
    n++;
    text += searchSize;
  }
  return n;
}

}  // namespace

// If the text grows, it is moved to the end of its new size first, so that writing from the start
// never overtakes reading.
bool StringRep::substitute(const char* search, const char* with) {
  const unsigned searchSize = lengthOf(search);
  const unsigned withSize = lengthOf(with);
  if (searchSize == 0 || size_ == 0) return true;
  unsigned room = 0;
  if (withSize > searchSize) {
    const std::uint64_t n = occurrences(text_, search, searchSize);
    if (n == 0) return true;
    const std::uint64_t growth = n * (withSize - searchSize);
    if (growth >= SIZE_LIMIT) return false;
    room = static_cast<unsigned>(growth);
    const unsigned size = size_;
    if (!resizeFor(size + room)) return false;
    std::memmove(text_ + room, text_, size + 1);
    size_ = size + room;
  }
  finish(substituteFrom(text_ + room, search, with));
  return true;
}

// Reads from `read` to the end, writes from the start of the text and returns the new size.
unsigned StringRep::substituteFrom(char* read, const char* search, const char* with) {
  const std::size_t searchSize = std::strlen(search);
  const std::size_t withSize = std::strlen(with);
  const char* end = text_ + size_;
  char* write = text_;
  while (read < end) {
    char* found = std::strstr(read, search);
    if (!found) break;
    const auto before = static_cast<std::size_t>(found - read);
    std::memmove(write, read, before);
    std::memcpy(write + before, with, withSize);
    write += before + withSize;
    read = found + searchSize;
  }
  const auto rest = static_cast<std::size_t>(end - read);
  std::memmove(write, read, rest);
  return static_cast<unsigned>(write - text_) + static_cast<unsigned>(rest);
}

void StringRep::toUpper() {
  for (unsigned i = 0; i < size_; i++) text_[i] = static_cast<char>(std::toupper(codeOf(text_[i])));
}

void StringRep::toLower() {
  for (unsigned i = 0; i < size_; i++) text_[i] = static_cast<char>(std::tolower(codeOf(text_[i])));
}

void StringRep::rotateLeft(unsigned n) {
  if (size_ <= 1) return;
  std::rotate(text_, text_ + n % size_, text_ + size_);
}

void StringRep::trim() {
  unsigned first = 0;
  while (std::isspace(codeOf(text_[first]))) first++;
  unsigned last = size_;
  while (last > first && std::isspace(codeOf(text_[last - 1]))) last--;
  if (first == 0 && last == size_) return;
  if (last == first) {
    resizeFor(0);
    return;
  }
  std::memmove(text_, text_ + first, last - first);
  finish(last - first);
}

char* StringRep::donate() {
  char* text = text_;
  if (isInline()) {
    text = allocateBuffer(capacity_);
    if (!text) return nullptr;
    std::memcpy(text, text_, size_ + 1);
  }
  _totalStringMemory -= capacity_;
  capacity_ = 0;
  resizeFor(0);
  return text;
}

void StringRep::consume(char* text) {
  const unsigned size = lengthOf(text);
  if (size == SIZE_LIMIT) return;
  resizeFor(0);
  if (size == 0) return;
  text_ = text;
  size_ = size;
  capacity_ = size + 1;
  _totalStringMemory += capacity_;
}

// --- Searching ---

namespace {

// Returns the first position from `i` to `size` - 1 whose character is in the set (not in it, if
// `inSet` is false), or `size` if there is none.
inline unsigned find(const char* text, unsigned i, unsigned size, const CharSet& set, bool inSet) {
  while (i < size && set.has(text[i]) != inSet) i++;
  return i;
}

}  // namespace

unsigned StringRep::indexChar(const char* set, unsigned from) const {
  if (from >= size_) return NOT_FOUND;
  const unsigned found = find(text_, from, size_, CharSet(set), true);
  return found < size_ ? found : NOT_FOUND;
}

unsigned StringRep::rindexChar(const char* set, unsigned from) const {
  if (from >= SIZE_LIMIT && from != NOT_FOUND) return NOT_FOUND;
  const CharSet members(set);
  for (unsigned i = from < size_ ? from + 1 : size_; i > 0; i--) {
    if (members.has(text_[i - 1])) return i - 1;
  }
  return NOT_FOUND;
}

bool StringRep::tokSpan(const char* delimiters, unsigned from, unsigned& start,
                        unsigned& end) const {
  if (from >= size_) return false;
  const CharSet set(delimiters);
  const unsigned first = find(text_, from, size_, set, false);
  start = first;
  if (first == size_) return false;
  end = find(text_, first + 1, size_, set, true);
  return true;
}

}  // namespace Utils
