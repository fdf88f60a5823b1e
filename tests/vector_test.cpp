// SPDX-License-Identifier: MIT
// Vectors of three element types beside a model, with requests for storage failing at random, and
// the cases that a random run does not meet.
#include "utils/sdk/vector.h"

#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "support/counted.h"
#include "support/seed.h"
#include "utils/testing/failing_allocator.h"

template struct Utils::Vector<const char*>;
template struct Utils::Vector<Counted>;

namespace {

using namespace Utils;
using Utils::Testing::FailingAllocator;

using Values = std::vector<unsigned>;

constexpr unsigned NONE = static_cast<unsigned>(-1);

unsigned held() { return Allocator::theAllocator()->allocatedMemory(); }

template <class T>
T make(unsigned value) {  // of a value below 16, 0 the blank one
  static const char places[16] = {};
  if constexpr (std::is_pointer_v<T>) {
    return value == 0 ? nullptr : places + value;
  } else {
    return T(static_cast<int>(value));
  }
}

template <class T>
std::vector<T> make(const Values& values) {
  std::vector<T> items;
  for (const unsigned value : values) items.push_back(make<T>(value));
  return items;
}

template <class T>
struct Open : Vector<T> {
  using Vector<T>::operator=;
  using Vector<T>::capacity_;
  using Vector<T>::data_;
};

// --- A random run beside a model ---

template <class T>
struct VectorRun {
  explicit VectorRun(unsigned seed) : random_(seed) {}

  // A step that finds no memory changes nothing; one that frees all storage needs none.
  void run(unsigned steps) {
    for (unsigned i = 0; i < steps && !testing::Test::HasFailure(); i++) {
      SCOPED_TRACE("step " + std::to_string(i));
      const Values before = model_;
      const unsigned capacity = capacity_;
      const T* data = vector_.data_;
      allocator_.failFrom(random_.below(4) == 0 ? 1 + random_.below(2) : 0);
      step(random_.below(13), random_.below(size() + 3), random_.below(8));
      if (allocator_.failed() && capacity_ != 0) {
        model_ = before;
        capacity_ = capacity;
        EXPECT_EQ(vector_.data_, data);
      }
      allocator_.failFrom(0);
      compare();
    }
  }

  void step(unsigned kind, unsigned index, unsigned value) {
    if (kind < 7) return add(index);
    if (kind < 10) return remove(kind, index, value);
    resize(kind, random_.below(40));
  }

  unsigned size() const { return static_cast<unsigned>(model_.size()); }
  auto at(unsigned i) { return model_.begin() + static_cast<std::ptrdiff_t>(i); }

  void growTo(unsigned n) {
    if (n > capacity_ && capacity_ == 0) capacity_ = 4;
    while (n > capacity_) capacity_ *= 2;
  }

  bool modelRemove(unsigned value) {
    const auto place = std::find(model_.begin(), model_.end(), value);
    if (place == model_.end()) return false;
    model_.erase(place);
    return true;
  }

  Values someValues() {
    Values values(random_.below(6));
    for (unsigned& value : values) value = random_.below(8);
    return values;
  }

  // One item or several, of the vector itself or others, in front of the one at `index` or last.
  void add(unsigned index) {
    const bool own = random_.below(2) == 0;
    const unsigned from = random_.below(size() + 1);
    const unsigned most = random_.below(3) == 0 ? size() : 1;
    const unsigned to = std::min(from + random_.below(most + 1), size());
    const Values values = own ? Values(at(from), at(to)) : someValues();
    const auto items = make<T>(values);
    const T* source = own ? vector_.begin() + from : items.data();
    const auto count = static_cast<unsigned>(values.size());
    const unsigned kind = random_.below(count == 1 ? 4 : 2);
    if (kind == 0) vector_.insert(source, count, index);
    if (kind == 1) vector_.add(source, count);
    if (kind == 2) vector_.insert(*source, index);
    if (kind == 3) {
      const unsigned way = random_.below(3);
      const unsigned last = way == 0   ? vector_.add(*source)
                            : way == 1 ? vector_.push_back(T(*source))
                                       : vector_.emplace_back(*source);
      EXPECT_EQ(last, allocator_.failed() ? NONE : size());
    }
    model_.insert(at(kind % 2 == 0 ? std::min(index, size()) : size()), values.begin(),
                  values.end());
    growTo(size());
  }

