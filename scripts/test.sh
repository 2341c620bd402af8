#!/usr/bin/env bash
# Builds every preset and runs every test suite; none is optional. Installs what it needs from
# Debian's packages (every group of scripts/install-deps.sh). The suites, in order:
#   unit tests and golden transcripts under AddressSanitizer and UndefinedBehaviorSanitizer,
#   the golden transcripts again against the optimised Linux build, formatting,
#   the Windows build under Wine, the Linux build in QEMU on Linux 6.1 and 6.12,
#   the release packages, the fuzz targets briefly, the fleet rollout (simulated hosts), and the
#   fleet rollout over SSH to Debian 12 VMs on Linux 6.1 and 6.12.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/install-deps.sh || exit 1

jobs=${JOBS:-2}
build() {
  cmake --preset "$1" >/dev/null && cmake --build "build/$1" -j"$jobs"
}
build linux-asan || exit 1
build linux || exit 1
build windows || exit 1

failed=()
step() {
  local name=$1
  shift
  echo "== $name"
  if "$@"; then echo "== $name: passed"; else echo "== $name: FAILED"; failed+=("$name"); fi
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
step "unit and golden (ASan+UBSan)" ctest --test-dir build/linux-asan --output-on-failure -j"$jobs"
step "golden (optimised build)" ctest --test-dir build/linux --output-on-failure -j"$jobs" -R '^golden\.'
step "formatting" bash scripts/check-format.sh
step "Windows build under Wine" bash tests/wine/run.sh
step "Linux build in QEMU, Linux 6.1 and 6.12" bash tests/qemu/run.sh
step "release packages" bash tests/package/run.sh
step "fuzz targets" bash tests/fuzz/run.sh
step "fleet rollout" bash deploy/ansible/tests/run.sh
step "fleet rollout over SSH to VMs" bash deploy/ansible/tests/vm/run.sh

if ((${#failed[@]})); then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "all test suites passed"
