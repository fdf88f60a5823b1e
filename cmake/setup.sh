# shellcheck shell=bash
# SPDX-License-Identifier: MIT
# Steps that the commands at the root share; to be sourced. Requires: `root` is the project's folder.

# Each command takes --no-install as its first word: no package is installed then.
install=yes
if [ "${1-}" = --no-install ]; then
  install=no
  shift
fi

# Installs the Debian packages that are missing, and reports them first. Does nothing on other systems.
need() {
  local missing=() package sudo=()
  command -v dpkg-query >/dev/null || return 0
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Debian packages that are missing: ${missing[*]}" >&2
  if [ $install = no ]; then
    echo "They are not installed (--no-install)." >&2
    return 0
  fi
  [ "$(id -u)" = 0 ] || sudo=(sudo)
  echo "Installing them: ${sudo[*]} apt-get install (--no-install leaves that out) ..." >&2
  quietly install "${sudo[@]}" apt-get update -q
  quietly install "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# Shows one line that moves, on a terminal; elsewhere a line of its own.
progress() {
  local text=$* columns
  if [ -t 2 ]; then
    columns=$(tput cols 2>/dev/null || echo 80)
    printf '\r\033[K%s' "${text:0:columns-1}" >&2
  else
    echo "$text" >&2
  fi
}

endProgress() { [ ! -t 2 ] || printf '\r\033[K' >&2; }

# Shows the lines of its input as progress; where there is no terminal, only those of a long build
# that complete a quarter of it.
showProgress() {
  local line quarter=0 now
  while IFS= read -r line; do
    if [ ! -t 2 ]; then
      [[ $line =~ ^\[([0-9]+)/([0-9]{2,})\] ]] || continue
      now=$((BASH_REMATCH[1] * 4 / BASH_REMATCH[2]))
      ((now > quarter)) || continue
      quarter=$now
    fi
    progress "$line"
  done
  endProgress
}

# quietly LOG COMMAND...: keeps the output in build/LOG.log and shows it when the command fails, and
# while it runs how far it is.
quietly() {
  # shellcheck disable=SC2154  # the sourcing command sets it
  local log=$root/build/$1.log
  shift
  mkdir -p "$root/build"
  (set -o pipefail; "$@" 2>&1 | tee "$log" | showProgress) && return 0
  tail -n 60 "$log" >&2
  echo "failed: $* (all of its output: $log)" >&2
  exit 1
}

# build PRESET: configures unless that was done before, and builds.
build() (
  cd "$root" || exit
  if [ ! -f "build/$1/build.ninja" ]; then
    echo "Configuring and building $1 ..." >&2
    quietly "configure-$1" cmake --preset "$1"
  fi
  quietly "build-$1" cmake --build --preset "$1"
)
