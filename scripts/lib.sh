# What the scripts share. Sourced by them; changes to the project's root and defines functions.
# shellcheck shell=bash disable=SC2034
set -euo pipefail
unset CDPATH
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# What building and testing needs, by Debian package name.
BUILD_PACKAGES=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev help2man)
TEST_PACKAGES=(libgtest-dev gdb make python3 pkg-config)
CROSS_PACKAGES=(g++-aarch64-linux-gnu qemu-user)
CHECK_PACKAGES=(clang clang-format clang-tidy shellcheck)

say() { printf '== %s\n' "$*"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Installs those of the named Debian packages that are missing.
install_missing() {
  command -v apt-get >/dev/null || { say "no apt-get here: taking for granted that $* are installed"; return; }
  local missing=() package
  for package; do installed "$package" || missing+=("$package"); done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# configure PRESET [CMAKE OPTION]...: configures build/PRESET.
configure() {
  local preset=$1 launcher=()
  shift
  command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake --preset "$preset" "${launcher[@]}" "$@" >/dev/null
}

# build DIRECTORY [NINJA ARGUMENT]...: builds quietly; the whole output follows when it fails.
build() {
  local directory=$1
  shift
  say "building $directory"
  ninja -C "$directory" --quiet "$@"
}
