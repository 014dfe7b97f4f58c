#!/usr/bin/env bash
# Judges a built libreport_event.so by what it asks of a process and what it offers: symbols, needed libraries, flags.
# Usage: check_library.sh host|device LIBRARY [PLATFORM LIBRARY]...   the library, and the platform's that it must name
#        check_library.sh operations HEADER...                       what headers of platform/include declare
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

declared_operations() {
  awk '/^extern "C" \{/ { inside = 1 } /^}  \/\/ extern "C"/ { inside = 0 }
       inside && match($0, /^[a-z][a-z0-9_ ]* \**[A-Za-z_0-9]+\(/) {
         name = substr($0, 1, RLENGTH - 1); sub(/.*[ *]/, "", name); print name }' "$@" | sort
}

[ "$1" != operations ] || { declared_operations "${@:2}"; exit; }

kind=$1 library=$2 platform_libraries=("${@:3}")
status=0
complain() {
  echo "$library: $*" >&2
  status=1
}
# same WHAT EXPECTED ACTUAL: two lists, one word a line, must be equal.
same() {
  diff -u --label "expected: $1" --label "found: $1" <(printf '%s\n' "$2") <(printf '%s\n' "$3") >&2 || complain "$1"
}

# Of the system it takes what carries a version of the C and C++ libraries; of the platform, what is declared.
undefined=$(nm -D --undefined-only "$library" | awk '$1 == "U" { print $2 }' | LC_ALL=C sort)
same "symbols of foreign libraries" "" \
  "$(grep @ <<<"$undefined" | grep -vE '@(GLIBC|GLIBCXX|CXXABI|GCC)_[0-9.]+$' || true)"
expected=$(declared_operations platform/include/{c_sec,iam,slog}.h)
plain=(nanosleep prctl sigaction sigemptyset syslog)
if [ "$kind" = host ]; then expected+=$'\n__wrap_open\n__wrap_close'; else plain+=(open close); fi
same "platform operations" "$(LC_ALL=C sort <<<"$expected")" "$(grep -v @ <<<"$undefined")"
# The plain names, not their fortified or 64-bit forms: a platform may stand in for them.
for name in "${plain[@]}"; do
  grep -q "^$name@" <<<"$undefined" || complain "does not call $name by that name"
done

same "exported symbols" "$(cat tests/package/exported_symbols.txt)" \
  "$(nm -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort)"
# A unique symbol would keep the library in the process for ever.
same "unique symbols" "" "$(nm -a "$library" | awk '$2 == "u" { print $3 }')"

dynamic=$(readelf -dW "$library")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort)
system='^(libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux.*)$'
same "needed libraries of the platform" "$(printf '%s\n' "${platform_libraries[@]}" | sort)" \
  "$(grep -vE "$system" <<<"$needed" || true)"
version=$(cat VERSION)
same "library name" "libreport_event.so.${version%%.*}" "$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' <<<"$dynamic")"
same "file name" "libreport_event.so.$version" "$(basename "$(readlink -f "$library")")"

# The fault-reporting library may be absent. The other weak symbols are the compiler's own.
same "weak references" "$(declared_operations platform/include/fte.h)" \
  "$(nm -D --undefined-only "$library" | awk '$1 == "w" && $2 !~ /@|^_ITM_|^__gmon_start__$/ { print $2 }' | sort)"

# Bound when it is loaded, so that nothing is looked up inside the signal handler.
grep -q BIND_NOW <<<"$dynamic" || complain "not bound at loading"
if grep -E 'TEXTREL|NODELETE' <<<"$dynamic" >&2; then complain "flags of the dynamic section"; fi
segments=$(readelf -lW "$library")
grep -q GNU_RELRO <<<"$segments" || complain "no read-only relocations"
grep -Eq 'GNU_STACK .* RW ' <<<"$segments" || complain "executable stack"
exit $status
