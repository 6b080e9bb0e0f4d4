#!/usr/bin/env bash
# check_demo.sh QMTRM sdw|disknp - runs the demo and checks that its timeline shows every step.
set -u
qmtrm=$1
service=$2
out=$(mktemp "${TMPDIR:-/tmp}/qmtrm-demo-out-XXXXXX")
trap 'rm -f "$out"' EXIT
timeout -k 5 60 "$qmtrm" demo --duration 20 --service "$service" >"$out" 2>&1
rc=$?
cat "$out"
fail=0
if [ $rc -ne 0 ]; then echo "FAIL: exit status $rc, expected 0"; fail=1; fi
if [ "$service" = sdw ]; then
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
prefix=$(sed -n 's/.*QMT_SHM_NAME=\([A-Za-z0-9_]*\).*/\1/p' "$out" | head -n 1)
folder=$(sed -n 's/^  folder: *\([^ ]*\).*/\1/p' "$out" | head -n 1)
if [ -z "$prefix" ] || [ -z "$folder" ]; then echo "FAIL: no folder or shared-memory name shown"; fail=1; fi
if [ -n "$prefix" ] && ls /dev/shm 2>/dev/null | grep -qF "$prefix"; then
  echo "FAIL: shared memory $prefix left behind"; fail=1
fi
if [ -n "$folder" ] && [ -e "$folder" ]; then echo "FAIL: folder $folder left behind"; fail=1; fi
exit $fail
