// SPDX-License-Identifier: MIT
// The reports of damaged blocks.
//
// A report is put together on the stack and goes out whole, by one call of the debugger channel
// (platform.h). Any word of a block may be damaged: each is read only where the chain has memory.
#include <cstdarg>
#include <cstdio>

#include "utils/sdk/memory/chain.h"
#include "utils/sdk/memory/color_names.h"
#include "utils/sdk/memory/page.h"
#include "utils/sdk/platform.h"
#include "utils/sdk/ysys.h"

namespace Utils {

namespace {

class Report {
 public:
  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const int added = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, args);
    va_end(args);
    if (added > 0) length_ += static_cast<unsigned>(added);
    if (length_ >= sizeof text_) length_ = sizeof text_ - 1;
  }

  // Adds a block's address, size and state.
  void addBlock(const void* head) {
    const unsigned word = wordAt(head);
    const unsigned color = colorOf(word);
    add("%p, %u bytes, %s", offsetBy(head, 4), sizeOf(word), isBusy(word) ? "busy" : "free");
    if (isBusy(word)) add(", colour %u", color);
    if (isBusy(word) && colorName(color)) add(" (%s)", colorName(color));
    add("\n");
  }

  void print(const char* condition, const char* source, unsigned line) {
    OutputDebugStringA(text_);
    if (source) YfAssert__(condition, source, line);
  }

 private:
  char text_[768];
  unsigned length_ = 0;
};

// The block of a page that begins at `head`, or whose bytes are there.
struct InPage {
  InPage(const void* page, const void* head) {
    const SmallBlocks smalls(offsetBy(page, 4), isBusy(wordAt(page)) ? sizeOf(wordAt(page)) : 0);
    if (smalls.count_ == 0 || addressOf(head) < addressOf(smalls.first_)) return;
    const std::uintptr_t offset = addressOf(head) - addressOf(smalls.first_);
    if (offset / smalls.size_ >= smalls.count_) return;
    size_ = smalls.size_;
    if (offset >= size_) before_ = offsetBy(smalls.first_, (offset / size_ - 1) * size_);
  }

  unsigned size_ = 0;             // 0 if there is none
  const void* before_ = nullptr;  // the small block before it
};

// Adds the word of the block that disagrees with the others.
void addWrongWord(Report& report, const Chain& chain, const void* head, const InPage& page) {
  const unsigned word = wordAt(head);
  const unsigned size = sizeOf(word);
  if (page.size_ != 0 && size != page.size_) {
    report.add(
        "heap:   head word 0x%08x, expected the size of its page's blocks, %u: written past "
        "the end of the block before it?\n",
        word, page.size_);
  } else if (!chain.canBeHead(head)) {
    report.add(
        "heap:   head word 0x%08x, expected a size that is a multiple of 8 and ends in the "
        "arena: written past the end of the block before it?\n",
        word);
  } else if (page.size_ == 0 && wordAt(offsetBy(head, size - 4)) != size + 1) {
    report.add("heap:   tail word 0x%08x, expected 0x%08x: written past the end of the block?\n",
               wordAt(offsetBy(head, size - 4)), size + 1);
  } else if (isBusy(word)) {
    report.add("heap:   its head and tail agree, but the arena's free blocks do not\n");
  } else {
    report.add(
        "heap:   it is free, expected busy or whole links: freed twice, or written after it "
        "was freed?\n");
  }
}

}  // namespace

void brokenBlock(const Chain& chain, const char* condition, const char* source, unsigned line,
                 const void* head) {
  Report report;
  const void* before = chain.blockBefore(head);
  const InPage page(before, head);
  if (page.before_) before = page.before_;
  report.add("heap: damaged block at ");
  report.addBlock(head);
  addWrongWord(report, chain, head, page);
  if (before != head) {
    report.add("heap:   the block before it is at ");
    report.addBlock(before);
  }
  report.print(condition, source, line);
}

void strayBlock(const Chain& chain, const char* condition, const char* source, unsigned line,
                const void* head) {
  Report report;
  report.add("heap: no block can be at %p, expected an address of %p to %p\n", offsetBy(head, 4),
             chain.first_, chain.end_);
  report.print(condition, source, line);
}

void wrongTotals(const char* condition, const char* source, unsigned line) {
  Report report;
  report.add("heap: the totals of free memory are not the sums of the free blocks\n");
  report.print(condition, source, line);
}

}  // namespace Utils
