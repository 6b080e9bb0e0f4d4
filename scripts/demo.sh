#!/usr/bin/env bash
# demo.sh [qmtrm demo flags]: installs what is missing, builds, and runs the host's demo on its
# embedded configuration and simulated disks.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh"
bash "$root/scripts/build.sh" "$root/build"
exec "$root/build/bin/qmtrm" demo "$@"
