#!/usr/bin/env bash
# The release packages, as a machine that deploys them sees them: builds them with
# scripts/package.sh, reads the zip, the tarball and the Debian package, reads the version
# resource and the manifest of the Quenmark.exe in the zip, runs it under Wine, installs the
# .deb into this system, runs the installed quenmark, and removes the package again.
# Needs root (dpkg -i). Prints "N passed, N failed" and exits non-zero on any failure.
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
version=1.0.3
packages=$root/build/packages
zip=$packages/Quenmark-$version-windows-x64.zip
tarball=$packages/quenmark-$version-linux-amd64.tar.gz
deb=$packages/quenmark_${version}_amd64.deb
work=$(mktemp -d)
installed=0

passed=0
failed=0
pass() {
  echo "ok:   $1"
  passed=$((passed + 1))
}
fail() {
  echo "FAIL: $1"
  [ -n "${2:-}" ] && printf '%s\n' "$2" | sed 's/^/      /'
  failed=$((failed + 1))
}
# check NAME COMMAND...: passes when the command succeeds; shows its output when it does not.
check() {
  local name=$1 output
  shift
  if output=$("$@" 2>&1); then pass "$name"; else fail "$name" "$output"; fi
}

cleanup() {
  if ((installed)); then
    dpkg -r quenmark >/dev/null 2>&1 || echo "could not remove the quenmark package: dpkg -r quenmark"
  fi
  rm -rf "$work"
}
trap cleanup EXIT

finish() {
  echo "$passed passed, $failed failed"
  ((failed == 0))
  exit $?
}

# Tools the checks read the packages with.
for p in unzip binutils-mingw-w64-x86-64 man-db; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    if [ "$(id -u)" -eq 0 ]; then
      apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$p" >/dev/null
    fi
  fi
done

# --- the packaging script ------------------------------------------------------------------

# Without the Linux program's sources the script stops before it builds anything, and says why.
mkdir -p "$work/tree/scripts" "$work/tree/src/platform/linux"
cp scripts/package.sh "$work/tree/scripts/"
if output=$(bash "$work/tree/scripts/package.sh" 2>&1); then
  fail "package.sh fails without src/platform/linux sources" "$output"
elif grep -q "build/linux/quenmark cannot be built: src/platform/linux has no sources" <<<"$output" &&
  [ ! -e "$work/tree/build" ]; then
  pass "package.sh fails without src/platform/linux sources, and says so"
else
  fail "package.sh fails without src/platform/linux sources, and says so" "$output"
fi

if ! output=$(bash scripts/package.sh 2>&1); then
  fail "scripts/package.sh builds the packages" "$(tail -n 30 <<<"$output")"
  finish
fi
pass "scripts/package.sh builds the packages"
for f in "$zip" "$tarball" "$deb"; do
  check "$(basename "$f") and its checksum" \
    bash -c 'cd "$(dirname "$1")" && sha256sum -c "$(basename "$1").sha256"' _ "$f"
done

# --- the Windows zip -----------------------------------------------------------------------

check "zip holds Quenmark.exe, README.md, exit-codes.md, json.md, the schema and nothing else" \
  diff <(printf '%s\n' Quenmark.exe README.md exit-codes.md json.md quenmark.schema.json | sort) \
  <(unzip -Z1 "$zip" | sort)
mkdir -p "$work/zip"
unzip -q "$zip" -d "$work/zip"
exe=$work/zip/Quenmark.exe
check "zip's README.md is the project's" cmp README.md "$work/zip/README.md"
check "zip's exit-codes.md is docs/exit-codes.md" cmp docs/exit-codes.md "$work/zip/exit-codes.md"

# The exit-code table of the reference is README.md's, row for row, codes 0 to 10.
table_rows() { grep -E '^\| [0-9]+ \|' "$1"; }
check "exit-codes.md has README.md's exit-code table" diff <(table_rows README.md) <(table_rows docs/exit-codes.md)
check "exit-code table lists 0 1 2 3 4 5 6 8 9 10" \
  test "$(table_rows docs/exit-codes.md | awk -F'|' '{gsub(/ /, "", $2); printf "%s ", $2}')" = "0 1 2 3 4 5 6 8 9 10 "

check "Quenmark.exe is a console program" \
  bash -c 'x86_64-w64-mingw32-objdump -p "$1" | grep -Eq "^Subsystem[[:space:]]+00000003"' _ "$exe"

