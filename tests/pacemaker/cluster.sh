#!/usr/bin/env bash
# cluster.sh QMTRM AGENT one|two - a real Corosync and Pacemaker cluster with ocf:qmt:sdw.
#   one: one node; a dummy resource beside the monitor. A failing disk turns the node's health
#        red and the dummy stops; the disk recovers, green, the dummy runs again; a hung disk turns
#        it red after the time-out.
#   two: two nodes joined by a veth pair; the failing disk of the dummy's node moves it to the
#        other node.
# Every node lives in namespaces of its own (network, mount, host name) with its own /run,
# /dev/shm and /var/lib/pacemaker, so nothing of the machine's is read or changed, and every
# process of a node is killed by its pid on every exit path. Exit 77: skipped (not root, or the
# cluster stack is not installed).
set -u
qmtrm=$(realpath "$1")
agent=$(realpath "$2")
mode=$3
here=$(cd "$(dirname "$0")" && pwd)

[ "$(id -u)" -eq 0 ] || { echo "SKIP: a cluster needs root (namespaces, mounts)"; exit 77; }
for c in corosync pacemakerd attrd_updater crm_resource unshare nsenter ip; do
  command -v "$c" >/dev/null ||
    { echo "SKIP: $c not installed (tests/pacemaker/run.sh installs the cluster stack)"; exit 77; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/qmtpcmk-XXXXXX")
chmod 755 "$work"
tag="q$$r$RANDOM"                  # cluster name and veth names of this run
holders=()
cleanup() {
  trap - EXIT INT TERM
  # Every process in one of our network namespaces is ours: the daemons, their children, the monitor.
  local h ns p
  # The shell's notes on the jobs it sees killed are noise here.
  exec 2>/dev/null
  for h in "${holders[@]}"; do
    ns=$(readlink "/proc/$h/ns/net" 2>/dev/null) || continue
    for p in /proc/[0-9]*; do
      [ "$(readlink "$p/ns/net" 2>/dev/null)" = "$ns" ] && kill -KILL "${p#/proc/}" 2>/dev/null
    done
  done
  wait
  [ -n "${KEEP:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "FAIL: interrupted"; exit 1' INT TERM

fail() {
  echo "FAIL: $*"
  for n in "$work"/node[0-9]/; do
    [ -d "$n" ] || continue
    echo "--- $n monitor output"; tail -n 20 "$n"/log/qmtrm-run-*.out 2>/dev/null
    echo "--- $n pacemaker log (last lines)"; tail -n 15 "$n/pacemaker.log" 2>/dev/null
  done
  exit 1
}

# The monitor's configuration: one sdw resource on disk 0 of a volume that both servers hold.
mkdir -p "$work/conf" "$work/ra" "$work/node"
cp -r "$here/../host/conf/policy" "$work/conf/"
cat >"$work/conf/clp.conf" <<'EOF'
<?xml version="1.0" encoding="UTF-8"?>
<root>
  <cluster><delaywarn><monitor>80</monitor></delaywarn></cluster>
  <monitor>
    <sdw name="shared1">
      <polling><interval>1</interval><timeout>2</timeout></polling>
      <parameters><object>sd1</object></parameters>
    </sdw>
  </monitor>
  <resource>
    <sd name="sd1">
      <server name="node1"><parameters><volumeguid>5d0c1e2f-7a00-4b00-8c00-00000000e001</volumeguid></parameters></server>
      <server name="node2"><parameters><volumeguid>5d0c1e2f-7a00-4b00-8c00-00000000e001</volumeguid></parameters></server>
    </sd>
  </resource>
</root>
EOF
sim_ok="volume 5d0c1e2f-7a00-4b00-8c00-00000000e001 disks 0"
# The agents Pacemaker sees: the machine's, and ours as provider qmt.
cp -a /usr/lib/ocf/resource.d/. "$work/ra/"
mkdir -p "$work/ra/qmt"
cp "$agent" "$work/ra/qmt/sdw"

nodes=(node1)
[ "$mode" = two ] && nodes=(node1 node2)
addr_of() { if [ "$mode" = two ]; then echo "10.77.0.${1#node}"; else echo 127.0.0.1; fi; }

# Corosync: knet, no crypto (the ring never leaves the namespaces), short token for quick membership.
{
  printf 'totem {\n version: 2\n cluster_name: %s\n transport: knet\n crypto_cipher: none\n crypto_hash: none\n token: 1000\n}\n' "$tag"
  echo "nodelist {"
  for i in "${!nodes[@]}"; do
    printf ' node {\n  ring0_addr: %s\n  name: %s\n  nodeid: %d\n }\n' "$(addr_of "${nodes[$i]}")" "${nodes[$i]}" $((i + 1))
  done
  echo "}"
  printf 'quorum {\n provider: corosync_votequorum\n'
  [ "$mode" = two ] && echo " two_node: 1"
  echo "}"
  printf 'logging {\n to_stderr: yes\n to_logfile: no\n to_syslog: no\n}\n'
} >"$work/corosync.conf"

# The seed CIB: no fencing, a quick first election, the health strategy, the monitor as a clone
# that stays on a red node, and the dummy resource.
cat >"$work/cib.xml" <<EOF
<cib validate-with="pacemaker-3.9" epoch="1" num_updates="0" admin_epoch="0">
  <configuration>
    <crm_config>
      <cluster_property_set id="opts">
        <nvpair id="opts-stonith" name="stonith-enabled" value="false"/>
        <nvpair id="opts-dcdt" name="dc-deadtime" value="2s"/>
        <nvpair id="opts-health" name="node-health-strategy" value="migrate-on-red"/>
        <nvpair id="opts-recheck" name="cluster-recheck-interval" value="1min"/>
      </cluster_property_set>
    </crm_config>
    <nodes/>
    <resources>
      <clone id="disks">
        <primitive id="disk-health" class="ocf" provider="qmt" type="sdw">
          <instance_attributes id="disk-health-ia">
            <nvpair id="dh-conf" name="conf_dir" value="$work/conf"/>
            <nvpair id="dh-storage" name="storage" value="sim"/>
            <nvpair id="dh-sim" name="sim_file" value="$work/node/sim.txt"/>
            <nvpair id="dh-log" name="log_dir" value="$work/node/log"/>
            <nvpair id="dh-qmtrm" name="qmtrm" value="$qmtrm"/>
            <nvpair id="dh-wait" name="stop_wait" value="1000"/>
          </instance_attributes>
          <meta_attributes id="disk-health-meta">
            <nvpair id="dh-unhealthy" name="allow-unhealthy-nodes" value="true"/>
          </meta_attributes>
          <operations>
            <op id="dh-monitor" name="monitor" interval="2s" timeout="20s"/>
          </operations>
        </primitive>
      </clone>
      <primitive id="dummy" class="ocf" provider="pacemaker" type="Dummy">
        <operations><op id="dummy-monitor" name="monitor" interval="5s"/></operations>
      </primitive>
    </resources>
    <constraints/>
  </configuration>
  <status/>
</cib>
EOF

# One holder process per node keeps its namespaces; the node's own folder is bound over
# $work/node there, so the same resource parameters name each node's own sim file and logs.
start_node() {
  local name=$1 dir=$work/$1
  mkdir -p "$dir/log"
  echo "$sim_ok" >"$dir/sim.txt"
  unshare --net --mount --uts --propagation private -- bash -c '
    set -e
    name=$1; work=$2; dir=$work/$name
    hostname "$name"
    ip link set lo up
    for d in /run /dev/shm /var/lib/pacemaker /var/lib/corosync /var/log/pacemaker; do
      mkdir -p "$d"; mount -t tmpfs -o mode=755 "qmt-$name" "$d"
    done
    chmod 1777 /dev/shm
    mkdir -p /var/lib/pacemaker/cib /var/lib/pacemaker/pengine /var/lib/pacemaker/blackbox /var/lib/pacemaker/cores
    install -o hacluster -g haclient -m 600 "$work/cib.xml" /var/lib/pacemaker/cib/cib.xml
    chown -R hacluster:haclient /var/lib/pacemaker /var/log/pacemaker
    chmod 750 /var/lib/pacemaker/cib
    mount --bind "$work/ra" /usr/lib/ocf/resource.d
    mount --bind "$dir" "$work/node"
    touch "$dir/ready"
    exec sleep 100000' _ "$name" "$work" >"$dir/holder.log" 2>&1 &
  holders+=($!)
  eval "holder_$name=$!"
  for _ in $(seq 1 50); do [ -e "$dir/ready" ] && return 0; sleep 0.1; done
  cat "$dir/holder.log"; fail "namespaces of $name not ready"
}
in_node() {  # in_node NAME COMMAND...: runs COMMAND in the node's namespaces
  local h; eval "h=\$holder_$1"; shift
  nsenter -t "$h" -n -m -u -- "$@"
}
wait_for() {  # wait_for SECONDS WHAT COMMAND...
  local limit=$1 what=$2; shift 2
  local end=$((SECONDS + limit))
  while ! "$@" >/dev/null 2>&1; do
    [ $SECONDS -ge $end ] && fail "not within ${limit} s: $what"
    sleep 0.5
  done
  echo "ok: $what ($((SECONDS - t0)) s)"
}
# The queries are bounded, so that a stop signal is always taken within seconds and cleans up.
health_is() {  # health_is NODE COLOUR
  in_node "$1" timeout 10 attrd_updater -n '#health-qmtsdw' -Q -N "$1" 2>/dev/null | grep -q "value=\"$2\""
}
dummy_on() {  # dummy_on NODE|nowhere
  local where
  where=$(in_node node1 timeout 10 crm_resource --locate -r dummy 2>&1)
  if [ "$1" = nowhere ]; then echo "$where" | grep -q "NOT running"; else echo "$where" | grep -q "running on: $1\$"; fi
}
set_disk() {  # set_disk NODE BEHAVIOUR: the node's monitor re-reads its sim file when it changes
  printf '%s\ndisk 0 %s\n' "$sim_ok" "$2" >"$work/$1/sim.new"
  mv "$work/$1/sim.new" "$work/$1/sim.txt"
}

t0=$SECONDS
for n in "${nodes[@]}"; do start_node "$n"; done
if [ "$mode" = two ]; then
  ip link add "${tag}a" type veth peer name "${tag}b" || fail "no veth pair"
  ip link set "${tag}a" netns "$holder_node1"
  ip link set "${tag}b" netns "$holder_node2"
  in_node node1 ip addr add 10.77.0.1/24 dev "${tag}a"; in_node node1 ip link set "${tag}a" up
  in_node node2 ip addr add 10.77.0.2/24 dev "${tag}b"; in_node node2 ip link set "${tag}b" up
fi
export PATH="$PATH:/usr/sbin:/sbin"
for n in "${nodes[@]}"; do
  in_node "$n" corosync -f -c "$work/corosync.conf" >"$work/$n/corosync.log" 2>&1 &
done
sleep 0.5
for n in "${nodes[@]}"; do
  in_node "$n" env PCMK_logfile="$work/$n/pacemaker.log" PCMK_logfacility=none pacemakerd >"$work/$n/pacemakerd.out" 2>&1 &
done

if [ "$mode" = one ]; then
  wait_for 40 "node1 green" health_is node1 green
  wait_for 30 "dummy runs on node1" dummy_on node1
  set_disk node1 "fail 1117"
  wait_for 15 "disk fails: node1 red" health_is node1 red
  wait_for 15 "dummy stopped on the red node" dummy_on nowhere
  set_disk node1 ok
  wait_for 15 "disk recovers: node1 green" health_is node1 green
  wait_for 20 "dummy runs again" dummy_on node1
  set_disk node1 hang
  # The pass hangs: red once it has run beyond its time-out of 2 s.
  wait_for 15 "hung disk: node1 red after the time-out" health_is node1 red
  grep -q "OVERDUE" "$work"/node1/log/qmtrm-run-*.out || fail "the red of the hung disk is not the overdue pass"
  wait_for 15 "dummy stopped again" dummy_on nowhere
else
  both_green() { health_is node1 green && health_is node2 green; }
  dummy_runs() { dummy_on node1 || dummy_on node2; }
  wait_for 60 "both nodes green" both_green
  wait_for 30 "dummy runs" dummy_runs
  where=$(in_node node1 timeout 10 crm_resource --locate -r dummy 2>&1 | sed -n 's/.*running on: //p')
  other=node2; [ "$where" = node2 ] && other=node1
  set_disk "$where" "fail 1117"
  wait_for 15 "disk of $where fails: $where red" health_is "$where" red
  wait_for 20 "dummy moved to $other" dummy_on "$other"
  health_is "$other" green || fail "$other is not green"
fi
echo "PASS: $mode ($((SECONDS - t0)) s)"
