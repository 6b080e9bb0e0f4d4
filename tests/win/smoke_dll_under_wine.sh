#!/usr/bin/env bash
# smoke_dll_under_wine.sh SRC BUILD [seam]: cross-builds the plug-in DLL, the cluster libraries'
# DLLs and the smoke program, runs the program under Wine in a Wine prefix of its own against a
# copy of the host tests' configuration, and compares the plug-in's lines in sdw.log with
# smoke_sdw_log.txt (time stamps, process and thread ids, source lines, handles and ticks masked).
# With "seam", the same for the test variant qmtsdw_seam.dll on the host tests' simulated disks,
# against smoke_seam_sdw_log.txt.
# Exits 77 (skipped) where Wine is not installed, unless QMT_REQUIRE_WINE=1 (the CI, which installs
# it) makes that a failure. Everything it makes is removed on every exit.
set -uo pipefail
src=$1 build=$2 mode=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine_env.sh"
dll=qmtsdw expected=smoke_sdw_log.txt
[ "$mode" = seam ] && dll=qmtsdw_seam expected=smoke_seam_sdw_log.txt
bash "$src/scripts/win-build.sh" "$src" "$build" $dll qmtlog qmtxml qmtshmcm qmtshmrm qmtutil qmt_smoke_dll ||
  { echo "cross build failed"; exit 1; }

cp -r "$src/tests/host/conf" "$work/conf"
mkdir -p "$work/log"
export QMT_CONF_DIR=$(winpath "$work/conf") QMT_LOG_DIR=$(winpath "$work/log") QMT_HOSTNAME=node1
export QMT_SHM_NAME="qmtwinsmoke$$" QMT_SIM_FILE=$(winpath "$work/conf/sim.txt")

start=$(date +%s%N)
timeout -k 10 240 wine "$build/bin/qmt_smoke_dll.exe" $mode 2>&1 | tr -d '\r'
rc=${PIPESTATUS[0]}
echo "wine run (with a new prefix): $(( ($(date +%s%N) - start) / 1000000 )) ms"
[ "$rc" -eq 0 ] || { echo "the smoke program failed (exit $rc)"; exit 1; }

[ -f "$work/log/sdw.log" ] || { echo "no sdw.log was written"; ls -la "$work/log"; exit 1; }
actual=$(sed -E -e 's/^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} ([A-Z0-9]+) [0-9]+\/[0-9]+ ([^ :]+):[0-9]+ /\1 \2 /' \
                -e 's/((Handle|handle|H[A-Za-z]*|Event|Tick)=)(0x)?[0-9A-Fa-f]+/\1#/g' "$work/log/sdw.log")
want=$(grep -v '^#' "$here/$expected")
if [ "$actual" != "$want" ]; then
  echo "sdw.log differs from $expected:"
  diff <(printf '%s\n' "$want") <(printf '%s\n' "$actual")
  exit 1
fi
echo "sdw.log: $(printf '%s\n' "$actual" | wc -l) lines as expected"
