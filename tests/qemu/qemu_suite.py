#!/usr/bin/env python3
"""The Linux build against the Linux kernel's own SAT layer, on the kernels users run: one QEMU
boot (software emulation) per kernel, each with an AHCI disk, an ATAPI CD-ROM on the same
controller and a SCSI disk on virtio-scsi. Every case runs inside the VM; stdout, stderr, the exit
code and the ATA commands libata issued come back to the host over a second serial port and are
compared byte for byte.

Kernels:
  6.1   Debian 12's, the host's installed linux-image-amd64
  6.12  Debian 13's linux-image-6.12.*-amd64, fetched from the trixie suite with apt-get download
        (an extra sources file of the suite's own, the mirror taken from the host's apt sources),
        unpacked with dpkg -x into build/qemu-kernels/ and kept there; nothing is installed on the
        host and the host's apt configuration is not changed

A case is a folder of tests/qemu/expected:
  args          one argument per line (UTF-8), without the program name
  steps         instead of args: shell commands, one a line, run in turn by tests/qemu/run_steps.sh;
                stdout then holds each step, its output, its stderr and its exit code
  program       run this program of the VM's /bin instead of quenmark (optional):
                quenmark-sense-capture, which prints the sense data each kernel writes back,
                hdparm (Debian's, with its libraries), or sh with args /cases/CASE/script
  script        a shell script the VM gets beside args (optional)
  user          run as this user (nobody) instead of root (optional)
  hold          run in the background and start the next case this many seconds later; the
                two then overlap (optional)
  stdout, stderr, exit
                what the run must print and return
  ata-commands  the ATA commands libata issued during the run, one per line: port, command,
                the task file as libata traces it, protocol (optional; an empty file says that
                no ATA command was issued; --update rewrites only the files that exist)
  disk          more properties of the AHCI disk (ide-hd), comma-separated, e.g.
                download-microcode=on,dm-max-blocks=128 (optional): the cases with the same
                disk run in a boot of their own, after those on QEMU's own disk; they need the
                QEMU that tests/qemu/build_qemu.sh builds (--qemu)
  KERNEL/       what one kernel answers differently (6.12/stdout, say), with KERNEL/why: one
                line saying what that kernel does differently. The files beside args hold what
                every kernel without its own file answers.

Usage: qemu_suite.py --exe build/linux/quenmark --capture build/linux/tests/quenmark-sense-capture
                     [--qemu build/qemu/build/qemu-system-x86_64] [--image-tool IMAGE_TOOL]
                     [--cases DIR] [--collect DIR]
                     [--kernel 6.1|6.12|all] [--update] [--keep] [CASE...]
--qemu runs that QEMU (from its build tree, with Debian's firmware) instead of Debian's.
--image-tool (build/linux/quenmark-sim-image) puts the download-capable disk's firmware images
(QS_IMAGES) into the VM's working folder. --cases takes the cases from DIR instead of
tests/qemu/expected; --collect copies what each run returned (stdout, stderr, exit, trace,
seconds) into DIR/KERNEL/CASE, for cases that record rather than compare (a case without an
expected exit file is then not failed), and --qemu-trace PATTERN QEMU's trace events of that
pattern into DIR/KERNEL/qemu-trace-DISK.log. tests/qemu/measure holds such cases.
Device names in the VM are fixed by the order in which the drivers are loaded: /dev/sda (with
one partition, /dev/sda1) and /dev/sg0 are the AHCI disk, /dev/sr0 and /dev/sg1 the CD-ROM,
/dev/sdb and /dev/sg2 the SCSI disk.
"""
import argparse
import base64
import glob
import gzip
import hashlib
import io
import lzma
import os
import re
import shutil
import stat
import subprocess
import sys
import tarfile
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
EXPECTED = os.path.join(HERE, "expected")

# What QEMU tells the AHCI disk to report; the transcripts show these texts.
DISK_MODEL = "QUENMARK SAT TEST DRIVE"
DISK_SERIAL = "QMS0123456789"
DISK_FIRMWARE = "QF1.02A"

# The modules the VM needs, loaded in this order: the upper drivers first, so that each disk
# gets its names as its controller appears; the AHCI controller before virtio-scsi.
MODULES = ["sd_mod", "sr_mod", "sg", "ahci", "virtio_pci", "virtio_scsi"]