# The resources, read from the section with objdump: the version block (type 16) and the
# manifest (type 24), each found through the resource directory that objdump -p prints.
resources() {
  local exe=$1 dir=$2
  mkdir -p "$dir"
  x86_64-w64-mingw32-objdump -p "$exe" >"$dir/headers.txt" &&
    x86_64-w64-mingw32-objdump -s -j .rsrc "$exe" >"$dir/rsrc.txt" &&
    python3 - "$dir" <<'PY'
import re, struct, sys
d = sys.argv[1]
headers = open(f"{d}/headers.txt").read()
image_base = int(re.search(r"^ImageBase\s+([0-9a-fA-F]+)", headers, re.M).group(1), 16)
# Leaves in the order of the directory: type entry, name entry, language entry, leaf.
leaves, kind = {}, None
for line in headers.split("The .rsrc Resource Directory section:", 1)[-1].splitlines():
    m = re.match(r"^[0-9a-f]{3}  (\s*)Entry: ID: 0x([0-9a-f]+)", line)
    if m and len(m.group(1)) == 1:
        kind = int(m.group(2), 16)
    m = re.search(r"Leaf: Addr: 0x([0-9a-f]+), Size: 0x([0-9a-f]+)", line)
    if m and kind is not None:
        leaves.setdefault(kind, (int(m.group(1), 16), int(m.group(2), 16)))
section, start = bytearray(), None
for line in open(f"{d}/rsrc.txt"):
    m = re.match(r"^ ([0-9a-f]+) ((?:[0-9a-f]{2,8} ?){1,4})", line)
    if m:
        if start is None:
            start = int(m.group(1), 16)
        section += bytes.fromhex(m.group(2).replace(" ", ""))
def leaf(kind):
    if kind not in leaves:
        return None
    rva, size = leaves[kind]
    at = image_base + rva - start
    return bytes(section[at:at + size])

def align4(n):
    return (n + 3) & ~3
def blocks(data, at, end, depth, out, fixed):
    # A version block: wLength, wValueLength, wType, a NUL-terminated UTF-16 key, its value, children.
    while at + 6 <= end:
        length, value_length, value_type = struct.unpack_from("<HHH", data, at)
        if length == 0:
            break
        key_end = at + 6
        while data[key_end:key_end + 2] != b"\0\0":
            key_end += 2
        key = data[at + 6:key_end].decode("utf-16le")
        value_at = align4(key_end + 2)
        if key == "VS_VERSION_INFO" and value_length == 52:
            fixed.extend(struct.unpack_from("<13I", data, value_at))
        elif value_type == 1 and depth == 3:
            out.append((key, data[value_at:value_at + 2 * value_length].decode("utf-16le").rstrip("\0")))
        children = align4(value_at + (value_length * 2 if value_type == 1 else value_length))
        blocks(data, children, at + length, depth + 1, out, fixed)
        at = align4(at + length)

version = leaf(16)
with open(f"{d}/version.txt", "w") as f:
    if version:
        strings, fixed = [], []
        blocks(version, 0, len(version), 0, strings, fixed)
        if fixed and fixed[0] == 0xFEEF04BD:
            def dotted(ms, ls):
                return f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"
            f.write(f"fixed FileVersion={dotted(fixed[2], fixed[3])}\n")
            f.write(f"fixed ProductVersion={dotted(fixed[4], fixed[5])}\n")
            f.write(f"fixed FileType={fixed[9]}\n")
        for key, value in strings:
            f.write(f"{key}={value}\n")
manifest = leaf(24)
if manifest is not None:
    open(f"{d}/manifest.xml", "wb").write(manifest)
PY
}

if resources "$exe" "$work/rsrc"; then
  pass "Quenmark.exe's resources read with objdump"
else
  fail "Quenmark.exe's resources read with objdump"
fi
has_line() { grep -Fxq -- "$2" "$1" || { echo "no line '$2' in:"; cat "$1"; false; }; }
for line in "fixed FileVersion=$version.0" "fixed ProductVersion=$version.0" "fixed FileType=1" \
  "FileVersion=$version" "ProductVersion=$version" "ProductName=Quenmark" "CompanyName=Tarnvel" \
  "OriginalFilename=Quenmark.exe"; do
  check "version resource: $line" has_line "$work/rsrc/version.txt" "$line"
done

