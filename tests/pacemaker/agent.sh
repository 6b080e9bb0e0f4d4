#!/usr/bin/env bash
# agent.sh QMTRM AGENT - the OCF agent alone: its meta-data validates against the OCF DTD of
# resource-agents, it passes ocf-tester on simulated disks, its monitor fails once the monitor
# process is gone, and validate-all refuses a bad service and what `qmtrm check` finds wrong.
# Exit 77: skipped.
set -u
qmtrm=$(realpath "$1")
agent=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "SKIP: ocf-tester runs agents as root"; exit 77; }
dtd=/usr/share/resource-agents/ra-api-1.dtd
for f in /usr/sbin/ocf-tester "$dtd"; do
  [ -e "$f" ] || { echo "SKIP: $f missing (tests/pacemaker/run.sh installs resource-agents)"; exit 77; }
done
command -v xmllint >/dev/null || { echo "SKIP: xmllint not installed"; exit 77; }

work=$(mktemp -d "${TMPDIR:-/tmp}/qmtocf-XXXXXX")
instance="qmtocf$$r$RANDOM"
export HA_RSCTMP=$work/run
cleanup() {
  OCF_RESOURCE_INSTANCE=$instance "$agent" stop >/dev/null 2>&1
  rm -rf "$work"
  rm -f /dev/shm/*"$instance"*  # the segments outlive the monitor, for readers
}
trap cleanup EXIT
trap 'echo "FAIL: interrupted"; exit 1' INT TERM
fail=0

"$agent" meta-data >"$work/meta.xml"
cp "$dtd" "$work/"   # the document names its DTD beside itself
xmllint --noout --dtdvalid "$dtd" "$work/meta.xml" || { echo "FAIL: meta-data does not validate"; fail=1; }

cp -r "$here/../host/conf" "$work/conf"
params=(conf_dir="$work/conf" storage=sim sim_file="$work/conf/sim.txt" host=node1 log_dir="$work/log"
        qmtrm="$qmtrm" health_attribute= shm_name="$instance")
opts=()
for p in "${params[@]}"; do opts+=(-o "$p"); export "OCF_RESKEY_$p"; done
ocf-tester -n "$instance" "${opts[@]}" "$agent" >"$work/tester.out" 2>&1 ||
  { cat "$work/tester.out"; echo "FAIL: ocf-tester"; fail=1; }

# The agent's answers, with the parameters exported as Pacemaker does.
export OCF_ROOT=/usr/lib/ocf OCF_RESOURCE_INSTANCE=$instance
expect() {  # expect RC ACTION [VAR=VALUE...]
  local want=$1 action=$2; shift 2
  env "$@" "$agent" "$action" >/dev/null 2>&1
  local rc=$?
  [ $rc -eq "$want" ] || { echo "FAIL: $action $* returned $rc, expected $want"; fail=1; }
}
expect 7 monitor
expect 0 start
expect 0 monitor
kill -KILL "$(cat "$HA_RSCTMP/qmt-sdw-$instance.pid")"
sleep 0.2
expect 1 monitor                                     # the monitor process is gone
expect 0 stop
expect 7 monitor
expect 6 validate-all OCF_RESKEY_service=nfs
expect 6 validate-all OCF_RESKEY_conf_dir="$work/none"
expect 5 validate-all OCF_RESKEY_qmtrm="$work/none"
# An error that `qmtrm check` finds (a monitor without its disk resource) fails the validation.
cp -r "$work/conf" "$work/bad"
sed -i 's|<object>sd1</object>|<object></object>|' "$work/bad/clp.conf"
expect 6 validate-all OCF_RESKEY_conf_dir="$work/bad"
[ $fail -eq 0 ] && echo "PASS: agent"
exit $fail
