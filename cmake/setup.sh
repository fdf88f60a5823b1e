# SPDX-License-Identifier: MIT
# setup.sh: what the commands at the root share; to be sourced. Needs `root`, the project's folder.

# Installs the Debian packages that are missing, and says so. Elsewhere than on Debian it leaves that to
# the user.
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
  local log=$root/build/$1.log
  shift
  mkdir -p "$root/build"
  "$@" >"$log" 2>&1 && return 0
  tail -n 60 "$log" >&2
  echo "failed: $* (all of its output: $log)" >&2
  exit 1
}

# build PRESET: configures where that was not done yet, and builds.
build() {
  cd "$root"
  if [ ! -f "build/$1/build.ninja" ]; then
    echo "Configuring and building $1 ..." >&2
    quietly "configure-$1" cmake --preset "$1"
  fi
  quietly "build-$1" cmake --build --preset "$1"
  cd - >/dev/null
}
