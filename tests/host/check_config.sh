#!/usr/bin/env bash
# check_config.sh QMTRM [linux] - `qmtrm check` on configurations with one fault each: every finding
# is reported with its key, and the exit status is 0 clean, 1 warnings, 2 errors (text and JSON).
#   linux: on loop devices of its own making (as root), a GUID on two devices is flagged with both
#          and a GUID on one device resolves to its /dev name.
set -u
qmtrm=$1
mode=${2:-sim}
here=$(cd "$(dirname "$0")" && pwd)
. "$(dirname "$0")/scratch.sh" check
loops=()
cleanup() {
  for l in "${loops[@]}"; do losetup -d "$l" 2>/dev/null; done
  rm -rf "$work"
  rm -f /dev/shm/*"$shm"*
}
trap cleanup EXIT
trap 'exit 1' INT TERM
export QMT_STORAGE=sim QMT_HOSTNAME=node1 QMT_LOG_DIR="$work/log" QMT_SHM_NAME="$shm"
fail=0
long=abcdefghijabcdefghijabcdefghij1  # 31 characters

# conf NAME SDW-RESOURCES DISKNP-RESOURCES SERVER-DEVICES: a configuration folder of its own.
conf() {
  mkdir -p "$work/$1/policy"
  cp "$here"/conf/policy/*.xml "$work/$1/policy/"
  cat >"$work/$1/clp.conf" <<EOF
<root><cluster><delaywarn><monitor>50</monitor><heartbeat>80</heartbeat></delaywarn></cluster>
<monitor>$2</monitor>
<resource>
  <sd name="sd1"><server name="node1"><parameters><volumeguid>0a1b2c3d-0000-4000-8000-000000000001</volumeguid></parameters></server></sd>
  <sd name="sd2"><server name="node2"><parameters><volumeguid>0a1b2c3d-0000-4000-8000-000000000002</volumeguid></parameters></server></sd>
  <sd name="sd5"><server name="node1"><parameters><volumeguid>0a1b2c3d-0000-4000-8000-000000000005</volumeguid></parameters></server></sd>
</resource>
<networkpartition>$3</networkpartition>
<server name="node1">$4</server></root>
EOF
}
sdw() { echo "<sdw name=\"$1\"><polling><interval>1</interval><timeout>$2</timeout></polling><parameters><object>$3</object></parameters></sdw>"; }
np() { echo "<disknp name=\"$1\"><timeout>2</timeout><interval>1</interval><count>$2</count><device>$3</device></disknp>"; }
dev1='<device name="1"><info>0a1b2c3d-0000-4000-8000-000000000003</info></device>'

conf clean "$(sdw sdw1 2 sd1)" "$(np np1 1 1)" "$dev1"
conf warnings "$(sdw sdw1 0 sd1)$(sdw sdw2 2 sd2)$(sdw "${long}XYZ" 2 sd1)" "$(np np1 -1 1)$(np np2 1 2)" \
  "$dev1<device name=\"2\"><info></info></device>"
conf errors "$(sdw "${long}A" 2 sd1)$(sdw "${long}B" 2 sd1)$(sdw sdw5 2 sd5)" "" "$dev1"
printf 'volume 0a1b2c3d-0000-4000-8000-000000000001 disks 0 1 2\nvolume 0a1b2c3d-0000-4000-8000-000000000003 disks 4\n' \
  >"$work/sim.txt"
export QMT_SIM_FILE="$work/sim.txt"

if [ "$mode" = linux ]; then
  [ "$(id -u)" -eq 0 ] && losetup -f >/dev/null 2>&1 || { echo "SKIP: needs root and loop devices"; exit 0; }
  twice=$(cat /proc/sys/kernel/random/uuid) once=$(cat /proc/sys/kernel/random/uuid)
  for i in a b c; do truncate -s 8M "$work/$i.img"; done
  mkfs.ext4 -q -U "$twice" "$work/a.img" && cp "$work/a.img" "$work/b.img" && mkfs.ext4 -q -U "$once" "$work/c.img" ||
    { echo "FAIL: mkfs"; exit 1; }
  for i in a b c; do loops+=("$(losetup -f --show "$work/$i.img")") || { echo "FAIL: losetup"; exit 1; }; done
  conf linux "$(sdw sdw1 2 sd1)" "" ""
  sed -i "s/0a1b2c3d-0000-4000-8000-000000000001/$twice/; s/<server name=\"node2\">/<server name=\"node1\">/;
          s/0a1b2c3d-0000-4000-8000-000000000002/$once/" "$work/linux/clp.conf"
  sed -i "s#</monitor>#$(sdw sdw2 2 sd2)</monitor>#" "$work/linux/clp.conf"
  QMT_STORAGE=linux "$qmtrm" check --conf-dir "$work/linux" >"$work/out" 2>&1
  rc=$?
  cat "$work/out"
  [ $rc -eq 2 ] || { echo "FAIL: exit status $rc, expected 2"; fail=1; }
  grep -qF "GUID $twice found on two devices (${loops[0]}, ${loops[1]})" "$work/out" || { echo "FAIL: not flagged"; fail=1; }
  grep -qE "disks: [0-9]+ \(${loops[2]}\)" "$work/out" || { echo "FAIL: ${loops[2]} not named"; fail=1; }
  exit $fail
fi

# expect STATUS NAME [SERVICE] -- TEXT...: each text appears in the report.
expect() {
  local want=$1 name=$2 service=$3; shift 4
  "$qmtrm" check --service "$service" --conf-dir "$work/$name" >"$work/out" 2>&1
  local rc=$?
  [ $rc -eq "$want" ] || { echo "FAIL: check $name $service -> $rc, expected $want"; cat "$work/out"; fail=1; }
  for t in "$@"; do
    grep -qF -- "$t" "$work/out" || { echo "FAIL: check $name $service lacks: $t"; cat "$work/out"; fail=1; }
  done
  "$qmtrm" check --json --service "$service" --conf-dir "$work/$name" >"$work/json"
  local result
  result=$(jq -r .result "$work/json") || { echo "FAIL: not JSON"; cat "$work/json"; fail=1; }
  local words=(clean warnings errors)
  [ "$result" = "${words[$want]}" ] || { echo "FAIL: JSON result $result, expected ${words[$want]}"; fail=1; }
}

expect 0 clean sdw -- "time-out 2 s, interval 1 s" "disks: 0 1 2" "clean"
expect 0 clean disknp -- "device 1, GUID 0a1b2c3d-0000-4000-8000-000000000003" "disks: 4"
expect 1 warnings sdw -- \
  "value out of range: 0 (accepted: at least 1); becomes 300" "key: /root/monitor/sdw@sdw1/polling/timeout" \
  "no volume on this server" "key: /root/resource/sd@sd2/server@node1/parameters/volumeguid" \
  "name cut at 31 characters: the plug-in knows it as $long" "key: /root/monitor/sdw@${long}XYZ"
expect 1 warnings disknp -- \
  "value out of range: -1 (accepted: at least 0); becomes 0" "key: /root/networkpartition/disknp@np1/count" \
  "empty device GUID" "key: /root/server@node1/device@2/info"
expect 2 errors sdw -- "duplicate name $long (resource 1 has it too)" \
  "volume 0a1b2c3d-0000-4000-8000-000000000005 not found on this server"
# The JSON names the disks the volume resolves to, by number.
"$qmtrm" check --json --conf-dir "$work/clean" >"$work/json"
[ "$(jq -c '[.resources[0].disks[].number]' "$work/json")" = "[0,1,2]" ] || { echo "FAIL: JSON disks"; fail=1; }
# No resources at all: the initialisation would fail.
conf empty "" "" ""
expect 2 empty sdw -- "no resource configured"
exit $fail
