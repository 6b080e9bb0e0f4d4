#!/usr/bin/env bash
# package.sh DEB - the .deb on a clean Debian 12: a minimal system made by debootstrap with the
# package's declared dependencies only, `dpkg -i` in a chroot, then `qmtrm demo`, `qmtstat` and the
# OCF agent from the installed paths. Exit 77: skipped (not root, or no debootstrap).
set -u
deb=$(realpath "$1")
[ "$(id -u)" -eq 0 ] || { echo "SKIP: a chroot needs root"; exit 77; }
command -v debootstrap >/dev/null || { echo "SKIP: debootstrap not installed (tests/pacemaker/run.sh installs it)"; exit 77; }

work=$(mktemp -d "${TMPDIR:-/tmp}/qmtdeb-XXXXXX")
cleanup() {
  # The chroot's mounts live in the namespace of the unshare below and are gone with it.
  rm -rf --one-file-system "$work"
}
trap cleanup EXIT
trap 'echo "FAIL: interrupted"; exit 1' INT TERM

mirror=$(sed -n 's/^URIs: *\([^ ]*debian\)$/\1/p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -n 1)
mirror=${mirror:-http://deb.debian.org/debian}
# The package's dependencies, without versions: nothing else of the build machine comes along.
depends=$(dpkg-deb -f "$deb" Depends | sed 's/([^)]*)//g; s/ //g')
t0=$SECONDS
if ! debootstrap --variant=minbase --include="$depends" bookworm "$work/root" "$mirror" >"$work/debootstrap.log" 2>&1; then
  tail -n 20 "$work/debootstrap.log"; echo "FAIL: debootstrap"; exit 1
fi
echo "ok: clean Debian 12 with $depends ($((SECONDS - t0)) s)"
cp "$deb" "$work/root/tmp/qmtsdw.deb"
cat >"$work/root/tmp/check.sh" <<'EOF'
set -e
dpkg -i /tmp/qmtsdw.deb
cd /
# Nothing of the build tree: a plain environment, the installed programs only.
qmtrm --help >/dev/null
qmtstat --help >/dev/null
qmtrm demo --duration 15 >/tmp/demo.out 2>&1 || { tail -n 30 /tmp/demo.out; echo "FAIL: qmtrm demo"; exit 1; }
tail -n 3 /tmp/demo.out
/usr/lib/ocf/resource.d/qmt/sdw meta-data | grep -q '<resource-agent name="sdw"'
[ -f /usr/lib/systemd/system/qmtsdw.service ] && [ -f /usr/share/man/man1/qmtrm.1.gz ]
dpkg -r qmtsdw >/dev/null
[ ! -e /usr/bin/qmtrm ]
echo "ok: installed, demo run, agent and unit present, removed"
EOF
unshare --mount --propagation private -- sh -c '
  root=$1
  mount -t proc proc "$root/proc" && mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm" &&
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 chroot "$root" sh /tmp/check.sh' _ "$work/root" ||
  { echo "FAIL: in the chroot"; exit 1; }
echo "PASS: package ($((SECONDS - t0)) s)"
