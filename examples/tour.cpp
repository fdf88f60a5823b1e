// SPDX-License-Identifier: MIT
// The words of text files, counted with the library.
//
//   tour [--picture PICTURE] FILE...
//
// Several tasks read the files, each into one String with a memory colour of its own, which has the
// name of the file. The main task receives them in their order, finds the words with tokSpan,
// indexes them in a weight-balanced tree, whose nodes and words lie in memory of the same colour,
// and counts them again in a map. Prints the most frequent words, the bytes that each file holds,
// the time of each step and the allocator's own report; then frees everything and checks that heap
// and strings are as at the start. With --picture the heap is written to PICTURE before that
// (writeHeap in colors.h). A file that cannot be read is reported on standard error and raised as
// an error, which a listener counts; the status is then 1.
//
// The log shows the steps: env YUtils.Log.Categories=tour#2 tour FILE... It also shows the use of
// the mutex of the queue: env YUtils.Log.Categories=utils#2 tour FILE...
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "utils/sdk/alloc.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/block.h"
#include "utils/sdk/colors.h"
#include "utils/sdk/event.h"
#include "utils/sdk/locker.h"
#include "utils/sdk/log.h"
#include "utils/sdk/result.h"
#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"
#include "utils/sdk/vector.h"
#include "utils/sdk/wtree.h"
#include "utils/sdk/ysys.h"

namespace {

using Utils::Log;
using Utils::MemoryAllocator;
using Utils::String;
using Utils::SubString;
using Utils::Time;

constexpr char CATEGORY[] = "tour";
constexpr char SOURCE[] = "examples/tour.cpp";

// The process allocator, which is an arena that can be walked.
MemoryAllocator& heap() { return *static_cast<MemoryAllocator*>(Utils::Allocator::theAllocator()); }

// --- The index and the map ---

// The number of uses of each word. Its strings are those of the index, shared.
using Counts = Utils::AVLTree<String, unsigned>;

// The key lies directly after the node, where the tree expects it.
struct Word : Utils::WTreeNodeBase {
  explicit Word(const SubString& text) : text_(text) {}

  String text_;
  unsigned count_ = 1;
};

int alphabetical(const void* a, const void* b) {
  return static_cast<const String*>(b)->compare(*static_cast<const String*>(a));
}

struct Index : Utils::WTreeBase {
  Word* find(const SubString& text) const {
    for (auto* node = top(); node;) {
      auto* word = static_cast<Word*>(node);
      // Compares at most as many characters as the range has.
      const int order = text.compare(word->text_);
      if (order == 0 && word->text_.size() == text.size()) return word;
      node = order < 0 ? node->right() : node->left();
    }
    return nullptr;
  }

  // Counts one more use, in memory of the default colour. Returns false if there is none.
  bool add(const SubString& text) {
    Word* word = find(text);
    if (word) {
      word->count_++;
    } else if (!(word = addNew(text))) {
      return false;
    }
    const auto count = counts_[word->text_];
    if (count.valid()) count.value()++;
    return count.valid();
  }
  std::vector<const Word*> words() const {
    std::vector<const Word*> all;
    for (auto* node = minNode(); node; node = nextNode(node, alphabetical))
      all.push_back(static_cast<const Word*>(node));
    return all;
  }

  const Counts& counts() const { return counts_; }

  void clear() {
    counts_.empty();
    while (auto* node = top()) release(static_cast<Word*>(remove(node, alphabetical)));
  }

 private:
  Word* addNew(const SubString& text) {
    void* block = heap().alloc(sizeof(Word));
    if (!block) return nullptr;
    Word* word = new (block) Word(text);
    if (word->text_.size() == text.size() && insert(word, alphabetical)) return word;
    release(word);
    return nullptr;
  }
  static void release(Word* word) {
    word->~Word();
    heap().free(word);
  }

