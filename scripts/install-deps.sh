#!/usr/bin/env bash
# Installs, from Debian 12's packages, what building and testing need; only what is missing.
set -euo pipefail
packages=(
  cmake ninja-build g++ make python3 clang-format
  googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  g++-mingw-w64-x86-64 wine wine64
  qemu-system-x86 linux-image-amd64 busybox-static cpio
  clang libclang-rt-14-dev
  ansible-core
  zip unzip dpkg-dev
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "run as root (apt-get install ${missing[*]})" >&2
    exit 1
  fi
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
