// SPDX-License-Identifier: MIT
// std::hash of Time and Ref, whose own headers do without std::hash. Those of String, SubString
// and UID stand in their own headers.
//
// Thread safety: functions share no state.
#pragma once

#include <cstring>
#include <string_view>  // the lightest header that has std::hash

#include "utils/sdk/object.h"
#include "utils/sdk/time.h"

template <>
struct std::hash<Utils::Time> {
  std::size_t operator()(const Utils::Time& t) const noexcept {
    long long raw;
    std::memcpy(&raw, &t, sizeof raw);
    return std::hash<long long>()(raw);
  }
};

template <class T>
struct std::hash<Utils::Ref<T>> {
  std::size_t operator()(const Utils::Ref<T>& r) const noexcept { return std::hash<T*>()(r.get()); }
};
