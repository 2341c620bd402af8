#!/usr/bin/env bash
# Installs, from Debian 12's packages, what the named groups need; only what is missing.
#   bash scripts/install-deps.sh [GROUP...]      (no group: every group)
# Groups:
#   sim      building quenmark-sim alone (the demo)
#   build    every preset's build and the unit tests: the sim group, GoogleTest, Google Benchmark,
#            and python3-jsonschema, which checks the --json transcripts
#   windows  the mingw-w64 cross compiler, and Wine to run the Windows build
#   qemu     QEMU, Debian 12's kernel, a static busybox, kmod (the kernels' module lists),
#            hdparm (a peer in the VM) and what building QEMU with its download-capable disk needs
#   fuzz     clang and its fuzzer and sanitizer runtimes
#   fleet    ansible-core; for its VM suite debootstrap, the SSH client, QEMU and its disk tools,
#            a static busybox and Debian 12's kernel (the VMs' initramfs and kernel)
#   package  what cpack and the package tests use
set -euo pipefail

declare -A group=(
  [sim]="cmake ninja-build g++ nlohmann-json3-dev"
  [build]="cmake ninja-build g++ make python3 python3-jsonschema clang-format nlohmann-json3-dev
           googletest libgtest-dev libgmock-dev libbenchmark-dev"
  [windows]="g++-mingw-w64-x86-64 wine wine64"
  [qemu]="qemu-system-x86 linux-image-amd64 busybox-static cpio kmod hdparm
        dpkg-dev meson ninja-build pkgconf python3 libglib2.0-dev libpixman-1-dev
        libslirp-dev libfdt-dev zlib1g-dev"
  [fuzz]="clang libclang-rt-14-dev"
  [fleet]="ansible-core debootstrap openssh-client qemu-system-x86 qemu-utils busybox-static
           linux-image-amd64 kmod"
  [package]="zip unzip dpkg-dev"
)
names=("$@")
((${#names[@]})) || names=(build windows qemu fuzz fleet package)

packages=()
for name in "${names[@]}"; do
  if [ -z "${group[$name]+set}" ]; then
    echo "install-deps: no group $name (groups: ${!group[*]})" >&2
    exit 2
  fi
  # shellcheck disable=SC2206 # the lists are words
  packages+=(${group[$name]})
done

missing=()
for p in $(printf '%s\n' "${packages[@]}" | sort -u); do
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
