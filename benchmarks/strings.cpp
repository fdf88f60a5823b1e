// SPDX-License-Identifier: MIT
// The time of the usual work on texts: copying, constructing, appending, searching,
// comparing, taking ranges and tokenising.
//
// The peers of the library's String are std::string and, if sharing or the heap decides, the shared
// QByteArray and QString. The texts are the sources of this project, one after the other; the text
// that is searched for is at the very end, and two texts that are ordered differ in their last
// byte. Texts that are compared lie in separate buffers, the same ones for each competitor. Each
// side is used as its users would.
//
// Appending is timed per call, with constructing and destroying the text. Tokenising is timed per
// text: std::string with a copy of each token, since its users keep copies, and the library with
// two positions, which its tokeniser returns.
#include <QByteArray>
#include <QString>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "benchmarks/support/lines.h"
#include "utils/sdk/string.h"

namespace Bench {

namespace {

using Utils::String;

constexpr unsigned MEGABYTE = 1000000;
constexpr char LAST_CHARACTER = '\x7f';
constexpr char DELIMITERS[] = " \t\n(){};,.";

std::string _sources;  // MEGABYTE bytes of them

// A phrase that does not occur in this file.
std::string lastWords() { return std::string("the last words") + " of the text"; }

// --- The operations of all competitors, under one name ---

template <class Text>
Text make(const std::string& s) {
  return Text(s.data(), static_cast<int>(s.size()));
}
template <>
std::string make<std::string>(const std::string& s) {
  return s;
}
template <>
String make<String>(const std::string& s) {
  return String(s);
}
template <>
QString make<QString>(const std::string& s) {
  return QString::fromStdString(s);
}

void writeInto(std::string& s) { s[5] = 'x'; }
void writeInto(QByteArray& s) { s[5] = 'x'; }
void writeInto(String& s) { s[5] = 'x'; }

std::size_t find(const std::string& s, char c) { return s.find(c); }
unsigned find(const String& s, char c) { return s.index(c); }
std::size_t find(const std::string& s, const char* text) { return s.find(text); }
unsigned find(const String& s, const char* text) { return s.index(text, 0); }

// --- Copying and constructing ---

template <class Text>
void copyAndAssign(benchmark::State& state, unsigned size) {
  const Text source = make<Text>(_sources.substr(0, size));
  Text target = source;
  for (auto _ : state) {
    Text copy(source);
    benchmark::DoNotOptimize(copy);
    target = copy;
    benchmark::DoNotOptimize(target);
  }
}

template <class Text>
void copyAndWrite(benchmark::State& state, unsigned size) {
  const Text source = make<Text>(_sources.substr(0, size));
  for (auto _ : state) {
    Text copy(source);
    writeInto(copy);
    benchmark::DoNotOptimize(copy);
  }
}

template <class Text>
void makeShort(benchmark::State& state) {
  for (auto _ : state) {
    Text text("ten bytes.");
    benchmark::DoNotOptimize(text);
  }
}

template <class Text>
void makeLong(benchmark::State& state) {
  for (auto _ : state) {
    Text text(
        "Ten times ten bytes are what this sentence has to have, and so it goes on until it comes "
        "to "
        "its end.");
    benchmark::DoNotOptimize(text);
  }
}

// --- Appending ---

template <class Text>
void appendByte(benchmark::State& state) {
  constexpr int COUNT = 1000000;
  for (auto _ : state) {
    Text text;
    for (int i = 0; i < COUNT; i++) text += 'x';
    benchmark::DoNotOptimize(text);
  }
  state.SetItemsProcessed(state.iterations() * COUNT);
}

template <class Text>
void appendTen(benchmark::State& state) {
  constexpr int COUNT = 100000;
  for (auto _ : state) {
    Text text;
    for (int i = 0; i < COUNT; i++) text += "ten bytes.";
    benchmark::DoNotOptimize(text);
  }
  state.SetItemsProcessed(state.iterations() * COUNT);
}

// --- Searching and comparing ---

template <class Text>
void findCharacter(benchmark::State& state, unsigned size) {
  const Text text = make<Text>(_sources.substr(0, size - 1) + LAST_CHARACTER);
  for (auto _ : state) {
    benchmark::DoNotOptimize(&text);
    benchmark::DoNotOptimize(find(text, LAST_CHARACTER));
    benchmark::ClobberMemory();
  }
}

template <class Text>
void findText(benchmark::State& state, unsigned size) {
  const std::string words = lastWords();
  const Text text = make<Text>(_sources.substr(0, size - words.size()) + words);
  for (auto _ : state) {
    benchmark::DoNotOptimize(&text);
    benchmark::DoNotOptimize(find(text, words.c_str()));
    benchmark::ClobberMemory();
  }
}

template <class Text>
void compareEqual(benchmark::State& state, unsigned size) {
  const Text a = make<Text>(_sources.substr(0, size));
  const Text b = make<Text>(_sources.substr(0, size));
  for (auto _ : state) {
    bool equal = a == b;
    benchmark::DoNotOptimize(equal);
    benchmark::ClobberMemory();
  }
}

template <class Text>
void order(benchmark::State& state, unsigned size) {
  const Text a = make<Text>(_sources.substr(0, size - 1) + 'a');
  const Text b = make<Text>(_sources.substr(0, size - 1) + 'b');
  for (auto _ : state) {
    bool less = a < b;
    benchmark::DoNotOptimize(less);
    benchmark::ClobberMemory();
  }
}

// --- Ranges and tokens ---

Utils::SubString rangeOf(String& s, unsigned at) { return s(at, 20); }
std::string rangeOf(std::string& s, unsigned at) { return s.substr(at, 20); }

template <class Text>
void formRange(benchmark::State& state) {
  Text text = make<Text>(_sources.substr(0, 10000));
  unsigned at = 0;
  for (auto _ : state) {
    auto range = rangeOf(text, at);
    benchmark::DoNotOptimize(range);
    at = (at + 20) & 4095;
  }
}

void tokenise(benchmark::State& state) {
  const String text = make<String>(_sources);
  for (auto _ : state) {
    unsigned tokens = 0;
    for (unsigned start, end = 0; text.tokSpan(DELIMITERS, end, start, end); tokens++) {
      benchmark::DoNotOptimize(start);
    }
    benchmark::DoNotOptimize(tokens);
  }
}

void tokeniseWithCopies(benchmark::State& state) {
  const std::string text = _sources;
  for (auto _ : state) {
    unsigned tokens = 0;
    std::size_t end = 0;
    while ((end = text.find_first_not_of(DELIMITERS, end)) != std::string::npos) {
      const std::size_t start = end;
      end = std::min(text.find_first_of(DELIMITERS, start), text.size());
      std::string token = text.substr(start, end - start);
      benchmark::DoNotOptimize(token);
      tokens++;
    }
    benchmark::DoNotOptimize(tokens);
  }
}

// --- Registration ---

// Requires: the working directory is the project's root.
std::string readSources() {
  std::vector<std::filesystem::path> files;
  for (const char* directory : {"utils", "ysys", "tests", "benchmarks"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
      const auto extension = entry.path().extension();
      if (extension == ".h" || extension == ".cpp") files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  std::string all;
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    all.append(std::istreambuf_iterator<char>(stream), {});
  }
  return all;
}

void drawText() {
  std::string once = readSources();
  if (once.empty()) {
    std::fprintf(stderr, "strings: no sources below the working directory\n");
    std::exit(1);
  }
  while (_sources.size() < MEGABYTE) _sources += once;
  _sources.resize(MEGABYTE);
}

const char* nameOf(const std::string&) { return "std::string"; }
const char* nameOf(const String&) { return "yutils"; }
const char* nameOf(const QByteArray&) { return "QByteArray"; }
const char* nameOf(const QString&) { return "QString"; }

template <class Text, class Function, class... Arguments>
void add(const std::string& line, Function* function, Arguments... arguments) {
  benchmark::RegisterBenchmark(lineOf(line, nameOf(Text())).c_str(), function, arguments...);
}

std::string bytes(unsigned size) {
  return size == MEGABYTE ? "1 MB" : std::to_string(size) + " bytes";
}

template <class Text>
void addCopies() {
  for (const unsigned size : {10u, 100u, 10000u})
    add<Text>("copy and assign " + bytes(size), copyAndAssign<Text>, size);
}

template <class Text>
void addMaking() {
  for (const unsigned size : {100u, 10000u})
    add<Text>("copy " + bytes(size) + ", write one", copyAndWrite<Text>, size);
  add<Text>("make from a literal of 10 bytes", makeShort<Text>);
  add<Text>("make from a literal of 100 bytes", makeLong<Text>);
  add<Text>("append 1 byte, 1000000 times", appendByte<Text>);
  add<Text>("append 10 bytes, 100000 times", appendTen<Text>);
}

template <class Text>
void addReading() {
  for (const unsigned size : {100u, 10000u, MEGABYTE}) {
    add<Text>("find a character in " + bytes(size), findCharacter<Text>, size);
    add<Text>("find a text in " + bytes(size), findText<Text>, size);
    add<Text>("compare equal " + bytes(size), compareEqual<Text>, size);
    add<Text>("order " + bytes(size), order<Text>, size);
  }
  add<Text>("form a range of 20 bytes", formRange<Text>);
}

}  // namespace

void registerLines() {
  drawText();
  addCopies<String>();
  addCopies<QByteArray>();
  addCopies<QString>();
  addMaking<String>();
  addMaking<QByteArray>();
  addMaking<std::string>();
  addReading<String>();
  addReading<std::string>();
  add<String>("tokenise 1 MB", tokenise);
  add<std::string>("tokenise 1 MB", tokeniseWithCopies);
}

}  // namespace Bench
