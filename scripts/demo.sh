#!/usr/bin/env bash
# The service's main job, end to end, in a private Wine prefix made anew: install the package
# (velomar-<version>-x64.msi) beside the stand-in channel library, which registers and starts
# "velomard", hand it a URL with the installed reference agent, show what the client side of
# session 1 received and the service's log, stop it, show that it reported stopped and that its
# process ended, and remove the package again.
#
# scripts/demo.sh --rdp shows the same over plain Remote Desktop instead (scripts/demo-rdp.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
if [ "${1:-}" = --rdp ]; then exec scripts/demo-rdp.sh; fi
scripts/setup.sh

cmake --preset mingw >/dev/null
cmake --build --preset mingw --target velomard velomar-open velomar_skein_standin msi
msi=$(sed -n 's/^VELOMAR_MSI:INTERNAL=//p' build/mingw/CMakeCache.txt)

prefix="$root/build/mingw/demo-wineprefix"
export WINEPREFIX="$prefix" WINEDEBUG=-all
cleanup() { "$root/cmake/wine-prefix.sh" stop "$prefix" >/dev/null; }
trap cleanup EXIT
"$root/cmake/wine-prefix.sh" fresh "$prefix"

sc() { wine sc "$@" 2>/dev/null | tr -d '\r'; }
state() { sc query velomard | awk '/STATE/ {print $4; exit}'; }
# Linux ids of the Wine process that runs the service executable (read-only look at /proc).
service_pids() {
  for d in /proc/[0-9]*; do
    { tr '\0' ' ' <"$d/cmdline"; } 2>/dev/null | grep -q 'Corvane\\Velomar\\velomard.exe' && echo "${d#/proc/}"
  done
  return 0
}

# The stand-in channel library, where the service looks for the real one; the package leaves it
# to the library's own installer. With no scenario it opens session 1 with an accepting client
# side that writes every URL it receives to a file.
skein_dir="$prefix/drive_c/Program Files/Common Files/Corvane/Skein 3"
mkdir -p "$skein_dir"
cp build/mingw/tools/skein/cvskapi.dll "$skein_dir/"
received="$prefix/drive_c/ProgramData/Corvane/Skein Standin/received.txt"
rm -f "$received"
logdir="$prefix/drive_c/ProgramData/Corvane/Velomar (Server)"
rm -rf "$logdir"

echo "== installing $(basename "$msi")"
wine reg add 'HKLM\Software\Corvane\Velomar (Server)' /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1
if ! wine msiexec /i "$(winepath -w "$msi")" /qn; then echo "the installation failed"; exit 1; fi
for _ in $(seq 1 300); do [ "$(state)" = RUNNING ] && break; sleep 0.1; done
sc query velomard
pid=$(service_pids | head -n 1)
echo "service process (Linux id): ${pid:-not found}"

# The session handler connects and handshakes with the client side right after start-up.
url='https://example.test/velomar?demo=1&q=caf\u00e9'
url=$(printf '%b' "$url")
echo "== velomar-open --no-fallback '$url'"
status=1
for _ in $(seq 1 20); do
  if wine 'C:\Program Files\Corvane\Velomar\velomar-open.exe' --no-fallback "$url"; then status=0; break; fi
  sleep 0.5
done
echo "velomar-open exit code: $status (0: the service sent it to the client side)"
for _ in $(seq 1 50); do [ -s "$received" ] && break; sleep 0.1; done
echo "== the client side of session 1 received:"
cat "$received" 2>/dev/null || echo "(nothing)"

sleep 0.3
echo "== live log: $logdir/velomard.txt (UTF-16LE, decoded)"
iconv -f UTF-16LE -t UTF-8 "$logdir/velomard.txt" | tr -d '\r' | grep -v -E 'SkReadData\(Header\)' | head -n 40

echo "== stopping it"
sc stop velomard
echo "state after stop: $(state)"
for _ in $(seq 1 100); do [ -z "$(service_pids)" ] && break; sleep 0.1; done
if [ -z "$(service_pids)" ]; then echo "service process has ended"; else echo "service process still running"; exit 1; fi
echo "== log after stop"
iconv -f UTF-16LE -t UTF-8 "$logdir/velomard.txt" | tr -d '\r' | tail -n 2

echo "== removing the package"
if ! wine msiexec /x "$(winepath -w "$msi")" /qn; then echo "the removal failed"; exit 1; fi
# Wine deletes the service once its process has ended.
for _ in $(seq 1 100); do [ -z "$(state)" ] && break; sleep 0.1; done
echo "service registered: $([ -n "$(state)" ] && echo yes || echo no)"
echo "program folder: $([ -e "$prefix/drive_c/Program Files/Corvane/Velomar/velomard.exe" ] && echo still there || echo removed)"
echo "log folder kept: $(ls "$logdir")"
