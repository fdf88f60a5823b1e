// SPDX-License-Identifier: MIT
// The names of colours, the table, and the pictures of the heap.
#include "utils/sdk/colors.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "support/assertion_recorder.h"
#include "support/child_process.h"
#include "support/seed.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "utils/sdk/alloc.h"

namespace {

bool _memoryIsRefused = false;

}  // namespace

extern "C" [[gnu::visibility("default")]] void* YIF_MemAlloc(unsigned int size) noexcept {
  return _memoryIsRefused ? nullptr : SystemCalls::real(YIF_MemAlloc, "YIF_MemAlloc")(size);
}

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Utils::BlockInfo;
using Utils::colorName;
using Utils::colorNamed;
using Utils::MemoryAllocator;
using Utils::nameColor;
using Utils::writeHeap;

// Runs before main, and before the static objects of the framework.
struct Early {
  const unsigned color_ = colorNamed("before main");
};

[[gnu::init_priority(200)]] const Early _early;

MemoryAllocator& heap() { return *static_cast<MemoryAllocator*>(Utils::Allocator::theAllocator()); }

std::string outputOf(const std::string& command) {
  std::string output;
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  for (int byte; (byte = std::getc(pipe)) != EOF;) output += static_cast<char>(byte);
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
  return output;
}

Utils::ColorInfo infoOf(unsigned color) {
  Utils::ColorInfo table[64];
  colorTable(table);
  EXPECT_EQ(table[color].size, sizeof table[0]);
  return table[color];
}

// --- Names ---

TEST(Names, AreGivenOnceAndCopied) {
  EXPECT_EQ(_early.color_, 1u);
  EXPECT_STREQ(colorName(1 + 64), "before main");
  expectInChild([] {
    char text[] = "cache";
    (void)heap().alloc(100, 2);
    heap().free(heap().alloc(100, 3));
    const Utils::MemoryColor inUse(4);
    EXPECT_EQ(colorNamed(text), 5u);
    text[0] = 'x';
    EXPECT_EQ(colorNamed("cache"), 5u);
    EXPECT_EQ(colorNamed(nullptr) + colorNamed(""), 0u);
    EXPECT_FALSE(nameColor(64, "default") || nameColor(2, "cache"));
    EXPECT_TRUE(nameColor(2, "taken") && nameColor(5, "store") && nameColor(5, "store"));
    EXPECT_EQ(colorNamed("store"), 5u);
    EXPECT_TRUE(nameColor(5, nullptr));
    EXPECT_EQ(colorName(5), nullptr);
    for (unsigned color = 5; color < 64; color++)
      EXPECT_EQ(colorNamed(std::to_string(color).c_str()), color);
    EXPECT_EQ(colorNamed("one more"), 0u);
    EXPECT_EQ(heap().color(heap().alloc(10)), 4u);
    const Utils::NamedColor scope("63");
    EXPECT_EQ(heap().color(heap().alloc(10)), 63u);
  });
}

TEST(Names, AreCutBetweenCharacters) {
  expectInChild([] {
    const std::string ends[] = {"", "\u00e9", "\u20ac", "\U0001f600", "\x80\x80\x80\x80\x80"};
    for (const std::string& end : ends) {
      for (unsigned size = 26; size < 33; size++) {
        const std::string name = std::string(size, 'n') + end + "rest";
        const unsigned color = colorNamed(name.c_str());
        const bool fits = size + end.size() <= 31 || end[0] == '\x80';
        const std::string kept = fits ? name.substr(0, 31) : name.substr(0, std::min(size, 31u));
        EXPECT_EQ(colorName(color), kept) << size << end;
        EXPECT_EQ(colorNamed(name.c_str()), color);
        nameColor(color, nullptr);
      }
    }
  });
}

// --- The table ---

TEST(Table, HasThePeaksSeen) {
  const auto held = heap().alloc(1000, 0) ? infoOf(0).held : 0;
  void* mem = nullptr;
  {
    const Utils::MemoryColor color(40);
    mem = heap().alloc(3000);
    const Utils::MemoryColor inner(41);
    heap().free(mem);
    heap().free(heap().alloc(50000));
    mem = heap().alloc(2000);
  }
  heap().free(mem);
  EXPECT_EQ(infoOf(40).peak, 3008u);
  EXPECT_EQ(infoOf(41).peak, 2008u);
  EXPECT_EQ(infoOf(41).held + infoOf(41).blocks + infoOf(41).largest, 0u);
  EXPECT_GE(infoOf(0).peak, held);
  mem = heap().alloc(4000, 42);
  void* fromNewChunk = heap().alloc(30 << 20, 43);
  heap().free(mem);
  heap().free(fromNewChunk);
  EXPECT_EQ(infoOf(42).peak, 4008u);
}

