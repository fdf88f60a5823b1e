#!/bin/sh
# SPDX-License-Identifier: MIT
# readme.sh SOURCE BUILD COMPILER [FLAGS]: does what the README says, as a new user would.
#
# Installs the build to a folder of its own, takes the program, its build file and what it prints from
# the README, and compares.
set -eu
source=$1 build=$2 compiler=$3 flags=${4-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$source/README.md" | sed '1d;$d'; }
block cpp >"$work/first.cpp"
block cmake >"$work/CMakeLists.txt"
block text >"$work/expected"

{
  cmake --install "$build" --prefix "$work/prefix"
  cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags -Wall -Wextra -Werror"
  cmake --build "$work/build"
} >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
"$work/build/first" >"$work/printed"
diff -u "$work/expected" "$work/printed" && echo "the README's program prints what it says"

place=$(grep -n '"%s is done"' "$source/examples/tour.cpp" | cut -d: -f1)
grep -qF "|examples/tour.cpp:$place|Reading is done" "$source/README.md" ||
  { echo "the README's log lines name another line than $place"; exit 1; }
