// SPDX-License-Identifier: MIT
// The heap as JSON, and as a page that contains the same JSON.
//
// {"version":1,"pointer":8,"process":1234,"time":"2026-11-23T15:00:00Z",
//  "held":N,"free":N,"allocated":N,"pages":N,"whole":true,
//  "colors":[{"color":7,"name":"cache","held":N,"peakSeen":N,"blocks":N,"largest":N,"free":N},...],
//  "first":"0x7f20c0de0408","chain":[[offset,size,color,kind,"hex"],...]}
//
// `held` is the sum over the colours: `allocated` less the pages that are counted there. `pages`
// are the bytes of pages outside of their small blocks. The chain has all blocks in ascending
// order, and after a page its small blocks. An offset is that of a block's memory from the memory
// of the first block, whose address is `first`. The kind is that of BlockInfo: 0 busy, 1 free, 2
// page, 3 page that is counted, 4 gap. Busy blocks have their first bytes, at most 16.
#include "utils/sdk/heap/forms.h"
#include "utils/sdk/heap/names.h"
#include "utils/sdk/platform.h"

namespace Utils {

namespace {

static_assert(BlockInfo::BUSY == 0 && BlockInfo::FREE == 1 && BlockInfo::PAGE == 2 &&
              BlockInfo::COUNTED_PAGE == 3 && BlockInfo::GAP == 4);

constexpr unsigned SHOWN_BYTES = 16;

// Writes `"key":number`.
void putMember(Output& out, const char* key, unsigned long long number) {
  out.put('"');
  out.text(key);
  out.text("\":");
  out.number(number);
}

void putTotals(Output& out, const Snapshot& heap) {
  out.print("{\"version\":1,\"pointer\":%u,\"process\":%lu,\"time\":\"",
            static_cast<unsigned>(sizeof(void*)), YfProcessId());
  putTime(out);
  out.text("\",\n");
  putMember(out, "held", heap.held_);
  out.put(',');
  putMember(out, "free", heap.free_);
  out.put(',');
  putMember(out, "allocated", heap.allocated_);
  out.put(',');
  putMember(out, "pages", heap.pages_);
  out.text(heap.isWhole_ ? ",\"whole\":true,\n" : ",\"whole\":false,\n");
}

void putColor(Output& out, const ColorInfo& entry) {
  out.text("\n{");
  putMember(out, "color", entry.color);
  out.text(",\"name\":");
  if (entry.name) putJsonText(out, entry.name);
  if (!entry.name) out.text("null");
  const struct {
    const char* key;
    unsigned long long number;
  } members[] = {{"held", entry.held},
                 {"peakSeen", entry.peak},
                 {"blocks", entry.blocks},
                 {"largest", entry.largest},
                 {"free", entry.free}};
  for (const auto& each : members) {
    out.put(',');
    putMember(out, each.key, each.number);
  }
  out.put('}');
}

// The bytes may belong to another task, which writes them at this moment.
void putFirstBytes(Output& out, const BlockInfo& block) {
  const auto* bytes = static_cast<const volatile unsigned char*>(block.memory);
  const unsigned usable = block.size - OVERHEAD;
  out.text(",\"");
  for (unsigned i = 0; i < SHOWN_BYTES && i < usable; i++) out.hex(bytes[i]);
  out.put('"');
}

// Writes the blocks as elements of an array, separated by line ends.
struct ChainText {
  void put(const BlockInfo& block) {
    if (!first_) first_ = static_cast<const char*>(block.memory);
    if (block.memory != first_) out_.put(',');
    out_.text("\n[");
    out_.number(static_cast<unsigned long long>(static_cast<const char*>(block.memory) - first_));
    const unsigned numbers[] = {block.size, block.color, block.kind};
    for (const unsigned number : numbers) {
      out_.put(',');
      out_.number(number);
    }
    if (block.kind == BlockInfo::BUSY) putFirstBytes(out_, block);
    out_.put(']');
  }

  Output& out_;
  const char* first_ = nullptr;
};

}  // namespace

void writeJson(Output& out, const Snapshot& heap) {
  putTotals(out, heap);
  out.text("\"colors\":[");
  bool isFirst = true;
  for (const ColorInfo& entry : heap.colors_) {
    if (!heap.isShown(entry.color)) continue;
    if (!isFirst) out.put(',');
    isFirst = false;
    putColor(out, entry);
  }
  out.print("],\n\"first\":\"0x%llx\",\n\"chain\":[",
            heap.first_ ? static_cast<unsigned long long>(addressOf(heap.first_) + 4) : 0ull);
  ChainText chain{out};
  const auto put = [](const BlockInfo& block, void* text) {
    static_cast<ChainText*>(text)->put(block);
  };
  Snapshot::heap().visitBlocks(put, &chain);
  out.text("]}\n");
}

void writeHtml(Output& out, const Snapshot& heap) {
  out.text(HEAP_PAGE_START);
  writeJson(out, heap);
  out.text(HEAP_PAGE_END);
}

}  // namespace Utils
