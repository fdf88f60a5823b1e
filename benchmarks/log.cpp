// SPDX-License-Identifier: MIT
// The time of a message that is written, and of one that is filtered.
//
// The peers are the single-threaded loggers of spdlog, with the same line:
//
//   info[0]|net|net.cpp:49|1795392000.250000|2480|7 bytes came from the other side
//
// Both files lie in the same directory, start empty and are flushed after each line. A line that is
// formatted and dropped goes to a sink that expands the whole line, and to spdlog's null sink, for
// which spdlog expands the message without a header. By name, the category is the last of ten.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "benchmarks/support/lines.h"
#include "utils/sdk/log.h"

namespace Bench {

namespace {

using Utils::Log;

constexpr char FILE_NAME[] = "net.cpp";
constexpr char SENDER[] = "the other side";

std::string fileFor(const char* who) {
  return (std::filesystem::temp_directory_path() / ("bench_log_" + std::string(who))).string();
}

// --- yutils ---

struct ExpandingLogger : Utils::Logger {
  void print(Utils::MessageClass, const char* format, std::va_list args) override {
    char text[512];
    benchmark::DoNotOptimize(expand(text, sizeof text, format, args));
    benchmark::DoNotOptimize(text);
  }
};

void printLines(benchmark::State& state, Utils::Logger* sink) {
  Log* log = Log::theLog();
  log->setVerbosity(2);
  log->setLogger(sink);
  int count = 0;
  for (auto _ : state)
    log->print(Utils::Info, "net", 0, FILE_NAME, 49, "%d bytes came from %s", count++, SENDER);
  log->setLogger(nullptr);
}

void writeLine(benchmark::State& state) {
  const std::string file = fileFor("yutils");
  printLines(state, new Utils::FileLogger(file.c_str(), Utils::FileLogger::Replace));
  std::remove(file.c_str());
}

void dropLine(benchmark::State& state) { printLines(state, new ExpandingLogger); }

template <class Category>
void ask(benchmark::State& state, Category category) {
  Log* log = Log::theLog();
  log->setLogger(new Utils::NullLogger);
  for (auto _ : state) {
    benchmark::DoNotOptimize(log);
    bool will = log->willPrint(Utils::Debug, category, 1);
    benchmark::DoNotOptimize(will);
  }
}

void askByNumber(benchmark::State& state) { ask(state, Log::theLog()->getCategory("net")); }

void askByName(benchmark::State& state) {
  for (const char* name : {"a", "bc", "def", "disk", "view", "store", "query", "plan", "cache"})
    Log::theLog()->getCategory(name);
  ask(state, "net");
}

// --- spdlog ---

void printWithSpdlog(benchmark::State& state, std::shared_ptr<spdlog::sinks::sink> sink) {
  spdlog::logger log("net", std::move(sink));
  log.set_pattern("%l[0]|%n|%g:%#|%E.%f|%t|%v");
  log.flush_on(spdlog::level::trace);
  int count = 0;
  const spdlog::source_loc place{FILE_NAME, 49, ""};
  for (auto _ : state)
    log.log(place, spdlog::level::info, "{} bytes came from {}", count++, SENDER);
}

void writeLineWithSpdlog(benchmark::State& state) {
  const std::string file = fileFor("spdlog");
  printWithSpdlog(state, std::make_shared<spdlog::sinks::basic_file_sink_st>(file, true));
  std::remove(file.c_str());
}

void dropLineWithSpdlog(benchmark::State& state) {
  printWithSpdlog(state, std::make_shared<spdlog::sinks::null_sink_st>());
}

void askSpdlog(benchmark::State& state) {
  spdlog::logger log("net", std::make_shared<spdlog::sinks::null_sink_st>());
  for (auto _ : state) {
    benchmark::DoNotOptimize(&log);
    bool will = log.should_log(spdlog::level::debug);
    benchmark::DoNotOptimize(will);
  }
}

void debugWithSpdlog(benchmark::State& state) {
  spdlog::logger log("net", std::make_shared<spdlog::sinks::null_sink_st>());
  for (auto _ : state) {
    benchmark::DoNotOptimize(&log);
    log.debug("{} bytes", 5);
  }
}

void add(const char* line, void (*ours)(benchmark::State&), void (*theirs)(benchmark::State&)) {
  benchmark::RegisterBenchmark(lineOf(line, "yutils").c_str(), ours);
  benchmark::RegisterBenchmark(lineOf(line, "spdlog").c_str(), theirs);
}

}  // namespace

void registerLines() {
  add("a line to a file, flushed", writeLine, writeLineWithSpdlog);
  add("a line, formatted and dropped", dropLine, dropLineWithSpdlog);
  add("a debug line that is off, by number", askByNumber, askSpdlog);
  add("a debug line that is off, by name", askByName, debugWithSpdlog);
}

}  // namespace Bench
