#!/usr/bin/env bash
# Builds the library alone, as for a device, and judges what it asks of a process and what it offers: for this machine
# and for AArch64, with the platform left undefined and with an SDK's libraries; then also the monitor, which must know
# its command line, and the tests of a platform, which judge the host's.
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

# make_sdk COMPILER DIRECTORY: libraries under an SDK's names that hold what platform/include declares, and nothing more.
make_sdk() {
  local library
  mkdir -p "$2"
  for library in iam slog c_sec; do
    tests/package/check_library.sh operations "platform/include/$library.h" | sed 's/.*/void &(void) {}/' |
      "$1" -x c -shared -fPIC -Wl,-soname,"lib$library.so" -o "$2/lib$library.so" -
  done
}

# check_device PRESET COMPILER
check_device() {
  local build=build/$1 sdk=$PWD/build/$1-sdk/sdk
  configure "$1" -DREPORT_EVENT_WERROR=ON -DREPORT_EVENT_BUILD_PLATFORM_TESTS=ON
  build "$build"
  tests/package/check_library.sh device "$build/libreport_event.so"

  make_sdk "$2" "$sdk"
  configure "$1" -B "$build-sdk" -DREPORT_EVENT_WERROR=ON \
    -DREPORT_EVENT_PLATFORM_LIBRARIES="$sdk/libiam.so;$sdk/libslog.so;$sdk/libc_sec.so" \
    -DREPORT_EVENT_BUILD_MONITOR=ON
  build "$build-sdk"
  tests/package/check_library.sh device "$build-sdk/libreport_event.so" libiam.so libslog.so libc_sec.so
  check_monitor "$build-sdk/tools/report-event-monitor"
}

# It has what every platform can do, and refuses what only the host platform can.
check_monitor() {
  local run=("$1") said
  [[ $1 != *aarch64* ]] || run=(qemu-aarch64 -L /usr/aarch64-linux-gnu "$1")
  "${run[@]}" --follow --help >/dev/null
  said=$("${run[@]}" --observe 2>&1) && fail "$1 knows --observe"
  [[ $said = *"not expected: --observe"* ]] || fail "$1 --observe: $said"
}

# judge_platform PRESET HOST_PRESET [EMULATOR]: the verdict on the host's platform, taken for a device's.
judge_platform() {
  local judge=build/$1-judge host=$PWD/build/$2/platform/host program=tests/platform/report-event-platform-test
  configure "$2"
  build "build/$2" iam slog c_sec fte
  local libraries="$host/iam/libiam.so;$host/slog/libslog.so;$host/c_sec/libc_sec.so"
  configure "$1" -B "$judge" -DREPORT_EVENT_WERROR=ON -DREPORT_EVENT_BUILD_PLATFORM_TESTS=ON \
    -DREPORT_EVENT_PLATFORM_LIBRARIES="$libraries;-Wl,--wrap=open,--wrap=close" \
    -DREPORT_EVENT_FAULT_LIBRARY="$host/fte/libfte.so"
  build "$judge" report-event-platform-test
  # shellcheck disable=SC2086  # several words
  ${3:-} "$judge/$program" "--start-with=${3:-}" --log=stderr --everything --gtest_brief=1
}

need build cross
check_device device c++
judge_platform device host
check_device aarch64-device aarch64-linux-gnu-g++
judge_platform aarch64-device aarch64 "qemu-aarch64 -L /usr/aarch64-linux-gnu"