# Firmware images in the VM's working folder: name and size. The bytes are a fixed pattern.
IMAGES = [("fw-70000.bin", 70000), ("fw-70144.bin", 70144), ("fw-131072.bin", 131072), ("fw-1mib.bin", 1048576)]

# Images the download-capable disk takes ("QSIMFW01"): name, revision, size, defect option.
# Each revision is its own, so IDENTIFY shows which image a run applied. The 70,000-byte ones
# are no whole number of blocks (the tool refuses them; hdparm too); --bad-length promises 512
# bytes more than the file holds.
QS_IMAGES = (
    [("qs-70000-%s.bin" % c, "QM%s70000" % c.upper(), 70000, None) for c in "abcdefghijklm"] +
    [("qs-65536-%s.bin" % c, "QM%s65536" % c.upper(), 65536, None) for c in "abcdefghijklmnop"] +
    [("qs-131072-%s.bin" % c, "QM%s131K" % c.upper(), 131072, None) for c in "abcdefg"] +
    [("qs-65536-badcrc.bin", "QMBADCRC", 65536, "--bad-crc"),
     ("qs-65536-short.bin", "QMSHORT", 65536, "--bad-length"),
     ("qs-70000-badcrc.bin", "QMBADCRC", 70000, "--bad-crc"),
     ("qs-70000-badmagic.bin", "QMBADMAG", 70000, "--bad-magic")])

# Under software emulation the VM comes up in about 10 s and runs every case in about 20 s more.
UP_TIMEOUT = 90
RUN_TIMEOUT = 300
UP = b"QUENMARK-VM-UP"
BEGIN = b"QUENMARK-RESULTS-BEGIN"
END = b"QUENMARK-RESULTS-END"


def fail(message):
    print("qemu suite: " + message, file=sys.stderr)
    sys.exit(2)


KERNELS = ("6.1", "6.12")
CACHE = os.path.join(os.path.dirname(os.path.dirname(HERE)), "build", "qemu-kernels")
KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"


class Kernel:
    """A kernel to boot: its image and the folder that holds its modules and modules.dep."""

    def __init__(self, label, version, image, modules_root):
        self.label, self.version, self.image, self.modules_root = label, version, image, modules_root


def version_key(version):
    return [int(p) if p.isdigit() else p for p in re.split(r"[.+-]", version)]


def host_kernel():
    """Debian 12's kernel: the newest installed one whose modules are there too."""
    found = []
    for image in glob.glob("/boot/vmlinuz-6.1.*"):
        version = image[len("/boot/vmlinuz-"):]
        if os.path.isfile("/lib/modules/%s/modules.dep" % version):
            found.append((version, image))
    if not found:
        fail("no 6.1 kernel with modules under /boot and /lib/modules (apt-get install linux-image-amd64)")
    found.sort(key=lambda item: version_key(item[0]))
    version, image = found[-1]
    return Kernel("6.1", version, image, "/lib/modules/" + version)


def host_mirror():
    """The Debian mirror of the host's own apt sources (deb822 or one-line), never a fixed one."""
    for path in sorted(glob.glob("/etc/apt/sources.list.d/*.sources")):
        with open(path) as f:
            for stanza in f.read().split("\n\n"):
                fields = {}
                for line in stanza.splitlines():
                    if ":" in line and not line.startswith("#"):
                        key, _, value = line.partition(":")
                        fields[key.strip().lower()] = value.split()
                suites = fields.get("suites", [])
                if "deb" in fields.get("types", []) and any(
                        s in ("bookworm", "trixie", "stable") for s in suites):
                    return fields["uris"][0]
    for path in ["/etc/apt/sources.list"] + sorted(glob.glob("/etc/apt/sources.list.d/*.list")):
        if not os.path.exists(path):
            continue
        with open(path) as f:
            for line in f:
                words = re.sub(r"\[[^]]*\]", "", line).split()
                if len(words) >= 3 and words[0] == "deb" and words[2] in ("bookworm", "trixie", "stable"):
                    return words[1]
    fail("no Debian mirror for bookworm or trixie in the host's apt sources")


def fetched_kernel():
    """Debian 13's kernel, fetched once into the build tree's cache and reused from there."""
    cached = sorted(glob.glob(os.path.join(CACHE, "*", "ready")), key=lambda p: version_key(
        os.path.basename(os.path.dirname(p))))
    if not cached:
        fetch_trixie_kernel()
        cached = glob.glob(os.path.join(CACHE, "*", "ready"))
    folder = os.path.dirname(cached[-1])
    version = os.path.basename(folder)
    return Kernel("6.12", version, os.path.join(folder, "boot", "vmlinuz-" + version),
                  os.path.join(folder, "usr", "lib", "modules", version))


