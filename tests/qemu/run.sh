#!/usr/bin/env bash
# The Linux build (build/linux/quenmark) inside QEMU VMs, against the Linux kernel's own SAT
# layer: an AHCI disk, an ATAPI CD-ROM and a virtio-scsi disk, on Debian 12's kernel (6.1) and on
# Debian 13's (6.12, fetched into build/qemu-kernels/ on the first run), one boot each, and one
# more for each set of disk properties the cases name (the download-capable disk). Builds what
# it needs, QEMU included (tests/qemu/build_qemu.sh, reused until its patch changes), installs
# Debian's packages when they are missing, prints one line per case and kernel and
# 'N passed, N failed', and exits non-zero on any mismatch.
#   bash tests/qemu/run.sh [--kernel 6.1|6.12] [--update] [--keep] [CASE...]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"

missing=()
command -v qemu-system-x86_64 >/dev/null || missing+=(qemu-system-x86)
compgen -G "/boot/vmlinuz-6.1.*" >/dev/null || missing+=(linux-image-amd64)
command -v depmod >/dev/null || missing+=(kmod)
dpkg-query -W -f='${Status}' busybox-static 2>/dev/null | grep -q "ok installed" ||
  missing+=(busybox-static)
if ((${#missing[@]})); then
  echo "installing ${missing[*]}"
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
    --no-install-recommends "${missing[@]}"
fi

qemu=$(bash tests/qemu/build_qemu.sh | tail -1)
started=$SECONDS
cmake --preset linux >/dev/null
cmake --build build/linux -j"${JOBS:-2}" --target quenmark quenmark-sense-capture quenmark-sim-image
echo "build: $((SECONDS - started)) s"
exec python3 tests/qemu/qemu_suite.py --exe build/linux/quenmark \
  --capture build/linux/tests/quenmark-sense-capture --qemu "$qemu" \
  --image-tool build/linux/quenmark-sim-image "$@"
