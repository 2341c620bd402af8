#!/usr/bin/env bash
# The tool's main job on the simulated machine: a firmware update of a simulated drive.
# Builds quenmark-sim, makes a valid image for the demo drive, shows the drive report, updates
# the drive (the plan, the warning and the progress line), and shows the report again with the
# new firmware revision. The machine keeps its state in a file, as a disk keeps its firmware.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/install-deps.sh sim
# Only the simulated machine's two programs: no tests, no benchmarks, nothing they would need.
# The test command's own configure turns both back on.
cmake --preset linux -DQUENMARK_TESTS=OFF -DQUENMARK_BENCH=OFF >/dev/null
cmake --build build/linux -j2 --target quenmark-sim quenmark-sim-image

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export QUENMARK_SIM_MACHINE=$work/machine.json # missing: starts as the built-in demo machine
sim=build/linux/quenmark-sim
drive='\\.\PhysicalDrive0'

run() {
  printf '\n$ quenmark-sim'; printf ' %s' "$@"; printf '\n'
  set +e
  "$sim" "$@"
  local code=$?
  set -e
  printf '(exit code %d)\n' "$code"
}

run "$drive" /i
build/linux/quenmark-sim-image --revision QS020000 --size 1048576 -o "$work/fw.bin"
echo
echo "Made $work/fw.bin: 1 MiB, firmware revision QS020000"
run "$drive" "/D:$work/fw.bin" /s /v
run "$drive" /i
