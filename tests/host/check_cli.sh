#!/usr/bin/env bash
# check_cli.sh QMTRM OTHERLIB QMTSTAT TEST_SH - exit statuses of bad command lines and bad scripts,
# of qmtrm and qmtstat alike, and of the test script itself.
set -u
qmtrm=$1
otherlib=$2
qmtstat=$3
test_sh=$4
here=$(cd "$(dirname "$0")" && pwd)
. "$(dirname "$0")/scratch.sh" cli
trap 'rm -rf "$work"; rm -f /dev/shm/*"$shm"*' EXIT
fail=0
prefix=()  # what runs the program under test
# expect STATUS TEXT-IN-OUTPUT -- ARGS...
expect() {
  local want=$1 text=$2; shift 3
  "${prefix[@]}" "$qmtrm" "$@" >"$work/out" 2>&1
  local rc=$?
  if [ $rc -ne "$want" ]; then echo "FAIL: qmtrm $* -> $rc, expected $want"; cat "$work/out"; fail=1; fi
  if [ -n "$text" ] && ! grep -qF -- "$text" "$work/out"; then
    echo "FAIL: qmtrm $* does not say: $text"; cat "$work/out"; fail=1
  fi
}
printf 'DoMontr sdw sdw1\nexpect 190\nfrobnicate 1\n' >"$work/syntax.qmt"
printf '# comment\n\nDoMontr sdw sdw1\nexpect 0\n' >"$work/expect.qmt"
printf 'DoMontr sdw\n' >"$work/arity.qmt"
printf 'expect 0\n' >"$work/noresult.qmt"
printf 'DoMontr NULL NULL\nexpect 190\nexpect != 0\nGetCheckPoint NULL\nexpect 0\n' >"$work/nulls.qmt"
printf 'tick set 12345\nsleep 0\n' >"$work/nocalls.qmt"

expect 0 "run"       -- --help
expect 0 "--stop-wait" -- run --help
expect 0 "expect-log" -- script --help
expect 0 "--duration" -- demo --help
expect 2 ""          --
expect 2 ""          -- frobnicate
expect 2 ""          -- script
expect 2 ""          -- run --service nosuch
expect 2 ""          -- run --stop-wait -1
expect 2 ""          -- demo --duration 3
expect 0 "qmtrm 1."  -- --version
expect 2 "not in range 1 to 256" -- run --threads 99999999999
expect 2 "not a finite number: nan" -- run --duration nan
expect 2 "not in range 0 to 600000" -- run --stop-wait 4294967296
expect 2 ""          -- check --service nosuch
expect 2 "cannot open script" -- script "$work/missing.qmt"
expect 3 "$work/none.so" -- script --plugin "$work/none.so" "$work/expect.qmt"
expect 3 "export InitRscDll not found" -- script --plugin "$otherlib" "$work/expect.qmt"
expect 3 "$work/none.so" -- run --plugin "$work/none.so" --conf-dir "$here/conf"
QMT_PLUGIN="$work/env.so" expect 3 "$work/env.so" -- script "$work/expect.qmt"
export QMT_LOG_DIR="$work/log" QMT_CONF_DIR="$here/conf" QMT_SHM_NAME="$shm"
expect 2 "line 3: unknown call: frobnicate" -- script "$work/syntax.qmt"
expect 2 "line 1: DoMontr takes 2 argument(s)" -- script "$work/arity.qmt"
expect 2 "line 1: expect without a result" -- script "$work/noresult.qmt"
expect 1 "line 4: expected 0, got 190" -- script "$work/expect.qmt"
expect 0 "4: GetCheckPoint NULL -> 0" -- script "$work/nulls.qmt"
expect 0 "1: tick set 12345 -> 1234" -- script "$work/nocalls.qmt"
expect 0 "1: DoMontr NULL NULL -> 190" -- script - <"$work/nulls.qmt"
# A call that hangs past the wait's limit: named, and the host leaves with 4 without teardown.
# A failing expect while it hangs: the host leaves with 1 and does not wait for it.
export QMT_SIM_FILE="$here/conf/sim.txt" QMT_HOSTNAME=node1
printf 'InitRscDll\nsim disk 2 hang\nasync DoMontr sdw sdw1\nwait 300\n' >"$work/hang.qmt"
printf 'InitRscDll\nsim disk 2 hang\nasync DoMontr sdw sdw1\nDoMontr sdw sdw2\nexpect 5\n' >"$work/hangfail.qmt"
expect 4 "4: async DoMontr sdw sdw1 (line 3) still running after 300 ms" -- script "$work/hang.qmt"
expect 1 "line 5: expected 5, got 0" -- script "$work/hangfail.qmt"
# qmtstat: a bad command line is 2 as for qmtrm; the ratio takes 1 to 1000.
qmtrm=$qmtstat
expect 0 "qmtstat 1." -- --version
expect 2 ""          -- --frobnicate
for r in 0 -1 1001 1073741824 99999999999; do expect 2 "--set-ratio" -- --set-ratio $r; done
for args in "-n 2" "-w 0" "--set-ratio 2 -w 1"; do expect 2 "" -- $args; done
expect 0 "qmtstat: the time-out ratio" -- --help
expect 0 "ratio: 1000" -- --set-ratio 1000
expect 0 "shared memory /$shm, ratio 1000" --
# Watching stops after the count of tables asked for, each under its time stamp.
expect 0 "" -- -w 1 -n 2
[ "$(grep -Ec '^--- [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}$' "$work/out")" = 2 ] &&
  [ "$(grep -c "^shared memory /$shm, ratio 1000$" "$work/out")" = 2 ] ||
  { echo "FAIL: qmtstat -w 1 -n 2 did not show two tables"; cat "$work/out"; fail=1; }
# A corrupt board: qmtstat says so and exits 3, still listing what the cluster segment holds.
printf 'not a board' >"/dev/shm/${shm}_host_sdw"
expect 3 "corrupt: /${shm}_host_sdw: not a host status board" --
rm -f /dev/shm/*"$shm"*
# The test script refuses what it does not know, at once, instead of running the suite.
prefix=(timeout 20 bash); qmtrm=$test_sh
expect 2 "unknown arguments: --frobnicate" -- --frobnicate
expect 0 "--sanitize address" -- --help
exit $fail
