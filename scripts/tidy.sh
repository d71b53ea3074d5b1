#!/usr/bin/env bash
# clang-tidy over the project's own code with the checks of .clang-tidy, through the compile
# commands of the clang preset (configure and build it first). Any finding fails the run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=build/clang
[ -f "$build/compile_commands.json" ] || { echo "configure the clang preset first" >&2; exit 1; }
# The preset is a unity build, whose compile commands name the generated unity files that include
# the sources; clang-tidy checks each source on its own, with its unity file's command.
db="$build/tidy-db"
python3 scripts/lib/unity-compile-db.py "$build/compile_commands.json" "$db/compile_commands.json"
# The product's sources and its tools' (the tests are checked by the compilers and by running).
pattern="^$root/(common|log|service|virt|pipe|pipeserver|statusapi|tools|rdpclient)/.*\\.cpp\$"
grep -qE "\"file\": \"$root/common/" "$db/compile_commands.json" || { echo "no product sources in $db" >&2; exit 1; }
run-clang-tidy-19 -clang-tidy-binary clang-tidy-19 -p "$db" -j "$(nproc)" -quiet "$pattern" \
  >"$build/tidy.log" 2>&1 || status=$?
if grep -qE "(warning|error): .*\[[a-z0-9.-]+(,-warnings-as-errors)?\]" "$build/tidy.log" || [ "${status:-0}" -ne 0 ]; then
  grep -E "(warning|error): " "$build/tidy.log" | sed "s|$root/||" | sort -u >&2 || true
  echo "clang-tidy found the above (full output in $build/tidy.log)" >&2
  exit 1
fi
echo "clang-tidy: no findings"
