// SPDX-License-Identifier: MIT
// A program of the library's own objects, whose constructors come after the program's.
#include "life/uses.h"

namespace {

struct First {
  First() { Life::say(Utils::resultToString(0x80040004)); }
  ~First() { Life::say(Utils::resultToString(0x80040004)); }
};

[[gnu::init_priority(101)]] First _first;

}  // namespace

int main() {}
