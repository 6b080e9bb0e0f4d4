#!/usr/bin/env bash
# cluster_tests_under_wine.sh SRC BUILD: cross-builds the cluster libraries' unit tests that
# Windows can run (the configuration store, the utility library and the log library) and the
# Windows tests of the shared memories, all against the DLLs, and runs them under Wine in a Wine
# prefix of its own. Two tests of the configuration store stay on Linux: they make a FIFO and a
# symbolic link to a device, run loads in forked children, and set file times to the nanosecond.
set -uo pipefail
src=$1 build=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine_env.sh"
tests=(qmt_cluster_xml_test qmt_cluster_util_test qmt_log_test qmt_shm_win_test)
bash "$src/scripts/win-build.sh" "$src" "$build" qmtxml qmtutil qmtlog qmtshmcm qmtshmrm "${tests[@]}" ||
  { echo "cross build failed"; exit 1; }

posix_only="XmlStore.OnlyWellFormedRegularFilesOfBoundedSizeAreLoaded"
posix_only+=":XmlStore.ReloadReadsOnlyAChangedFileAndKeepsTheLastGoodDocument"
failed=0
for t in "${tests[@]}"; do
  timeout -k 10 240 wine "$build/bin/$t.exe" --gtest_filter="-$posix_only" --gtest_color=no 2>&1 | tr -d '\r'
  rc=${PIPESTATUS[0]}
  [ "$rc" -eq 0 ] || { echo "$t failed (exit $rc)"; failed=1; }
done
exit $failed
