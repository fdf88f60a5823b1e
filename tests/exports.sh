#!/bin/sh
# SPDX-License-Identifier: MIT
# exports.sh LIBRARY LIST: the dynamic symbols of LIBRARY against the kept LIST.
#
# Everything listed must be there, and nothing else but copies of inline functions may leave. To renew
# the list after a wanted change: exports.sh LIBRARY - (and add the inline functions that must be there).
set -eu
export LC_ALL=C
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Names without their addresses and kinds; size_t and va_list are of another type on each pointer size.
names() {
  cut -d' ' -f2- | cut -c3- | c++filt |
    sed -e 's/operator new(unsigned \(int\|long\)/operator new(size_t/' \
      -e 's/char const\*, \(__va_list_tag\*\|char\*\))/char const*, va_list)/' \
      -e 's/char const\*, \(__va_list_tag (&) \[1\]\|char\*&\))/char const*, va_list\&)/' | sort -u
}
nm -D --defined-only "$1" | grep -v ' A ' >"$work/symbols"
names <"$work/symbols" >"$work/all"
grep -v ' W ' "$work/symbols" | names >"$work/own"
if [ "$2" = - ]; then
  cat "$work/own"
  exit 0
fi
sort -u "$2" >"$work/listed"
comm -23 "$work/listed" "$work/all" | sed 's/^/missing: /' >"$work/wrong"
comm -13 "$work/listed" "$work/own" | sed 's/^/not listed: /' >>"$work/wrong"
cat "$work/wrong"
[ ! -s "$work/wrong" ] && echo "the exported symbols are those of $(basename "$2")"
