# Sourced by scripts/demo-rdp.sh and bench/e2e/rdp_bench.sh: the plain Remote Desktop setting of
# the service under Wine. The test RDP host stands in for the Remote Desktop host, a FreeRDP
# client (xfreerdp under Xvfb, with the velomar add-in) connects to it as session 1, and a
# test-only wtsapi32.dll beside the service forwards its channel calls to the test host.
# Expects $root (the repository), WINEPREFIX, and the mingw and native builds of the programs.

rdp_pids=()
rdp_work=$(mktemp -d /tmp/velomar-rdp-XXXXXX)

rdp_stop() {
  for pid in "${rdp_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  "$root/cmake/wine-prefix.sh" stop "$WINEPREFIX" >/dev/null
  rm -rf "$rdp_work"
}

# rdp_start OPENER: a fresh prefix, the host and a client whose add-in runs OPENER for each URL.
rdp_start() {
  local opener=$1 addins
  addins=$(sed -n 's/^VELOMAR_ADDIN_BUILD_DIR:INTERNAL=//p' "$root/build/native/CMakeCache.txt")
  "$root/cmake/wine-prefix.sh" fresh "$WINEPREFIX"
  winpr-makecert -rdp -path "$rdp_work/cert" -n server >/dev/null 2>&1
  exec 3<>"$rdp_work/xvfb.fd"
  Xvfb -displayfd 3 -nolisten tcp -screen 0 800x600x24 >/dev/null 2>&1 &
  rdp_pids+=($!)
  for _ in $(seq 1 100); do [ -s "$rdp_work/xvfb.fd" ] && break; sleep 0.1; done
  mkfifo "$rdp_work/host.in"
  WLOG_LEVEL=WARN "$root/build/native/tools/rdp-host/velomar-rdp-host" --cert-dir "$rdp_work/cert" --forward \
    --lifetime 600 <"$rdp_work/host.in" >"$rdp_work/host.log" 2>&1 &
  rdp_pids+=($!)
  exec 4>"$rdp_work/host.in" # the host runs until this closes
  for _ in $(seq 1 100); do grep -q '^forwarding' "$rdp_work/host.log" 2>/dev/null && break; sleep 0.1; done
  rdp_address=$(sed -n 's/^listening //p' "$rdp_work/host.log")
  rdp_forward=$(sed -n 's/^forwarding //p' "$rdp_work/host.log")
  mkdir -p "$rdp_work/home"
  # FreeRDP loads add-ins from its own folder only: the build's is laid over it for this client.
  HOME="$rdp_work/home" DISPLAY=":$(head -n 1 "$rdp_work/xvfb.fd")" \
    unshare -rm sh -c 'mount --bind "$1" "$2" && shift 2 && exec "$@"' sh \
    "$addins" "/usr/lib/$(gcc -print-multiarch)/freerdp2" \
    xfreerdp "/v:$rdp_address" /cert:ignore /u:velomar /p:velomar -sec-nla /size:640x480 \
    "/vc:velomar,opener:$opener" >"$rdp_work/client.log" 2>&1 &
  rdp_pids+=($!)
  for _ in $(seq 1 150); do grep -q 'client connected' "$rdp_work/host.log" && break; sleep 0.1; done

  # The service's settings, and the forwarding library in its folder, before the package starts it.
  local product='HKLM\Software\Corvane\Velomar (Server)'
  wine reg add "$product" /v ChannelTransport /t REG_SZ /d rdp /f >/dev/null 2>&1
  wine reg add "$product" /v LogLevel /t REG_DWORD /d 2 /f >/dev/null 2>&1
  wine reg add 'HKLM\Software\Corvane\Velomar Test\WtsForward' /v Address /t REG_SZ /d "$rdp_forward" /f \
    >/dev/null 2>&1
  # Loaded by the service alone; every other program keeps Wine's own.
  wine reg add 'HKCU\Software\Wine\AppDefaults\velomard.exe\DllOverrides' /v wtsapi32 /t REG_SZ \
    /d native,builtin /f >/dev/null 2>&1
  rdp_program="$WINEPREFIX/drive_c/Program Files/Corvane/Velomar"
  mkdir -p "$rdp_program"
  cp "$root/build/mingw/tools/wts-forward/wtsapi32.dll" "$rdp_program/"
}
