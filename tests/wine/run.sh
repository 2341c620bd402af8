#!/usr/bin/env bash
# The Windows build under Wine, a real Win32 implementation: every golden transcript against
# quenmark-sim.exe, and Quenmark.exe itself, which reaches Wine's own kernel32.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build/windows}
export WINEPREFIX=${WINEPREFIX:-$root/build/wineprefix}
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "creating the Wine prefix $WINEPREFIX"
  wineboot -i >/dev/null 2>&1 || true
  wineserver -w || true
fi
# One persistent server for all the runs: each start of a program then costs about a second.
wineserver -p
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
status=0
python3 "$root/tests/golden/run_golden.py" --wine --exe "$build/quenmark-sim.exe" \
  --image-tool "$root/build/linux/quenmark-sim-image" "$root"/tests/golden/*/ || status=1
python3 "$root/tests/golden/run_golden.py" --wine --exe "$build/Quenmark.exe" \
  "$root/tests/wine/quenmark-exe" || status=1
exit $status
