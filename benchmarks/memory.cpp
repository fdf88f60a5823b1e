// SPDX-License-Identifier: MIT
// The time of a pair of one allocation and one release.
//
// Three patterns: one block at a time; a thousand blocks, then their release; and the churns
// of memory_churn.h, where the first byte of each new block is written. One program for each
// allocator (memory_competitor.h).
//
// Only the pair and the loop around it are timed: the steps of a churn are drawn beforehand and
// repeated, and before the clock starts all slots are filled and each step has run once. Tables lie
// outside of the heap.
#include <string>

#include "benchmarks/memory_churn.h"
#include "benchmarks/memory_competitor.h"
#include "benchmarks/support/lines.h"

namespace Bench {

namespace {

constexpr unsigned BATCH = 1000;
constexpr unsigned STEPS = 1 << 16;

void* _slots[MOST_SLOTS];
Step _steps[STEPS];

void oneAtATime(benchmark::State& state, unsigned size) {
  for (auto _ : state) {
    void* mem = take(size);
    benchmark::DoNotOptimize(mem);
    give(mem);
  }
}

void takeBatch(unsigned size) {
  for (unsigned i = 0; i < BATCH; i++) _slots[i] = take(size);
}

void giveInOrder() {
  for (unsigned i = 0; i < BATCH; i++) give(_slots[i]);
}

void giveInReverse() {
  for (unsigned i = BATCH; i > 0; i--) give(_slots[i - 1]);
}

void batch(benchmark::State& state, unsigned size, void (*giveAll)()) {
  for (auto _ : state) {
    takeBatch(size);
    giveAll();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * BATCH);
}

void fill(Step step) {
  char* mem = static_cast<char*>(take(step.size_));
  mem[0] = 1;
  _slots[step.slot_] = mem;
}

void replace(Step step) {
  give(_slots[step.slot_]);
  fill(step);
}

void prepare(const Churn& churn) {
  Steps steps(churn);
  for (unsigned i = 0; i < churn.slots_; i++) fill(steps.next());
  for (Step& step : _steps) step = steps.next();
  for (const Step& step : _steps) replace(step);
}

void churnOn(benchmark::State& state, const Churn& churn) {
  prepare(churn);
  unsigned next = 0;
  for (auto _ : state) replace(_steps[next++ % STEPS]);
  for (unsigned i = 0; i < churn.slots_; i++) give(_slots[i]);
}

template <class Measure, class... Arguments>
void add(const std::string& line, Measure measure, Arguments... arguments) {
  benchmark::RegisterBenchmark(lineOf(line, WHO).c_str(), measure, arguments...);
}

}  // namespace

void registerLines() {
  requireCompetitor();
  for (const unsigned size : {16u, 32u, 64u, 256u, 500u, 1024u, 4096u})
    add("one of " + std::to_string(size) + " bytes at a time", oneAtATime, size);
  add("1000 of 64 bytes, freed in order", batch, 64u, giveInOrder);
  add("1000 of 64 bytes, freed in reverse", batch, 64u, giveInReverse);
  for (const Churn& churn : CHURNS) add(churn.name_, churnOn, churn);
}

}  // namespace Bench
