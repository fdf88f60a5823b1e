// SPDX-License-Identifier: MIT
// The heap as a picture: a bar for each colour, and below them the memory of the chain as cells.
//
// The cells fill rows of 64. A cell stands for the same number of bytes everywhere, so many that at
// most 2048 cells reach to the last byte that is not free; it has the hue of the colour that most
// of its bytes have, paler if these are free. Neighbours in a row that look alike are one
// rectangle. Example: 20 MiB that are used to the end are cells of 10240 bytes.
//
// One hue differs from the next colour's by the golden angle, 587 of 1536 steps around the circle.
#include <algorithm>

#include "utils/sdk/heap/forms.h"
#include "utils/sdk/heap/names.h"
#include "utils/sdk/platform.h"

namespace Utils {

namespace {

constexpr unsigned WIDTH = 960, MARGIN = 32;
constexpr unsigned BARS_TOP = 96, BAR_STEP = 22, BAR_HEIGHT = 14;
constexpr unsigned NAME_LEFT = 52, BAR_LEFT = 284, BAR_WIDTH = 380, NUMBERS_LEFT = 676;
constexpr unsigned COLUMNS = 64, MOST_CELLS = 32 * COLUMNS, CELL = 14;
constexpr unsigned SMALLEST_CELL = 64;
static_assert(MARGIN + COLUMNS * CELL + MARGIN == WIDTH);

// --- The hues ---

// Returns the part of a primary colour in a hue of 0 to 1535, as 0 to 255. The primary colour is at
// its most 256 steps before and after `hue` 0.
unsigned partIn(unsigned hue) {
  const unsigned distance = hue < 768 ? hue : 1536 - hue;
  if (distance <= 256) return 255;
  return distance >= 512 ? 0 : 511 - distance;
}

struct Rgb {
  explicit Rgb(unsigned color) {
    const unsigned hue = color * 587 % 1536;
    for (unsigned i = 0; i < 3; i++) parts_[i] = color == 0 ? 128 : partIn((hue + i * 1024) % 1536);
  }
  // Moves every part into the range from `low` to `high`.
  Rgb between(unsigned low, unsigned high) const {
    Rgb moved = *this;
    for (unsigned& part : moved.parts_) part = low + part * (high - low) / 255;
    return moved;
  }

