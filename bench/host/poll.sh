#!/usr/bin/env bash
# poll.sh QMTRM [SECONDS] [RESOURCES] [HUNG] - `qmtrm run` polling RESOURCES (100) sdw resources,
# each on its own one-disk volume, every second for SECONDS (10); the first HUNG (0) disks never
# answer. Prints the CPU time per pass, the peak resident set size (from /usr/bin/time -v), the
# number of passes that answered 190, and the median and worst interval between the passes of
# each healthy resource.
set -eu
qmtrm=$1
seconds=${2:-10}
count=${3:-100}
hung=${4:-0}
work=$(mktemp -d "${TMPDIR:-/tmp}/qmtrm-poll-XXXXXX")
shm="qmtpoll$$"
trap 'rm -rf "$work"; for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done' EXIT
mkdir -p "$work/conf/policy"
{
  echo '<root><cluster><delaywarn><monitor>80</monitor></delaywarn></cluster><monitor>'
  for i in $(seq 0 $((count - 1))); do
    echo "<sdw name=\"sdw$i\"><polling><interval>1</interval><timeout>60</timeout></polling><parameters><object>sd$i</object></parameters></sdw>"
  done
  echo '</monitor><resource>'
  for i in $(seq 0 $((count - 1))); do
    printf '<sd name="sd%d"><server name="node1"><parameters><volumeguid>7e57b0a5-0000-4000-8000-%012d</volumeguid></parameters></server></sd>\n' "$i" "$i"
  done
  echo '</resource></root>'
} >"$work/conf/clp.conf"
echo '<root><monitor><sdw><type>sdw</type><log><level>4</level><size>10000000</size></log></sdw></monitor></root>' \
  >"$work/conf/policy/sdw.xml"
echo '<root/>' >"$work/conf/policy/rm.xml"
for i in $(seq 0 $((count - 1))); do
  printf 'volume 7e57b0a5-0000-4000-8000-%012d disks %d\ndisk %d %s\n' "$i" "$i" "$i" \
    "$([ "$i" -lt "$hung" ] && echo hang || echo ok)"
done >"$work/sim.txt"

QMT_STORAGE=sim /usr/bin/time -v -o "$work/time" "$qmtrm" run --conf-dir "$work/conf" --sim "$work/sim.txt" \
  --log-dir "$work/log" --shm-name "$shm" --host node1 --duration "$seconds" --stop-wait 100 --verbose \
  >"$work/out" 2>&1 || true
passes=$(sed -n 's/.*passes: \([0-9]*\),.*/\1/p' "$work/out")
cpu_ms=$(sed -n 's/.*, cpu: \([0-9]*\) ms.*/\1/p' "$work/out")
user=$(sed -n 's/.*User time (seconds): //p' "$work/time")
sys=$(sed -n 's/.*System time (seconds): //p' "$work/time")
rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/time")
echo "resources=$count seconds=$seconds passes=$passes user=${user}s sys=${sys}s cpu=${cpu_ms}ms peak_rss=${rss}KiB"
# CPU per pass from the host's own count (ms resolution); /usr/bin/time only gives 10 ms steps.
awk -v c="$cpu_ms" -v p="$passes" 'BEGIN { if (p > 0) printf "cpu_per_pass=%.1fus (start-up and idle polling included)\n", c * 1000 / p }'
echo "passes_with_190=$(grep -c ': status 190' "$work/out" || true)"
# Intervals between the ends of consecutive passes of each healthy resource ("HH:MM:SS.mmm  sdwN  pass").
awk -v hung="$hung" '$4 == "pass" && substr($3, 4) + 0 >= hung {
    split($2, t, ":"); now = t[1] * 3600 + t[2] * 60 + t[3]
    if ($3 in last) print now - last[$3]
    last[$3] = now
  }' "$work/out" | sort -n | awk '{ v[NR] = $1 } END {
    if (NR) printf "healthy_intervals=%d median=%.3fs max=%.3fs\n", NR, v[int((NR + 1) / 2)], v[NR] }'
