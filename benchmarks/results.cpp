// SPDX-License-Identifier: MIT
// The time of the operations on result codes.
//
// The peer of a code's text is the message of a std::error_code. The last error is read in a
// process in which 32 tasks have one each.
#include <memory>
#include <system_error>
#include <thread>

#include "benchmarks/support/lines.h"
#include "utils/sdk/log.h"
#include "utils/sdk/result.h"

namespace Bench {

namespace {

void text(benchmark::State& state) {
  unsigned code = 0x80040001;
  for (auto _ : state) {
    benchmark::DoNotOptimize(code);
    const char* found = Utils::resultToString(code);
    benchmark::DoNotOptimize(found);
  }
}

void message(benchmark::State& state) {
  std::error_code code = std::make_error_code(std::errc::no_such_file_or_directory);
  for (auto _ : state) {
    benchmark::DoNotOptimize(code);
    std::string found = code.message();
    benchmark::DoNotOptimize(found);
  }
}

void lastError(benchmark::State& state) {
  for (int i = 1; i < 32; i++) std::thread([] { Utils::clearError(); }).join();
  for (auto _ : state) {
    unsigned code = Utils::lastError();
    benchmark::DoNotOptimize(code);
  }
}

void raise(benchmark::State& state) {
  Utils::Log::theLog()->setLogger(nullptr);
  for (auto _ : state) {
    unsigned code = Utils::raiseError(0x80040001);
    benchmark::DoNotOptimize(code);
  }
}

}  // namespace

void registerLines() {
  benchmark::RegisterBenchmark(lineOf("the text of a known code", "yutils").c_str(), text);
  benchmark::RegisterBenchmark(lineOf("the text of a known code", "error_code").c_str(), message);
  benchmark::RegisterBenchmark(lineOf("the last error", "yutils").c_str(), lastError);
  benchmark::RegisterBenchmark(lineOf("raise, the class silenced", "yutils").c_str(), raise);
}

}  // namespace Bench
