#!/usr/bin/env bash
# scripts_under_wine.sh SRC BUILD QMTRM: runs every host script of tests/host/scripts twice, with
# qmtrm.exe and the plug-in's test variant under Wine and with the Linux build's QMTRM, each on
# a fresh copy of the host tests' configuration and simulated disks, and requires both runs to
# succeed and to write the same plug-in log lines (level, source file and line, function, text)
# in sdw.log and rm.log. Masked: time stamps, process and thread ids, handle and pointer values,
# ticks, and the measured times of a pass (see masked()). On Windows, `expect-live` lines are left out: they
# check the POSIX layer's own counters and call nothing. Exits 77 (skipped) where Wine is not
# installed, unless QMT_REQUIRE_WINE=1. Then `qmtrm.exe run` for a few seconds, watched by
# qmtstat.exe: its rows while the run polls, and the run's clean stop; and, beside all of it,
# `qmtrm.exe demo`, which must see every step of its timeline.
set -uo pipefail
src=$1 build=$2 qmtrm=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine_env.sh"

# The scripts that stay on Linux, and why: each makes system calls fail (`fault`), and on Windows
# those are the system's own calls, which nothing can make fail on purpose.
declare -A linux_only=(
  [allocations]="fault GlobalAlloc: the global heap"
  [banner]="fault FindResourceExA, LoadResource, ...: the version resource"
  [locks]="fault WaitForSingleObject: waits on the module and record locks"
  [np-control]="fault CreateMutexA, CreateEventA, _beginthreadex, ...: the worker's kernel objects"
)

bash "$src/scripts/win-build.sh" "$src" "$build" qmtrm qmtstat qmtsdw_seam qmtlog qmtxml qmtshmcm qmtshmrm qmtutil ||
  { echo "cross build failed"; exit 1; }
# One wineserver for every run, so that the prefix starts once.
mkdir -p "$WINEPREFIX" && wineserver -p
export QMT_STORAGE=sim
# The demo mostly waits for its timeline: it runs beside the scripts.
timeout -k 5 120 wine "$build/bin/qmtrm.exe" demo --duration 15 >"$work/demo.out" 2>&1 &
demo_pid=$!

# The plug-in's lines of a log file, masked, each thread's lines together in their order (threads
# interleave as they are scheduled), the threads sorted by their first lines. A line whose
# presence depends on the machine's speed (a new slowest pass) is left out.
masked() {
  [ -f "$1" ] || return 0
  tr -d '\r' <"$1" | sed -E \
    -e 's/^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]+ ([A-Z0-9]+) [0-9]+\/([0-9]+) /\2 \1 /' \
    -e 's/((Handle|handle|Hdl|Event|Tick|Tid|Thaddr|Mtx|Timer|Evt)=)(0x|-)?[0-9A-Fa-f]+/\1#/g' \
    -e 's/(answered in )[0-9]+ms/\1#/; s/( Time=)[0-9]+\([0-9]+-[0-9]+\)msec/\1#/' | grep -v 'Renew slowest lap' |
    awk -F'\t' '{ t = $0; sub(/ .*/, "", t); line = $0; sub(/^[^ ]* /, "", line)
                  if (!(t in first)) { first[t] = line; order[t] = ++threads }
                  printf "%s\t%04d\t%06d\t%s\n", first[t], order[t], ++seq, line }' |
    LC_ALL=C sort -t "$(printf '\t')" -k1,1 -k2,2n -k3,3n | cut -f4
}

