# scratch.sh KIND - sourced by the host tests: $work, a scratch folder, and $shm, a prefix for
# shared memories, both of this run's own and both carrying this shell's pid ("q<pid>x"). First
# it removes what earlier runs whose test process is gone left behind (a run killed at its
# time-out never reaches its own clean-up): their mounts, loop devices, folders and segments.
for f in "${TMPDIR:-/tmp}"/qmtrm-*-q*x-* /dev/shm/qmt*q*x*; do
  [[ $f =~ q([0-9]+)x ]] && [ -e "$f" ] && [ ! -d "/proc/${BASH_REMATCH[1]}" ] || continue
  awk -v d="$f/" 'index($2, d) == 1 { print $2 }' /proc/mounts | xargs -r -n1 umount -l 2>/dev/null
  for b in /sys/block/loop*/loop/backing_file; do
    [[ -e $b && $(<"$b") == "$f"/* ]] && b=${b#/sys/block/} && losetup -d "/dev/${b%%/*}" 2>/dev/null
  done
  rm -rf "$f"
done
work=$(mktemp -d "${TMPDIR:-/tmp}/qmtrm-$1-q$$x-XXXXXX")
shm="qmt$1q$$x$RANDOM"
