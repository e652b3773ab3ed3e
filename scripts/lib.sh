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

# clang, and its sanitizers and libFuzzer, which Debian has in a package of their own.
need_clang() {
  command -v clang++ >/dev/null &&
    [[ -e $(clang++ -print-resource-dir)/lib/linux/libclang_rt.fuzzer-$(uname -m).a ]] ||
    install_packages clang libclang-rt-dev
}

# The headers that the tools are written on.
need_tools() {
  need /usr/include/CLI/CLI.hpp=libcli11-dev /usr/include/asio.hpp=libasio-dev \
    /usr/include/nlohmann/json.hpp=nlohmann-json3-dev
}

need_windows() {
  need cmake=cmake ninja=ninja-build x86_64-w64-mingw32-g++-posix=g++-mingw-w64-x86-64-posix \
    "$QZ_WINE/wine64=wine64" /usr/src/googletest/CMakeLists.txt=googletest
  need_tools
}

# Where Debian's package wine64 puts it.
QZ_WINE=/usr/lib/wine

# wine_begin: one Wine for all Windows programs that this script starts from here on, with a home
# of its own in build/windows. It ends with the script.
wine_begin() {
  export WINEPREFIX=$QZ_ROOT/build/windows/wine WINEDEBUG=-all WINEDLLOVERRIDES='mscoree,mshtml='
  mkdir -p "$WINEPREFIX"
  trap '"$QZ_WINE/wineserver64" -k || true' EXIT
  say "Starting Wine"
  # The server stays: else each program would wait for a new one. What Wine itself leaves running
  # keeps the streams that it was started with, so they mustn't be the caller's pipe.
  {
    "$QZ_WINE/wineserver64" -p || true
    "$QZ_WINE/wine64" wineboot
  } </dev/null >"$WINEPREFIX/start.log" 2>&1 || die "Wine doesn't start: see $WINEPREFIX/start.log"
}

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