  Counts counts_;
};

// --- The files ---

constexpr unsigned OUT_OF_MEMORY = 0x80000002;
constexpr unsigned FILE_NOT_FOUND = 0x80040001;
constexpr unsigned FILE_READ_ERROR = 0x80040002;

// Reads a whole file, without the library: several tasks read at the same time. Returns 0 or the
// error number.
int readBytes(const char* name, std::string& bytes) {
  std::FILE* file = std::fopen(name, "rb");
  if (!file) return errno;
  char part[16384];
  while (const std::size_t got = std::fread(part, 1, sizeof part, file)) bytes.append(part, got);
  const int error = std::ferror(file) ? errno : 0;
  std::fclose(file);
  return error;
}

// The characters between words: all that are no letters.
String delimiters() {
  String set;
  for (int c = 1; c < 128; c++) {
    if (!std::isalpha(c)) set += static_cast<char>(c);
  }
  return set;
}

// Adds the words of a text to the index. Returns false if there is no memory.
bool indexWords(String& text, Index& index) {
  const String between = delimiters();
  unsigned start = 0;
  for (unsigned end = 0; text.tokSpan(between, end, start, end);) {
    if (!index.add(text(start, end - start))) return false;
  }
  return true;
}

// The files of the command line, by their index, and the tasks that read them.
//
// The library asks its callers to serialise: while the readers run, every task that uses it holds
// library_. Within it, queue_ guards the texts that are handed over. library_ alone would suffice;
// queue_ is there because its steps appear in the log. The log needs serialised calls, too.
struct Files {
  Files(unsigned count, char** names) : count_(count), names_(names), errors_(count) {
    texts_.sizeTo(count);
    for (unsigned i = 0; i < count; i++) read_.add(false);
    for (unsigned i = 0; i < count && i < 63; i++) Utils::nameColor(colorOf(i), names[i]);
    for (unsigned i = 0; i < std::min(count, MOST_READERS); i++)
      readers_.emplace_back([this] { readAll(); });
  }
  ~Files() {
    for (std::thread& reader : readers_) reader.join();
  }

  // There are 63 colours besides 0; more files share them.
  static unsigned colorOf(unsigned i) { return 1 + i % 63; }

  unsigned count() const { return count_; }
  const char* name(unsigned i) const { return names_[i]; }

  // Waits for a file and adds its words to the index. Raises and reports an error.
  bool load(unsigned i, Index& index) {
    while (!isRead(i)) arrived_.wait();
    const Utils::YtLightBLocker guard(library_);
    const Utils::MemoryColor color(colorOf(i));
    texts_[i].toLower();
    if (errors_[i] == 0 && !indexWords(texts_[i], index)) errors_[i] = ENOMEM;
    const char* outcome = errors_[i] == 0 ? "all in the index" : std::strerror(errors_[i]);
    Log::theLog()->print(Utils::Debug, CATEGORY, 2, SOURCE, __LINE__, "%s: %u bytes, %s", name(i),
                         texts_[i].size(), outcome);
    if (errors_[i] == 0) return true;
    Utils::raiseError(codeOf(errors_[i]));
    std::fprintf(stderr, "tour: %s: %s\n", name(i), outcome);
    texts_[i] = String();
    return false;
  }

 private:
  static constexpr unsigned MOST_READERS = 4;

  static unsigned codeOf(int error) {
    if (error == ENOMEM) return OUT_OF_MEMORY;
    return error == ENOENT ? FILE_NOT_FOUND : FILE_READ_ERROR;
  }

  // The body of each reader.
  void readAll() {
    for (unsigned i = next_++; i < count_; i = next_++) {
      std::string bytes;
      const int error = readBytes(names_[i], bytes);
      handOver(i, bytes, error);
      arrived_.set();
    }
  }

  void handOver(unsigned i, const std::string& bytes, int error) {
    const Utils::YtLightBLocker guard(library_);
    const Utils::MemoryColor color(colorOf(i));
    const String text{std::string_view(bytes)};
    const Utils::Locker locker(&queue_, SOURCE, __LINE__);
    errors_[i] = error == 0 && text.size() != bytes.size() ? ENOMEM : error;
    texts_[i] = text;
    read_[i] = true;
  }

  bool isRead(unsigned i) {
    const Utils::YtLightBLocker guard(library_);
    const Utils::Locker locker(&queue_, SOURCE, __LINE__);
    return read_[i];
  }

  const unsigned count_;
  char** const names_;
  std::vector<int> errors_;
  Utils::Vector<String> texts_;
  Utils::Vector<bool> read_;
  Utils::YtLightBLock library_{"library"};
  Utils::Mutex queue_;
  Utils::WaitableEvent arrived_{false, false};
  std::atomic<unsigned> next_{0};
  std::vector<std::thread> readers_;
};

// --- The output ---

// Shows the time since the last call, with the name of the step.
struct Clock {
  void show(const char* step) {
    const double now = YIF_CurrentTime();
    Time took(now - last_);
    std::printf("%-10s %8.4f s\n", step, static_cast<double>(took));
    Log::theLog()->print(Utils::Debug, CATEGORY, 1, SOURCE, __LINE__, "%s is done", step);
    last_ = now;
  }

