#!/usr/bin/env bash
# run.sh [BUILD_DIR] - the cluster stage: installs the cluster stack and the packaging tools
# (Debian packages, only for this stage), then tests the OCF agent, a one-node and a two-node
# Pacemaker cluster, and the .deb on a clean Debian 12. Each test prints SKIP with its reason when
# it cannot run here (not root, a tool missing).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=${1:-$root/build}
here=$root/tests/pacemaker

if [ "$(id -u)" -eq 0 ]; then
  bash "$root/scripts/deps.sh" cluster
fi
# Configure again so that the manual pages are built now that help2man is there.
cmake "$dir" >/dev/null
cmake --build "$dir" --target qmtrm qmtstat man

failed=0
step() {  # step LIMIT NAME COMMAND...: a time-limited test; 77 is a skip
  local limit=$1 name=$2; shift 2
  local t0=$SECONDS rc=0
  echo "=== $name"
  timeout --signal=TERM --kill-after=30 "$limit" "$@" || rc=$?
  case $rc in
    0) echo "=== $name: passed ($((SECONDS - t0)) s)" ;;
    77) echo "=== $name: skipped" ;;
    *) echo "=== $name: FAILED (status $rc, $((SECONDS - t0)) s)"; failed=1 ;;
  esac
}
step 120 agent bash "$here/agent.sh" "$dir/bin/qmtrm" "$root/cluster/ocf/sdw"
step 120 "cluster, one node" bash "$here/cluster.sh" "$dir/bin/qmtrm" "$root/cluster/ocf/sdw" one
step 120 "cluster, two nodes" bash "$here/cluster.sh" "$dir/bin/qmtrm" "$root/cluster/ocf/sdw" two
rm -f "$dir"/qmtsdw_*.deb
(cd "$dir" && cpack >/dev/null)
step 600 "package on a clean Debian 12" bash "$here/package.sh" "$(ls "$dir"/qmtsdw_*.deb)"
exit $failed
