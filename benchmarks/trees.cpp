// SPDX-License-Identifier: MIT
// The time of a step of a best-fit churn: from a tree of free blocks, remove the smallest
// that a request fits into (the smallest of all if it fits into none), change its size and insert
// it again. Requests and sizes are random.
//
// The peers of the library's WTreeBase are the intrusive sets of Boost. The key is the size, 32
// bits, then the address. Nodes lie in one array, 32 bytes each if the tree needs no more than
// three links; the probe is its first element, so it is ordered before all nodes of its size. Each
// side is used as its users would: the library's with a comparison function; Boost's with an
// inlined one, with links that are not cleared, without a stored size if the set can do without,
// and searched by size alone, without a comparison of addresses.
//
// Only steps are timed: requests and sizes are drawn beforehand and repeated, and before the clock
// starts the tree is filled and each step has run once.
#include <boost/intrusive/avl_set.hpp>
#include <boost/intrusive/set.hpp>
#include <boost/intrusive/sg_set.hpp>
#include <boost/intrusive/splay_set.hpp>
// The compiler does not see that the number of rotations is not read after a failed check.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <boost/intrusive/treap_set.hpp>
#pragma GCC diagnostic pop

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/support/lines.h"
#include "utils/sdk/wtree.h"

namespace Bench {

namespace {

namespace bi = boost::intrusive;

constexpr unsigned STEPS = 1 << 16;
constexpr unsigned LARGEST = 1 << 20;

struct Step {
  unsigned request_;
  unsigned freshSize_;
};

Step _steps[STEPS];

template <class Links>
struct NodeWith : Links {
  unsigned size_;
};

// --- The library's tree ---

int standsBefore(const void* a, const void* b) {
  const unsigned sizeOfA = *static_cast<const unsigned*>(a);
  const unsigned sizeOfB = *static_cast<const unsigned*>(b);
  if (sizeOfA != sizeOfB) return sizeOfA < sizeOfB ? 1 : -1;
  return a == b ? 0 : std::less<>()(a, b) ? 1 : -1;
}

struct WTree {
  using Node = NodeWith<Utils::WTreeNodeBase>;

  void add(Node& node) { tree_.insert(&node, standsBefore); }

  Node& takeFit(Node& probe) {
    Utils::WTreeNodeBase* node = tree_.removesup(&probe, standsBefore);
    if (!node) node = tree_.remove(tree_.minNode(), standsBefore);
    return *static_cast<Node*>(node);
  }

  Utils::WTreeBase tree_;
};

static_assert(sizeof(WTree::Node) == 32);

// --- Boost's sets ---

struct SizeThenAddress {
  template <class Node>
  bool operator()(const Node& a, const Node& b) const {
    return a.size_ != b.size_ ? a.size_ < b.size_ : std::less<>()(&a, &b);
  }
};

struct SizeAlone {
  template <class Node>
  bool operator()(const Node& node, unsigned size) const {
    return node.size_ < size;
  }
  template <class Node>
  bool operator()(unsigned size, const Node& node) const {
    return size < node.size_;
  }
};

template <class Set>
struct BoostTree {
  using Node = typename Set::value_type;

  void add(Node& node) { set_.insert(node); }

  Node& takeFit(Node& probe) {
    auto place = set_.lower_bound(probe.size_, SizeAlone());
    if (place == set_.end()) place = set_.begin();
    Node& node = *place;
    set_.erase(place);
    return node;
  }

  Set set_;
};

using Unchecked = bi::link_mode<bi::normal_link>;
using Uncounted = bi::constant_time_size<false>;
using Compact = bi::optimize_size<true>;
using Order = bi::compare<SizeThenAddress>;

using RedBlackNode = NodeWith<bi::set_base_hook<Unchecked>>;
using RedBlackCompactNode = NodeWith<bi::set_base_hook<Unchecked, Compact>>;
using AvlNode = NodeWith<bi::avl_set_base_hook<Unchecked>>;
using AvlCompactNode = NodeWith<bi::avl_set_base_hook<Unchecked, Compact>>;
using PlainNode = NodeWith<bi::bs_set_base_hook<Unchecked>>;

static_assert(sizeof(RedBlackCompactNode) == 32 && sizeof(AvlCompactNode) == 32);
static_assert(sizeof(PlainNode) == 32);

// A pseudo-random priority that takes no room in the node: a hash of its address.
struct AddressHash {
  static std::uint64_t of(const PlainNode& node) {
    return reinterpret_cast<std::uintptr_t>(&node) * 0x9e3779b97f4a7c15u;
  }
  bool operator()(const PlainNode& a, const PlainNode& b) const { return of(a) < of(b); }
};

using RedBlack = BoostTree<bi::set<RedBlackNode, Order, Uncounted>>;
using RedBlackCompact = BoostTree<bi::set<RedBlackCompactNode, Order, Uncounted>>;
using Avl = BoostTree<bi::avl_set<AvlNode, Order, Uncounted>>;
using AvlCompact = BoostTree<bi::avl_set<AvlCompactNode, Order, Uncounted>>;
using Scapegoat = BoostTree<bi::sg_set<PlainNode, Order>>;
using Splay = BoostTree<bi::splay_set<PlainNode, Order, Uncounted>>;
using Treap = BoostTree<bi::treap_set<PlainNode, Order, Uncounted, bi::priority<AddressHash>>>;

// --- The churn ---

template <class Tree>
struct Churn {
  using Node = typename Tree::Node;

  explicit Churn(unsigned count) : nodes_(count + 1) {
    for (unsigned i = 1; i <= count; i++) {
      nodes_[i].size_ = _steps[i % STEPS].freshSize_;
      tree_.add(nodes_[i]);
    }
    for (const Step& step : _steps) replace(step);
  }

  void replace(Step step) {
    nodes_[0].size_ = step.request_;
    Node& node = tree_.takeFit(nodes_[0]);
    node.size_ = step.freshSize_;
    tree_.add(node);
  }

  std::vector<Node> nodes_;  // the first is the probe, never in the tree
  Tree tree_;
};

template <class Tree>
void churnOn(benchmark::State& state, unsigned count) {
  Churn<Tree> churn(count);
  unsigned next = 0;
  for (auto _ : state) churn.replace(_steps[next++ % STEPS]);
}

template <class Tree>
void add(const char* who) {
  for (const unsigned count : {100u, 1000u, 100000u}) {
    const std::string line = "best-fit churn on " + std::to_string(count) + " nodes";
    benchmark::RegisterBenchmark(lineOf(line, who).c_str(), churnOn<Tree>, count);
  }
}

void drawSteps() {
  std::mt19937 random(20240229);
  std::uniform_int_distribution<unsigned> sizes(1, LARGEST);
  for (Step& step : _steps) step = {sizes(random), sizes(random)};
}

}  // namespace

void registerLines() {
  drawSteps();
  add<WTree>("yutils");
  add<RedBlack>("set");
  add<RedBlackCompact>("set, compact");
  add<Avl>("avl_set");
  add<AvlCompact>("avl_set, compact");
  add<Scapegoat>("sg_set");
  add<Splay>("splay_set");
  add<Treap>("treap_set");
}

}  // namespace Bench
