// SPDX-License-Identifier: MIT
// The time that a map takes to insert, find and remove an entry and to step to the next
// one, and the bytes of the heap that an entry holds.
//
// The peers of the library's AVLTree<unsigned long, unsigned> are std::map and an owning map built
// on Boost's intrusive AVL set, whose nodes are allocated and deleted one by one. BENCH_MAP and
// BENCH_WHO select one map for each program: in a heap that other maps have used, the distance
// between the nodes of a new one matters more than the map.
//
// Keys are random and drawn beforehand. The small trees get other keys each time, so that branch
// prediction cannot learn their paths. Filling and clearing are not timed. Bytes are those of the
// blocks: the total that the library's allocator counts, and the size that the runtime library's
// malloc reports for a block, with the word before it.
#include <malloc.h>

#include <algorithm>
#include <boost/intrusive/avl_set.hpp>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/support/lines.h"
#include "utils/sdk/allocator.h"
#include "utils/sdk/atree.h"

namespace Bench {

namespace {

namespace bi = boost::intrusive;

using Key = unsigned long;
using Value = unsigned;

constexpr unsigned MOST = 1000000;

std::vector<Key> _keys;           // in the order of insertion
std::vector<unsigned> _shuffled;  // the numbers below MOST, each once

// --- The maps ---

struct Ours {
  using Counted = Ours;
  static std::size_t held() { return Utils::Allocator::theAllocator()->allocatedMemory(); }

  bool insert(Key key, Value value) { return map_.insert(key, value); }
  Value find(Key key) { return map_.find(key); }
  bool remove(Key key) { return map_.remove(key); }

  Value sum() {
    Value sum = 0;
    for (const auto& entry : map_) sum += entry.value();
    return sum;
  }

  Utils::AVLTree<Key, Value> map_;
};

// The bytes that malloc holds for the nodes of a map.
std::size_t _mallocBytes = 0;

template <class T>
struct CountingAllocator : std::allocator<T> {
  CountingAllocator() = default;
  template <class U>
  CountingAllocator(const CountingAllocator<U>&) {}

  T* allocate(std::size_t count) {
    T* mem = std::allocator<T>::allocate(count);
    _mallocBytes += malloc_usable_size(mem) + sizeof(std::size_t);
    return mem;
  }
};

template <class Map>
struct StdWith {
  using Counted =
      StdWith<std::map<Key, Value, std::less<Key>, CountingAllocator<std::pair<const Key, Value>>>>;
  static std::size_t held() { return _mallocBytes; }

  bool insert(Key key, Value value) { return map_.emplace(key, value).second; }
  bool remove(Key key) { return map_.erase(key) != 0; }

  Value find(Key key) {
    const auto place = map_.find(key);
    return place != map_.end() ? place->second : 0;
  }

  Value sum() {
    Value sum = 0;
    for (const auto& entry : map_) sum += entry.second;
    return sum;
  }

  Map map_;
};

using Std = StdWith<std::map<Key, Value>>;

struct AvlSet {
  struct Node : bi::avl_set_base_hook<bi::link_mode<bi::normal_link>> {
    Node(Key key, Value value) : key_(key), value_(value) {}

    Key key_;
    Value value_;
  };
  struct KeyOf {
    using type = Key;
    const Key& operator()(const Node& node) const { return node.key_; }
  };
  using Set = bi::avl_set<Node, bi::key_of_value<KeyOf>, bi::constant_time_size<false>>;

  ~AvlSet() { set_.clear_and_dispose(std::default_delete<Node>()); }

  bool insert(Key key, Value value) {
    Set::insert_commit_data place;
    if (!set_.insert_check(key, place).second) return false;
    set_.insert_commit(*new Node(key, value), place);
    return true;
  }

  bool remove(Key key) { return set_.erase_and_dispose(key, std::default_delete<Node>()) != 0; }

  Value find(Key key) {
    const auto place = set_.find(key);
    return place != set_.end() ? place->value_ : 0;
  }