def fetch_trixie_kernel():
    started = time.monotonic()
    apt = os.path.join(CACHE, "apt")
    for d in ("lists/partial", "cache/archives/partial", "download"):
        os.makedirs(os.path.join(apt, d), exist_ok=True)
    sources = os.path.join(apt, "sources.list")
    with open(sources, "w") as f:
        f.write("deb [signed-by=%s] %s trixie main\n" % (KEYRING, host_mirror()))
    # Only the suite's own files: the host's sources, lists and caches are neither read nor changed.
    options = ["-q", "-o", "Dir::Etc::SourceList=" + sources, "-o", "Dir::Etc::SourceParts=/nonexistent",
               "-o", "Dir::State::Lists=" + os.path.join(apt, "lists"),
               "-o", "Dir::Cache=" + os.path.join(apt, "cache"), "-o", "APT::Sandbox::User=root"]
    subprocess.run(["apt-get"] + options + ["update"], check=True, stdout=subprocess.DEVNULL)
    shown = subprocess.run(["apt-cache"] + options + ["show", "linux-image-amd64"], check=True,
                           stdout=subprocess.PIPE, text=True).stdout
    packages = sorted(set(re.findall(r"linux-image-(6\.12\.[0-9]+\+deb13-amd64)\b", shown)),
                      key=version_key)
    if not packages:
        fail("trixie's linux-image-amd64 does not depend on a 6.12 kernel")
    version = packages[-1]
    download = os.path.join(apt, "download")
    subprocess.run(["apt-get"] + options + ["download", "linux-image-" + version], check=True,
                   cwd=download, stdout=subprocess.DEVNULL)
    deb = glob.glob(os.path.join(download, "linux-image-%s_*.deb" % version))[0]
    folder = os.path.join(CACHE, version)
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run(["dpkg", "-x", deb, folder], check=True)
    os.remove(deb)
    # The package has no modules.dep (it is made when a kernel is installed): depmod writes it
    # into the cache; it looks for modules under lib/modules of the folder it is given.
    os.symlink("usr/lib", os.path.join(folder, "lib"))
    subprocess.run(["depmod", "-b", folder, version], check=True)
    # Modules ship compressed with xz; busybox's insmod loads them only decompressed.
    root = os.path.join(folder, "usr", "lib", "modules", version)
    for path in module_files(root, MODULES, compressed=True):
        with lzma.open(path) as packed, open(path[:-len(".xz")], "wb") as unpacked:
            shutil.copyfileobj(packed, unpacked)
    with open(os.path.join(folder, "ready"), "w") as f:
        f.write(version + "\n")
    print("kernel %s fetched into %s in %.1f s" % (version, folder, time.monotonic() - started))


def module_files(root, names, compressed=False):
    """The module files of names and everything they depend on, dependencies first. Compressed
    modules are named by their decompressed files unless compressed is set."""
    deps = {}
    with open(os.path.join(root, "modules.dep")) as f:
        for line in f:
            path, _, rest = line.partition(":")
            deps[path] = rest.split()
    by_name = {}
    for path in deps:
        name = os.path.basename(path).split(".ko")[0].replace("-", "_")
        by_name[name] = path
    builtin = set()
    builtin_file = os.path.join(root, "modules.builtin")
    if os.path.exists(builtin_file):
        with open(builtin_file) as f:
            builtin = {os.path.basename(l.strip()).split(".ko")[0].replace("-", "_") for l in f}
    order = []

    def add(path):
        if path in order:
            return
        # modules.dep lists each module's dependencies so that the last one is loaded first.
        for dep in reversed(deps[path]):
            add(dep)
        order.append(path)

    for name in names:
        if name in builtin:
            continue
        if name not in by_name:
            fail("%s has no module %s" % (root, name))
        add(by_name[name])
    files = [os.path.join(root, p) for p in order]
    if not compressed:
        files = [f[:-len(".xz")] if f.endswith(".ko.xz") else f for f in files]
    return files


