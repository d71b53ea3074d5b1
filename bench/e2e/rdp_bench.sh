#!/usr/bin/env bash
# Runs rdp_bench against the installed service with the RDP transport: a fresh prefix, the test
# RDP host, a FreeRDP client with the add-in (its opener does nothing, so that the client side
# costs the least), the package, then the benchmark, then everything stopped again.
#   bench/e2e/rdp_bench.sh [URLs per measurement]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
cmake --preset mingw >/dev/null && cmake --build --preset mingw --target velomard velomar_wts_forward msi rdp_bench >/dev/null
cmake --preset native >/dev/null && cmake --build --preset native --target velomar-rdp-host velomar-client >/dev/null
msi=$(sed -n 's/^VELOMAR_MSI:INTERNAL=//p' build/mingw/CMakeCache.txt)
export WINEPREFIX="$root/build/mingw/bench-rdp-wineprefix" WINEDEBUG=-all
# shellcheck source=../../scripts/lib/rdp-wine.sh
. scripts/lib/rdp-wine.sh
trap rdp_stop EXIT
rdp_start /bin/true
wine msiexec /i "$(winepath -w "$msi")" /qn
wine build/mingw/bench/e2e/rdp_bench.exe "$@"
wine msiexec /x "$(winepath -w "$msi")" /qn
