#!/bin/sh
# SPDX-License-Identifier: MIT
# tour.sh PROGRAM: the example program on files whose words are known.
set -eu
tour=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "$1"; cat out err; exit 1; }
expect() { grep -qF -- "$1" "$2" || fail "missing in $2: $1"; }
expectLike() { grep -qE -- "$1" "$2" || fail "nothing in $2 is like: $1"; }

printf 'The cat and the dog.\nTHE END\n' >one.txt
printf 'cat\0cat Cat' >two.txt
: >empty.txt
"$tour" one.txt two.txt empty.txt >out 2>err || fail "status $?"
expect '5 different words' out
expect '       4  cat' out
expect '       3  the' out
expect 'The map has the same: 5 words, used 10 times, from "and" to "the".' out
expectLike '^ +1 +[1-9][0-9]+  one.txt$' out
expectLike '^Strings hold [1-9][0-9]+ bytes of it.$' out
expectLike '^Run C0D1F1ED[0-9A-F]{9,16}$' out
expectLike '^Reading +[0-9]+\.[0-9]{4} s$' out
expectLike '^Freed: ([0-9]+) bytes are held, as at the start: \1; 0 by strings, as at the start: 0\.' out
expect 'The heap is whole.' out
[ ! -s err ] || fail "something on standard error"

env YUtils.Log.Categories=tour#2 "$tour" one.txt two.txt >out 2>err || fail "status $?"
expect 'debug[2]|tour|one.txt: 29 bytes, all in the index' err
expect 'debug[1]|tour|Freeing is done' err
env YUtils_Log_Categories=tour#1 YUtils_Log_Verbosity=2 "$tour" one.txt >out 2>err || fail "status $?"
expectLike '^debug\[1\]\|tour\|examples/tour\.cpp:[0-9]+\|[0-9]{10}\.[0-9]{6}\|[0-9]+\|Reading is done$' err
[ "$(wc -l <err)" = 3 ] || fail "lines of a higher level"

env YUtils.Log.Categories=utils#2 "$tour" one.txt two.txt >out 2>err || fail "status $?"
expectLike "^debug\[2\]\|utils\|[0-9]+ Taking lock at file:'examples/tour\.cpp', line:[0-9]+$" err

"$tour" --picture heap.txt one.txt two.txt >out 2>err || fail "status $?"
expectLike '^one\.txt +[1-9][0-9.]+ (B|KiB) .* #+$' heap.txt
expectLike '^held .*; whole$' heap.txt
expect 'The heap is whole.' out
status=0
"$tour" --picture no/heap.svg one.txt >out 2>err || status=$?
[ $status = 1 ] || fail "status $status for a picture that cannot be written"
expect 'tour: no/heap.svg: File write error' err

status=0
"$tour" nosuch.txt one.txt . >out 2>err || status=$?
[ $status = 1 ] || fail "status $status for a missing file"
expect 'tour: nosuch.txt: No such file or directory' err
expect 'tour: .: Is a directory' err
expect 'error|utils|Raising error: File not found' err
expect 'Errors: 2, the last one: File read error.' out
expect '5 different words' out
expect '     3          0  .' out
expect 'The heap is whole.' out

status=0
"$tour" >out 2>err || status=$?
[ $status = 2 ] || fail "status $status without a file"
expect 'usage: tour [--picture PICTURE] FILE...' err
echo "the tour prints what it should"
