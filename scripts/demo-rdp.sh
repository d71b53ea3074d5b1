#!/usr/bin/env bash
# The service's main job over plain Remote Desktop, end to end, in a private Wine prefix made
# anew: the test RDP host stands in for the Remote Desktop host and a FreeRDP client (xfreerdp
# under Xvfb, with the velomar add-in) connects to it as session 1. The package is installed with
# "ChannelTransport" set to rdp, and a test-only wtsapi32.dll beside the service forwards its
# channel calls to the test host. The installed velomar-open hands over a URL; the client's
# opener writes down what it was given. Then the package is removed and everything started here
# is stopped.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh

cmake --preset mingw >/dev/null
cmake --build --preset mingw --target velomard velomar-open velomar-status velomar_wts_forward msi
cmake --preset native >/dev/null
cmake --build --preset native --target velomar-rdp-host velomar-client
msi=$(sed -n 's/^VELOMAR_MSI:INTERNAL=//p' build/mingw/CMakeCache.txt)

export WINEPREFIX="$root/build/mingw/demo-rdp-wineprefix" WINEDEBUG=-all
prefix=$WINEPREFIX
# shellcheck source=lib/rdp-wine.sh
. scripts/lib/rdp-wine.sh
trap rdp_stop EXIT
sc() { wine sc "$@" 2>/dev/null | tr -d '\r'; }
state() { sc query velomard | awk '/STATE/ {print $4; exit}'; }

# The client side's opener: writes down each URL it is given, one line each.
received="$rdp_work/received.txt"
cat >"$rdp_work/opener.sh" <<OPENER
#!/bin/sh
printf '%s\n' "\$1" >>"$received"
OPENER
chmod +x "$rdp_work/opener.sh"
echo "== the test RDP host and a FreeRDP client"
rdp_start "$rdp_work/opener.sh"
echo "RDP on $rdp_address, WTS calls forwarded on $rdp_forward"
grep -E 'client (connected|joined)' "$rdp_work/host.log"

echo "== installing $(basename "$msi") with ChannelTransport=rdp"
if ! wine msiexec /i "$(winepath -w "$msi")" /qn; then echo "the installation failed"; exit 1; fi
for _ in $(seq 1 300); do [ "$(state)" = RUNNING ] && break; sleep 0.1; done
sc query velomard | grep STATE

url=$(printf '%b' 'https://example.test/velomar?demo=rdp&q=caf\u00e9')
echo "== velomar-open --no-fallback '$url'"
status=1
for _ in $(seq 1 30); do
  if wine 'C:\Program Files\Corvane\Velomar\velomar-open.exe' --no-fallback "$url"; then status=0; break; fi
  sleep 0.5
done
echo "velomar-open exit code: $status (0: the service sent it to the client side)"
for _ in $(seq 1 50); do [ -s "$received" ] && break; sleep 0.1; done
echo "== the client's opener received:"
cat "$received" 2>/dev/null || echo "(nothing)"
echo "== velomar-status"
wine 'C:\Program Files\Corvane\Velomar\velomar-status.exe' 2>/dev/null | tr -d '\r' || true

echo "== the service's log: the transport and the channel"
logdir="$prefix/drive_c/ProgramData/Corvane/Velomar (Server)"
iconv -f UTF-16LE -t UTF-8 "$logdir/velomard.txt" | tr -d '\r' |
  grep -E 'Channel transport|OnSessionOpened|Negotiations|WTSVirtualChannelOpenEx' | head -n 10

echo "== removing the package"
if ! wine msiexec /x "$(winepath -w "$msi")" /qn; then echo "the removal failed"; exit 1; fi
for _ in $(seq 1 100); do [ -z "$(state)" ] && break; sleep 0.1; done
echo "service registered: $([ -n "$(state)" ] && echo yes || echo no)"
rm -f "$rdp_program/wtsapi32.dll"
[ "$status" = 0 ] && grep -qxF "$url" "$received"