  void remove(unsigned kind, unsigned index, unsigned value) {
    if (kind == 7) {
      EXPECT_EQ(value < 4 ? vector_.removeAt(index) : vector_.removeAtOrdered(index),
                index < size());
      if (index < size()) model_.erase(at(index));
    } else if (kind == 8) {
      const unsigned to = random_.below(size() + 3), end = std::min(to, size());
      EXPECT_TRUE(vector_.removeAt(index, to));
      if (index < end) model_.erase(at(index), at(end));
    } else if (value == 0 && index == 0) {
      EXPECT_TRUE(vector_.remove(vector_.begin(), 1)) << "its own storage stands for all";
      model_.clear();
      capacity_ = 0;
    } else if (value < 4) {
      EXPECT_EQ(vector_.remove(make<T>(value)), modelRemove(value));
    } else {
      const Values values = someValues();
      const auto items = make<T>(values);
      bool all = true;
      for (const unsigned each : values) all = modelRemove(each) && all;
      EXPECT_EQ(vector_.remove(items.data(), static_cast<unsigned>(items.size())), all);
    }
  }

  void resize(unsigned kind, unsigned n) {
    const unsigned old = size();
    if (kind == 10) {
      vector_.sizeTo(n);
      growTo(n);
      model_.resize(n);
    } else if (kind == 11) {
      vector_.sizeToExact(n);
      capacity_ = n;
      model_.resize(n);
    } else if (n < 10) {
      const Vector<T>& same = vector_;
      const T* data = vector_.data_;
      vector_ = same;
      EXPECT_EQ(vector_.data_, data);
    } else if (n < 20) {
      Open<T> moved(std::move(vector_));
      EXPECT_TRUE(vector_.empty() && vector_.capacity() == 0 && vector_.data() == nullptr);
      if (n < 15) vector_ = std::move(moved);
      if (n >= 15) swap(moved, vector_);
      EXPECT_TRUE(moved.empty());
    } else {
      const Vector<T> copy(vector_);
      EXPECT_EQ(copy.size(), allocator_.failed() ? 0 : old);
      EXPECT_EQ(copy != vector_, copy.size() != old);
      if (!allocator_.failed()) vector_ = copy;
      capacity_ = 0;
      growTo(old);
    }
    // Only elements with a constructor come in blank.
    if constexpr (std::is_scalar_v<T>) {
      for (unsigned i = old; i < vector_.size(); i++) vector_[i] = make<T>(0);
    }
  }

  void compare() {
    ASSERT_EQ(vector_.size(), size());
    ASSERT_EQ(vector_.capacity_, capacity_);
    if constexpr (std::is_same_v<T, Counted>) {
      EXPECT_EQ(Counted::live_, static_cast<int>(capacity_));
      EXPECT_EQ(Counted::holding_, size() - std::count(model_.begin(), model_.end(), 0u))
          << "all slots after the last element are blank";
    }
    auto items = make<T>(model_);
    EXPECT_TRUE(std::equal(vector_.begin(), vector_.end(), items.begin(), items.end()));
    EXPECT_EQ(vector_.compare(items.data(), size()), 0);
    EXPECT_EQ(vector_.compare(items.data(), size() - 1), 1);
    if (size() != 0) items.back() = make<T>(9);
    EXPECT_EQ(vector_.compare(items.data(), size()), size() != 0 ? 1 : 0);
    const unsigned value = random_.below(8);
    const auto place = std::find(model_.begin(), model_.end(), value);
    unsigned index = NONE;
    EXPECT_EQ(vector_.locate(make<T>(value), index), place != model_.end());
    EXPECT_EQ(index, place - model_.begin());
  }

  Random random_;
  FailingAllocator allocator_;
  Open<T> vector_;
  Values model_;
  unsigned capacity_ = 0;
};

TEST(Vector, RandomRunFollowsTheModel) {
  const unsigned before = held();
  Counted::reset();
  VectorRun<Counted>(1).run(4000);
  VectorRun<int>(2).run(4000);
  VectorRun<const char*>(3).run(4000);
  Counted::reset();
  EXPECT_EQ(held(), before);
}

// Can only be moved, which leaves 0.
struct Passed {
  Passed(unsigned value = 0) : value_(value) {}
  Passed(Passed&& other) noexcept : value_(std::exchange(other.value_, 0)) {}
  Passed& operator=(Passed&& other) noexcept {
    value_ = std::exchange(other.value_, 0);
    return *this;
  }
  bool operator==(const Passed& other) const { return value_ == other.value_; }

