// tour.cpp: the words of text files, counted with the library.
//
//   tour FILE...
//
// Reads each file whole into memory of the process allocator, one memory colour a file, and indexes
// the words in a weight-balanced tree whose nodes lie in that memory too. Prints the most frequent
// words, who holds how many bytes, and the allocator's own report; then frees everything and shows
// that the heap is as it was. A file that cannot be read is named on standard error, and the status
// is 1.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "utils/sdk/alloc.h"
#include "utils/sdk/wtree.h"

namespace {

using Utils::Allocator;
using Utils::MemoryAllocator;

// The process allocator, known to be the arena that can also be walked.
MemoryAllocator& heap() { return *static_cast<MemoryAllocator*>(Allocator::theAllocator()); }

// --- The index ---

struct Key {
  const char* text_;
  unsigned length_;
};

int alphabetical(const void* a, const void* b) {
  const auto* x = static_cast<const Key*>(a);
  const auto* y = static_cast<const Key*>(b);
  const int order = std::memcmp(y->text_, x->text_, std::min(x->length_, y->length_));
  if (order != 0) return order;
  return x->length_ == y->length_ ? 0 : x->length_ < y->length_ ? 1 : -1;
}

// The key stands directly behind the node, where the tree looks for it; the text behind the word.
struct Word : Utils::WTreeNodeBase {
  explicit Word(Key key) : key_(key) {}

  Key key_;
  unsigned count_ = 1;
};

struct Index : Utils::WTreeBase {
  Word* find(const Key& key) const {
    Utils::WTreeNodeBase* node = top();
    while (node) {
      const int order = alphabetical(&static_cast<Word*>(node)->key_, &key);
      if (order == 0) break;
      node = order > 0 ? node->right() : node->left();
    }
    return static_cast<Word*>(node);
  }

  // Counts one word more; false when there is no memory.
  bool add(const Key& key, unsigned color) {
    if (Word* known = find(key)) {
      known->count_++;
      return true;
    }
    void* block = heap().alloc(static_cast<unsigned>(sizeof(Word)) + key.length_, color);
    if (!block) return false;
    char* text = static_cast<char*>(block) + sizeof(Word);
    std::memcpy(text, key.text_, key.length_);
    return insert(new (block) Word({text, key.length_}), alphabetical);
  }

  std::vector<const Word*> words() const {
    std::vector<const Word*> all;
    for (auto* node = minNode(); node; node = nextNode(node, alphabetical))
      all.push_back(static_cast<const Word*>(node));
    return all;
  }

  void clear() {
    while (auto* node = top()) heap().free(remove(node, alphabetical));
  }
};

// --- The files ---

struct Text {
  const char* name_;
  unsigned color_;
  char* bytes_ = nullptr;
  unsigned size_ = 0;
};

// Makes room for as much again; false when there is no memory.
bool grow(Text& text, unsigned& capacity) {
  const unsigned larger = capacity ? 2 * capacity : 4096;
  void* bytes = heap().alloc(larger, text.color_);
  if (!bytes) return false;
  if (text.bytes_) std::memcpy(bytes, text.bytes_, text.size_);
  heap().free(text.bytes_);
  text.bytes_ = static_cast<char*>(bytes);
  capacity = larger;
  return true;
}

// Reads a stream whole. Gives null, or why it could not.
const char* readAll(std::FILE* file, Text& text) {
  for (unsigned capacity = 0;;) {
    if (text.size_ == capacity && !grow(text, capacity)) return "too large for the memory";
    const std::size_t got = std::fread(text.bytes_ + text.size_, 1, capacity - text.size_, file);
    if (got == 0) return std::ferror(file) ? std::strerror(errno) : nullptr;
    text.size_ += static_cast<unsigned>(got);
  }
}

const char* read(Text& text) {
  std::FILE* file = std::fopen(text.name_, "rb");
  if (!file) return std::strerror(errno);
  const char* reason = readAll(file, text);
  std::fclose(file);
  return reason;
}

bool isLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) || (c & 0x80) != 0; }

// Puts the words of a text into the index, in lower case; false when there is no memory.
bool indexWords(Text& text, Index& index) {
  char* const end = text.bytes_ + text.size_;
  for (char* at = text.bytes_; at != end;) {
    char* const begin = std::find_if(at, end, isLetter);
    at = std::find_if_not(begin, end, isLetter);
    std::transform(begin, at, begin, [](unsigned char c) {
      return static_cast<char>(c < 128 ? std::tolower(c) : c);
    });
    const Key key{begin, static_cast<unsigned>(at - begin)};
    if (key.length_ > 0 && !index.add(key, text.color_)) return false;
  }
  return true;
}

bool load(Text& text, Index& index) {
  const char* reason = read(text);
  if (!reason && !indexWords(text, index)) reason = "no memory for its words";
  if (!reason) return true;
  std::fprintf(stderr, "tour: %s: %s\n", text.name_, reason);
  heap().free(text.bytes_);
  text.bytes_ = nullptr;
  return false;
}

// --- What is shown ---

void showWords(const Index& index) {
  auto words = index.words();
  const auto shown = std::min<std::size_t>(words.size(), 10);
  const auto middle = words.begin() + static_cast<std::ptrdiff_t>(shown);
  std::partial_sort(words.begin(), middle, words.end(), [](const Word* a, const Word* b) {
    return a->count_ != b->count_ ? a->count_ > b->count_ : alphabetical(&a->key_, &b->key_) > 0;
  });
  std::printf("%zu different words, the tree is %u deep; the most frequent:\n", words.size(),
              index.depth());
  for (auto word = words.begin(); word != middle; ++word) {
    std::printf("%8u  %.*s\n", (*word)->count_, static_cast<int>((*word)->key_.length_),
                (*word)->key_.text_);
  }
}

// There are 63 colours beside 0; more files share them.
void showColors(const std::vector<Text>& texts) {
  std::printf("\nColour      Bytes  File\n");
  for (std::size_t i = 0; i < texts.size() && i < 63; i++) {
    const unsigned color = texts[i].color_;
    std::printf("%6u %10u  %s%s\n", color, heap().allocatedColorMemory(color), texts[i].name_,
                i + 63 < texts.size() ? " and others" : "");
  }
  std::printf("\n");
}

// Whether nothing is held any more, under no colour.
bool allIsFree(unsigned atFirst) {
  heap().checkArena();
  for (unsigned color = 1; color < 64; color++) {
    if (heap().allocatedColorMemory(color) != 0) return false;
  }
  return heap().allocatedMemory() == atFirst;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: tour FILE...\n");
    return 2;
  }
  const unsigned atFirst = heap().allocatedMemory();
  Index index;
  std::vector<Text> texts;
  bool allRead = true;
  for (int i = 1; i < argc; i++) {
    texts.push_back({argv[i], 1 + static_cast<unsigned>(i - 1) % 63});
    allRead = load(texts.back(), index) && allRead;
  }
  showWords(index);
  showColors(texts);
  heap().report();

  index.clear();
  for (const Text& text : texts) heap().free(text.bytes_);
  const bool whole = allIsFree(atFirst);
  std::printf("\nFreed: %u bytes are held, as at the start: %u. %s\n", heap().allocatedMemory(),
              atFirst, whole ? "The heap is whole." : "Some are still counted!");
  return allRead && whole ? 0 : 1;
}
