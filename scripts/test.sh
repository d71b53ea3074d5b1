#!/usr/bin/env bash
# Builds everything and runs the whole suite: the Windows-free logic natively, the Windows builds
# with their checks, then the Wine suites in private prefixes inside the build folders, with each
# fuzz target run for a while beside them.
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

# The Windows build with clang: the locking rules are checked (-Wthread-safety), every warning is
# an error, and clang-tidy reads its compile commands.
cmake --preset clang >/dev/null
cmake --build --preset clang
step_done "clang build"
scripts/tidy.sh
step_done clang-tidy
cmake --preset mingw >/dev/null
cmake --build --preset mingw
step_done "mingw build"

# Every fuzz target for about 30 s from an empty corpus. The fuzzers take one core beside the
# Wine suites below, which wait on timers and on Wine's server for much of their time,
# and both cores once the suites are done; each fuzzer is claimed by the first lane to reach it. A
# crash, a leak or a sanitizer report fails the run, and the fuzzer's output stays in
# build/fuzz/logs.
fuzz_seconds=${VELOMAR_FUZZ_SECONDS:-30}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
mkdir -p build/fuzz/logs
rm -rf build/fuzz/logs/*.claimed
mapfile -t fuzzers < <(find build/fuzz/tests -type f -name '*_fuzz' -perm -u+x | sort)
[ ${#fuzzers[@]} -gt 0 ] || { echo "no fuzz targets were built" >&2; exit 1; }
step_done "fuzz build"
fuzz_lane() {
  local fuzzer name failed=0 child=
  # Ended early (a suite failed), the lane ends the fuzzer it is running.
  trap '[ -z "$child" ] || kill "$child" 2>/dev/null; exit 1' TERM
  for fuzzer in "${fuzzers[@]}"; do
    name=$(basename "$fuzzer")
    mkdir "build/fuzz/logs/$name.claimed" 2>/dev/null || continue
    "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="build/fuzz/logs/$name-" >"build/fuzz/logs/$name.log" 2>&1 &
    child=$!
    if wait "$child"; then
      echo "fuzzed $name for ${fuzz_seconds} s: $(grep -oE 'Done [0-9]+ runs' "build/fuzz/logs/$name.log" || true)"
    else
      tail -n 40 "build/fuzz/logs/$name.log"
      echo "$name failed; its input is in build/fuzz/logs/"
      failed=1
    fi
  done
  return $failed
}
fuzz_lane >build/fuzz/logs/lane-1.txt 2>&1 &
fuzz_lanes=($!)
# If a suite fails, the fuzzing started here is ended with the run.
trap 'kill "${fuzz_lanes[@]}" 2>/dev/null || true' EXIT

# The Windows build with clang runs the pipe, pipe-server and session suites under Wine; the
# g++ build runs every suite.
ctest --preset clang -R "${VELOMAR_CLANG_SUITES:-^(pipe_|pipeserver_|virt_|wine_prefix)}"
step_done "clang suites"
ctest --preset mingw
step_done "mingw suites"

# The service itself over RDP: the Windows build under Wine with the forwarding wtsapi32.dll, the
# test RDP host and xfreerdp with the add-in.
ctest --preset native -L rdp_service
step_done "rdp service"

fuzz_lane >build/fuzz/logs/lane-2.txt 2>&1 &
fuzz_lanes+=($!)
fuzz_status=0
for lane in "${fuzz_lanes[@]}"; do
  wait "$lane" || fuzz_status=1
done
trap - EXIT
cat build/fuzz/logs/lane-1.txt build/fuzz/logs/lane-2.txt
[ "$fuzz_status" -eq 0 ] || { echo "fuzzing failed" >&2; exit 1; }
step_done "fuzz (after the suites)"
