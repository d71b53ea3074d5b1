#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on a Debian machine, when missing.
set -euo pipefail

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
updated=0
install() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    if [ "$updated" -eq 0 ]; then
      $sudo_cmd apt-get update -qq
      updated=1
    fi
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

# clang builds the fuzz targets (the `fuzz` preset); wixl and msitools the installer package;
# xmllint and python3 check the Group Policy templates.
install cmake make g++ googletest g++-mingw-w64-x86-64-posix wine wine64 clang msitools wixl libxml2-utils python3
# The second Windows build (the `clang` preset), clang-tidy over it, and the pinned formatter.
install clang-19 lld-19 clang-tidy-19 clang-format-14

# The Linux client add-in and its end-to-end tests: FreeRDP 2's headers and libraries, the client
# (xfreerdp) under Xvfb, winpr-makecert for the test host's certificate, dpkg-dev for the add-in's
# .deb. FreeRDP loads add-ins only from its own folder, which no package creates; the tests
# bind-mount the build folder over it in a private mount namespace, so it must exist.
install freerdp2-dev libwinpr2-dev libfreerdp-server2-2 freerdp2-x11 winpr-utils xvfb xauth dpkg-dev
addin_dir=/usr/lib/x86_64-linux-gnu/freerdp2
[ -d "$addin_dir" ] || $sudo_cmd mkdir -p "$addin_dir"

# libFuzzer's runtime comes with clang's runtime package of the same major version.
if ! echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' |
     clang++ -x c++ -fsanitize=fuzzer,address,undefined - -o /dev/null 2>/dev/null; then
  major=$(clang++ -dumpversion | cut -d. -f1)
  install "libclang-rt-${major}-dev"
fi