  double last_ = YIF_CurrentTime();
};

void showWords(const Index& index) {
  auto words = index.words();
  const auto shown = std::min<std::size_t>(words.size(), 10);
  const auto middle = words.begin() + static_cast<std::ptrdiff_t>(shown);
  std::partial_sort(words.begin(), middle, words.end(), [](const Word* a, const Word* b) {
    return a->count_ != b->count_ ? a->count_ > b->count_ : a->text_ < b->text_;
  });
  std::printf("%zu different words, the tree is %u deep; the most frequent:\n", words.size(),
              index.depth());
  for (auto word = words.begin(); word != middle; ++word)
    std::printf("%8u  %s\n", (*word)->count_, static_cast<const char*>((*word)->text_));
}

void showCounts(const Counts& counts) {
  unsigned words = 0, uses = 0;
  const Counts::Node *first = nullptr, *last = nullptr;
  for (const auto& entry : counts) {
    if (!first) first = &entry;
    last = &entry;
    words++;
    uses += entry.value();
  }
  if (words == 0) return;
  std::printf("The map has the same: %u words, used %u times, from \"%s\" to \"%s\".\n", words,
              uses, static_cast<const char*>(first->key()), static_cast<const char*>(last->key()));
}

void showColors(const Files& files) {
  std::printf("\nColour      Bytes  File\n");
  const unsigned count = files.count();
  for (unsigned i = 0; i < count && i < 63; i++) {
    const unsigned color = Files::colorOf(i);
    std::printf("%6u %10u  %s%s\n", color, heap().allocatedColorMemory(color), files.name(i),
                i + 63 < count ? " and others" : "");
  }
  std::printf("Strings hold %u bytes of it.\n\n", Utils::YfTotalStringMemory());
}

// Counts the errors that are raised.
struct ErrorCount : Utils::ResultListener {
  void errorRaised(unsigned) const override { count_++; }

  mutable unsigned count_ = 0;
};

// The memory that was held when the program began.
struct Held {
  bool isAgain() const {
    heap().checkArena();
    for (unsigned color = 1; color < 64; color++) {
      if (heap().allocatedColorMemory(color) != 0) return false;
    }
    return heap().allocatedMemory() == memory_ && Utils::YfTotalStringMemory() == strings_;
  }

  unsigned memory_ = heap().allocatedMemory();
  unsigned strings_ = Utils::YfTotalStringMemory();
};

// Writes the heap as it is with all files read. Returns false, and reports it, if that fails.
bool draw(const char* picture) {
  const int result = picture ? Utils::writeHeap(picture) : 0;
  if (result == 0) return true;
  std::fprintf(stderr, "tour: %s: %s\n", picture,
               Utils::resultToString(static_cast<unsigned>(result)));
  return false;
}

bool tour(unsigned count, char** names, const char* picture) {
  Index index;
  Clock clock;
  Files files(count, names);
  bool allRead = true;
  for (unsigned i = 0; i < count; i++) allRead = files.load(i, index) && allRead;
  showWords(index);
  showCounts(index.counts());
  showColors(files);
  heap().report();
  const bool isDrawn = draw(picture);
  std::printf("\n");
  clock.show("Reading");
  index.clear();
  clock.show("Freeing");
  return allRead && isDrawn;
}

}  // namespace

int main(int argc, char** argv) {
  const char* picture = nullptr;
  if (argc > 2 && std::strcmp(argv[1], "--picture") == 0) {
    picture = argv[2];
    argc -= 2;
    argv += 2;
  }
  if (argc < 2) {
    std::fprintf(stderr, "usage: tour [--picture PICTURE] FILE...\n");
    return 2;
  }
  // Created before the first count, since they stay: log, categories, last error, listeners.
  ErrorCount errors;
  Utils::addResultListener(&errors);
  Utils::clearError();
  Log::theLog()->getCategory("utils");
  Log::theLog()->print(Utils::Debug, CATEGORY, 1, SOURCE, __LINE__, "%d files", argc - 1);
  const Held atFirst;
  std::printf("Run %s\n", static_cast<const char*>(Utils::UID().asText()));
  const bool allRead = tour(static_cast<unsigned>(argc) - 1, argv + 1, picture);
  if (errors.count_ != 0) {
    std::printf("\nErrors: %u, the last one: %s.\n", errors.count_,
                Utils::resultToString(Utils::lastError()));
  }
  const bool whole = atFirst.isAgain();
  std::printf(
      "\nFreed: %u bytes are held, as at the start: %u; %u by strings, as at the start: %u. %s\n",
      heap().allocatedMemory(), atFirst.memory_, Utils::YfTotalStringMemory(), atFirst.strings_,
      whole ? "The heap is whole." : "Some bytes are still held!");
  Utils::removeResultListener(&errors);
  return allRead && whole ? 0 : 1;
}
