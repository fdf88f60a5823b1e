#!/bin/sh
# SPDX-License-Identifier: MIT
# dialog.sh PROGRAM: a message box of the log on a real display, a virtual one, until it is closed.
#
# Skipped (status 77) where there is no virtual X server or no tool to look at its windows.
set -eu
program=$1
for tool in Xvfb xdotool xmessage; do
  command -v $tool >/dev/null || { echo "skipped: no $tool here"; exit 77; }
done
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill $server; rm -rf "$work"' EXIT
cd "$work"
fail() { echo "$1"; cat out err; exit 1; }
# Tries for 20 seconds.
await() {
  tries=200
  until "$@" >found 2>/dev/null; do
    tries=$((tries - 1))
    [ $tries -gt 0 ] || fail "never came: $*"
    sleep 0.1
  done
}

: >out; : >err; : >display
Xvfb -displayfd 3 -nolisten tcp 3>display 2>server.log &
server=$!
await test -s display
DISPLAY=:$(cat display)
export DISPLAY
unset WAYLAND_DISPLAY

mkdir bin
ln -s "$(command -v xmessage)" bin/  # which of the dialog programs there are is not for this test
PATH=$work/bin "$program" >out 2>err &
shown=$!
await xdotool search --name '^Error$'
sleep 0.5
kill -0 $shown 2>/dev/null || fail "the program did not wait for the answer"
[ ! -s out ] || fail "answered by nobody"
xdotool windowkill "$(tail -n 1 found)"
wait $shown || fail "status $?"
grep -qx answered out || fail "not answered"
! grep -q 'info|disk' err || fail "the message went to standard error, too"
echo "the message box was shown, waited for its answer, and went"