  unsigned parts_[3];
};

void putFill(Output& out, char kind, unsigned color, const Rgb& rgb) {
  out.print(".%c%u{fill:#%02x%02x%02x}\n", kind, color, rgb.parts_[0], rgb.parts_[1],
            rgb.parts_[2]);
}

void putStyle(Output& out, const unsigned char* colors, unsigned count) {
  out.text(
      "<style>\ntext{font:13px system-ui,sans-serif;fill:#222}\n.h{font-size:18px;"
      "font-weight:600}\n.q{fill:#555}\n.g{fill:#8a8a8a}\n.x{fill:#fff;stroke:#bbb}\n"
      ".k{fill:none;stroke:#444;stroke-width:2}\n");
  for (unsigned i = 0; i < count; i++) {
    const Rgb rgb(colors[i]);
    putFill(out, 'b', colors[i], colors[i] % 2 == 0 ? rgb.between(40, 190) : rgb.between(60, 225));
    putFill(out, 'f', colors[i], rgb.between(205, 248));
  }
  out.text("</style>\n");
}

// --- The bars ---

void putText(Output& out, const char* kind, unsigned x, unsigned y) {
  out.print("<text class=\"%s\" x=\"%u\" y=\"%u\">", kind, x, y);
}

void putName(Output& out, unsigned color) {
  NameRoom room;
  putXmlText(out, shownName(color, room));
}

void putTooltip(Output& out, const ColorInfo& entry) {
  out.text("<title>");
  putName(out, entry.color);
  out.text(": ");
  out.bytes(entry.held);
  out.print(" in %llu blocks, the largest ", entry.blocks);
  out.bytes(entry.largest);
  out.text("; peak seen ");
  out.bytes(entry.peak);
  out.text("; free ");
  out.bytes(entry.free);
  out.text("</title>");
}

unsigned barFor(unsigned long long bytes, unsigned long long most) {
  return most == 0 ? 0 : static_cast<unsigned>(bytes * BAR_WIDTH / most);
}

void putRectangle(Output& out, unsigned color, unsigned left, unsigned top, unsigned width) {
  out.print("<rect class=\"b%u\" x=\"%u\" y=\"%u\" width=\"%u\" height=\"%u\"/>", color, left, top,
            width, BAR_HEIGHT);
}

// The hue, the name, the bytes held as a bar, the peak seen as a mark, and both as numbers.
void putBar(Output& out, const ColorInfo& entry, unsigned top, unsigned long long most) {
  out.text("<g>");
  putTooltip(out, entry);
  putRectangle(out, entry.color, MARGIN, top, BAR_HEIGHT);
  putText(out, "t", NAME_LEFT, top + 12);
  putName(out, entry.color);
  out.text("</text>");
  putRectangle(out, entry.color, BAR_LEFT, top, barFor(entry.held, most));
  out.print("<path class=\"k\" d=\"M%u %uv%u\"/>", BAR_LEFT + barFor(entry.peak, most), top - 1,
            BAR_HEIGHT + 2);
  putText(out, "t", NUMBERS_LEFT, top + 12);
  out.bytes(entry.held);
  out.text("</text>");
  putText(out, "q", NUMBERS_LEFT + 88, top + 12);
  out.text("peak seen ");
  out.bytes(entry.peak);
  out.text("</text></g>\n");
}

// --- The cells ---

// The bytes of one cell by their looks: class b or f and a colour, class g for pages, class x for
// gaps and for what lies after the last piece.
struct CellBytes {
  struct Look {
    bool operator==(const Look&) const = default;
    char class_;
    unsigned color_;
  };

  void add(const Piece& piece, unsigned long long bytes) {
    if (piece.kind == BlockInfo::BUSY) busy_[piece.color] += bytes;
    if (piece.kind == BlockInfo::FREE) free_[piece.color] += bytes;
    if (piece.kind == BlockInfo::PAGE) page_ += bytes;
    if (piece.kind == BlockInfo::GAP) gap_ += bytes;
  }
  Look look() const {
    Look look = {'x', 0};
    unsigned long long most = gap_;
    choose(look, most, {'g', 0}, page_);
    for (unsigned color = 0; color < COLORS; color++) {
      choose(look, most, {'f', color}, free_[color]);
      choose(look, most, {'b', color}, busy_[color]);
    }
    return look;
  }

 private:
  static void choose(Look& look, unsigned long long& most, Look other, unsigned long long bytes) {
    if (bytes == 0 || bytes < most) return;
    look = other;
    most = bytes;
  }

  unsigned long long busy_[COLORS] = {}, free_[COLORS] = {}, page_ = 0, gap_ = 0;
};

struct Cells {
  Cells(Output& out, const Snapshot& heap, unsigned top)
      : out_(out), heap_(heap), top_(top), bytes_(bytesFor(heap.used_)) {}

  static unsigned long long bytesFor(unsigned long long used) {
    const unsigned long long bytes =
        ((used + MOST_CELLS - 1) / MOST_CELLS + ALIGN - 1) / ALIGN * ALIGN;
    return std::max<unsigned long long>(bytes, SMALLEST_CELL);
  }
  unsigned rows() const {
    const unsigned long long row = COLUMNS * bytes_;
    return static_cast<unsigned>((heap_.used_ + row - 1) / row);
  }

  // The bytes after heap_.used_ are free and not shown.
  void add(const Piece& piece) {
    unsigned long long left = std::min<unsigned long long>(piece.size, heap_.used_ - at_);
    while (left != 0) {
      const unsigned long long part = std::min(left, bytes_ - at_ % bytes_);
      cell_.add(piece, part);
      at_ += part;
      left -= part;
      if (at_ % bytes_ == 0) endCell();
    }
  }
  void end() {
    if (at_ % bytes_ != 0) endCell();
    endRun();
  }