# Windows refuses to start a program whose manifest is not well-formed XML.
manifest_check() {
  python3 - "$1" "$version" <<'PY'
import sys, xml.etree.ElementTree as ET
path, version = sys.argv[1], sys.argv[2]
root = ET.parse(path).getroot()
v1 = "{urn:schemas-microsoft-com:asm.v1}"
v3 = "{urn:schemas-microsoft-com:asm.v3}"
compat = "{urn:schemas-microsoft-com:compatibility.v1}"
assert root.tag == v1 + "assembly", root.tag
levels = [e.attrib for e in root.iter(v3 + "requestedExecutionLevel")]
assert levels == [{"level": "requireAdministrator", "uiAccess": "false"}], levels
oses = [e.get("Id") for e in root.iter(compat + "supportedOS")]
assert "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}" in oses, oses  # Windows 10 and 11
identity = root.find(v1 + "assemblyIdentity")
assert identity is not None and identity.get("version") == version + ".0", identity.attrib
assert identity.get("processorArchitecture") == "amd64", identity.attrib
PY
}
if [ -f "$work/rsrc/manifest.xml" ]; then
  pass "Quenmark.exe carries a manifest (resource 24/1)"
  check "manifest: well-formed, requireAdministrator, supported OS, version $version.0" \
    manifest_check "$work/rsrc/manifest.xml"
else
  fail "Quenmark.exe carries a manifest (resource 24/1)" "$(cat "$work/rsrc/headers.txt" 2>/dev/null | grep -A12 'Resource Directory section')"
fi

# The simulated machine's build runs unelevated in the tests: no manifest there.
sim=build/windows/quenmark-sim.exe
if [ -f "$sim" ]; then
  check "quenmark-sim.exe carries no manifest" \
    bash -c '! x86_64-w64-mingw32-objdump -p "$1" | grep -q "Entry: ID: 0x000018"' _ "$sim"
else
  echo "note: $sim not built; its resources are not checked"
fi

# Wine starts the program despite the elevation it asks for: banner, usage, exit code 8.
if command -v wine >/dev/null; then
  export WINEPREFIX=${WINEPREFIX:-$root/build/wineprefix} WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  output=$(cd "$work/zip" && wine Quenmark.exe 2>/dev/null | tr -d '\r')
  code=$?
  if [ "$code" -eq 8 ] && grep -q "^Tarnvel Utility. Version: $version " <<<"$output" &&
    grep -q '^Usage: .*Quenmark.exe \[prefix\]<device> </D:firmware file> \[options\]$' <<<"$output"; then
    pass "wine Quenmark.exe: banner, usage text, exit code 8"
  else
    fail "wine Quenmark.exe: banner, usage text, exit code 8" "exit code $code"$'\n'"$output"
  fi
else
  fail "wine Quenmark.exe: banner, usage text, exit code 8" "wine is not installed (apt-get install wine wine64)"
fi

# --- the Linux tarball ---------------------------------------------------------------------

top=quenmark-$version-linux-amd64
check "tarball holds sbin/quenmark, the man page and the docs" diff \
  <(printf '%s\n' "$top/sbin/quenmark" "$top/share/man/man8/quenmark.8.gz" \
    "$top/share/doc/quenmark/README.md" "$top/share/doc/quenmark/exit-codes.md" \
    "$top/share/doc/quenmark/json.md" "$top/share/doc/quenmark/quenmark.schema.json" | sort) \
  <(tar -tzf "$tarball" | grep -v '/$' | sort)
mkdir -p "$work/tar"
tar -xzf "$tarball" -C "$work/tar"
check "tarball's quenmark is statically linked" \
  bash -c '! readelf -l "$1" | grep -q "program interpreter" && ! readelf -d "$1" | grep -q NEEDED' _ "$work/tar/$top/sbin/quenmark"
(cd "$work" && "$work/tar/$top/sbin/quenmark" >/dev/null 2>&1)
check "tarball's quenmark without arguments: exit code 8" test $? -eq 8

# --- the Debian package --------------------------------------------------------------------

field() { dpkg-deb -f "$deb" "$1"; }
check "deb Package: quenmark" test "$(field Package)" = quenmark
check "deb Version: $version" test "$(field Version)" = "$version"
check "deb Architecture: amd64" test "$(field Architecture)" = amd64
check "deb Maintainer" test "$(field Maintainer)" = "Quenmark developers <dev@quenmark.invalid>"
check "deb has a short description" test -n "$(field Description | head -n 1)"
check "deb Depends: none (static program)" test -z "$(field Depends)"
check "deb holds /usr/sbin/quenmark and /usr/share/man/man8/quenmark.8.gz" bash -c \
  'listing=$(dpkg-deb -c "$1") && grep -q " ./usr/sbin/quenmark$" <<<"$listing" &&
   grep -q "^-rwxr-xr-x root/root .* ./usr/sbin/quenmark$" <<<"$listing" &&
   grep -q " ./usr/share/man/man8/quenmark.8.gz$" <<<"$listing"' _ "$deb"

