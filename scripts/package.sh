#!/usr/bin/env bash
# Builds the release packages into build/packages/:
#   Quenmark-<version>-windows-x64.zip    Quenmark.exe, README.md, exit-codes.md
#   quenmark-<version>-linux-amd64.tar.gz sbin/quenmark, its man page and docs, for a prefix
#   quenmark_<version>_amd64.deb          /usr/sbin/quenmark and quenmark(8)
# each with a .sha256 beside it. Configures the windows and linux presets, builds the two
# programs (not the tests), and runs cpack in each build tree. Installs what it lacks from
# Debian's packages when run as root.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
out=$root/build/packages

fail() {
  echo "package.sh: $*" >&2
  exit 1
}

packages=(cmake ninja-build g++ nlohmann-json3-dev g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  [ "$(id -u)" -eq 0 ] || fail "missing packages; as root: apt-get install ${missing[*]}"
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The Linux program exists only once src/platform/linux has its sources.
compgen -G "src/platform/linux/*.cpp" >/dev/null ||
  fail "build/linux/quenmark cannot be built: src/platform/linux has no sources"

echo "== windows: Quenmark.exe"
cmake --preset windows >/dev/null
cmake --build build/windows -j"$jobs" --target Quenmark
echo "== linux: quenmark"
cmake --preset linux >/dev/null
cmake --build build/linux -j"$jobs" --target quenmark quenmark-man-page
[ -x build/linux/quenmark ] || fail "build/linux/quenmark was not built"
[ -f build/windows/Quenmark.exe ] || fail "build/windows/Quenmark.exe was not built"

rm -rf "$out"
mkdir -p "$out"
for preset in windows linux; do
  echo "== cpack: $preset"
  (cd "build/$preset" && cpack -D CPACK_OUTPUT_FILE_PREFIX="$out") || fail "cpack failed in build/$preset"
done
echo "== packages in build/packages:"
ls -l "$out"
