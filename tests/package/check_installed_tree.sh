#!/usr/bin/env bash
# Builds the examples against an installed tree, away from the build tree, by find_package and by pkg-config, and lets
# them talk. Usage: check_installed_tree.sh BUILD_DIRECTORY COMPILER TOOLCHAIN_FILE EMULATOR (the last two may be
# empty). CMAKE names the cmake to use.
set -euo pipefail
build=$1 compiler=$2 toolchain=$3
read -ra emulator <<<"$4"
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cmake=${CMAKE:-cmake}
unset LD_LIBRARY_PATH
work=$(mktemp -d)
pids=()
trap 'kill -KILL "${pids[@]}" 2>/dev/null || true; rm -rf "$work"' EXIT

# await WHAT COMMAND...: until the command succeeds.
await() {
  local deadline=$((SECONDS + 30))
  until "${@:2}" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$deadline" ] || { tail -n 20 "$work"/*.out; echo "this did not happen: $1"; exit 1; } >&2
    sleep 0.02
  done
}
serving() { [ -n "$(find "$IAM_RUNTIME_DIR" -type s)" ]; }

# talk DIRECTORY PUBLISHER LINE: the events of a publisher reach the client, which has the fault-reporting library,
# prints the line and leaves in order.
talk() {
  IAM_RUNTIME_DIR=$(mktemp -d -p "$work")
  export IAM_RUNTIME_DIR
  "${emulator[@]}" "$1/$2" >"$work/publisher.out" 2>&1 &
  pids=($!)
  await "the publisher serves" serving
  rm -f "$work/client.out"  # what an earlier client wrote must not pass for this one's
  "${emulator[@]}" "$1/client" >"$work/client.out" 2>&1 &
  pids+=($!)
  await "an event arrives" grep -Eq "^$3\$" "$work/client.out"
  if grep FTERegister "$work/client.out" >&2; then exit 1; fi
  kill -TERM "${pids[1]}"
  wait "${pids[1]}"
  kill -KILL "${pids[0]}"
  wait "${pids[0]}" || true
  pids=()
}

# Installed, then moved: nothing of the tree depends on where it was put first.
"$cmake" --install "$build" --prefix "$work/first" >"$work/install.out"
prefix=$work/prefix
mv "$work/first" "$prefix"
"${emulator[@]}" "$prefix/bin/report-event-monitor" --version
"${emulator[@]}" "$prefix/bin/report-event-publish" --version

# completes LINE EXPECTED...: what bash offers for the last word of the line, with the installed programs.
completes() {
  local expected
  COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  expected=${*:2}
  _report_event "${1%% *}"
  [ "${COMPREPLY[*]}" = "$expected" ] || { echo "'$1' is completed with: ${COMPREPLY[*]}"; exit 1; } >&2
}
if [ ${#emulator[@]} -eq 0 ]; then
  PATH=$prefix/bin:$PATH
  # shellcheck source=/dev/null
  source "$prefix/share/bash-completion/completions/report-event-monitor"
  completes "report-event-monitor --json --se" --security --severity
  completes "report-event-publish --wait --kind d" device
  [ ! -f "$prefix/bin/report-event-forward" ] || completes "report-event-forward --observe --sync f" full
  completes "report-event-publish --resource sea:/res/p" /res/pm/fm
fi

mkdir "$work/source" "$work/by_hand"
cp "$root"/examples/*.cpp "$root/tests/package/consumer/CMakeLists.txt" "$work/source"
# The linker keeps only what it is told to keep, as some distributions have it.
as_needed=-Wl,--as-needed
options=(-DCMAKE_EXE_LINKER_FLAGS="$as_needed" -DCMAKE_CXX_COMPILER="$compiler")
[ -z "$toolchain" ] || options+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
{
  "$cmake" -S "$work/source" -B "$work/by_cmake" -DCMAKE_PREFIX_PATH="$prefix" "${options[@]}"
  "$cmake" --build "$work/by_cmake"
} >"$work/cmake.out" 2>&1 || { cat "$work/cmake.out" >&2; exit 1; }
device_line='device 0x1001: fan [0-9]+ stopped'
talk "$work/by_cmake" publisher "$device_line"
talk "$work/by_cmake" fault_publisher 'fault 0x1001: fan stopped, 2 DIDs'

PKG_CONFIG_LIBDIR=$(dirname "$(find "$prefix" -name report_event.pc)")
export PKG_CONFIG_LIBDIR
[ "$(pkg-config --modversion report_event)" = "$(cat "$root/VERSION")" ]
read -ra library < <(pkg-config --cflags --libs report_event)
read -ra platform < <(pkg-config --cflags --libs report_event_host_platform)
build() {
  "$compiler" -std=c++17 "$as_needed" -o "$work/by_hand/$1" "$work/source/$1.cpp" "${@:2}"
}
build client "${library[@]}" "${platform[@]}"
build publisher "${library[@]}"
talk "$work/by_hand" publisher "$device_line"
