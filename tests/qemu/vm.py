#!/usr/bin/env python3
"""Debian 12 virtual machines reached over SSH, for the suites that need a whole Linux host: a
root file system made with debootstrap (kept in the build tree, rebuilt only when its recipe
changes), booted under software emulation on a kernel of qemu_suite (6.1 of the host, 6.12 of
Debian 13) with an initramfs of that kernel's drivers, each VM on a copy-on-write overlay of its
own with the AHCI drives it is given, user-mode networking that forwards one port of 127.0.0.1
to its SSH server, and an ordinary user (fleet) with passwordless sudo whose key is made for the
run.

  python3 tests/qemu/vm.py rootfs                  build the root file system (if its recipe changed)
  python3 tests/qemu/vm.py boot [--kernel 6.12] [--qemu PATH]
                                                   boot one VM with two drives and print how to reach it

The mirror comes from the host's apt sources at run time (qemu_suite.host_mirror).
"""
import argparse
import base64
import glob
import hashlib
import json
import lzma
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import qemu_suite  # noqa: E402  (the kernels, the mirror, module lists and the cpio writer)

ROOT = os.path.dirname(os.path.dirname(HERE))
CACHE = os.path.join(ROOT, "build", "qemu-vm")
USER = "fleet"

# The root file system. Everything that shapes it is in ROOTFS_RECIPE and ROOTFS_SETUP: a change
# to either makes a new one.
ROOTFS_RECIPE = {
    "suite": "bookworm",
    "variant": "minbase",
    "packages": ["openssh-server", "python3", "udev", "sudo", "systemd-sysv", "kmod", "iproute2"],
    "size_mib": 1024,
}
# Run inside the new root (chroot) once debootstrap is done. The VM's name, its user's key and
# whether its name resolves come from the kernel command line at every boot
# (quenmark.host=, quenmark.key=, quenmark.resolvable=), so that one root file system serves
# every VM: a name that does not resolve makes sudo warn on standard error, as on many hosts.
ROOTFS_SETUP = r"""
set -eu
useradd --create-home --shell /bin/bash {user}
echo '{user} ALL=(ALL) NOPASSWD: ALL' >/etc/sudoers.d/{user}
chmod 0440 /etc/sudoers.d/{user}
printf '127.0.0.1 localhost\n' >/etc/hosts
: >/etc/resolv.conf
echo 'LABEL=root / ext4 rw,noatime 0 1' >/etc/fstab
mkdir -p /etc/systemd/network
printf '[Match]\nName=eth0\n[Network]\nAddress=10.0.2.15/24\nGateway=10.0.2.2\n' \
    >/etc/systemd/network/10-eth0.network
systemctl enable systemd-networkd.service
cat >/usr/local/sbin/vm-config <<'EOF'
#!/bin/sh
# The VM's name, its user's key and whether its name resolves, from the kernel command line.
for word in $(cat /proc/cmdline); do
    case $word in
        quenmark.host=*) name=${word#*=} ;;
        quenmark.key=*) key=${word#*=} ;;
        quenmark.resolvable=1) resolvable=1 ;;
    esac
done
if [ -n "${name:-}" ]; then
    echo "$name" >/etc/hostname
    hostname "$name"
    [ -z "${resolvable:-}" ] || printf '127.0.1.1 %s\n' "$name" >>/etc/hosts
fi
if [ -n "${key:-}" ]; then
    install -d -m 0700 -o {user} -g {user} /home/{user}/.ssh
    echo "$key" | base64 -d >/home/{user}/.ssh/authorized_keys
    chown {user}:{user} /home/{user}/.ssh/authorized_keys
fi
EOF
chmod 0755 /usr/local/sbin/vm-config
cat >/etc/systemd/system/vm-config.service <<'EOF'
[Unit]
Description=Name and key of this test VM
DefaultDependencies=no
After=local-fs.target
Before=ssh.service network-pre.target
[Service]
Type=oneshot
ExecStart=/usr/local/sbin/vm-config
[Install]
WantedBy=multi-user.target
EOF
systemctl enable vm-config.service
printf 'PasswordAuthentication no\nUseDNS no\n' >/etc/ssh/sshd_config.d/vm.conf
# What a test VM does not need and what would only slow its boot under emulation.
systemctl mask apt-daily.timer apt-daily-upgrade.timer e2scrub_all.timer fstrim.timer \
    systemd-journal-flush.service e2scrub_reap.service 2>/dev/null || true
systemd-machine-id-setup
apt-get clean
rm -rf /var/lib/apt/lists/*
"""

