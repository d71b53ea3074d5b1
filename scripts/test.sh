#!/usr/bin/env bash
# Builds everything and runs the whole suite: the Windows-free logic natively, then the
# Windows build under Wine in a private prefix inside build/mingw.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh

cmake --preset native >/dev/null
cmake --build --preset native
ctest --preset native --no-tests=ignore

cmake --preset mingw >/dev/null
cmake --build --preset mingw
ctest --preset mingw
