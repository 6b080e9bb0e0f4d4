#!/usr/bin/env bash
# check-win-exports.sh SRC BUILD: cross-builds qmtsdw.dll with mingw-w64 and checks its export table
# against qmtsdw.def (every name at its ordinal, nothing else), and that it imports the cluster
# libraries by ordinal only.
set -euo pipefail
src=$1 build=$2
if ! command -v x86_64-w64-mingw32-g++-win32 >/dev/null; then
  echo "mingw-w64 is not installed"; exit 1
fi
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-x86_64.cmake" >/dev/null
fi
cmake --build "$build" --target qmtsdw >/dev/null
dll=$(find "$build" -name qmtsdw.dll | head -n 1)
[ -n "$dll" ] || { echo "qmtsdw.dll was not built"; exit 1; }
dump=$(x86_64-w64-mingw32-objdump -p "$dll")

# "ordinal name" pairs of the export table: objdump numbers the names from the ordinal base.
base=$(printf '%s\n' "$dump" | sed -n 's/^Ordinal Base[[:space:]]*\([0-9]*\).*/\1/p' | head -n 1)
actual=$(printf '%s\n' "$dump" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
         sed -n 's/^[[:space:]]*\[[[:space:]]*\([0-9]*\)\][[:space:]]*\([A-Za-z_0-9]*\).*/\1 \2/p' |
         awk -v base="${base:-1}" '{ print $1 + base, $2 }' | sort -n)
expected=$(sed -n 's/^[[:space:]]*\([A-Za-z_0-9]*\)[[:space:]]*@\([0-9]*\).*/\2 \1/p' "$src/server/monitor/sdw/qmtsdw.def" | sort -n)
if [ "$actual" != "$expected" ]; then
  echo "export table differs from qmtsdw.def"; echo "expected:"; echo "$expected"; echo "actual:"; echo "$actual"
  exit 1
fi
for lib in qmtlog qmtxml qmtshmcm qmtshmrm qmtutil; do
  section=$(printf '%s\n' "$dump" | sed -n "/DLL Name: $lib.dll/,/^$/p")
  [ -n "$section" ] || { echo "$lib.dll is not imported"; exit 1; }
  if printf '%s\n' "$section" | grep -Eq '^[[:space:]]+[0-9a-f]+[[:space:]]+[0-9]+[[:space:]]+[A-Za-z_]'; then
    echo "$lib.dll is imported by name, not by ordinal:"; printf '%s\n' "$section"; exit 1
  fi
done
echo "qmtsdw.dll exports match qmtsdw.def:"; echo "$expected"
