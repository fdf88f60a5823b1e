// The order of the values, compiled as C++17, 20 and 23: whichever operators a language makes of
// ours, and whatever is compared with what, the results are the same.
#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"

namespace {

using Utils::String;
using Utils::SubString;
using Utils::Time;
using Utils::UID;

template <class T>
struct Key {
  T first;
  int second;
#ifdef __cpp_impl_three_way_comparison
  bool operator==(const Key&) const = default;
  auto operator<=>(const Key&) const = default;
#else
  bool operator==(const Key& k) const { return first == k.first && second == k.second; }
  bool operator<(const Key& k) const {
    return std::tie(first, second) < std::tie(k.first, k.second);
  }
#endif
};

template <class A, class B>
void expectSign(const A& a, const B& b, int sign) {
  EXPECT_EQ(a == b, sign == 0);
  EXPECT_EQ(a != b, sign != 0);
  EXPECT_EQ(a < b, sign < 0);
  EXPECT_EQ(a <= b, sign <= 0);
  EXPECT_EQ(a > b, sign > 0);
  EXPECT_EQ(a >= b, sign >= 0);
#ifdef __cpp_impl_three_way_comparison
  const std::weak_ordering order = a <=> b;
  EXPECT_EQ(order < 0, sign < 0);
  EXPECT_EQ(order == 0, sign == 0);
#endif
}

template <class T>
void expectOrder(const T& a, const T& b, int sign) {
  expectSign(a, b, sign);
  expectSign(std::make_pair(a, 1), std::make_pair(b, 1), sign);
  expectSign(std::make_tuple(1, a), std::make_tuple(1, b), sign);
  EXPECT_EQ((Key<T>{a, 1} < Key<T>{b, 1}), sign < 0);
  EXPECT_EQ((Key<T>{a, 1} == Key<T>{b, 1}), sign == 0);
  EXPECT_EQ(std::less<T>()(a, b), sign < 0);
  EXPECT_EQ(std::less<>()(a, b), sign < 0);
#ifdef __cpp_lib_ranges
  static_assert(std::totally_ordered<T> && std::three_way_comparable<T>);
  EXPECT_EQ(std::ranges::less()(a, b), sign < 0);
  EXPECT_EQ(std::compare_three_way()(a, b) < 0, sign < 0);
#endif
}

// Texts of equal rank are equivalent: a comparison ends at the first NUL.
struct Text {
  std::string_view text;
  int rank;
};
constexpr Text TEXTS[] = {{{"", 0}, 0}, {{"\0x", 2}, 0}, {"a", 1},   {{"a\0b", 3}, 1},
                          {"ab", 2},    {"b", 3},        {"\xff", 4}};

template <class Visit>
void forEachPair(Visit visit) {
  for (const Text& a : TEXTS) {
    for (const Text& b : TEXTS) visit(a.text, b.text, (a.rank > b.rank) - (a.rank < b.rank));
  }
}

TEST(Comparison, OfTexts) {
  forEachPair([](std::string_view a, std::string_view b, int sign) {
    const String s(a), t(b);
    expectOrder(s, t, sign);
    expectSign(s, t.begin(), sign);
    expectSign(s.begin(), t, sign);
    expectSign(s, b, sign);
    expectSign(a, t, sign);
    expectSign(s, std::string(b), sign);
  });
  expectOrder(String(), String(""), 0);
  expectOrder(String(), String("a"), -1);
  expectSign(std::string_view(), String(), 0);
  expectSign('b', String("a"), 1);
  expectSign(String("5"), 5, 0);
  expectSign(5, String("5"), 0);
  expectSign(String("5"), String("x5")(1), 0);
}

TEST(Comparison, OfRangesOfTexts) {
  forEachPair([](std::string_view a, std::string_view b, int sign) {
    const String s(a), t(b);
    const SubString range(t);
    EXPECT_EQ(range == s, sign == 0 && a.size() == b.size());
    EXPECT_EQ(s == range, range == s);
    EXPECT_EQ(SubString(s) != range, !(range == s));
    EXPECT_EQ(s.begin() == range, range == s.begin());
  });
}

TEST(Comparison, OfCharactersInATextAndEntriesOfATree) {
  String s("ba");
  expectSign(s[0], s[1], 1);
  expectSign(s[0], 'b', 0);
  Utils::AVLTree<int, String> tree;
  tree.insert(1, "a");
  EXPECT_TRUE(tree.find(1) == "a" && tree.find(1) == String("a") && s != tree.find(1));
  auto end = tree.end();
  EXPECT_TRUE(tree.begin() != end && ++tree.begin() == end);
}

TEST(Comparison, OfIdentifiersAndNumbers) {
  const UID ids[] = {{0, 5, 9}, {1, 0, 0}, {1, 0, 1}, {1, 1, 0}, {0x80000000, 0, 0}};
  const Time times[] = {Time::tmin(), -1, -0.5f, 0, 0.5f, 2, Time::tmax()};
  for (int i = 0; i < 5; i++) {
    for (int k = 0; k < 5; k++) expectOrder(ids[i], ids[k], (i > k) - (i < k));
  }
  for (int i = 0; i < 7; i++) {
    for (int k = 0; k < 7; k++) expectOrder(times[i], times[k], (i > k) - (i < k));
    expectSign(times[i], 0, (i > 3) - (i < 3));
    expectSign(times[i], 0.5f, (i > 4) - (i < 4));
  }
}

TEST(Comparison, SortsAndFinds) {
  std::map<std::pair<String, int>, int> map;
  std::vector<String> words;
  for (const char* word : {"pear", "apple", "fig", "kiwi", "fig"}) {
    map[{word, 1}]++;
    words.push_back(word);
  }
  EXPECT_EQ(map.size(), 4u);
  EXPECT_EQ((map[{"fig", 1}]), 2);
#ifdef __cpp_lib_ranges
  std::ranges::sort(words);
#else
  std::sort(words.begin(), words.end());
#endif
  EXPECT_EQ(words, (std::vector<String>{"apple", "fig", "fig", "kiwi", "pear"}));
}

// --- What must not compile ---

template <class T, class Use>
constexpr bool compiles(Use) {
  return std::is_invocable_v<Use, T&>;
}
#define COMPILES(T, EXPRESSION) compiles<T>([](auto& x) -> decltype(void(EXPRESSION)) {})

// A literal 0 is a null pointer wherever a pointer can be meant.
static_assert(!COMPILES(String, x == 0) && COMPILES(String, x == ""));
static_assert(!COMPILES(String, NULL != x) && COMPILES(String, "" != x));
static_assert(!COMPILES(String, x < nullptr) && COMPILES(String, x < ""));
static_assert(!COMPILES(String, x + 0) && COMPILES(String, x + ""));
static_assert(!COMPILES(String, NULL + x) && COMPILES(String, nullptr + x));
static_assert(!COMPILES(String, x.index(0, 0)) && COMPILES(String, x.index("", 0)));
static_assert(!COMPILES(String, x.indexChar(0, 0)) && COMPILES(String, x.indexChar("", 0)));
static_assert(!COMPILES(String, x.rindexChar(0, 0)) && COMPILES(String, x.rindexChar("", 0)));
static_assert(!COMPILES(String, x.startsWith(0)) && COMPILES(String, x.startsWith('a')));
static_assert(!COMPILES(String, x.icompare(0)) && COMPILES(String, x.icompare("")));
static_assert(!COMPILES(String, x.substitute(0, "")) && COMPILES(String, x.substitute("", "")));
static_assert(!COMPILES(String, x.substitute("", NULL)));
static_assert(!COMPILES(String, x(0) == 0) && COMPILES(String, x(0) == ""));
static_assert(!COMPILES(String, x(0).compare(0)) && COMPILES(String, x(0).compare("")));
static_assert(!COMPILES(String, x(0).icompare(0)) && COMPILES(String, x(0).icompare("")));

using Numbers = Utils::Vector<int>;
static_assert(!COMPILES(Numbers, x.remove(0, 25)) && COMPILES(Numbers, x.remove(&x[0], 25)));
static_assert(!COMPILES(Numbers, x.add(0, 25)) && COMPILES(Numbers, x.add(nullptr, 0)));
static_assert(!COMPILES(Numbers, x.insert(0, 1, 2)) && COMPILES(Numbers, x.insert(0, 1)));
static_assert(!COMPILES(Numbers, x.compare(0, 1)) && COMPILES(Numbers, x.compare(&x[0], 1)));

}  // namespace