// --- The forms ---

struct Totals {
  bool operator==(const Totals&) const = default;

  static Totals now() {
    Totals totals;
    totals.all_ = {heap().allocatedMemory(), heap().internalFree()};
    for (unsigned color = 0; color < 64; color++) {
      totals.all_.push_back(heap().allocatedColorMemory(color));
      totals.all_.push_back(heap().freeColorMemory(color));
    }
    return totals;
  }

  std::vector<unsigned> all_;
};

std::string hexOf(const char* name) {
  std::string hex;
  for (; name && *name; name++) {
    char room[3];
    std::snprintf(room, sizeof room, "%02x", static_cast<unsigned char>(*name));
    hex += room;
  }
  return hex;
}

// Allocates and frees at random, in colours with names of any bytes, and makes chunks with gaps
// between them, and pages that are counted.
void fillAtRandom(Random& random) {
  for (unsigned color = 2; color < 50; color++) {
    std::string name;
    for (unsigned size = random.below(40); size != 0; size--)
      name += static_cast<char>(1 + random.below(random.below(2) == 0 ? 255 : 127));
    nameColor(color, name.c_str());
  }
  nameColor(50, "a<&>\"'\\</script>");
  nameColor(51, "\u00e9\u20ac\U0001f600\uffff\xed\xa0\x80");
  for (unsigned i = 0; i < 500; i++) (void)heap().alloc(131000, i);  // more than was reserved
  std::vector<void*> live;
  for (unsigned step = 0; step < 20000; step++) {
    const unsigned size = random.below(1u << random.below(random.below(10) == 0 ? 19 : 10));
    live.push_back(heap().alloc(size, random.below(64)));
    if (random.below(100) == 0) YIF_MemAlloc(16);
    if (random.below(3) != 0) continue;
    void*& other = live[random.below(static_cast<unsigned>(live.size()))];
    heap().free(other);
    other = live.back();
    live.pop_back();
  }
}

// The totals are those that Python reads from the snapshot, and those of the busy blocks.
void expectTotalsIn(const std::string& json) {
  unsigned held[64] = {}, counted = heap().allocatedMemory();
  EXPECT_TRUE(Utils::visitBlocks([&](const BlockInfo& block) {
    held[block.color] += block.size;
    counted -= block.size;
  }));
  EXPECT_GT(counted, 0u);
  std::string names, expected;
  const auto add = [&](std::initializer_list<unsigned> numbers) {
    for (const unsigned each : numbers) expected += std::to_string(each) + " ";
    expected.back() = '\n';
  };
  for (unsigned color = 0; color < 64; color++) {
    EXPECT_EQ(held[color] + (color == 0 ? counted : 0), heap().allocatedColorMemory(color));
    if (colorName(color))
      names.append(1, ' ')
          .append(std::to_string(color))
          .append(":")
          .append(hexOf(colorName(color)));
    add({color, held[color], heap().freeColorMemory(color)});
  }
  add({sizeof(void*), heap().allocatedMemory(), heap().internalFree(), counted});
  EXPECT_EQ(outputOf(std::string("python3 " HEAP_SUMS " ").append(json).append(names)), expected);
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) found++;
  return found;
}

// The part of a snapshot that does not depend on the time.
std::string afterTime(const std::string& json) { return json.substr(json.find("\"held\"")); }

