// SPDX-License-Identifier: MIT
// The order of the values, compiled as C++17, 20 and 23: whichever operators a language makes of
// ours, and whatever is compared with what, the results are the same.
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "gtest/gtest.h"
#include "support/seed.h"
#include "utils/sdk/atree.h"
#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"

namespace {

using namespace Utils;

#ifdef __cpp_impl_three_way_comparison
template <class T>
struct Key {
  T first;
  int second;
  bool operator==(const Key&) const = default;
  auto operator<=>(const Key&) const = default;
};
#endif

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
  EXPECT_EQ(std::less<T>()(a, b), sign < 0);
  EXPECT_EQ(std::less<>()(a, b), sign < 0);
#ifdef __cpp_impl_three_way_comparison
  expectSign(Key<T>{a, 1}, Key<T>{b, 1}, sign);
#endif
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

void expectOrderOfTexts(std::string_view a, std::string_view b, int sign) {
  const String s(a), t(b);
  expectOrder(s, t, sign);
  expectSign(s, t.begin(), sign);
  expectSign(s.begin(), t, sign);
  expectSign(s, b, sign);
  expectSign(a, t, sign);
  expectSign(s, std::string(b), sign);
  const SubString range(t);
  EXPECT_EQ(range == s, sign == 0 && a.size() == b.size());
  EXPECT_EQ(s != range, !(range == s));
  EXPECT_EQ(std::hash<String>()(s) == std::hash<String>()(t), sign == 0);
  EXPECT_TRUE(range != s || std::hash<SubString>()(range) == std::hash<String>()(s));
  EXPECT_EQ(s.begin() == range, range == s.begin());
  EXPECT_EQ(s.begin() != range, !(range == s.begin()));
}

TEST(Comparison, OfTexts) {
  for (const Text& a : TEXTS)
    for (const Text& b : TEXTS)
      expectOrderOfTexts(a.text, b.text, (a.rank > b.rank) - (a.rank < b.rank));
  expectOrder(String(), String(""), 0);
  expectOrder(String(), String("a"), -1);
  expectSign(std::string_view(), String(), 0);
  expectSign('b', String("a"), 1);
  expectSign(String("5"), 5, 0);
  expectSign(5, String("5"), 0);
  expectSign(String("5"), String("x5")(1), 0);
  String s("ba");
  expectSign(s[0], s[1], 1);
  Utils::AVLTree<int, String> tree;
  tree.insert(1, "a");
  EXPECT_TRUE(tree.find(1) == "a" && tree.find(1) == String("a") && s != tree.find(1));
}

// Short texts over few characters, so that equal ones and prefixes are frequent.
std::string randomText(Random& random) {
  std::string text(random.below(5), ' ');
  for (char& c : text) c = "ab\x80\xff"[random.below(4)];
  return text;
}

// One comparison of texts without NULs by all types, as std::string does it.
void expectOrderAndHashOf(const std::string& a, const std::string& b) {
  const int sign = (a > b) - (a < b);
  const String s(a), t("<" + b + ">");
  const SubString range = String(a)(0), other = String(t)(1, t.size() - 2);
  expectOrder(s, String(b), sign);
  expectOrder(range, other, sign);
  expectSign(s, other, sign);
  expectSign(range, String(b), sign);
  expectSign(range, b.c_str(), sign);
  expectSign(a.c_str(), other, sign);
  expectSign(range, std::string_view(b), sign);
  expectSign(a, other, sign);
  const std::hash<std::string> model;
  EXPECT_EQ(std::hash<String>()(s), model(a));
  EXPECT_EQ(std::hash<SubString>()(other), model(b));
}

TEST(Comparison, FollowsStdStringOnRandomTexts) {
  Random random(11);
  for (int i = 0; i < 3000 && !testing::Test::HasFailure(); i++)
    expectOrderAndHashOf(randomText(random), randomText(random));
}

TEST(Comparison, OfIdentifiersAndNumbers) {
  const UID ids[] = {{0, 5, 9}, {1, 0, 0},          {1, 0, 1},         {1, 0, 0x80000000},
                     {1, 1, 0}, {1, 0x80000000, 0}, {0x80000000, 0, 0}};
  const Time times[] = {Time::tmin(), -1, -0.5f, 0, 0.5f, 2, Time::tmax()};
  for (int i = 0; i < 7; i++) {
    for (int k = 0; k < 7; k++) {
      expectOrder(ids[i], ids[k], (i > k) - (i < k));
      expectOrder(times[i], times[k], (i > k) - (i < k));
    }
    expectSign(times[i], 0, (i > 3) - (i < 3));
    expectSign(times[i], 0.5f, (i > 4) - (i < 4));
  }
}

// --- What must not compile ---

template <class T, class... Uses>
constexpr bool noneCompiles(Uses...) {
  return (!std::is_invocable_v<Uses, T&> && ...);
}
#define USE(EXPRESSION) [](auto& x) -> decltype(void(EXPRESSION)) {}

// A literal 0 is a null pointer wherever a pointer can be meant.
static_assert(noneCompiles<String>(
    USE(x == 0), USE(NULL != x), USE(x < nullptr), USE(x + 0), USE(NULL + x), USE(x.index(0, 0)),
    USE(x.indexChar(0, 0)), USE(x.rindexChar(0, 0)), USE(x.startsWith(0)), USE(x.icompare(0)),
    USE(x.substitute(0, "")), USE(x.substitute("", NULL)), USE(x(0) == 0), USE(x(0).compare(0)),
    USE(x(0).icompare(0)), USE(x(0) < nullptr), USE(x ? 1 : 2), USE(!x)));
static_assert(noneCompiles<Utils::Vector<int>>(USE(x.remove(0, 25)), USE(x.add(0, 25)),
                                               USE(x.insert(0, 1, 2)), USE(x.compare(0, 1))));

}  // namespace
