# What the scripts share. Sourced by them: answers --help with the comment on top of the script, refuses what the script
# does not know, changes to the project's root and defines functions.
# shellcheck shell=bash
set -euo pipefail
unset CDPATH

say() { printf '== %s\n' "$*"; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }
# refuse TEXT: the script was called wrongly.
refuse() { printf '%s: %s; --help tells more\n' "$(basename "$0")" "$*" >&2; exit 2; }

help_text() { sed -n '2,${/^# shellcheck/d; /^#/!q; s/^# \{0,1\}//p}' "$0"; }

# take ARGUMENT...: an option is known if a line of the help begins with it, with what it takes in capitals behind it, N
# being a number. Other words are known to a script whose usage names one.
take() {
  local text options known
  text=$(help_text)
  options=$(sed -nE 's/^ +(-[^ ]+( [A-Z]+)?) .*/\1/p' <<<"$text")
  while [ $# -gt 0 ]; do
    case $1 in
      --help) printf '%s\n' "$text"; exit 0 ;;
      -D?*=*) known=$(awk '$1 == "-DNAME=VALUE"' <<<"$options") ;;
      -*) known=$(awk -v option="$1" '$1 == option' <<<"$options") ;;
      *) known=$(grep -oE '^Usage: .*\[[A-Z]+\]' <<<"$text" | tr ' ' _ || true) ;;
    esac
    [ -n "$known" ] || refuse "unknown argument '$1'"
    if [[ $known == *' '* ]]; then
      [ $# -gt 1 ] || refuse "a value is missing: $known"
      [[ $known != *' N' || $2 =~ ^[0-9]+$ ]] || refuse "$1 takes a whole number, not '$2'"
      shift
    fi
    shift
  done
}
take "$@"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Debian packages, by what needs them. A new one goes here and nowhere else.
declare -A PACKAGES=(
  [build]="cmake ninja-build g++ libcli11-dev nlohmann-json3-dev libutfcpp-dev help2man libmosquitto-dev libsqlite3-dev libssl-dev"
  [test]="libgtest-dev gdb make python3 pkg-config mosquitto mosquitto-clients openssl"
  [cross]="g++-aarch64-linux-gnu qemu-user"
  [check]="clang clang-format clang-tidy shellcheck systemd"
  [fuzz]="clang libclang-rt-dev"
  [bench]="libbenchmark-dev libzmq3-dev libiceoryx-posh-dev iceoryx libsystemd-dev gnuplot-nox python3"
  [docs]="doxygen python3"
  [packages]="dpkg-dev file procps"
)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# need PURPOSE...: installs those of its packages that are missing.
need() {
  local purpose package packages missing=()
  for purpose; do
    read -ra packages <<<"${PACKAGES[$purpose]}"
    for package in "${packages[@]}"; do installed "$package" || missing+=("$package"); done
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  command -v apt-get >/dev/null || { say "no apt-get here: taken for granted: ${missing[*]}"; return 0; }
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
