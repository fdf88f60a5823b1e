#!/bin/sh
# SPDX-License-Identifier: MIT
# guarantees.sh PAGE FOLDER: every test that the page names is there, in the program that it names.
set -eu
page=$1 programs=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# PROGRAM NAME, a line each: a program goes with the names after it.
# shellcheck disable=SC2016  # backquotes of the page
grep -o '`[A-Za-z0-9_/]*_test`\|`[A-Za-z0-9_/]*\.[A-Za-z0-9_/]*`' "$page" | tr -d '`' |
  awk '/_test$/ { program = $0; next } /\.(cpp|h|sh|md)$/ { next } program { print program, $0 }' >"$work/named"
wrong=0
while read -r program name; do
  list=$work/$program
  if [ ! -f "$list" ]; then
    "$programs/$program" --gtest_list_tests |
      awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }' >"$list"
  fi
  grep -qxF "$name" "$list" || { echo "no such test: $program $name"; wrong=1; }
done <"$work/named"
[ "$(wc -l <"$work/named")" -gt 40 ] || { echo "the page was not understood"; wrong=1; }
[ $wrong = 0 ] && echo "the page names tests that are there"
