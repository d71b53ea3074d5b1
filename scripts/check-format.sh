#!/usr/bin/env bash
# Fails when any C++ file of the project's own folders differs from what the pinned clang-format
# makes of it; `scripts/check-format.sh --fix` rewrites them instead.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
formatter=clang-format-14 # pinned: another version lays out the same code differently
mapfile -t files < <(git ls-files -- '*.cpp' '*.h' |
  grep -E '^(common|log|service|virt|pipe|pipeserver|statusapi|tools|tests|bench|cmake|rdpclient)/' || true)
if [ "${1:-}" = "--fix" ]; then
  "$formatter" --style=file:.clang-format -i "${files[@]}"
  exit 0
fi
drift=()
for f in "${files[@]}"; do
  "$formatter" --style=file:.clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || drift+=("$f")
done
if [ ${#drift[@]} -gt 0 ]; then
  printf 'not formatted: %s\n' "${drift[@]}" >&2
  echo "run scripts/check-format.sh --fix" >&2
  exit 1
fi
echo "format: ${#files[@]} files as clang-format 14 lays them out"
