#!/bin/sh
# Starts or stops the private Wine prefix that the tests and the demo use.
#   wine-prefix.sh start PREFIX [KEEPALIVE.exe]
#                                 create the prefix when new, then run a persistent Wine server;
#                                 the optional program keeps the prefix's desktop process alive
#   wine-prefix.sh fresh PREFIX [KEEPALIVE.exe]
#                                 the same as start on a prefix made anew (an earlier one is removed)
#   wine-prefix.sh stop PREFIX    stop that prefix's Wine server (and every process in it)
# A new prefix briefly runs two service managers during its first start, which confuses the
# service control manager; so a new prefix is created, its server stopped, and only then the
# persistent server started. All output goes to /dev/null: a Wine process that kept the
# caller's stdout open would keep CTest waiting.
set -eu
cmd=${1:?start or stop}
prefix=${2:?prefix folder}
export WINEPREFIX="$prefix"
export WINEDEBUG=-all

# Whether this prefix's desktop process runs (other prefixes may have theirs).
desktop_up() {
  for p in $(pgrep -f 'explorer.exe' 2>/dev/null); do
    tr '\0' '\n' <"/proc/$p/environ" 2>/dev/null | grep -qx "WINEPREFIX=$prefix" && return 0
  done
  return 1
}

if [ "$cmd" = fresh ]; then
  wineserver -k </dev/null >/dev/null 2>&1 || true
  wineserver -w </dev/null >/dev/null 2>&1 || true
  # Only what looks like a Wine prefix is removed.
  if [ -f "$prefix/system.reg" ]; then rm -rf "$prefix"; fi
  cmd=start
fi

case "$cmd" in
start)
  mkdir -p "$prefix"
  wineserver -k </dev/null >/dev/null 2>&1 || true
  wineserver -w </dev/null >/dev/null 2>&1 || true
  if [ ! -f "$prefix/system.reg" ]; then
    wine cmd /c exit </dev/null >/dev/null 2>&1 || true
    wineserver -k </dev/null >/dev/null 2>&1 || true
    wineserver -w </dev/null >/dev/null 2>&1 || true
  fi
  wineserver -p </dev/null >/dev/null 2>&1
  wine cmd /c exit </dev/null >/dev/null 2>&1
  if [ -n "${3:-}" ]; then
    # Runs until the server is stopped; started here so that no test's output is inherited.
    nohup wine "$3" </dev/null >/dev/null 2>&1 &
    for _ in $(seq 1 100); do
      desktop_up && break
      sleep 0.1
    done
  fi
  echo "Wine prefix ready: $prefix"
  ;;
stop)
  wineserver -k </dev/null >/dev/null 2>&1 || true
  wineserver -w </dev/null >/dev/null 2>&1 || true
  echo "Wine server stopped: $prefix"
  ;;
*)
  echo "usage: $0 start|fresh|stop PREFIX" >&2
  exit 2
  ;;
esac
