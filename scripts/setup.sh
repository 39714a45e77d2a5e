#!/usr/bin/env bash
# Installs every Debian package the project needs that is not installed yet.
# Safe to run again; needs root (apt-get).
set -euo pipefail

packages=(
  # toolchain
  cmake ninja-build g++ clang libclang-rt-14-dev pkg-config git python3
  # libraries
  qt6-base-dev libqt6sql6-sqlite libqt6sql6-psql
  libpcre3-dev libsasl2-dev libsasl2-modules libssl-dev zlib1g-dev libavahi-client-dev
  # tests, benchmarks and their peers
  libgtest-dev libgmock-dev libbenchmark-dev libplist-dev libplist-utils
  libcommuni-dev qtbase5-dev qt6-remoteobjects-dev
  inspircd atheme-services
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "setup: all packages present"
