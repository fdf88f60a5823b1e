// SPDX-License-Identifier: MIT
// The main function of the programs that measure times; see lines.h.
//
// Prints only LINE <tab> WHO <tab> median in nanoseconds on standard output. Flags of the benchmark
// library are accepted and override the defaults.
#include "benchmarks/support/lines.h"

#include <cstdio>
#include <vector>

namespace Bench {

namespace {

using Run = benchmark::BenchmarkReporter::Run;

double nanosecondsOf(const Run& run) {
  const auto items = run.counters.find("items_per_second");
  if (items != run.counters.end()) return 1e9 / items->second;
  const bool real = run.run_name.time_type == "real_time";
  const double time = real ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
  return time * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
}

class MedianReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) report(run);
  }

  bool failed() const { return failed_; }

 private:
  void report(const Run& run) {
    const std::string& name = run.run_name.function_name;
    if (run.error_occurred) {
      failed_ = true;
      std::fprintf(stderr, "%s: %s\n", name.c_str(), run.error_message.c_str());
    } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
      const auto slash = name.rfind('/');
      std::printf("%s\t%s\t%.4f\n", name.substr(0, slash).c_str(), name.substr(slash + 1).c_str(),
                  nanosecondsOf(run));
    }
  }

  bool failed_ = false;
};

int run(int argumentCount, char** arguments) {
  char repetitions[] = "--benchmark_repetitions=9";
  char interleaving[] = "--benchmark_enable_random_interleaving=true";
  char time[] = "--benchmark_min_time=0.04";
  std::vector<char*> all = {arguments[0], repetitions, interleaving, time};
  all.insert(all.end(), arguments + 1, arguments + argumentCount);
  int count = static_cast<int>(all.size());
  all.push_back(nullptr);
  benchmark::Initialize(&count, all.data());
  if (benchmark::ReportUnrecognizedArguments(count, all.data())) return 2;
  registerLines();
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.failed() ? 1 : 0;
}

}  // namespace

}  // namespace Bench

int main(int argumentCount, char** arguments) { return Bench::run(argumentCount, arguments); }