# The drivers the VMs need, loaded by the initramfs before it hands over to the root file
# system's systemd: the root disk, its file system, the network card and the AHCI drives. The
# root file system holds no kernel modules, so that it serves every kernel.
VM_MODULES = ["virtio_pci", "virtio_scsi", "virtio_net", "crc32c_generic", "ext4",
              "sd_mod", "sg", "ahci"]

INIT = rb"""#!/bin/busybox sh
/bin/busybox mkdir -p /proc /sys /dev /newroot
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t sysfs sysfs /sys
/bin/busybox mount -t devtmpfs devtmpfs /dev
while read -r module; do
    /bin/busybox insmod "/modules/$module" || echo "vm initramfs: insmod $module failed"
done </modules/order
# The root disk is the one whose file system is labelled root: the SCSI disks and the AHCI
# drives are probed side by side, so its name is not known in advance.
tries=0
until root=$(/bin/busybox findfs LABEL=root 2>/dev/null); do
    tries=$((tries + 1))
    [ $tries -lt 200 ] || { echo "vm initramfs: no root file system"; /bin/busybox poweroff -f; }
    /bin/busybox sleep 0.1
done
/bin/busybox mount -t ext4 -o rw,noatime "$root" /newroot || {
    echo "vm initramfs: $root does not mount"; /bin/busybox poweroff -f; }
/bin/busybox umount /proc /sys
/bin/busybox mount --move /dev /newroot/dev
exec /bin/busybox switch_root /newroot /sbin/init
"""

MEMORY_MIB = 384


def fail(message):
    print("vm: " + message, file=sys.stderr)
    sys.exit(2)


def recipe_hash():
    text = json.dumps(ROOTFS_RECIPE, sort_keys=True) + ROOTFS_SETUP
    return hashlib.sha256(text.encode()).hexdigest()[:16]


class RootFs:
    """The built root file system: its image (raw ext4, the base of every VM's overlay) and the
    public half of its SSH host key, which every VM made from it presents."""

    def __init__(self, image, host_key):
        self.image, self.host_key = image, host_key


def root_fs(log=print):
    """The root file system, built into build/qemu-vm/ unless one of this recipe is there."""
    stamp = os.path.join(CACHE, "rootfs.stamp")
    image = os.path.join(CACHE, "rootfs.img")
    host_key = os.path.join(CACHE, "rootfs.host-key.pub")
    wanted = recipe_hash()
    if os.path.exists(stamp) and open(stamp).read().strip() == wanted and os.path.exists(image):
        return RootFs(image, open(host_key).read().strip())
    for tool in ("debootstrap", "mke2fs"):
        if not shutil.which(tool):
            fail("%s is missing (bash scripts/install-deps.sh fleet)" % tool)
    started = time.monotonic()
    os.makedirs(CACHE, exist_ok=True)
    for old in (stamp, image):
        if os.path.exists(old):
            os.remove(old)
    tree = os.path.join(CACHE, "rootfs.tree")
    shutil.rmtree(tree, ignore_errors=True)
    mirror = qemu_suite.host_mirror()
    log("debootstrap %s (%s) from the host's mirror" % (ROOTFS_RECIPE["suite"], ROOTFS_RECIPE["variant"]))
    try:
        subprocess.run(["debootstrap", "--variant=" + ROOTFS_RECIPE["variant"],
                        "--keyring=" + qemu_suite.KEYRING,
                        "--include=" + ",".join(ROOTFS_RECIPE["packages"]),
                        ROOTFS_RECIPE["suite"], tree, mirror],
                       check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["chroot", tree, "/bin/sh", "-c", ROOTFS_SETUP.replace("{user}", USER)],
                       check=True, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"},
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(os.path.join(tree, "etc", "ssh", "ssh_host_ed25519_key.pub")) as f:
            key = " ".join(f.read().split()[:2])
        partial = image + ".partial"
        subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", "-L", "root", "-d", tree, partial,
                        "%dM" % ROOTFS_RECIPE["size_mib"]], check=True, stderr=subprocess.DEVNULL)
        os.rename(partial, image)
    finally:
        # debootstrap may leave the kernel's file systems mounted in the tree after a failure.
        for point in ("proc", "sys", "dev/pts", "dev"):
            path = os.path.join(tree, point)
            if os.path.ismount(path):
                subprocess.run(["umount", "-l", path], check=False)
        shutil.rmtree(tree, ignore_errors=True)
    with open(host_key, "w") as f:
        f.write(key + "\n")
    with open(stamp, "w") as f:
        f.write(wanted + "\n")
    log("root file system built in %.0f s: %s" % (time.monotonic() - started, image))
    return RootFs(image, key)


def kernel(label):
    """A kernel of qemu_suite: 6.1 (the host's) or 6.12 (Debian 13's, fetched once)."""
    return qemu_suite.host_kernel() if label == "6.1" else qemu_suite.fetched_kernel()