 private:
  void endCell() {
    const CellBytes::Look look = cell_.look();
    if (count_ % COLUMNS == 0 || !(look == look_)) endRun();
    look_ = look;
    count_++;
    cell_ = CellBytes();
  }
  void endRun() {
    if (count_ != runStart_) putRun();
    runStart_ = count_;
  }
  void putRun() {
    const unsigned cells = count_ - runStart_;
    out_.print("<rect class=\"%c", look_.class_);
    if (look_.class_ == 'b' || look_.class_ == 'f') out_.number(look_.color_);
    out_.print("\" x=\"%u\" y=\"%u\" width=\"%u\" height=\"%u\">",
               MARGIN + runStart_ % COLUMNS * CELL, top_ + runStart_ / COLUMNS * CELL,
               cells * CELL - 1, CELL - 1);
    putPlace(cells * bytes_);
  }
  void putPlace(unsigned long long bytes) {
    out_.text("<title>");
    if (look_.class_ == 'f') out_.text("free, was ");
    if (look_.class_ == 'b' || look_.class_ == 'f') putName(out_, look_.color_);
    if (look_.class_ == 'g') out_.text("page");
    if (look_.class_ == 'x') out_.text("gap");
    out_.text(": ");
    out_.bytes(bytes);
    out_.print(" at 0x%llx</title></rect>\n", addressOf(heap_.first_) + runStart_ * bytes_);
  }

  Output& out_;
  const Snapshot& heap_;
  const unsigned top_;
  const unsigned long long bytes_;
  unsigned long long at_ = 0;
  unsigned count_ = 0;
  unsigned runStart_ = 0;
  CellBytes::Look look_ = {'x', 0};
  CellBytes cell_;
};

void putCells(Output& out, const Snapshot& heap, unsigned top) {
  Cells cells(out, heap, top + 40);
  putText(out, "h", MARGIN, top);
  out.text("Where it lies</text>\n");
  putText(out, "q", MARGIN, top + 22);
  out.text("a cell is ");
  out.bytes(Cells::bytesFor(heap.used_));
  out.text("; paler is free, grey is the bookkeeping of pages; ");
  out.bytes(heap.span_ - heap.used_);
  out.text(" after the cells are free</text>\n");
  Snapshot::visitPieces([&](const Piece& piece) { cells.add(piece); });
  cells.end();
}

void putHead(Output& out, const Snapshot& heap) {
  putText(out, "h", MARGIN, 42);
  out.print("Heap of process %lu</text>\n", YfProcessId());
  putText(out, "q", MARGIN, 68);
  out.bytes(heap.held_);
  out.text(" held, ");
  out.bytes(heap.free_);
  out.text(" free, ");
  out.bytes(heap.pages_);
  out.print(" of pages; %s; ", heap.isWhole_ ? "whole" : "damaged");
  putTime(out);
  out.text("</text>\n");
}

}  // namespace

void writeSvg(Output& out, const Snapshot& heap) {
  unsigned char colors[COLORS];
  const unsigned count = sortColors(heap, colors);
  const unsigned cellsTop = BARS_TOP + count * BAR_STEP + 36;
  const unsigned height = cellsTop + 40 + Cells(out, heap, 0).rows() * CELL + MARGIN;
  out.print("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %u %u\" width=\"%u\" ", WIDTH,
            height, WIDTH);
  out.print("height=\"%u\" role=\"img\">\n<title>Heap of process %lu</title>\n", height,
            YfProcessId());
  putStyle(out, colors, count);
  out.print("<rect width=\"%u\" height=\"%u\" fill=\"#fff\"/>\n", WIDTH, height);
  putHead(out, heap);
  unsigned long long most = 0;
  for (const ColorInfo& entry : heap.colors_) most = std::max({most, entry.held, entry.peak});
  for (unsigned i = 0; i < count; i++)
    putBar(out, heap.colors_[colors[i]], BARS_TOP + i * BAR_STEP, most);
  putCells(out, heap, cellsTop);
  out.text("</svg>\n");
}

}  // namespace Utils
