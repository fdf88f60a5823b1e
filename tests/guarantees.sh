#!/bin/sh
# SPDX-License-Identifier: MIT
# guarantees.sh PAGE FOLDER: every test that the page names is there, in the program of the folder or the
# script beside this one that it names.
set -eu
page=$1 programs=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# PROGRAM NAME, a line each: a program goes with the names after it.
# shellcheck disable=SC2016  # backquotes of the page
grep -o '`[A-Za-z0-9_/]*_test\(\.py\)\?`\|`[A-Za-z0-9_/]*\.[A-Za-z0-9_/]*`' "$page" | tr -d '`' |
  awk '/_test(\.py)?$/ { program = $0; next } /\.(cpp|h|sh|md)$/ { next } program { print program, $0 }' >"$work/named"
list_tests() {
  case $1 in
  *.py) sed -n 's/^class \([A-Za-z]*\).*/\1./p; s/^    def \(test[A-Za-z0-9_]*\).*/ \1/p' "$(dirname "$0")/$1" ;;
  *) "$programs/$1" --gtest_list_tests ;;
  esac | awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }'
}
wrong=0
while read -r program name; do
  list=$work/$program
  [ -f "$list" ] || list_tests "$program" >"$list"
  grep -qxF "$name" "$list" || { echo "no such test: $program $name"; wrong=1; }
done <"$work/named"
[ "$(wc -l <"$work/named")" -gt 40 ] || { echo "the page was not understood"; wrong=1; }
[ $wrong = 0 ] && echo "the page names tests that are there"
