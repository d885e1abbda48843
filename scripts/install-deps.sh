#!/usr/bin/env bash
# Installs what the build, the tests and the benchmarks need on a fresh Debian machine.
# Packages already present are left alone; apt-get runs only when something is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config git
  rapidjson-dev libssl-dev libcurl4-openssl-dev libarchive-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  g++-mingw-w64-x86-64 wine wine64
  zip unzip libxml2-utils xsltproc w3c-sgml-lib
  clang-format clang libclang-rt-14-dev shellcheck python3 libgnutls30
  rsyslog nginx-light tinyproxy libz-mingw-w64-dev zlib1g-dev openssl curl time
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The mingw compiler with std::thread is the posix-threads variant.
command -v x86_64-w64-mingw32-g++-posix >/dev/null