# Installed into this system, then removed. A quenmark that is already here is left alone.
if [ "$(id -u)" -ne 0 ]; then
  fail "install the .deb" "needs root (dpkg -i)"
  finish
fi
if dpkg-query -W -f='${Status}' quenmark 2>/dev/null | grep -q "ok installed" || [ -e /usr/sbin/quenmark ]; then
  fail "install the .deb" "quenmark is already installed on this system; the test installs and removes its own"
  finish
fi
if output=$(dpkg -i "$deb" 2>&1); then
  installed=1
  pass "dpkg -i $(basename "$deb")"
else
  fail "dpkg -i $(basename "$deb")" "$output"
  finish
fi
check "quenmark is /usr/sbin/quenmark on root's PATH" test "$(command -v quenmark)" = /usr/sbin/quenmark

output=$(cd "$work" && quenmark 2>&1)
code=$?
check "quenmark without arguments: exit code 8" test "$code" -eq 8
check "quenmark without arguments: banner with version $version" \
  grep -q "^Tarnvel Utility. Version: $version Build Date: [A-Z][a-z][a-z] [0-9]\{1,2\} [0-9]\{4\}$" <<<"$output"
check "quenmark without arguments: usage text" \
  grep -qx 'Usage: quenmark \[prefix\]<device> </D:firmware file> \[options\]' <<<"$output"
(cd "$work" && quenmark /h >/dev/null 2>&1)
check "quenmark /h: exit code 8" test $? -eq 8
(cd "$work" && quenmark /dev/quenmark-no-such-drive /i >/dev/null 2>&1)
check "quenmark on a device that does not exist: exit code 2" test $? -eq 2

check "man -w quenmark finds /usr/share/man/man8/quenmark.8.gz" \
  test "$(man -w quenmark 2>&1)" = /usr/share/man/man8/quenmark.8.gz
# The man page carries the usage text as the program prints it (from "Usage:" on; the
# renderer drops trailing blanks and indents the block).
usage_from_program() { sed -n '/^Usage: /,$p' <<<"$output" | sed 's/[[:space:]]*$//'; }
usage_from_man_page() {
  LC_ALL=C MANWIDTH=200 man -P cat quenmark 2>/dev/null | col -bx |
    sed -n '/^ *Usage: quenmark /,/^EXIT STATUS/p' | sed '$d' | sed 's/[[:space:]]*$//' |
    awk 'NR == 1 { match($0, /^ */); indent = RLENGTH } { print substr($0, indent + 1) }' |
    sed -e :a -e '/^\n*$/{$d;N;ba' -e '}'
}
check "man page's usage text is the program's" diff <(usage_from_program) <(usage_from_man_page)
check "man page lists the exit codes 0 1 2 4 5 6 8 9 10" bash -c \
  'page=$(LC_ALL=C MANWIDTH=200 man -P cat quenmark 2>/dev/null | col -bx | sed -n "/^EXIT STATUS/,/^[A-Z]/p")
   for code in 0 1 2 4 5 6 8 9 10; do grep -Eq "^ +$code +[A-Z]" <<<"$page" || { echo "no $code"; exit 1; }; done'
check "man page names the transports and the Linux devices" bash -c \
  'page=$(LC_ALL=C MANWIDTH=200 man -P cat quenmark 2>/dev/null | col -bx)
   for text in "SCSI pass-through, the default" "ATA PASS-THROUGH(16)" "/T:device" "/C:" \
     "does not exist on Linux" "/dev/sdX" "/dev/sgN" "needs root"; do
     grep -qF -- "$text" <<<"$page" || { echo "missing: $text"; exit 1; }; done'

if output=$(dpkg -r quenmark 2>&1); then
  installed=0
  pass "dpkg -r quenmark"
else
  fail "dpkg -r quenmark" "$output"
fi
check "nothing left behind: program, man page, docs, package status" bash -c \
  '! [ -e /usr/sbin/quenmark ] && ! [ -e /usr/share/man/man8/quenmark.8.gz ] &&
   ! [ -e /usr/share/doc/quenmark ] &&
   ! dpkg-query -W -f="\${Status}" quenmark 2>/dev/null | grep -q "ok installed"'

finish
