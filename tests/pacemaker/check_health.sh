#!/usr/bin/env bash
# check_health.sh QMTRM QMTSTAT - the node health of `qmtrm run` without a cluster: the colours follow the
# disks of the sim file as it is rewritten (a stand-in attrd_updater records what the cluster
# would get, the --on-change hook each change), resources that watch nothing count for nothing,
# and the attribute is removed at a clean stop; `qmtstat --prometheus` shows the failing resource.
set -u
qmtrm=$1
qmtstat=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/qmthealth-XXXXXX")
shm="qmthealth$$x$RANDOM"
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  rm -rf "$work"
  for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done
}
trap cleanup EXIT
cp -r "$here/../host/conf" "$work/conf"
mkdir "$work/bin"
printf '#!/bin/sh\necho "$*" >>"%s/attrd"\n' "$work" >"$work/bin/attrd_updater"
chmod +x "$work/bin/attrd_updater"
base=$(grep -v '^disk' "$work/conf/sim.txt")
disks() {  # disks STATEMENT...: rewrites the sim file with every disk ok but those given
  { echo "$base"; for d in 0 1 2 3 4 5; do echo "disk $d ok"; done; printf '%s\n' "$@"; } >"$work/sim.new"
  mv "$work/sim.new" "$work/conf/sim.txt"
}
fail=0
run() {  # run HOST [ARGS...]
  local host=$1; shift
  PATH="$work/bin:$PATH" QMT_STORAGE=sim exec "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" \
    --log-dir "$work/log" --shm-name "$shm" --host "$host" --stop-wait 500 --health-attribute '#health-t' \
    --on-change "echo \"\$QMT_HEALTH_PREVIOUS>\$QMT_HEALTH|\$QMT_HEALTH_REASON\" >>$work/hook" "$@" >"$work/out" 2>&1
}
expect_health() {  # expect_health COLOUR TEXT: the latest change, within 10 s
  local line=""
  for _ in $(seq 1 100); do
    line=$(tail -n 1 "$work/hook" 2>/dev/null)
    case "$line" in *">$1|"*"$2"*) echo "ok: $line"; return ;; esac
    sleep 0.1
  done
  echo "FAIL: latest change is '$line', expected $1 with '$2'"; fail=1
}

disks
run node1 &
pid=$!
expect_health green "all 2 watched resource(s) normal; watching nothing: sdw3"
disks "disk 0 fail 1117"
expect_health red "sdw1: status 5"
prom=$("$qmtstat" --shm-name "$shm" --prometheus)
for sample in 'qmtsdw_status{service="sdw",resource="sdw1"} 5' 'qmtsdw_failures_total{service="sdw",resource="sdw1"} [1-9][0-9]*' \
              'qmtsdw_failures_total{service="sdw",resource="sdw2"} 0' 'qmtsdw_watching{service="sdw",resource="sdw3"} 0' \
              'qmtsdw_passes_total{service="sdw",resource="sdw2"} [1-9][0-9]*'; do
  grep -qx -- "$sample" <<<"$prom" || { echo "FAIL: qmtstat --prometheus lacks: $sample"; echo "$prom"; fail=1; }
done
disks "disk 0 fail 1117" "disk 3 delay 1500"   # time-out 2 s, delay ratio 50: late from 1 s
sleep 2.5
disks "disk 3 delay 1500"
expect_health yellow "sdw2: pass delayed"
disks
expect_health green "normal"
disks "disk 1 hang"
expect_health red "sdw1: pass overdue"
disks                                          # the reload ends the hung probe
expect_health green "normal"
kill -TERM "$pid"
wait "$pid"
rc=$?
pid=""
[ $rc -eq 0 ] || { cat "$work/out"; echo "FAIL: exit status $rc"; fail=1; }
# The cluster got every change the hook saw, in the same order, and the removal at the stop.
expected=$(sed 's/^[a-z]*>\([a-z]*\)|.*/-n #health-t -U \1/' "$work/hook"; echo "-n #health-t -D")
[ "$(cat "$work/attrd")" = "$expected" ] || { echo "FAIL: attrd_updater got:"; cat "$work/attrd"; fail=1; }

# A server on which no resource has a disk: nothing is known to be healthy.
rm -f "$work/hook"
(run node9 --duration 2)
expect_health yellow "no resource watches a disk on this server (sdw1; sdw2; sdw3)"
[ $fail -eq 0 ] && echo "PASS"
exit $fail
