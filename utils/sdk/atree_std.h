// SPDX-License-Identifier: MIT
// The map as the standard library knows containers: its entries fall apart into key and value, and
// the algorithms accept its iterators in every version of the language.
//
//   for (auto& [key, value] : tree) value += key;
//   const auto place = std::find_if(tree.begin(), tree.end(), isWanted);
//
// Declares only. Include it before the first use of such an iterator in a source. It is apart from
// atree.h because <iterator> is five times as long. size() counts the entries, so ranges do not use
// it.
#pragma once

#include <cstddef>
#include <iterator>
#include <utility>

#include "utils/sdk/atree.h"

template <class K, class V>
struct std::tuple_size<Utils::AVLTreeNode<K, V>> : std::integral_constant<std::size_t, 2> {};

template <class K, class V>
struct std::tuple_element<0, Utils::AVLTreeNode<K, V>> {
  using type = const K;
};

template <class K, class V>
struct std::tuple_element<1, Utils::AVLTreeNode<K, V>> {
  using type = V;
};

template <class K, class V, class Entry>
struct std::iterator_traits<Utils::AVLTreeWalk<K, V, Entry>> {
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = Utils::AVLTreeNode<K, V>;
  using difference_type = std::ptrdiff_t;
  using pointer = Entry*;
  using reference = Entry&;
};

#if defined(__cpp_lib_ranges)
template <class K, class V>
inline constexpr bool std::ranges::disable_sized_range<Utils::AVLTree<K, V>> = true;
#endif