def initramfs(kern):
    """The initramfs of a kernel, made once into build/qemu-vm/ and reused."""
    path = os.path.join(CACHE, "initramfs-%s-%s.gz" % (
        kern.version, hashlib.sha256((INIT + " ".join(VM_MODULES).encode())).hexdigest()[:12]))
    if os.path.exists(path):
        return path
    with open("/bin/busybox", "rb") as f:
        busybox = f.read()
    if b"ld-linux" in busybox[:1 << 16]:
        fail("/bin/busybox is not the static one (apt-get install busybox-static)")
    archive = qemu_suite.Cpio()
    for d in ("bin", "dev", "proc", "sys", "newroot", "modules"):
        archive.directory(d)
    archive.file("bin/busybox", busybox, 0o755)
    archive.file("init", INIT, 0o755)
    names = []
    for module in qemu_suite.module_files(kern.modules_root, VM_MODULES, compressed=True):
        if module.endswith(".xz"):
            with lzma.open(module) as packed:
                data = packed.read()
            module = module[:-len(".xz")]
        else:
            with open(module, "rb") as f:
                data = f.read()
        names.append(os.path.basename(module))
        archive.file("modules/" + names[-1], data)
    archive.file("modules/order", ("\n".join(names) + "\n").encode())
    os.makedirs(CACHE, exist_ok=True)
    with open(path + ".partial", "wb") as f:
        f.write(archive.finish())
    os.rename(path + ".partial", path)
    return path


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Drive:
    """An AHCI drive: its image file (raw) and what its IDENTIFY data say. extra holds further
    properties of QEMU's ide-hd device (those of a patched QEMU, for instance)."""

    def __init__(self, image, model, serial, revision, extra=None):
        self.image, self.model, self.serial, self.revision = image, model, serial, revision
        self.extra = dict(extra or {})

    def by_id(self):
        """The link udev makes for the drive: /dev/disk/by-id/ata-<model>_<serial>."""
        return "/dev/disk/by-id/ata-%s_%s" % (self.model.replace(" ", "_"), self.serial)


def make_disk(path, mib, seed):
    """A raw disk image of pseudo-random bytes, so that any write shows in its checksum."""
    block = hashlib.sha256(seed.encode()).digest() * (1 << 15)  # 1 MiB
    with open(path, "wb") as f:
        for n in range(mib):
            f.write(block[n % 32:] + block[:n % 32])


