// SPDX-License-Identifier: MIT
// std::format of String, SubString, UID and Time, in languages and libraries that have it; empty in
// others.
//
// Texts, with their NULs, and identifiers have the format of a std::string_view, as in "{:>10}"; a
// Time has that of a double, as in "{:.3f}".
//
// Thread safety: formatting an identifier allocates its text form from the process allocator.
#pragma once

#if __cplusplus >= 202002L
#include <version>
#endif
#ifdef __cpp_lib_format
#include <format>
#include <string_view>

#include "utils/sdk/string.h"
#include "utils/sdk/time.h"
#include "utils/sdk/uid.h"

namespace Utils {

// The formatter of a value that is shown as a Shown.
template <class Value, class Shown>
struct FormatterAs : std::formatter<Shown> {
  template <class Context>
  auto format(const Value& value, Context& context) const {
    return std::formatter<Shown>::format(static_cast<Shown>(value), context);
  }
};

}  // namespace Utils

template <>
struct std::formatter<Utils::String> : Utils::FormatterAs<Utils::String, std::string_view> {};
template <>
struct std::formatter<Utils::SubString> : Utils::FormatterAs<Utils::SubString, std::string_view> {};
template <>
struct std::formatter<Utils::Time> : Utils::FormatterAs<Utils::Time, double> {};
template <>
struct std::formatter<Utils::UID> : std::formatter<Utils::String> {
  template <class Context>
  auto format(const Utils::UID& id, Context& context) const {
    return std::formatter<Utils::String>::format(id.asText(), context);
  }
};
#endif