TEST(Heap, IsWrittenAsItIsAndStaysAsItIs) {
  const TemporaryDirectory directory;
  Random random(20261123);
  expectInChild([&] {
    fillAtRandom(random);
    (void)heap().alloc(1 << 20, 0);  // a new peak
    const Totals before = Totals::now();
    for (const char* name : {"heap.json", "heap.svg", "heap.html", "heap.txt"})
      EXPECT_EQ(writeHeap(directory.pathOf(name).c_str()), 0);
    EXPECT_EQ(Totals::now(), before);
    heap().checkArena();
    expectTotalsIn(directory.pathOf("heap.json"));
    EXPECT_EQ(infoOf(0).peak, infoOf(0).held);
    outputOf("xmllint --noout " + directory.pathOf("heap.svg"));
    const std::string svg = directory.read("heap.svg"), html = directory.read("heap.html");
    EXPECT_THAT(svg, HasSubstr(">a&#60;&#38;&#62;&#34;'\\&#60;/script&#62;: "));
    EXPECT_EQ(count(svg, "<g><title>"), 64u);
    EXPECT_THAT(count(svg, "<rect"), testing::AllOf(testing::Gt(500u), testing::Lt(2300u)));
    EXPECT_EQ(count(svg, "<rect class"), count(svg, "<title>") - 1 + 64);
    for (std::size_t at = svg.find(" x="); at != svg.npos; at = svg.find(" x=", at + 1)) {
      int x = 0, width = 0;
      std::sscanf(svg.c_str() + at, " x=\"%d\" y=\"%*d\" width=\"%d\"", &x, &width);
      EXPECT_LT(x + width, 928);
    }
    const std::string json = afterTime(directory.read("heap.json"));
    EXPECT_THAT(html, HasSubstr("id=\"heap\">{\"version\":1,"));
    EXPECT_THAT(html, HasSubstr(json.substr(0, json.size() - 1)));
    EXPECT_EQ(json.find('<'), json.npos);
    const std::string text = directory.read("heap.txt");
    EXPECT_EQ(count(text, "\n"), 66u);
    EXPECT_THAT(text, HasSubstr("\n\u00e9\u20ac\U0001f600\\xef\\xbf\\xbf\\xed\\xa0\\x80 "));
    EXPECT_THAT(text, testing::EndsWith("; whole\n"));
  });
}

// Leaves free only 10400 bytes at the end of the chain, which become a page.
void endWithAPage() {
  std::vector<BlockInfo> blocks;
  const auto note = [](const BlockInfo& block, void* all) {
    static_cast<std::vector<BlockInfo>*>(all)->push_back(block);
  };
  heap().visitBlocks(note, &blocks);
  ASSERT_EQ(blocks.back().kind, BlockInfo::FREE);
  blocks.back().size -= 10400;
  for (const BlockInfo& each : blocks) {
    if (each.kind == BlockInfo::FREE && each.size > 10000) (void)heap().alloc(each.size - 8);
  }
  for (unsigned i = 0; i < 20; i++) (void)heap().alloc(500);
  heap().visitBlocks(note, &blocks);
  EXPECT_EQ(blocks.back().size, 512u);
}

// The head word is none of the program's memory.
[[gnu::no_sanitize_address]] void damageHead(void* mem) { static_cast<unsigned*>(mem)[-1] = 3; }

TEST(Heap, DrawsOneThatEndsWithAPageAndADamagedOne) {
  const TemporaryDirectory directory;
  const std::string path = directory.pathOf("heap.json");
  expectInChild([&] {
    endWithAPage();
    EXPECT_EQ(writeHeap(path.c_str()), 0);
    outputOf("python3 " HEAP_SUMS " " + path + " 1:" + hexOf("before main"));
    damageHead(heap().alloc(5000));
    EXPECT_EQ(writeHeap(path.c_str()), 0);
    EXPECT_THAT(directory.read("heap.json"), HasSubstr("\"whole\":false"));
    EXPECT_EQ(writeHeap(path.c_str(), "text"), 0);
    EXPECT_THAT(directory.read("heap.json"), HasSubstr("; damaged"));
    EXPECT_EQ(writeHeap(path.c_str(), "svg"), 0);
    outputOf("xmllint --noout " + path);
  });
}

constexpr int INVALID = static_cast<int>(Utils::RESULT_INVALID_ARGUMENT);
constexpr int NOT_WRITTEN = static_cast<int>(Utils::RESULT_FILE_WRITE_ERROR);

TEST(Files, AreReplacedWhenTheyAreWhole) {
  const TemporaryDirectory directory;
  const std::string path = directory.write("heap", "old"), link = directory.pathOf("link");
  EXPECT_EQ(writeHeap(nullptr), INVALID);
  EXPECT_EQ(writeHeap(""), INVALID);
  EXPECT_EQ(writeHeap(path.c_str(), "xml"), INVALID);
  EXPECT_EQ(directory.read("heap"), "old");
  std::filesystem::create_symlink("heap", link);
  EXPECT_EQ(writeHeap(link.c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_THAT(directory.read("heap"), StartsWith("colour "));
  EXPECT_EQ(writeHeap(path.c_str(), "json"), 0);
  EXPECT_THAT(directory.read("heap"), StartsWith("{\"version\""));
  struct stat status;
  stat(path.c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(writeHeap(directory.pathOf("no/heap").c_str()), NOT_WRITTEN);
  std::filesystem::create_symlink("/dev/full", directory.pathOf("full"));
  EXPECT_EQ(writeHeap(directory.pathOf("full").c_str()), NOT_WRITTEN);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.pathOf("")), {}), 3);
}