def sha256_file(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            digest.update(chunk)
    return digest.hexdigest()


class VM:
    """One VM: start() boots it, wait_ssh() waits until its SSH server answers, set_link() cuts
    or restores its network, stop() ends it. Its files live in folder."""

    def __init__(self, name, folder, rootfs, kern, drives, public_key, qemu="qemu-system-x86_64",
                 qemu_args=(), resolvable=True, memory=MEMORY_MIB):
        self.name, self.folder, self.rootfs, self.kernel = name, folder, rootfs, kern
        self.drives, self.public_key, self.qemu, self.qemu_args = drives, public_key, qemu, list(qemu_args)
        self.resolvable, self.memory = resolvable, memory
        self.port = None
        self.process = None
        self.console = os.path.join(folder, "console.log")
        self.qmp_path = os.path.join(folder, "qmp.sock")
        self.started = None

    def command(self):
        overlay = os.path.join(self.folder, "root.qcow2")
        if not os.path.exists(overlay):
            subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw",
                            "-b", self.rootfs.image, overlay], check=True)
        key = base64.b64encode(self.public_key.encode()).decode()
        append = ("console=ttyS0 rw quiet mitigations=off net.ifnames=0 "
                  "systemd.show_status=0 quenmark.host=%s quenmark.key=%s quenmark.resolvable=%d"
                  % (self.name, key, 1 if self.resolvable else 0))
        command = [self.qemu] + self.qemu_args + [
            "-machine", "pc", "-accel", "tcg", "-m", str(self.memory), "-smp", "1",
            "-nodefaults", "-display", "none", "-no-reboot",
            "-kernel", self.kernel.image, "-initrd", initramfs(self.kernel), "-append", append,
            "-serial", "file:" + self.console,
            "-qmp", "unix:%s,server=on,wait=off" % self.qmp_path,
            # The root disk on virtio-scsi: a SCSI disk, never one of the ATA drives.
            "-device", "virtio-scsi-pci,id=vscsi",
            "-drive", "if=none,id=root,format=qcow2,file=" + overlay,
            "-device", "scsi-hd,drive=root,bus=vscsi.0,serial=root",
            "-device", "ahci,id=ahci",
            "-netdev", "user,id=net0,restrict=on,hostfwd=tcp:127.0.0.1:%d-:22" % self.port,
            # No option ROM: the VM boots the kernel it is given, never from the network.
            "-device", "virtio-net-pci,netdev=net0,romfile=",
        ]
        # One port of the AHCI controller per drive (six ports).
        for number, drive in enumerate(self.drives):
            properties = {"drive": "d%d" % number, "bus": "ahci.%d" % number, "model": drive.model,
                          "serial": drive.serial, "ver": drive.revision}
            properties.update(drive.extra)
            command += ["-drive", "if=none,id=d%d,format=raw,file=%s" % (number, drive.image),
                        "-device", "ide-hd," + ",".join("%s=%s" % item for item in properties.items())]
        return command

    def start(self):
        os.makedirs(self.folder, exist_ok=True)
        self.port = free_port()
        self.started = time.monotonic()
        with open(os.path.join(self.folder, "qemu.log"), "wb") as log:
            self.process = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=subprocess.STDOUT)

    def wait_ssh(self, timeout=240):
        """Seconds from start() until the SSH server sent its banner."""
        deadline = self.started + timeout
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("%s: QEMU ended with %d\n%s" % (
                    self.name, self.process.returncode, self.tail()))
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=2) as s:
                    s.settimeout(3)
                    if s.recv(64).startswith(b"SSH-"):
                        return time.monotonic() - self.started
            except OSError:
                pass
            time.sleep(0.5)
        raise RuntimeError("%s: no SSH server within %d s\n%s" % (self.name, timeout, self.tail()))

    def qmp(self, command, **arguments):
        with socket.socket(socket.AF_UNIX) as s:
            s.settimeout(10)
            s.connect(self.qmp_path)
            stream = s.makefile("rwb")
            stream.readline()
            for message in ({"execute": "qmp_capabilities"}, {"execute": command, "arguments": arguments}):
                stream.write(json.dumps(message).encode() + b"\n")
                stream.flush()
                while True:
                    reply = json.loads(stream.readline())
                    if "return" in reply or "error" in reply:
                        break
            if "error" in reply:
                raise RuntimeError("%s: QMP %s: %s" % (self.name, command, reply["error"]))
            return reply["return"]

    def set_link(self, up):
        """Cuts (False) or restores (True) the VM's network, as an unplugged cable would."""
        self.qmp("set_link", name="net0", up=up)

    def stop(self):
        if self.process and self.process.poll() is None:
            try:
                self.qmp("quit")
                self.process.wait(timeout=10)
            except (OSError, RuntimeError, subprocess.TimeoutExpired):
                self.process.kill()
                self.process.wait()

    def tail(self, lines=30):
        return qemu_suite.tail(self.console, lines)


def ssh_files(folder, rootfs, vms):
    """A key made for the run and a known-hosts file that holds the root file system's host key
    for every VM's port. Returns (private key, known hosts, public key)."""
    key = os.path.join(folder, "id_ed25519")
    if not os.path.exists(key):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "quenmark-vm-run",
                        "-f", key], check=True)
    known = os.path.join(folder, "known_hosts")
    with open(known, "w") as f:
        for vm in vms:
            if vm.port:
                f.write("[127.0.0.1]:%d %s\n" % (vm.port, rootfs.host_key))
    return key, known, open(key + ".pub").read().strip()


def main():
    parser = argparse.ArgumentParser()
    sub = parser.add_subparsers(dest="what", required=True)
    sub.add_parser("rootfs")
    boot = sub.add_parser("boot")
    boot.add_argument("--kernel", choices=qemu_suite.KERNELS, default="6.1")
    boot.add_argument("--qemu", default="qemu-system-x86_64")
    boot.add_argument("--qemu-arg", action="append", default=[],
                      help="a further argument for QEMU (-L FOLDER for a build without its firmware)")
    options = parser.parse_args()
    rootfs = root_fs()
    if options.what == "rootfs":
        return 0
    folder = tempfile.mkdtemp(prefix="quenmark-vm.")
    key, _, public = ssh_files(folder, rootfs, [])
    drives = []
    for n in range(2):
        image = os.path.join(folder, "drive%d.img" % n)
        make_disk(image, 8, "drive%d" % n)
        drives.append(Drive(image, "QUENMARK VM DRIVE", "QVM%04d" % n, "QV01"))
    vm = VM("vm1", folder, rootfs, kernel(options.kernel), drives, public, qemu=options.qemu,
            qemu_args=options.qemu_arg)
    vm.start()
    ssh_files(folder, rootfs, [vm])
    print("up after %.1f s: ssh -i %s -o UserKnownHostsFile=%s/known_hosts -p %d %s@127.0.0.1"
          % (vm.wait_ssh(), key, folder, vm.port, USER))
    print("Enter ends the VM")
    sys.stdin.readline()
    vm.stop()
    shutil.rmtree(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main())
