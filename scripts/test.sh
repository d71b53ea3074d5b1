#!/usr/bin/env bash
# Builds everything and runs the whole suite: the Windows-free logic natively, each fuzz target
# for a while, then the Windows build under Wine in a private prefix inside build/mingw.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
# Each step's wall time, so that the run's cost stays in view.
step_started=$SECONDS
step_done() {
  echo "== $1: $((SECONDS - step_started)) s (total $SECONDS s)"
  step_started=$SECONDS
}
scripts/setup.sh
step_done setup

# Every C++ file as the pinned clang-format lays it out.
scripts/check-format.sh
step_done format

# The Windows-free logic on the host, its tests under AddressSanitizer and UBSan.
cmake --preset native >/dev/null
cmake --build --preset native
ctest --preset native --no-tests=ignore -LE rdp_service
step_done native

# Every fuzz target for about 30 s from an empty corpus; a crash, a leak or a sanitizer report
# fails the run, and the fuzzer's output stays in build/fuzz/logs.
fuzz_seconds=${VELOMAR_FUZZ_SECONDS:-30}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
mkdir -p build/fuzz/logs
mapfile -t fuzzers < <(find build/fuzz/tests -type f -name '*_fuzz' -perm -u+x | sort)
[ ${#fuzzers[@]} -gt 0 ] || { echo "no fuzz targets were built" >&2; exit 1; }
# One fuzzer per core at a time: each is single-threaded and gets its full time.
fuzz_one() {
  local fuzzer=$1 name
  name=$(basename "$fuzzer")
  echo "fuzzing $name for ${fuzz_seconds} s"
  if ! "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 \
       -artifact_prefix="build/fuzz/logs/$name-" >"build/fuzz/logs/$name.log" 2>&1; then
    tail -n 40 "build/fuzz/logs/$name.log" >&2
    echo "$name failed; its input is in build/fuzz/logs/" >&2
    return 1
  fi
}
export -f fuzz_one
export fuzz_seconds
printf '%s\0' "${fuzzers[@]}" | xargs -0 -n 1 -P "$(nproc)" bash -c 'fuzz_one "$1"' _
step_done fuzz

# The Windows build with clang: the locking rules are checked (-Wthread-safety), every warning is
# an error, clang-tidy reads its compile commands, and the pipe, pipe-server and session suites
# run under Wine.
cmake --preset clang >/dev/null
cmake --build --preset clang
step_done "clang build"
scripts/tidy.sh
step_done clang-tidy
ctest --preset clang -R "${VELOMAR_CLANG_SUITES:-^(pipe_|pipeserver_|virt_|wine_prefix)}"
step_done "clang suites"

cmake --preset mingw >/dev/null
cmake --build --preset mingw
step_done "mingw build"
ctest --preset mingw

step_done "mingw suites"

# The service itself over RDP: the Windows build under Wine with the forwarding wtsapi32.dll, the
# test RDP host and xfreerdp with the add-in.
ctest --preset native -L rdp_service
step_done "rdp service"
