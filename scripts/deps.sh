#!/usr/bin/env bash
# deps.sh [build|cluster]: installs the Debian packages that are missing, quietly. "build": only
# what configuring and building the programs needs (the demo); "cluster": only the cluster stack
# and packaging tools of the cluster stage; default: what building, the tests, the sanitizer runs,
# the Windows cross-build and its tests under Wine need (64-bit Wine alone: wine64 and the wine
# launcher, without recommends, some 23 small packages).
set -euo pipefail
need=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libpugixml-dev libcli11-dev
      nlohmann-json3-dev libblkid-dev libfuse3-dev)
case "${1:-}" in
  build) ;;
  cluster)
    need=(pacemaker pacemaker-cli-utils corosync resource-agents libxml2-utils help2man debootstrap dpkg-dev
          iproute2) ;;
  *)
    need+=(clang libclang-rt-14-dev fuse3 g++-mingw-w64-x86-64 gcc-mingw-w64-x86-64 binutils-mingw-w64-x86-64
           e2fsprogs util-linux jq wine wine64) ;;
esac
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
