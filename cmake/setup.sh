# shellcheck shell=bash
# SPDX-License-Identifier: MIT
# Steps that the commands at the root share; to be sourced. Requires: `root` is the project's folder.

# Installs the Debian packages that are missing, and reports it. Does nothing on other systems.
need() {
  local missing=() package sudo=()
  command -v dpkg-query >/dev/null || return 0
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing ${missing[*]} ..." >&2
  [ "$(id -u)" = 0 ] || sudo=(sudo)
  quietly install "${sudo[@]}" apt-get update -q
  quietly install "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# quietly LOG COMMAND...: keeps the output in build/LOG.log and shows it when the command fails.
quietly() {
  # shellcheck disable=SC2154  # the sourcing command sets it
  local log=$root/build/$1.log
  shift
  mkdir -p "$root/build"
  "$@" >"$log" 2>&1 && return 0
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
