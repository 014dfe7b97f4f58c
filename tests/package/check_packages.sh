#!/usr/bin/env bash
# Makes the Debian packages and tries them in a fresh root: they install, the monitor receives what the publisher sends,
# and removed they leave nothing behind.
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

need build packages
configure package
build build/package
work=$(mktemp -d)
root=$work/root
publisher=
clean_up() {
  [ -z "$publisher" ] || as_root pkill -KILL -P "$publisher" 2>/dev/null || true
  as_root rm -rf "$work"
}
trap clean_up EXIT
# The programs and the loader look into /proc, which is there only for the command. A machine that lets nobody mount it
# cannot run them there.
# shellcheck disable=SC2016  # for that shell
can_mount() { as_root unshare --mount sh -c 'mount -t proc proc "$0"' "$root/proc" 2>/dev/null; }
in_root() {
  # shellcheck disable=SC2016  # for that shell
  as_root unshare --mount sh -c 'mount -t proc proc "$0/proc" && exec chroot "$0" /usr/bin/env -i "$@"' "$root" \
    IAM_RUNTIME_DIR=/run/iam PATH=/usr/sbin:/usr/bin "$@"
}
dpkg_in_root() {
  as_root dpkg --root="$root" --log="$work/dpkg.log" "$@" >"$work/dpkg.out" 2>&1 || fail "$(cat "$work/dpkg.out")"
}
# Every file but the package database's own.
contents() { as_root find "$root" -path "$root/var/lib/dpkg" -prune -o -printf '%P %y %l\n' | sort; }

rm -rf build/package/packages
(cd build/package && cpack) >"$work/cpack.out" 2>&1 || fail "$(cat "$work/cpack.out")"
packages=(build/package/packages/*.deb)
[ ${#packages[@]} -eq 4 ] || fail "expected four packages, found: ${packages[*]}"

# The root holds, from this machine's own packages, what ours depend on and what their installation runs; no more than
# that, so that a dependency that is not declared shows.
say "making a fresh root"
base=(libc6 libc-bin libgcc-s1 libstdc++6 dash coreutils libmosquitto1 libsqlite3-0 libssl3)
database=$root/var/lib/dpkg
as_root mkdir -p "$root"/usr/{bin,sbin,lib,lib64} "$root"/{etc,proc,run,tmp} "$database"/{info,updates,triggers}
as_root mkdir -m 700 "$root/run/iam"
for directory in bin sbin lib lib64; do as_root ln -s "usr/$directory" "$root/$directory"; done
for package in "${base[@]}"; do
  { dpkg-query -s "$package" && echo; } >>"$work/status"
  as_root cp "$(dpkg-query --control-path "$package" md5sums | sed 's/md5sums$/list/')" "$database/info"
  dpkg-query -L "$package" | while read -r file; do if [ -f "$file" ]; then printf '%s\n' "$file"; fi; done
done >"$work/files"
as_root cp "$work/status" "$database/status"
tar -C / -cf - -T <(sed s,^/,, "$work/files") | as_root tar -C "$root" --keep-directory-symlink -xf -
as_root chroot "$root" /usr/sbin/ldconfig
contents >"$work/before"

say "installing the packages"
dpkg_in_root --install "${packages[@]}"
libraries=$(as_root chroot "$root" /usr/sbin/ldconfig -p)
grep -q libreport_event.so.1 <<<"$libraries" || fail "the library is not found"
! grep -E 'lib(iam|slog|c_sec|fte)\.so' <<<"$libraries" || fail "the host platform shadows real libraries"

if can_mount; then
  say "running the monitor and the publisher"
  in_root report-event-forward --version
  mkfifo "$work/serving"
  in_root report-event-publish --resource dp:/res/pm/fm --kind device --name "packed" --wait >"$work/serving" &
  publisher=$!
  exec {serving}<"$work/serving"
  read -r -t 30 <&"$serving" || fail "the publisher does not serve"
  in_root timeout 30 report-event-monitor --fault dp:/res/pm/fm --count 1 >"$work/monitor.out"
  grep '0x1001 .*"packed"' "$work/monitor.out" || fail "the monitor printed: $(cat "$work/monitor.out")"
  wait "$publisher" || fail "the publisher ended with $?"
  publisher=
else
  say "skipped: running the monitor and the publisher (nobody may mount /proc here)"
fi

say "removing the packages"
mapfile -t names < <(for package in "${packages[@]}"; do dpkg-deb -f "$package" Package; done)
dpkg_in_root --purge "${names[@]}"
contents | diff "$work/before" - || fail "this is left behind or gone after the removal"
say "the packages install, work and leave nothing behind: ${names[*]}"
