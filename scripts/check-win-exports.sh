#!/usr/bin/env bash
# check-win-exports.sh SRC BUILD: cross-builds the Windows DLLs with mingw-w64 and checks them:
# qmtsdw.dll exports every name of qmtsdw.def at its ordinal and nothing else, and imports the
# cluster libraries by ordinal only; each cluster library's DLL exports exactly the ordinals of
# its .def file, by ordinal alone; and every DLL imports only system DLLs and the cluster
# libraries, so none needs a compiler runtime DLL beside it. The plug-in's test variant
# qmtsdw_seam.dll exports the same names and its seam's installer, which no other DLL exports.
set -euo pipefail
src=$1 build=$2
libs=(qmtlog/qmtlog qmtxml/qmtxml qmtshm/qmtshmcm qmtshm/qmtshmrm qmtutil/qmtutil)
bash "$src/scripts/win-build.sh" "$src" "$build" qmtsdw qmtsdw_seam qmtlog qmtxml qmtshmcm qmtshmrm qmtutil

dll_of() {
  local dll; dll=$(find "$build" -name "$1.dll" | head -n 1)
  [ -n "$dll" ] || { echo "$1.dll was not built" >&2; return 1; }
  printf '%s\n' "$dll"
}
# The ordinals of a DLL's export address table ("[ 0] +base[ 1] 1570 Export RVA").
exports() {
  printf '%s\n' "$1" | sed -n '/^Export Address Table -- Ordinal Base/,/^$/p' |
    sed -n 's/.*+base\[[[:space:]]*\([0-9]*\)\].*/\1/p' | sort -n
}
# "index name" pairs of a DLL's exported names.
named_exports() {
  printf '%s\n' "$1" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
    sed -n 's/^[[:space:]]*\[[[:space:]]*\([0-9]*\)\][[:space:]]*\([A-Za-z_0-9]*\).*/\1 \2/p'
}
def_entries() { sed -n 's/^[[:space:]]*\([A-Za-z_0-9]*\)[[:space:]]*@\([0-9]*\).*/\2 \1/p' "$1" | sort -n; }
imports_ok() {
  local name=$1 dump=$2 bad
  bad=$(printf '%s\n' "$dump" | sed -n 's/^[[:space:]]*DLL Name: //p' |
        grep -viE '^(kernel32|advapi32|msvcrt|user32|ntdll|qmtlog|qmtxml|qmtshmcm|qmtshmrm|qmtutil)\.dll$' || true)
  [ -z "$bad" ] || { echo "$name.dll imports DLLs that are not the system's: $bad"; return 1; }
}

# The plug-in and its test variant: names at their ordinals.
for plugin in qmtsdw_seam qmtsdw; do
  dll=$(dll_of $plugin)
  dump=$(x86_64-w64-mingw32-objdump -p "$dll")
  base=$(printf '%s\n' "$dump" | sed -n 's/^Ordinal Base[[:space:]]*\([0-9]*\).*/\1/p' | head -n 1)
  actual=$(named_exports "$dump" | awk -v base="${base:-1}" '{ print $1 + base, $2 }' | sort -n)
  expected=$(def_entries "$src/server/monitor/sdw/qmtsdw.def")
  [ $plugin = qmtsdw_seam ] && expected=$(printf '%s\n10 qmtp_seam_install' "$expected")
  if [ "$actual" != "$expected" ]; then
    echo "export table of $plugin.dll differs"; echo "expected:"; echo "$expected"; echo "actual:"; echo "$actual"
    exit 1
  fi
  for def in "${libs[@]}"; do
    lib=${def#*/}
    section=$(printf '%s\n' "$dump" | sed -n "/DLL Name: $lib.dll/,/^$/p")
    [ -n "$section" ] || { echo "$lib.dll is not imported"; exit 1; }
    if printf '%s\n' "$section" | grep -Eq '^[[:space:]]+[0-9a-f]+[[:space:]]+[0-9]+[[:space:]]+[A-Za-z_]'; then
      echo "$lib.dll is imported by name, not by ordinal:"; printf '%s\n' "$section"; exit 1
    fi
done
imports_ok $plugin "$dump"
echo "$plugin.dll exports:" $expected
done

# The cluster libraries: exactly their ordinals, no names.
for def in "${libs[@]}"; do
  lib=${def#*/}
  dll=$(dll_of "$lib")
  dump=$(x86_64-w64-mingw32-objdump -p "$dll")
  actual=$(exports "$dump")
  expected=$(def_entries "$src/server/lib/$def.def" | awk '{ print $1 }')
  if [ "$actual" != "$expected" ]; then
    echo "$lib.dll exports other ordinals than $lib.def:"; echo "expected:"; echo "$expected"; echo "actual:"; echo "$actual"
    exit 1
  fi
  if printf '%s\n' "$dump" | grep -q qmtp_seam_install; then echo "$lib.dll has the seam's installer"; exit 1; fi
  names=$(named_exports "$dump")
  [ -z "$names" ] || { echo "$lib.dll exports names: $names"; exit 1; }
  imports_ok "$lib" "$dump"
  echo "$lib.dll exports ordinals" $expected "and imports" $(printf '%s\n' "$dump" | sed -n 's/^[[:space:]]*DLL Name: //p')
done