  unsigned value_;
};

// Into the vector from outside, and from one place of it to another.
TEST(Vector, MovesWhatCannotBeCopied) {
  Random random(4);
  FailingAllocator allocator;
  Vector<Passed> vector;
  Values model;
  for (unsigned i = 1; i < 3000 && !testing::Test::HasFailure(); i++) {
    const auto size = static_cast<unsigned>(model.size()), from = random.below(size + 2);
    const unsigned kind = random.below(8), to = kind == 0 ? random.below(size + 1) : size;
    allocator.failFrom(random.below(4) == 0 ? 1 : 0);
    if (kind < 4) {
      Passed outside(i);
      Passed& item = from < size ? vector[from] : outside;
      const unsigned value = item.value_;
      if (kind == 0) vector.insert(std::move(item), to);
      if (kind == 1) vector.push_back(std::move(item));
      if (kind > 1) vector.emplace_back(value);
      if (allocator.failed()) {
        EXPECT_EQ(item.value_, value);
      } else {
        if (kind < 2 && from < size) model[from] = 0;
        model.insert(model.begin() + to, value);
      }
    } else if (kind < 7) {
      EXPECT_EQ(vector.removeAt(from), from < size);
      if (from < size) model.erase(model.begin() + from);
    } else {
      vector.sizeToExact(size);
    }
    allocator.failFrom(0);
    ASSERT_TRUE(std::equal(vector.begin(), vector.end(), model.begin(), model.end())) << i;
  }
}

// --- Single cases ---

TEST(Vector, NoCountWraps) {
  Vector<double> plain;
  Vector<Counted> counted;
  Counted::reset();
  plain.add(1);
  counted.add(1);
  for (const unsigned n : {0x10000001u, 0x20000000u, 0x20000001u, 0x80000001u, NONE}) {
    plain.sizeTo(n);
    plain.sizeToExact(n);
    counted.sizeTo(n);
    counted.sizeToExact(n);
    plain.insert(plain.begin(), n, 0);
    counted.add(counted.begin(), n);
    plain.insert(nullptr, n, 0);
    counted.add(nullptr, n);
    EXPECT_TRUE(counted.remove(nullptr, n) && counted.compare(nullptr, 1) == 1);
    EXPECT_EQ(plain.size() + counted.size(), 2u) << n;
  }
  EXPECT_EQ(Counted::live_, 4);
}

TEST(Vector, BlanksWhatNumbersAndPointersLeave) {
  Open<const char*> vector;
  const auto items = make<const char*>(Values{1, 2, 3, 4, 5});
  vector.add(items.data(), 5);
  vector.removeAt(0);
  EXPECT_EQ(vector.data_[4], nullptr);
  std::fill(vector.data_, vector.data_ + 8, items[0]);
  vector.sizeTo(0);
  EXPECT_EQ(std::count(vector.data_, vector.data_ + 8, nullptr), 8) << "up to the capacity";
}

// Elements without ==, of a type that is complete only after the vector in it; and every type of
// index.
TEST(Vector, OfItsOwnOwner) {
  struct Node {
    Vector<Node> children_;
    int value_ = 3;
  };
  Vector<Node> tree;
  tree.add(Node());
  tree[0].children_.add(tree[0]);
  tree.add(tree[0]);
  tree[1].value_ = 4;
  const Vector<Node>& constant = tree;
  EXPECT_EQ(tree[1u].children_[0L].value_ + constant[1ULL].children_[std::size_t{0}].value_, 6);
  EXPECT_EQ(tree[static_cast<short>(1)].value_ + constant[char{1}].value_, 8);
}

static_assert(sizeof(Vector<char>) == 8 + sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<Vector<int>> &&
              std::is_nothrow_move_assignable_v<Vector<int>> &&
              std::is_nothrow_swappable_v<Vector<int>>);
static_assert(sizeof(void*) != 4 || sizeof(Utils::TemplOps) == 40);

}  // namespace
