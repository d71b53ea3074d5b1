#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on a Debian machine, when missing.
set -euo pipefail

packages=(cmake make g++ googletest g++-mingw-w64-x86-64-posix wine wine64)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
