#!/usr/bin/env bash
# clang-tidy over the project's own code with the checks of .clang-tidy, through the compile
# commands of the clang preset (configure and build it first). Any finding fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=build/clang
[ -f "$build/compile_commands.json" ] || { echo "configure the clang preset first" >&2; exit 1; }
# The product's sources and its tools' (the tests are checked by the compilers and by running).
# The preset is a unity build: clang-tidy reads each generated unity file of the product's
# targets, which parses the Windows headers once per batch of sources rather than once per source,
# and reports what it finds in the sources by their own names (.clang-tidy's HeaderFilterRegex
# takes in the .cpp files). A source built outside a unity file is read on its own.
dirs="common|log|service|virt|pipe|pipeserver|statusapi|tools|rdpclient"
pattern="^$root/(($dirs)/.*\\.cpp|$build/($dirs)/.*/unity_[0-9]+_cxx\\.cxx)\$"
grep -qE "\"file\": \"$root/($build/)?common/" "$build/compile_commands.json" ||
  { echo "no product sources in $build/compile_commands.json" >&2; exit 1; }
run-clang-tidy-19 -clang-tidy-binary clang-tidy-19 -p "$build" -j "$(nproc)" -quiet "$pattern" \
  >"$build/tidy.log" 2>&1 || status=$?
if grep -qE "(warning|error): .*\[[a-z0-9.-]+(,-warnings-as-errors)?\]" "$build/tidy.log" || [ "${status:-0}" -ne 0 ]; then
  grep -E "(warning|error): " "$build/tidy.log" | sed "s|$root/||" | sort -u >&2 || true
  echo "clang-tidy found the above (full output in $build/tidy.log)" >&2
  exit 1
fi
echo "clang-tidy: no findings"
