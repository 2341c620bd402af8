#!/usr/bin/env bash
# Builds Debian 12's QEMU (7.2+dfsg) with qemu-download-microcode.patch, which gives the ide-hd
# disk DOWNLOAD MICROCODE, into build/qemu/, and reuses that build until the patch or this
# script changes (build/qemu/stamp holds a hash of both). Prints the time of each step, the
# binary's size and, on its last line, the binary's path.
#   bash tests/qemu/build_qemu.sh [--force]
# The source package comes through a sources file of this script's own (Types: deb-src for the
# bookworm suites the host's apt sources list, from the same mirrors): the host's apt
# configuration, lists and caches are neither read for packages nor changed. The build is the
# smallest the QEMU suite needs: x86_64 under TCG, the pc machine, AHCI, virtio-scsi, virtio-net
# and user networking. Run it from its build tree with -L /usr/share/seabios -L /usr/share/qemu.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
here=$root/tests/qemu
patch_file=$here/qemu-download-microcode.patch
out=${QEMU_BUILD_ROOT:-$root/build/qemu}
binary=$out/build/qemu-system-x86_64
jobs=${JOBS:-2}

stamp=$(cat "$patch_file" "$0" | sha256sum | cut -c1-16)
if [ "${1:-}" != "--force" ] && [ -x "$binary" ] && [ "$(cat "$out/stamp" 2>/dev/null)" = "$stamp" ]; then
  echo "qemu: up to date ($(stat -c %s "$binary") bytes)" >&2
  echo "$binary"
  exit 0
fi

bash "$root/scripts/install-deps.sh" qemu >&2
mkdir -p "$out"
log() { echo "qemu: $*" >&2; }

# The source: fetched once, kept unpacked in $out/src with Debian's own patches applied.
if [ ! -f "$out/src/.fetched" ]; then
  started=$SECONDS
  apt_dir=$out/apt
  rm -rf "$out/src" "$apt_dir/download"
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/download"
  # deb-src stanzas for the bookworm suites of the host's own sources, on the host's mirrors.
  python3 - "$apt_dir/sources.list" <<'EOF'
import glob, re, sys
stanzas = []
for path in sorted(glob.glob("/etc/apt/sources.list.d/*.sources")):
    for block in open(path).read().split("\n\n"):
        fields = {}
        for line in block.splitlines():
            if ":" in line and not line.lstrip().startswith("#"):
                key, _, value = line.partition(":")
                fields[key.strip().lower()] = value.split()
        suites = [s for s in fields.get("suites", []) if re.fullmatch(r"bookworm(-updates|-security)?", s)]
        if "deb" in fields.get("types", []) and suites and fields.get("enabled", ["yes"])[0] != "no":
            stanzas.append((fields["uris"], suites, fields.get("signed-by")))
for path in ["/etc/apt/sources.list"] + sorted(glob.glob("/etc/apt/sources.list.d/*.list")):
    try:
        lines = open(path).read().splitlines()
    except FileNotFoundError:
        continue
    for line in lines:
        words = re.sub(r"\[[^]]*\]", "", line).split()
        if len(words) >= 3 and words[0] == "deb" and re.fullmatch(r"bookworm(-updates|-security)?", words[2]):
            stanzas.append(([words[1]], [words[2]], None))
if not stanzas:
    sys.exit("qemu: no bookworm suite in the host's apt sources")
with open(sys.argv[1], "w") as f:
    for uris, suites, signed_by in stanzas:
        for uri in uris:
            for suite in suites:
                f.write("deb-src [signed-by=%s] %s %s main\n" % (
                    ",".join(signed_by or ["/usr/share/keyrings/debian-archive-keyring.gpg"]), uri, suite))
EOF
  opts=(-q -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=/nonexistent"
        -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
        -o "APT::Sandbox::User=root")
  apt-get "${opts[@]}" update >&2
  (cd "$apt_dir/download" && apt-get "${opts[@]}" source --download-only qemu >&2)
  dsc=$(ls "$apt_dir"/download/qemu_*.dsc)
  dpkg-source -x "$dsc" "$out/src" >&2
  rm -rf "$apt_dir/download"
  touch "$out/src/.fetched"
  rm -f "$out/applied.patch" "$out/configured"
  log "fetched and unpacked $(basename "$dsc") in $((SECONDS - started)) s"
fi

# The patch: the one applied last is taken back first, so only the files it touches change
# and the rebuild is incremental.
cd "$out/src"
if [ -f "$out/applied.patch" ] && ! cmp -s "$out/applied.patch" "$patch_file"; then
  [ ! -s "$out/applied.patch" ] || patch -s -R -p1 <"$out/applied.patch"
  rm "$out/applied.patch"
fi
if [ ! -f "$out/applied.patch" ]; then
  [ ! -s "$patch_file" ] || patch -s -p1 <"$patch_file"
  cp "$patch_file" "$out/applied.patch"
fi

# The devices the suites use; everything else stays out.
devices=configs/devices/x86_64-softmmu/quenmark.mak
cat >"$devices.new" <<'EOF'
CONFIG_I440FX=y
CONFIG_AHCI_ICH9=y
CONFIG_VIRTIO_PCI=y
CONFIG_VIRTIO_SCSI=y
CONFIG_VIRTIO_NET=y
EOF
cmp -s "$devices.new" "$devices" && rm "$devices.new" || mv "$devices.new" "$devices"
configure=(--target-list=x86_64-softmmu --without-default-features --without-default-devices
           --with-devices-x86_64=quenmark --enable-tcg --enable-slirp --enable-fdt=system
           --disable-debug-info --disable-docs)
if [ "$(cat "$out/configured" 2>/dev/null)" != "${configure[*]}" ]; then
  started=$SECONDS
  rm -rf "$out/build"
  mkdir -p "$out/build"
  # Debian's meson: the source package has none of its own.
  (cd "$out/build" && PATH=/usr/bin:$PATH ../src/configure "${configure[@]}" >"$out/configure.log" 2>&1) || {
    tail -30 "$out/configure.log" >&2
    exit 1
  }
  echo "${configure[*]}" >"$out/configured"
  log "configured in $((SECONDS - started)) s"
fi

started=$SECONDS
ninja -C "$out/build" -j"$jobs" qemu-system-x86_64 >"$out/build.log" 2>&1 || {
  tail -40 "$out/build.log" >&2
  exit 1
}
echo "$stamp" >"$out/stamp"
log "built in $((SECONDS - started)) s; $binary $(stat -c %s "$binary") bytes; build tree $(du -sm "$out" | cut -f1) MB"
echo "$binary"