  Value sum() {
    Value sum = 0;
    for (const Node& node : set_) sum += node.value_;
    return sum;
  }

  Set set_;
};

// --- Times ---

template <class Map>
void fill(Map& map, const Key* keys, unsigned count) {
  for (unsigned i = 0; i < count; i++) map.insert(keys[i], i);
}

// The keys of the trees, one tree after the other.
struct Keys {
  explicit Keys(unsigned count) : count_(count) {}

  const Key* next() {
    if (MOST - next_ < count_) next_ = 0;
    next_ += count_;
    return _keys.data() + (next_ - count_);
  }

  unsigned count_;
  unsigned next_ = 0;
};

template <class Map>
void insert(benchmark::State& state, unsigned count) {
  Keys keys(count);
  for (auto _ : state) {
    auto map = std::make_unique<Map>();
    fill(*map, keys.next(), count);
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// A map that is not cleared.
template <class Map>
Map& filled(unsigned count) {
  static std::map<unsigned, Map> maps;
  const auto [place, isNew] = maps.try_emplace(count);
  if (isNew) fill(place->second, _keys.data(), count);
  return place->second;
}

template <class Map>
void find(benchmark::State& state, unsigned count) {
  Map& map = filled<Map>(count);
  std::vector<Key> sought;
  for (const unsigned number : _shuffled) sought.push_back(_keys[number % count]);
  unsigned next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(sought[next]));
    if (++next == MOST) next = 0;
  }
}

template <class Map>
void remove(benchmark::State& state, unsigned count) {
  Keys keys(count);
  std::vector<unsigned> order;
  for (const unsigned number : _shuffled) {
    if (number < count) order.push_back(number);
  }
  for (auto _ : state) {
    state.PauseTiming();
    Map map;
    const Key* first = keys.next();
    fill(map, first, count);
    state.ResumeTiming();
    for (const unsigned number : order) map.remove(first[number]);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

template <class Map>
void iterate(benchmark::State& state, unsigned count) {
  Map& map = filled<Map>(count);
  for (auto _ : state) benchmark::DoNotOptimize(map.sum());
  state.SetItemsProcessed(state.iterations() * count);
}

// --- Bytes ---

template <class Map>
void heapOfAnEntry(benchmark::State& state) {
  constexpr unsigned COUNT = 100000;
  double bytes = 0;
  for (auto _ : state) {
    const auto before = Map::held();
    typename Map::Counted map;
    fill(map, _keys.data(), COUNT);
    bytes = static_cast<double>(Map::held() - before) / COUNT;
  }
  state.counters["items_per_second"] = 1e9 / bytes;  // the inverse is printed
}

template <class Map>
void addHeapLine() {
  if constexpr (requires { typename Map::Counted; }) {
    const std::string name = lineOf("heap of an entry", BENCH_WHO);
    benchmark::RegisterBenchmark(name.c_str(), heapOfAnEntry<Map>)->Iterations(1)->Repetitions(2);
  }
}

void addLines(const char* what, void (*function)(benchmark::State&, unsigned)) {
  for (const unsigned count : {1000u, 100000u, MOST}) {
    const std::string line = what + std::string(", ") + std::to_string(count);
    auto* added = benchmark::RegisterBenchmark(lineOf(line, BENCH_WHO).c_str(), function, count);
    if (count == MOST) added->Repetitions(3);  // enough, since each takes seconds
  }
}

void drawKeys() {
  std::mt19937_64 random(20241105);
  for (unsigned i = 0; i < MOST; i++) {
    _keys.push_back(static_cast<Key>(random()));
    _shuffled.push_back(i);
  }
  std::shuffle(_shuffled.begin(), _shuffled.end(), random);
}

}  // namespace

void registerLines() {
  drawKeys();
  addLines("insert", insert<BENCH_MAP>);
  addLines("find", find<BENCH_MAP>);
  addLines("remove", remove<BENCH_MAP>);
  addLines("iterate", iterate<BENCH_MAP>);
  addHeapLine<BENCH_MAP>();
}

}  // namespace Bench
