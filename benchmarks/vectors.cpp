// SPDX-License-Identifier: MIT
// The time to add an element to an array of pointers that starts empty, with all growth
// and the destruction of the array, and to insert one before ten thousand and remove it again.
//
// The peer of the library's Vector<void*> is std::vector<void*>, each with its own allocator.
#include <vector>

#include "benchmarks/support/lines.h"
#include "utils/sdk/vector.h"

namespace Bench {

namespace {

constexpr unsigned MANY = 10000;

struct Ours {
  void add(void* item) { items_.add(item); }
  void insertAtFront(void* item) { items_.insert(item, 0); }
  void removeAtFront() { items_.removeAt(0); }

  Utils::Vector<void*> items_;
};

struct Std {
  void add(void* item) { items_.push_back(item); }
  void insertAtFront(void* item) { items_.insert(items_.begin(), item); }
  void removeAtFront() { items_.erase(items_.begin()); }

  std::vector<void*> items_;
};

template <class Array>
void fill(Array& array, unsigned count) {
  for (unsigned i = 0; i < count; i++) array.add(&array);
}

template <class Array>
void addTo(benchmark::State& state, unsigned count) {
  for (auto _ : state) {
    Array array;
    fill(array, count);
    benchmark::DoNotOptimize(array);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

template <class Array>
void shift(benchmark::State& state) {
  Array array;
  fill(array, MANY);
  for (auto _ : state) {
    array.insertAtFront(&array);
    benchmark::DoNotOptimize(array);
    array.removeAtFront();
    benchmark::DoNotOptimize(array);
  }
}

template <class Array>
void add(const char* who) {
  const auto name = [who](const char* line) { return lineOf(line, who); };
  benchmark::RegisterBenchmark(name("add to a new vector, a million").c_str(), addTo<Array>,
                               1000000u);
  benchmark::RegisterBenchmark(name("add to a new vector, a hundred").c_str(), addTo<Array>, 100u);
  benchmark::RegisterBenchmark(name("insert and remove at the front of 10000").c_str(),
                               shift<Array>);
}

}  // namespace

void registerLines() {
  add<Ours>("yutils");
  add<Std>("std::vector");
}

}  // namespace Bench