# run SIDE NAME SCRIPT: one run; its folder keeps the logs and the output.
run() {
  local side=$1 name=$2 script=$3 dir=$work/$1-$2 rc
  mkdir -p "$dir" && cp -r "$src/tests/host/conf" "$dir/conf"
  if [ "$side" = linux ]; then
    timeout -k 5 60 "$qmtrm" script "$script" --conf-dir "$dir/conf" --sim "$dir/conf/sim.txt" \
      --log-dir "$dir/log" --shm-name "qmtwin$$$name" --host node1 >"$dir/out" 2>&1
    rc=$?
    rm -f /dev/shm/*"qmtwin$$$name"*
  else
    grep -v '^[[:space:]]*expect-live' "$script" >"$dir/script.qmt"
    timeout -k 5 120 wine "$build/bin/qmtrm.exe" script "$(winpath "$dir/script.qmt")" \
      --conf-dir "$(winpath "$dir/conf")" --sim "$(winpath "$dir/conf/sim.txt")" \
      --log-dir "$(winpath "$dir/log")" --shm-name "qmtwin$$$name" --host node1 >"$dir/out" 2>&1
    rc=$?
  fi
  echo "$rc" >"$dir/rc"
}

# Every script's two runs side by side, three scripts at a time: most of a script's time is waiting.
names=() pids=()
for script in "$src"/tests/host/scripts/*.qmt; do
  name=$(basename "$script" .qmt)
  if [ -n "${linux_only[$name]:-}" ]; then
    echo "$name: Linux only (${linux_only[$name]})"
    continue
  fi
  names+=("$name")
  run linux "$name" "$script" &
  pids+=($!)
  run wine "$name" "$script" &
  pids+=($!)
  if [ ${#pids[@]} -ge 6 ]; then wait "${pids[@]}"; pids=(); fi
done
[ ${#pids[@]} -eq 0 ] || wait "${pids[@]}"

failed=0 compared=0
for name in "${names[@]}"; do
  ok=1
  for side in linux wine; do
    if [ "$(cat "$work/$side-$name/rc")" != 0 ]; then
      echo "$name: the $side run failed (exit $(cat "$work/$side-$name/rc")):"; tr -d '\r' <"$work/$side-$name/out" | tail -n 20
      ok=0
    fi
  done
  for log in sdw.log rm.log; do
    if ! diff <(masked "$work/linux-$name/log/$log") <(masked "$work/wine-$name/log/$log") >"$work/diff"; then
      echo "$name: $log differs (< Linux, > Wine):"; head -n 40 "$work/diff"
      ok=0
    fi
  done
  lines=$(masked "$work/linux-$name/log/sdw.log" | wc -l)
  if [ $ok = 1 ]; then
    echo "$name: same $lines sdw.log lines on both"
    compared=$((compared + 1))
  else
    failed=1
  fi
done
echo "$compared script(s) compared, ${#linux_only[@]} Linux only"

dir=$work/run && mkdir -p "$dir" && cp -r "$src/tests/host/conf" "$dir/conf"
timeout -k 5 60 wine "$build/bin/qmtrm.exe" run --duration 6 --conf-dir "$(winpath "$dir/conf")" \
  --sim "$(winpath "$dir/conf/sim.txt")" --log-dir "$(winpath "$dir/log")" --shm-name "qmtwinrun$$" --host node1 \
  >"$dir/out" 2>&1 &
run_pid=$!
# The rows once every resource has had a pass (age and writer masked).
want='sdw sdw1 0 Normal 4 MONEND - - Normal
sdw sdw2 0 Normal 4 MONEND - - Normal
sdw sdw3 watches nothing 0 - - - -'
rows=
for _ in $(seq 40); do
  rows=$(timeout 20 wine "$build/bin/qmtstat.exe" --shm-name "qmtwinrun$$" 2>/dev/null | tr -d '\r' |
         sed -n 's/ [0-9.]*s / /; s/ pid [0-9]* / /; /^sdw /p' | tr -s ' ')
  [ "$rows" = "$want" ] && break
  sleep 0.25
done
wait $run_pid
rc=$?
if [ "$rows" != "$want" ]; then
  echo "qmtstat.exe did not show the run's rows:"; diff <(printf '%s\n' "$want") <(printf '%s\n' "$rows"); failed=1
fi
if [ $rc != 0 ] || ! grep -q ' UninitRscDll -> status 0 (Normal)' "$dir/out"; then
  echo "qmtrm.exe run failed (exit $rc):"; tr -d '\r' <"$dir/out" | tail -n 20; failed=1
else
  echo "run: qmtstat.exe showed its rows; stopped cleanly after $(grep -c ' status ' "$dir/out") status lines"
fi
wait $demo_pid
rc=$?
if [ $rc != 0 ] || ! grep -q '^demo complete: .* every step was seen' <(tr -d '\r' <"$work/demo.out"); then
  echo "qmtrm.exe demo failed (exit $rc):"; tr -d '\r' <"$work/demo.out" | tail -n 30; failed=1
else
  echo "demo: every step was seen"
fi
exit $failed
