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
addins=$(sed -n 's/^VELOMAR_ADDIN_BUILD_DIR:INTERNAL=//p' build/native/CMakeCache.txt)

prefix="$root/build/mingw/demo-rdp-wineprefix"
work=$(mktemp -d /tmp/velomar-demo-rdp-XXXXXX)
export WINEPREFIX="$prefix" WINEDEBUG=-all
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  "$root/cmake/wine-prefix.sh" stop "$prefix" >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
"$root/cmake/wine-prefix.sh" fresh "$prefix"
sc() { wine sc "$@" 2>/dev/null | tr -d '\r'; }
state() { sc query velomard | awk '/STATE/ {print $4; exit}'; }

echo "== the test RDP host and a FreeRDP client"
winpr-makecert -rdp -path "$work/cert" -n server >/dev/null 2>&1
exec 3<>"$work/xvfb.fd"
Xvfb -displayfd 3 -nolisten tcp -screen 0 800x600x24 >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 1 100); do [ -s "$work/xvfb.fd" ] && break; sleep 0.1; done
display=":$(head -n 1 "$work/xvfb.fd")"
mkfifo "$work/host.in"
WLOG_LEVEL=WARN build/native/tools/rdp-host/velomar-rdp-host --cert-dir "$work/cert" --forward --lifetime 300 \
  <"$work/host.in" >"$work/host.log" 2>&1 &
pids+=($!)
exec 4>"$work/host.in" # the host runs until this closes
for _ in $(seq 1 100); do grep -q '^forwarding' "$work/host.log" 2>/dev/null && break; sleep 0.1; done
rdp=$(sed -n 's/^listening //p' "$work/host.log")
forward=$(sed -n 's/^forwarding //p' "$work/host.log")
echo "RDP on $rdp, WTS calls forwarded on $forward"

# The client side's opener: writes down each URL it is given, one line each.
received="$work/received.txt"
cat >"$work/opener.sh" <<OPENER
#!/bin/sh
printf '%s\n' "\$1" >>"$received"
OPENER
chmod +x "$work/opener.sh"
mkdir -p "$work/home"
HOME="$work/home" DISPLAY="$display" unshare -rm sh -c 'mount --bind "$1" "$2" && shift 2 && exec "$@"' sh \
  "$addins" "/usr/lib/$(gcc -print-multiarch)/freerdp2" \
  xfreerdp "/v:$rdp" /cert:ignore /u:velomar /p:velomar -sec-nla /size:640x480 \
  "/vc:velomar,opener:$work/opener.sh" >"$work/client.log" 2>&1 &
pids+=($!)
for _ in $(seq 1 150); do grep -q 'client connected' "$work/host.log" && break; sleep 0.1; done
grep -E 'client (connected|joined)' "$work/host.log"

echo "== installing $(basename "$msi") with ChannelTransport=rdp"
product='HKLM\Software\Corvane\Velomar (Server)'
wine reg add "$product" /v ChannelTransport /t REG_SZ /d rdp /f >/dev/null 2>&1
wine reg add "$product" /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1
wine reg add 'HKLM\Software\Corvane\Velomar Test\WtsForward' /v Address /t REG_SZ /d "$forward" /f >/dev/null 2>&1
# The forwarding library is loaded by the service alone, from its own folder.
wine reg add 'HKCU\Software\Wine\AppDefaults\velomard.exe\DllOverrides' /v wtsapi32 /t REG_SZ /d native,builtin /f \
  >/dev/null 2>&1
program="$prefix/drive_c/Program Files/Corvane/Velomar"
mkdir -p "$program"
cp build/mingw/tools/wts-forward/wtsapi32.dll "$program/"
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
rm -f "$program/wtsapi32.dll"
exec 4>&-
[ "$status" = 0 ] && grep -qxF "$url" "$received"