// --- The setting ---

// The static object is destroyed before the picture is written.
struct Keeper {
  ~Keeper() { heap().free(mem_); }

  void* mem_ = nullptr;
} _keeper;

// These run as processes of their own, with the setting.
TEST(DISABLED_Child, HoldsMemoryToItsEnd) {
  const Utils::NamedColor color("keeper");
  _keeper.mem_ = heap().alloc(3000);
}

TEST(DISABLED_Child, RunsOutOfMemory) {
  const AssertionRecorder recorder;
  _memoryIsRefused = true;
  for (unsigned round = 0; round < 2; round++) {
    while (heap().alloc(1 << 20, 9)) {
    }
    EXPECT_EQ(std::rename("full.txt", "first.txt"), round == 0 ? 0 : -1);
  }
}

TEST(DISABLED_Child, GetsSignals) {
  const std::string process = std::to_string(getpid());
  for (const char* name : {"1", "2"}) {
    const std::string file = "at-" + process + "-" + name + ".json";
    void* small = heap().alloc(500, 9);
    raise(SIGUSR2);
    heap().free(small);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(heap().alloc(500, 9), small);
    EXPECT_TRUE(std::filesystem::exists(file));
  }
  raise(SIGUSR1);
}

// Returns what the child prints.
std::string runChild(const TemporaryDirectory& directory, const std::string& name,
                     const std::string& setting) {
  static const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  return outputOf(
      "cd " + directory.pathOf("") + " && env " + setting + " " + program +
      " --gtest_brief=1 --gtest_also_run_disabled_tests --gtest_filter=DISABLED_Child." + name);
}

TEST(Setting, WritesAtTheEndAfterTheStaticObjects) {
  const TemporaryDirectory directory;
  runChild(directory, "HoldsMemoryToItsEnd", "YUTILS_HEAP='exit:end.json;exit:%p%%%n.svg;'");
  EXPECT_THAT(directory.read("end.json"),
              HasSubstr("\"name\":\"keeper\",\"held\":0,\"peakSeen\":3008,"));
  EXPECT_THAT(outputOf("ls " + directory.pathOf("")),
              testing::MatchesRegex("[0-9]+%%1.svg\nend.json\n"));
  const std::string output = runChild(directory, "HoldsMemoryToItsEnd", "YUtils_Heap=exit:-");
  EXPECT_THAT(output, HasSubstr("\nkeeper "));
  EXPECT_THAT(output, testing::EndsWith("; whole\n"));
}

TEST(Setting, WritesOnceWhenMemoryHasRunOut) {
  const TemporaryDirectory directory;
  runChild(directory, "RunsOutOfMemory", "YUTILS_HEAP=exhausted:full.txt");
  EXPECT_THAT(directory.read("first.txt"), HasSubstr("\ncolour 9 "));
}

TEST(Setting, WritesAfterSignals) {
  const TemporaryDirectory directory;
  runChild(directory, "GetsSignals",
           "YUTILS_HEAP=signal:USR2:at-%p-%n.json,signal:USR1:one,signal:USR1:two.svg");
  EXPECT_THAT(directory.read("one"), StartsWith("colour "));
  EXPECT_THAT(directory.read("two.svg"), StartsWith("<svg "));
}

TEST(Setting, IsReportedOnceIfItIsWrong) {
  const TemporaryDirectory directory;
  for (const char* wrong : {"exit:", "bogus", "signal:NOPE:x", "signal:KILL:x", "signal:USR1"}) {
    const std::string output =
        runChild(directory, "HoldsMemoryToItsEnd",
                 std::string("YUTILS_HEAP='x,").append(wrong).append(",exit:end'"));
    EXPECT_EQ(count(output, "yutils: "), 1u) << output;
    EXPECT_THAT(output, HasSubstr("YUTILS_HEAP: \"x\" is not used; expected"));
    EXPECT_TRUE(std::filesystem::remove(directory.pathOf("end")));
  }
  const std::string output = runChild(directory, "HoldsMemoryToItsEnd", "YUTILS_HEAP=exit:no/x");
  EXPECT_THAT(output, HasSubstr("yutils: the heap cannot be written to no/x\n"));
}

}  // namespace
