#!/usr/bin/env bash
# The service's main job, end to end, in a private Wine prefix: register "velomard" with the
# service control manager, start it, show its live log, stop it, and show that it reported
# stopped and that its process ended.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh

cmake --preset mingw >/dev/null
cmake --build --preset mingw --target velomard

prefix="$root/build/mingw/demo-wineprefix"
export WINEPREFIX="$prefix" WINEDEBUG=-all
cleanup() { "$root/cmake/wine-prefix.sh" stop "$prefix" >/dev/null; }
trap cleanup EXIT
"$root/cmake/wine-prefix.sh" start "$prefix"

sc() { wine sc "$@" 2>/dev/null | tr -d '\r'; }
state() { sc query velomard | awk '/STATE/ {print $4; exit}'; }
# Linux ids of the Wine process that runs the service executable (read-only look at /proc).
service_pids() {
  for d in /proc/[0-9]*; do
    tr '\0' ' ' <"$d/cmdline" 2>/dev/null | grep -q 'velomar\\velomard.exe' && echo "${d#/proc/}"
  done
  return 0
}

install_dir="$prefix/drive_c/velomar"
mkdir -p "$install_dir"
cp build/mingw/service/velomard.exe "$install_dir/"
logdir="$prefix/drive_c/ProgramData/Corvane/Velomar (Server)"
rm -rf "$logdir"

echo "== registering the service"
sc stop velomard >/dev/null || true
sc delete velomard >/dev/null || true
wine reg add 'HKLM\Software\Corvane\Velomar (Server)' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1
sc create velomard binpath= 'C:\velomar\velomard.exe' type= own start= demand

echo "== starting it"
sc start velomard >/dev/null
for _ in $(seq 1 300); do [ "$(state)" = RUNNING ] && break; sleep 0.1; done
sc query velomard
pid=$(service_pids | head -n 1)
echo "service process (Linux id): ${pid:-not found}"

for _ in $(seq 1 50); do [ -s "$logdir/velomard.txt" ] && break; sleep 0.1; done
sleep 0.5
echo "== live log: $logdir/velomard.txt (UTF-16LE, decoded)"
iconv -f UTF-16LE -t UTF-8 "$logdir/velomard.txt" | tr -d '\r'

echo "== stopping it"
sc stop velomard
echo "state after stop: $(state)"
for _ in $(seq 1 100); do [ -z "$(service_pids)" ] && break; sleep 0.1; done
if [ -z "$(service_pids)" ]; then echo "service process has ended"; else echo "service process still running"; exit 1; fi
echo "== log after stop"
iconv -f UTF-16LE -t UTF-8 "$logdir/velomard.txt" | tr -d '\r' | tail -n 2
sc delete velomard >/dev/null
