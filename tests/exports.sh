#!/bin/sh
# exports.sh LIBRARY LIST: the dynamic symbols of LIBRARY against the kept LIST.
#
# Everything listed must be there, and nothing else but copies of inline functions may leave. To renew
# the list after a wanted change: exports.sh LIBRARY -
set -eu
visible=$(mktemp)
trap 'rm -f "$visible"' EXIT
nm -D --defined-only "$1" | grep -v ' [AW] ' | cut -d' ' -f2- | cut -c3- | c++filt |
  sed -e 's/operator new(unsigned \(int\|long\)/operator new(size_t/' | LC_ALL=C sort -u >"$visible"
if [ "$2" = - ]; then
  cat "$visible"
  exit 0
fi
LC_ALL=C sort -u "$2" | diff -u - "$visible" && echo "the exported symbols are those of $(basename "$2")"
