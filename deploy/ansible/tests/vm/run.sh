#!/usr/bin/env bash
# The fleet rollout over SSH to three Debian 12 virtual machines (fleet_vm.py): installs what it
# lacks (scripts/install-deps.sh fleet), builds the tool, and takes the suite's patched QEMU
# (tests/qemu/build_qemu.sh, built once into the build tree) when the tree has it, Debian's
# qemu-system-x86_64 otherwise. The root file system and the kernels are made once into the
# build tree too (tests/qemu/vm.py). Prints one line per scenario and the figures.
#   bash deploy/ansible/tests/vm/run.sh [--keep] [--role-from DIR] [SCENARIO...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../../.." && pwd)
cd "$root"
bash scripts/install-deps.sh fleet

started=$SECONDS
cmake --preset linux >/dev/null
cmake --build build/linux -j"${JOBS:-2}" --target quenmark quenmark-sim-image >/dev/null
qemu=(--qemu qemu-system-x86_64)
if [ -f tests/qemu/build_qemu.sh ]; then
  binary=$(bash tests/qemu/build_qemu.sh | tail -n 1)
  qemu=(--qemu "$binary" --qemu-arg=-L --qemu-arg=/usr/share/seabios --qemu-arg=-L --qemu-arg=/usr/share/qemu)
fi
echo "build: $((SECONDS - started)) s"
exec python3 "$here/fleet_vm.py" --exe build/linux/quenmark --image-tool build/linux/quenmark-sim-image \
  "${qemu[@]}" "$@"
