# What the scripts share. Sourced by bash with `set -euo pipefail`, never run.
# shellcheck shell=bash

QZ_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '\n== %s\n' "$*"; }

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# need WHAT=PACKAGE...: installs the Debian packages of everything that isn't there. WHAT is a
# command, or the absolute path of a file. Where all is there, nothing is touched: no network and
# no rights are needed.
need() {
  local item what missing=()
  for item in "$@"; do
    what=${item%%=*}
    if [[ $what == /* ]]; then
      [[ -e $what ]] || missing+=("${item#*=}")
    else
      command -v "$what" >/dev/null || missing+=("${item#*=}")
    fi
  done
  [[ ${#missing[@]} -eq 0 ]] || install_packages "${missing[@]}"
}

install_packages() {
  command -v apt-get >/dev/null ||
    die "these Debian packages, or what your system has for them, are needed: $*"
  local root=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null ||
      die "please install as root: apt-get install $*"
    root=(sudo)
  fi
  local log
  log=$(mktemp)
  say "Installing $* (takes a minute or two)"
  # Debian's mirrors drop a connection now and then; a second try is cheaper than a failed run.
  local try
  for try in 1 2 3; do
    if apt_get update && apt_get install -y --no-install-recommends "$@"; then
      rm -f "$log"
      return
    fi
    echo "   attempt $try failed"
  done
  tail -n 20 "$log" >&2
  die "couldn't install: $* (the whole output is in $log)"
}

# Quiet apt-get with the `root` and `log` of install_packages.
apt_get() {
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -o DPkg::Lock::Timeout=300 "$@" </dev/null >>"$log" 2>&1
}

need_compiler() { need cmake=cmake ninja=ninja-build g++=g++; }

# build PRESET [TARGET...]: configures and builds, in the repository's build/PRESET. One try with a
# fresh cache follows a failed configuration, for a build folder that another CMake left behind.
build() {
  local preset=$1
  shift
  local targets=()
  [[ $# -eq 0 ]] || targets=(--target "$@")
  say "Building $preset"
  cd "$QZ_ROOT" || die "no folder $QZ_ROOT"
  cmake --preset "$preset" </dev/null >/dev/null ||
    cmake --fresh --preset "$preset" </dev/null ||
    die "configuring $preset failed"
  cmake --build --preset "$preset" -j "$(nproc)" "${targets[@]}" </dev/null ||
    die "building $preset failed"
}