class Cpio:
    """A newc archive, the format the kernel unpacks as its initramfs."""

    def __init__(self):
        self.out = io.BytesIO()
        self.inode = 1

    def _entry(self, name, mode, data=b""):
        name_bytes = name.encode() + b"\0"
        header = "070701" + "".join("%08X" % v for v in (
            self.inode, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name_bytes), 0))
        self.inode += 1
        self.out.write(header.encode() + name_bytes)
        self.out.write(b"\0" * (-(110 + len(name_bytes)) % 4))
        self.out.write(data)
        self.out.write(b"\0" * (-len(data) % 4))

    def directory(self, name):
        self._entry(name, stat.S_IFDIR | 0o755)

    def file(self, name, data, mode=0o644):
        self._entry(name, stat.S_IFREG | mode, data)

    def finish(self):
        self._entry("TRAILER!!!", 0)
        return gzip.compress(self.out.getvalue(), compresslevel=1)


DISK_BYTES = 64 << 20


def master_boot_record():
    """An MBR with one Linux partition from sector 2048 to the end of the disk."""
    sectors = DISK_BYTES // 512
    entry = bytes([0x00, 0xFE, 0xFF, 0xFF, 0x83, 0xFE, 0xFF, 0xFF]) + \
        (2048).to_bytes(4, "little") + (sectors - 2048).to_bytes(4, "little")
    return bytes(446) + entry + bytes(48) + b"\x55\xAA"


