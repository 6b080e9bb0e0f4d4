#!/usr/bin/env bash
# check_demo.sh QMTRM sdw|disknp|interrupt|keep - runs the demo and checks that its timeline shows
# every step and that the qmtstat command it prints works while it runs (interrupt: that Ctrl-C
# stops it cleanly); in every case nothing of it may be left behind, except with --keep (keep:
# interrupted too) its folder.
set -u
qmtrm=$1
service=$2
out=$(mktemp "${TMPDIR:-/tmp}/qmtrm-demo-out-XXXXXX")
trap 'rm -f "$out"' EXIT
fail=0
keep=()
[ "$service" = keep ] && keep=(--keep)
if [ "$service" = interrupt ] || [ "$service" = keep ]; then
  # Ctrl-C two seconds in: the demo stops the service, says it was cut short and exits 1.
  timeout -k 5 60 "$qmtrm" demo --duration 20 "${keep[@]}" >"$out" 2>&1 &
  pid=$!
  sleep 2
  kill -INT "$pid"
  wait "$pid"
  rc=$?
  cat "$out"
  [ $rc -eq 1 ] || { echo "FAIL: exit status $rc, expected 1"; fail=1; }
  wanted=("interrupted: releasing every disk and stopping" "UninitRscDll -> status 0" "demo incomplete" "not seen: interrupted")
else
  timeout -k 5 60 "$qmtrm" demo --duration 20 --service "$service" >"$out" 2>&1 &
  pid=$!
  # The command it prints to watch it, run as printed while it runs.
  sleep 3
  watch=$(sed -n 's/^  watch it: *\(.*qmtstat .*\) -w 1$/\1/p' "$out")
  stat=$(eval "$watch" 2>&1) || { echo "FAIL: printed command failed: $watch"; echo "$stat"; fail=1; }
  wait "$pid"
  rc=$?
  cat "$out"
  echo "$stat"
  if [ $rc -ne 0 ]; then echo "FAIL: exit status $rc, expected 0"; fail=1; fi
  first=$([ "$service" = sdw ] && echo sdw1 || echo np1)
  echo "$stat" | grep -Eq "^$service +$first +0 Normal" || { echo "FAIL: qmtstat does not show $first"; fail=1; }
fi
if [ "$service" = interrupt ] || [ "$service" = keep ]; then
  :
elif [ "$service" = sdw ]; then
  wanted=("EVENT 3651" "EVENT 3652" "EVENT 3653" "OVERDUE: pass running for" "overdue pass returned after"
          "status 0 -> status 5" "status 5 -> status 0" "UninitRscDll -> status 0" "demo complete")
else
  wanted=("status 0 -> status 5" "status 90" "status 99" "suspend -> 0" "resume -> 0"
          "UninitNpRscDll -> status 0" "demo complete")
fi
for w in "${wanted[@]}"; do
  grep -qF -- "$w" "$out" || { echo "FAIL: output lacks: $w"; fail=1; }
done
# The overdue pass is reported once, however long it hangs.
if [ "$service" = sdw ]; then
  n=$(grep -cF "OVERDUE: pass running for" "$out")
  [ "$n" -eq 1 ] || { echo "FAIL: $n overdue reports, expected 1"; fail=1; }
fi
# Nothing of the run is left behind: neither its folder nor its shared memory.
prefix=$(sed -n 's/^  shared memory: *\([A-Za-z0-9_]*\).*/\1/p' "$out" | head -n 1)
folder=$(sed -n 's/^  folder: *\([^ ]*\).*/\1/p' "$out" | head -n 1)
if [ -z "$prefix" ] || [ -z "$folder" ]; then echo "FAIL: no folder or shared-memory name shown"; fail=1; fi
if [ -n "$prefix" ] && ls /dev/shm 2>/dev/null | grep -qF "$prefix"; then
  echo "FAIL: shared memory $prefix left behind"; fail=1
fi
if [ "$service" = keep ]; then
  [ -f "$folder/log/sdw.log" ] || { echo "FAIL: --keep did not keep $folder"; fail=1; }
  rm -rf "$folder"
elif [ -n "$folder" ] && [ -e "$folder" ]; then echo "FAIL: folder $folder left behind"; fail=1; fi
exit $fail