def disk_data(size):
    """A pattern no two megabytes of which are alike."""
    chunks = []
    for n in range(size // (1 << 20)):
        seed = hashlib.sha256(b"quenmark disk %d" % n).digest()
        chunks.append((seed * ((1 << 20) // len(seed)))[:1 << 20])
    return b"".join(chunks)


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


# ata_qc_issue and ata_qc_complete_done with their time stamps, for the timing of a download.
TIMED_LINE = re.compile(rb"\s(\d+\.\d+): (ata_qc_issue|ata_qc_complete_done): ata_port=(\d+) "
                        rb"ata_dev=\d+ tag=(\d+)(?:.*cmd=(\S+))?")


def download_span(trace):
    """Seconds from the issue of the first DOWNLOAD MICROCODE to the completion of the last one,
    and how many there were; None when the trace holds none."""
    first = last_tag = None
    end = None
    count = 0
    for line in trace.splitlines():
        match = TIMED_LINE.search(line)
        if not match:
            continue
        stamp, event, port, tag, cmd = match.groups()
        if event == b"ata_qc_issue" and cmd == b"ATA_CMD_DOWNLOAD_MICRO":
            first = float(stamp) if first is None else first
            last_tag = (port, tag)
            end = None
            count += 1
        elif event == b"ata_qc_complete_done" and last_tag == (port, tag) and end is None:
            end = float(stamp)
    if first is None or end is None:
        return None
    return end - first, count


def image_bytes(size):
    pattern = bytes((i * 7 + 3) & 0xFF for i in range(256))
    return (pattern * (size // 256 + 1))[:size]


def find_cases(names):
    cases = sorted(d for d in os.listdir(EXPECTED)
                   if any(os.path.isfile(os.path.join(EXPECTED, d, f)) for f in ("args", "steps")))
    if names:
        unknown = [n for n in names if n not in cases]
        if unknown:
            fail("no such case: " + " ".join(unknown))
        cases = [c for c in cases if c in names]
    return cases


def peer_files():
    """Debian's hdparm and the shared libraries it loads, as (path in the VM, bytes, mode)."""
    hdparm = shutil.which("hdparm") or "/usr/sbin/hdparm"
    if not os.path.exists(hdparm):
        return []
    files = [("bin/hdparm", hdparm)]
    listed = subprocess.run(["ldd", hdparm], stdout=subprocess.PIPE, text=True, check=True).stdout
    for path in re.findall(r"(/\S+) \(0x", listed):
        files.append((path.lstrip("/"), path))
    found = []
    for target, source in files:
        with open(os.path.realpath(source), "rb") as f:
            found.append((target, f.read(), 0o755))
    return found


def qs_images(tool):
    """The download-capable disk's images, made by quenmark-sim-image."""
    made = []
    with tempfile.TemporaryDirectory() as folder:
        for name, revision, size, defect in QS_IMAGES:
            path = os.path.join(folder, name)
            subprocess.run([tool, "--revision", revision, "--size", str(size), "-o", path] +
                           ([defect] if defect else []), check=True, stdout=subprocess.DEVNULL)
            with open(path, "rb") as f:
                made.append((name, f.read()))
    return made


def build_initramfs(exe, capture, modules, cases, image_tool=None):
    with open("/bin/busybox", "rb") as f:
        if b"ld-linux" in f.read(1 << 16):
            fail("/bin/busybox is not the static one (apt-get install busybox-static)")
    archive = Cpio()
    for d in ("bin", "dev", "etc", "proc", "sys", "tmp", "modules", "cases", "work", "results"):
        archive.directory(d)
    archive.file("etc/passwd", b"root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/work:/bin/sh\n")
    archive.file("etc/group", b"root:x:0:\nnogroup:x:65534:\n")
    with open("/bin/busybox", "rb") as f:
        archive.file("bin/busybox", f.read(), 0o755)
    with open(exe, "rb") as f:
        archive.file("bin/quenmark", f.read(), 0o755)
    with open(capture, "rb") as f:
        archive.file("bin/quenmark-sense-capture", f.read(), 0o755)
    with open(os.path.join(HERE, "init.sh"), "rb") as f:
        archive.file("init", f.read(), 0o755)
    with open(os.path.join(HERE, "run_steps.sh"), "rb") as f:
        archive.file("bin/run-steps", f.read(), 0o755)
    names = []
    for path in modules:
        name = os.path.basename(path)
        names.append(name)
        with open(path, "rb") as f:
            archive.file("modules/" + name, f.read())
    archive.file("modules/order", ("\n".join(names) + "\n").encode())
    for name, size in IMAGES:
        archive.file("work/" + name, image_bytes(size))
    if image_tool:
        for name, data in qs_images(image_tool):
            archive.file("work/" + name, data)
    made = set()
    for target, data, mode in peer_files():
        parts = target.split("/")
        for i in range(1, len(parts)):
            folder = "/".join(parts[:i])
            if folder not in made and folder not in ("bin",):
                archive.directory(folder)
                made.add(folder)
        archive.file(target, data, mode)
    for case in cases:
        archive.directory("cases/" + case)
        for item in ("args", "program", "user", "hold", "script", "steps"):
            path = os.path.join(EXPECTED, case, item)
            if os.path.exists(path):
                with open(path, "rb") as f:
                    archive.file("cases/%s/%s" % (case, item), f.read())
    archive.file("cases/order", ("\n".join(cases) + "\n").encode())
    return archive.finish()


QEMU = "qemu-system-x86_64"
QEMU_TRACE = None


def run_vm(kernel, initramfs, work, disk=""):
    for name in ("ahci-disk.img", "scsi-disk.img"):
        with open(os.path.join(work, name), "wb") as f:
            f.truncate(DISK_BYTES)
    # One partition on the AHCI disk, so that /dev/sda1 exists, and data on it that no update
    # may change: the suite compares its SHA-256 before and after the boot.
    with open(os.path.join(work, "ahci-disk.img"), "r+b") as f:
        f.write(master_boot_record())
        f.seek(2048 * 512)
        f.write(disk_data(DISK_BYTES - 2048 * 512))
    with open(os.path.join(work, "ahci-disk.sha256"), "w") as f:
        f.write(sha256_of(os.path.join(work, "ahci-disk.img")))
    initrd = os.path.join(work, "initramfs.gz")
    with open(initrd, "wb") as f:
        f.write(initramfs)
    console = os.path.join(work, "console.log")
    results = os.path.join(work, "results.txt")
    command = [
        QEMU, "-machine", "pc", "-accel", "tcg", "-m", "256", "-smp", "1",
        "-nodefaults", "-no-reboot", "-display", "none",
        "-kernel", kernel, "-initrd", initrd,
        "-append", "console=ttyS0 panic=-1 rdinit=/init scsi_mod.scan=sync loglevel=4",
        "-serial", "file:" + console, "-serial", "file:" + results,
        "-device", "ahci,id=ahci",
        "-drive", "if=none,id=disk0,format=raw,file=" + os.path.join(work, "ahci-disk.img"),
        "-device", "ide-hd,drive=disk0,bus=ahci.0,model=%s,serial=%s,ver=%s%s" % (
            DISK_MODEL, DISK_SERIAL, DISK_FIRMWARE, "," + disk if disk else ""),
        "-drive", "if=none,id=cd0,media=cdrom",
        "-device", "ide-cd,drive=cd0,bus=ahci.1",
        "-device", "virtio-scsi-pci,id=vscsi",
        "-drive", "if=none,id=disk1,format=raw,file=" + os.path.join(work, "scsi-disk.img"),
        "-device", "scsi-hd,drive=disk1,bus=vscsi.0",
    ]
    if QEMU != "qemu-system-x86_64":
        # A QEMU run from its build tree finds Debian's firmware only when told where it is.
        command += ["-L", "/usr/share/seabios", "-L", "/usr/share/qemu"]
    if QEMU_TRACE:
        command += ["-trace", "enable=%s,file=%s" % (QEMU_TRACE, os.path.join(work, "qemu-trace.log"))]
    started = time.monotonic()
    vm = subprocess.Popen(command, stdin=subprocess.DEVNULL)
    came_up = None
    try:
        while vm.poll() is None:
            now = time.monotonic() - started
            if came_up is None and os.path.exists(results):
                with open(results, "rb") as f:
                    if UP in f.read():
                        came_up = now
            if came_up is None and now > UP_TIMEOUT:
                raise TimeoutError("the VM did not come up within %d s" % UP_TIMEOUT)
            if now > RUN_TIMEOUT:
                raise TimeoutError("the VM did not finish within %d s" % RUN_TIMEOUT)
            time.sleep(0.2)
    except TimeoutError as error:
        vm.kill()
        vm.wait()
        print(tail(console))
        fail("%s (console above)" % error)
    if vm.returncode != 0:
        print(tail(console))
        fail("%s failed with exit code %d" % (QEMU, vm.returncode))
    if came_up is not None:
        print("VM: up after %.1f s" % came_up)
    elapsed = time.monotonic() - started
    with open(results, "rb") as f:
        data = f.read()
    if BEGIN not in data or END not in data:
        print(tail(console))
        fail("the VM came up but sent no results (console above)")
    encoded = data.split(BEGIN, 1)[1].split(END, 1)[0]
    payload = base64.b64decode(b"".join(encoded.split()))
    return tarfile.open(fileobj=io.BytesIO(payload)), elapsed, console


def tail(path, lines=40):
    if not os.path.exists(path):
        return "(no console output)"
    with open(path, "rb") as f:
        return b"\n".join(f.read().splitlines()[-lines:]).decode("utf-8", "replace")


def normalise_date(data):
    return re.sub(rb"Build Date: [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}", b"Build Date: <date>", data)


# ata_qc_issue in the guest's trace: "ata_port=1 ata_dev=0 tag=1 proto=ATA_PROT_PIO
# cmd=ATA_CMD_ID_ATA  tf=(ec/00:01:00:00:00:00/a0)" and similar; kept as port, command and task
# file, without the tag (which varies with the queue) and the timestamps.
TRACE_LINE = re.compile(rb"ata_qc_issue: ata_port=(\d+) ata_dev=\d+ tag=\d+ proto=(\S+) cmd=(\S+)\s+tf=\((\S+)\)")


def normalise_trace(data):
    lines = []
    for line in data.splitlines():
        match = TRACE_LINE.search(line)
        if match:
            port, proto, cmd, tf = match.groups()
            # ATAPI packets carry SCSI commands: the run's INQUIRY, but also the kernel's own
            # media polling of the CD-ROM, at moments the run does not control.
            if cmd == b"ATA_CMD_PACKET":
                continue
            lines.append(b"ata%s %s %s %s" % (port, cmd, tf, proto))
    return b"".join(l + b"\n" for l in lines)


RESULT_FILES = ("stdout", "stderr", "exit", "ata-commands")


def expected_path(case, kernel, name):
    """The file that holds what kernel must answer: its own, else the shared one."""
    own = os.path.join(EXPECTED, case, kernel, name)
    return own if os.path.exists(own) else os.path.join(EXPECTED, case, name)


def update_expected(case, kernel, name, data):
    """--update: the first kernel writes the shared file; a later one writes its own file only
    where it answers differently (its why must then be written by hand)."""
    shared = os.path.join(EXPECTED, case, name)
    own_folder = os.path.join(EXPECTED, case, kernel)
    own = os.path.join(own_folder, name)
    if name == "ata-commands" and not os.path.exists(shared):
        return
    if kernel == KERNELS[0]:
        with open(shared, "wb") as f:
            f.write(data)
        return
    with open(shared, "rb") as f:
        same = f.read() == data
    if same:
        if os.path.exists(own):
            os.remove(own)
        return
    os.makedirs(own_folder, exist_ok=True)
    with open(own, "wb") as f:
        f.write(data)


def check_notes(cases):
    """Every kernel's own answer carries its one-line why."""
    problems = []
    for case in cases:
        for kernel in KERNELS:
            folder = os.path.join(EXPECTED, case, kernel)
            if not os.path.isdir(folder):
                continue
            why = os.path.join(folder, "why")
            if not os.path.exists(why) or len(open(why).read().strip().splitlines()) != 1:
                problems.append("%s/%s: no one-line why" % (case, kernel))
            if not [n for n in os.listdir(folder) if n in RESULT_FILES]:
                problems.append("%s/%s: a why without a differing file" % (case, kernel))
    return problems


def case_disk(case):
    path = os.path.join(EXPECTED, case, "disk")
    if not os.path.exists(path):
        return ""
    with open(path) as f:
        return f.read().strip()


def schema_problems(stdout):
    """A --json run's document against docs/quenmark.schema.json (python3-jsonschema)."""
    import json
    import jsonschema
    with open(os.path.join(HERE, "..", "..", "docs", "quenmark.schema.json"), encoding="utf-8") as f:
        validator = jsonschema.Draft202012Validator(json.load(f))
    try:
        document = json.loads(stdout.decode("utf-8"))
    except ValueError as error:
        return ["stdout is no JSON document: %s" % error]
    return ["schema: %s at /%s" % (e.message, "/".join(map(str, e.path)))
            for e in validator.iter_errors(document)]


def run_kernel(kernel, options, cases):
    """Boots kernel once for each disk the cases name, runs every case and compares; returns
    (passed, failed)."""
    disks = []
    for case in cases:
        if case_disk(case) not in disks:
            disks.append(case_disk(case))
    passed = failed = 0
    for disk in sorted(disks, key=lambda d: (d != "", d)):
        p, f = run_disk(kernel, options, [c for c in cases if case_disk(c) == disk], disk)
        passed, failed = passed + p, failed + f
    return passed, failed


def run_disk(kernel, options, cases, disk):
    modules = module_files(kernel.modules_root, MODULES)
    initramfs = build_initramfs(options.exe, options.capture, modules, cases, options.image_tool)
    work = tempfile.mkdtemp(prefix="quenmark-qemu-%s." % kernel.label)
    print("kernel %s (%s), %d modules, %d cases, initramfs %d KiB%s" % (
        kernel.label, kernel.version, len(modules), len(cases), len(initramfs) // 1024,
        ", disk " + disk if disk else ""))
    archive, elapsed, console = run_vm(kernel.image, initramfs, work, disk)
    print("VM %s: ran every case and powered off after %.1f s" % (kernel.label, elapsed))
    with open(os.path.join(work, "ahci-disk.sha256")) as f:
        data_kept = sha256_of(os.path.join(work, "ahci-disk.img")) == f.read()
    if options.collect and QEMU_TRACE:
        os.makedirs(os.path.join(options.collect, kernel.label), exist_ok=True)
        shutil.copyfile(os.path.join(work, "qemu-trace.log"), os.path.join(
            options.collect, kernel.label, "qemu-trace-%s.log" % (disk or "default")))

    def got(case, name):
        try:
            member = archive.extractfile("./%s/%s" % (case, name))
        except KeyError:
            return None
        return member.read() if member else None

    passed = failed = 0
    for case in cases:
        result = {name: got(case, name) for name in ("stdout", "stderr", "exit", "trace", "seconds")}
        if result["exit"] is None:
            failed += 1
            print("FAIL %s %s\n  no result came back" % (kernel.label, case))
            continue
        result["stdout"] = normalise_date(result["stdout"])
        result["ata-commands"] = normalise_trace(result["trace"] or b"")
        if options.collect:
            folder = os.path.join(options.collect, kernel.label, case)
            os.makedirs(folder, exist_ok=True)
            for name in ("stdout", "stderr", "exit", "trace", "seconds", "ata-commands"):
                with open(os.path.join(folder, name), "wb") as f:
                    f.write(result[name] or b"")
            if not os.path.exists(os.path.join(EXPECTED, case, "exit")):
                passed += 1
                print("got  %s %s (%s s)" % (kernel.label, case,
                                             (result["seconds"] or b"?").decode().strip()))
                continue
        failures = []
        for name in RESULT_FILES:
            if options.update:
                update_expected(case, kernel.label, name, result[name])
                continue
            path = expected_path(case, kernel.label, name)
            if not os.path.exists(path):
                if name != "ata-commands":
                    failures.append("%s: no expected file" % name)
                continue
            with open(path, "rb") as f:
                expected = f.read()
            if expected != result[name]:
                failures.append("%s differs\n--- expected (%s)\n%s\n--- got\n%s" % (
                    name, os.path.relpath(path, EXPECTED), expected.decode("utf-8", "replace"),
                    result[name].decode("utf-8", "replace")))
        arguments = os.path.join(EXPECTED, case, "args")
        if os.path.exists(arguments):
            with open(arguments, encoding="utf-8") as f:
                if "--json" in f.read().split("\n"):
                    failures += schema_problems(result["stdout"])
        seconds = (result["seconds"] or b"?").decode().strip()
        if failures:
            failed += 1
            print("FAIL %s %s (%s s)\n  %s" % (kernel.label, case, seconds, "\n  ".join(failures)))
        else:
            passed += 1
            print("ok   %s %s (%s s)" % (kernel.label, case, seconds))
        timing = os.path.join(EXPECTED, case, "timing")
        span = download_span(result["trace"] or b"") if os.path.exists(timing) else None
        if span:
            with open(timing) as f:
                TIMINGS.append((kernel.label, f.read().strip(), span[0], span[1]))
    # No case may change the data of the disk it updates; compared from outside the VM.
    if data_kept:
        passed += 1
        print("ok   %s disk data unchanged%s" % (kernel.label, " (" + disk + ")" if disk else ""))
    else:
        failed += 1
        print("FAIL %s the AHCI disk's data changed during the boot%s" % (
            kernel.label, " (" + disk + ")" if disk else ""))
    if options.keep or failed:
        print("work folder: " + work)
    else:
        shutil.rmtree(work, ignore_errors=True)
    return passed, failed


# (kernel, what was timed, seconds, commands) of the cases with a timing file.
TIMINGS = []


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--capture", required=True, help="the sense capture program")
    parser.add_argument("--kernel", choices=KERNELS + ("all",), default="all",
                        help="boot only this kernel (default: every kernel, one boot each)")
    parser.add_argument("--update", action="store_true",
                        help="write what the VM returned as the expected files")
    parser.add_argument("--keep", action="store_true", help="keep the work folder")
    parser.add_argument("--qemu", help="the QEMU to run (default: Debian's qemu-system-x86_64)")
    parser.add_argument("--image-tool", help="quenmark-sim-image, to put QS_IMAGES into the VM")
    parser.add_argument("--cases", dest="cases_dir",
                        help="the folder of cases (default: tests/qemu/expected)")
    parser.add_argument("--collect", help="copy what each case returned into this folder")
    parser.add_argument("--qemu-trace", help="QEMU trace events to record (a pattern), copied "
                        "beside the collected results")
    parser.add_argument("cases", nargs="*")
    options = parser.parse_args()
    for program in (options.exe, options.capture):
        if not os.access(program, os.X_OK):
            fail("no executable " + program)

    global EXPECTED, QEMU, QEMU_TRACE
    if options.cases_dir:
        EXPECTED = os.path.abspath(options.cases_dir)
    if options.qemu:
        QEMU = os.path.abspath(options.qemu)
    QEMU_TRACE = options.qemu_trace
    begun = time.monotonic()
    cases = find_cases(options.cases)
    labels = KERNELS if options.kernel == "all" else (options.kernel,)
    kernels = [host_kernel() if label == "6.1" else fetched_kernel() for label in labels]
    passed = failed = 0
    for kernel in kernels:
        started = time.monotonic()
        p, f = run_kernel(kernel, options, cases)
        print("kernel %s: %d passed, %d failed (%.1f s)" % (kernel.label, p, f,
                                                             time.monotonic() - started))
        passed, failed = passed + p, failed + f
    for problem in check_notes(cases):
        failed += 1
        print("FAIL " + problem)
    if TIMINGS:
        print("from the first DOWNLOAD MICROCODE's issue to the last one's completion, in libata's "
              "trace (figures, not checked):")
        for kernel, label, seconds, commands in TIMINGS:
            print("  %-5s %-40s %8.1f ms  %3d commands" % (kernel, label, seconds * 1000, commands))
    print("%d passed, %d failed (%.1f s in all)" % (passed, failed, time.monotonic() - begun))
    return 1 if failed or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
