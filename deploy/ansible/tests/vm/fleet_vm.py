#!/usr/bin/env python3
"""The fleet rollout over SSH to Debian 12 virtual machines, as operators run it: three hosts
booted side by side under software emulation (two on Debian 12's kernel 6.1, one on Debian 13's
6.12, tests/qemu/vm.py), each with AHCI drives that take firmware when QEMU is the suite's patched
build, reached as the ordinary user fleet with become, with discovery by model, the image's
SHA-256, a target revision and batches of two. Every check reads the drives on the host side:
their revisions through IDENTIFY (the tool itself, installed beside the role's folders), and the
data on every disk as the SHA-256 of its image file, read from outside the VMs.

The hosts:
  h1  6.1   the connection's terminal merges the streams   a slow drive (every DOWNLOAD MICROCODE
            stays busy 2 s), a drive of another model and two drives of the fleet's model
  h2  6.1   separate streams, sudo warns on stderr          a drive, one that aborts the third
            segment of every download, one after it; and a link to a drive that is gone
  h3  6.12  merged streams, sudo warns                      a slow drive and two more

Scenarios (all by default, in this order, or those named):
  rollout     discovery, become, SHA-256, target revision, batches of two
  streams     h2 again with merged streams: the same words of the tool, nobody else's
  dropped     h1's connection cut in the middle of the slow drive's download; a second run
              while that download goes on (busy, its folder kept), a third once it has ended
  interrupt   h1's update service stopped in the middle of the slow drive's download: the tool
              ends it as interrupted (exit code 3) and says what the drive holds, the role reports
              that, and a second run finishes the drive
  stalled     h3's network cut in its slow drive's download: ssh's keep-alive ends the wait;
              a rerun once the download has ended
  timing      the role's own time per drive and per host: one host, one more drive, three hosts

Usage: fleet_vm.py --exe build/linux/quenmark --image-tool build/linux/quenmark-sim-image
                   [--qemu PATH] [--qemu-arg ARG]... [--role-from DIR] [--keep] [SCENARIO...]
Without a QEMU that takes firmware every download is aborted: the scenarios check what can be
checked then, and say so.
"""
import argparse
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEPLOY = os.path.dirname(os.path.dirname(HERE))
ROOT = os.path.dirname(os.path.dirname(DEPLOY))
sys.path.insert(0, os.path.join(ROOT, "tests", "qemu"))
import vm as vmlib  # noqa: E402

FLEET_MODEL = "QUENMARK FLEET SSD"
OTHER_MODEL = "QUENMARK ARCHIVE HDD"
START = "QF01"
GONE = "/dev/disk/by-id/ata-QUENMARK_FLEET_SSD_QF2009"

# name, kernel, the connection keeps the streams apart, the host's name resolves, drives as
# (kind, serial): ok, slow, abort (the third segment of every download), other (another model).
HOSTS = [
    ("h1", "6.1", False, True, [("slow", "QF1001"), ("other", "QA1002"), ("ok", "QF1003"), ("ok", "QF1004")]),
    ("h2", "6.1", True, False, [("ok", "QF2001"), ("abort", "QF2002"), ("ok", "QF2003")]),
    ("h3", "6.12", False, False, [("slow", "QF3001"), ("ok", "QF3002"), ("ok", "QF3003")]),
]
SLOW_MS = 2000
SEGMENT_BLOCKS = 8      # a 64 KiB image in 16 segments
IMAGE_BYTES = 65536


class Host:
    def __init__(self, name, kernel, separate, resolvable, drives):
        self.name, self.kernel_label, self.separate, self.resolvable = name, kernel, separate, resolvable
        self.drives = drives  # vmlib.Drive, with .kind
        self.vm = None

    def by_kind(self, kind):
        return [d for d in self.drives if d.kind == kind]


class Suite:
    def __init__(self, options):
        self.options = options
        self.work = tempfile.mkdtemp(prefix="quenmark-fleet-vm.")
        self.problems = []
        self.patched = False
        self.hosts = []
        self.images = {}
        self.results = []
        self.figures = []
        self.rollouts = 0

    # --- Setting up ------------------------------------------------------------------------

    def log(self, text):
        print(text, flush=True)

    def setup(self):
        started = time.monotonic()
        rootfs = vmlib.root_fs(log=self.log)
        kernels = {label: vmlib.kernel(label) for label in ("6.1", "6.12")}
        help_text = subprocess.run([self.options.qemu] + self.options.qemu_arg + ["-device", "ide-hd,help"],
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout
        self.patched = "download-microcode" in help_text
        self.log("QEMU %s: %s" % (self.options.qemu, "its drives take firmware" if self.patched else
                                   "its drives abort DOWNLOAD MICROCODE (not the suite's build): only what "
                                   "can be checked without an update is checked"))
        for revision in ("QF02", "QF03", "QF04", "QF05"):
            path = os.path.join(self.work, revision + ".LOD")
            subprocess.run([self.options.image_tool, "--revision", revision, "--size", str(IMAGE_BYTES), "-o", path],
                           check=True, stdout=subprocess.DEVNULL)
            self.images[revision] = path
        key = os.path.join(self.work, "id_ed25519")
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "quenmark-fleet-vm", "-f", key], check=True)
        public = open(key + ".pub").read().strip()
        for name, label, separate, resolvable, kinds in HOSTS:
            folder = os.path.join(self.work, name)
            os.makedirs(folder)
            drives = []
            for number, (kind, serial) in enumerate(kinds):
                image = os.path.join(folder, "drive%d.img" % number)
                vmlib.make_disk(image, 8, "%s-%s" % (name, serial))
                extra = {}
                if self.patched:
                    extra["download-microcode"] = "on"
                    if kind == "slow":
                        extra["dm-delay-ms"] = SLOW_MS
                    if kind == "abort":
                        extra["dm-fail-segment"] = 3
                drive = vmlib.Drive(image, OTHER_MODEL if kind == "other" else FLEET_MODEL, serial,
                                    "QA07" if kind == "other" else START, extra)
                drive.kind = kind
                drive.sha256 = vmlib.sha256_file(image)
                drives.append(drive)
            host = Host(name, label, separate, resolvable, drives)
            host.vm = vmlib.VM(name, folder, rootfs, kernels[label], drives, public, qemu=self.options.qemu,
                               qemu_args=self.options.qemu_arg, resolvable=resolvable)
            self.hosts.append(host)
        for host in self.hosts:
            host.vm.start()
        ups = ["%s %.0f s" % (host.name, host.vm.wait_ssh()) for host in self.hosts]
        self.key, self.known_hosts, _ = vmlib.ssh_files(self.work, rootfs, [h.vm for h in self.hosts])
        # The tool beside the role's folders, for the checks on the host side.
        for host in self.hosts:
            self.scp(host, self.options.exe, "/tmp/quenmark-check")
            self.ssh(host, "sudo install -m 0755 /tmp/quenmark-check /usr/local/sbin/quenmark-check && rm /tmp/quenmark-check")
        # h2 lists a drive that is gone: its link stays, the disk behind it does not exist.
        self.ssh(self.host("h2"), "sudo ln -sf ../../sdz %s" % GONE)
        self.log("3 VMs up side by side (%s), ready after %.0f s" % (", ".join(ups), time.monotonic() - started))

    def host(self, name):
        return [h for h in self.hosts if h.name == name][0]

    def ssh_command(self, host):
        return ["ssh", "-i", self.key, "-o", "UserKnownHostsFile=" + self.known_hosts, "-o", "StrictHostKeyChecking=yes",
                "-o", "BatchMode=yes", "-o", "IdentitiesOnly=yes", "-o", "ConnectTimeout=20",
                "-p", str(host.vm.port), "%s@127.0.0.1" % vmlib.USER]

    def ssh(self, host, command, check=True, timeout=120):
        done = subprocess.run(self.ssh_command(host) + [command], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, timeout=timeout)
        if check and done.returncode != 0:
            raise RuntimeError("%s: %s: exit code %d\n%s%s" % (host.name, command, done.returncode, done.stdout,
                                                                done.stderr))
        return done

    def scp(self, host, source, target):
        subprocess.run(["scp", "-q", "-i", self.key, "-o", "UserKnownHostsFile=" + self.known_hosts,
                        "-o", "BatchMode=yes", "-P", str(host.vm.port), source,
                        "%s@127.0.0.1:%s" % (vmlib.USER, target)], check=True)

    # --- What the hosts hold ---------------------------------------------------------------

    def revisions(self, host):
        """Each drive's revision as its IDENTIFY data give it now, read with the tool on the host
        (a drive that a run holds is read once it is free)."""
        script = "; ".join("for try in $(seq 60); do sudo quenmark-check %s /i >/tmp/r 2>&1; rc=$?; "
                           "[ $rc = 2 ] || break; sleep 1; done; echo \"== %s $rc $(sed -n 's/^  FW: //p' /tmp/r)\""
                           % (d.by_id(), d.serial) for d in host.drives)
        found = {}
        for line in self.ssh(host, script, timeout=300).stdout.splitlines():
            if line.startswith("== "):
                _, serial, rc, *firmware = line.split()
                found[serial] = firmware[0] if firmware and rc == "10" else "(exit code %s)" % rc
        return found

    def leftovers(self, host):
        return self.ssh(host, "ls -d /tmp/quenmark.* 2>/dev/null; true").stdout.split()

    def tool_running(self, host):
        return self.ssh(host, "pgrep -f '[/]quenmark /dev/disk/by-id/.* /D:' >/dev/null && echo yes; true").stdout.strip() == "yes"

    # --- The rollout -----------------------------------------------------------------------

    def inventory(self, hosts, group_vars, host_vars=None):
        hosts_vars = {}
        for host in hosts:
            values = {"ansible_host": "127.0.0.1", "ansible_port": host.vm.port, "ansible_user": vmlib.USER,
                      "ansible_ssh_private_key_file": self.key,
                      "ansible_ssh_common_args": "-o UserKnownHostsFile=%s -o StrictHostKeyChecking=yes "
                                                 "-o IdentitiesOnly=yes" % self.known_hosts,
                      # One control master per host and run, so that a test can cut one.
                      "ansible_control_path": os.path.join(self.control_dir, host.name)}
            if host.separate:
                values["ansible_ssh_use_tty"] = False
            values.update((host_vars or {}).get(host.name, {}))
            hosts_vars[host.name] = values
        return {"quenmark": {"hosts": hosts_vars, "vars": group_vars}}

    def rollout(self, label, hosts, group_vars, batch, host_vars=None, watch=None, deploy=None):
        """Runs rollout.yml; watch(line) sees each line of its output as it comes."""
        folder = os.path.join(self.work, "runs", label)
        os.makedirs(folder)
        self.control_dir = os.path.join(self.work, "cp-%s" % label)
        os.makedirs(self.control_dir)
        inventory = os.path.join(folder, "inventory.json")
        with open(inventory, "w") as f:
            json.dump(self.inventory(hosts, group_vars, host_vars), f, indent=1)
        home = os.path.join(self.work, "home")
        os.makedirs(home, exist_ok=True)
        deploy = deploy or DEPLOY
        env = dict(os.environ, HOME=home, ANSIBLE_CONFIG=os.path.join(deploy, "ansible.cfg"), ANSIBLE_NOCOLOR="1",
                   ANSIBLE_FORCE_COLOR="0", ANSIBLE_LOCAL_TEMP=os.path.join(home, "tmp"),
                   ANSIBLE_LOG_PATH=os.path.join(folder, "ansible.log"),
                   QUENMARK_SUMMARY_JSON=os.path.join(folder, "summary.json"))
        command = ["ansible-playbook", "-i", inventory, "rollout.yml", "-e", "quenmark_batch_size=%d" % batch]
        started = time.monotonic()
        lines = []
        with subprocess.Popen(command, cwd=deploy, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True) as process:
            for line in process.stdout:
                lines.append(line)
                if watch:
                    watch(line)
        run = Run(label, process.returncode, "".join(lines), time.monotonic() - started, folder)
        with open(os.path.join(folder, "out.txt"), "w") as f:
            f.write(run.out)
        self.last_run = run
        self.rollouts += 1
        return run

    def cut(self, host):
        """Drops the host's SSH connection as a dying controller would: its control master is
        killed, and with it every session through it."""
        path = os.path.join(self.control_dir, host.name)
        for cmdline in glob.glob("/proc/[0-9]*/cmdline"):
            try:
                text = open(cmdline, "rb").read().decode(errors="replace")
            except OSError:
                continue
            if path in text and "[mux]" in text:
                os.kill(int(cmdline.split("/")[2]), signal.SIGKILL)
                return True
        return False

    # --- Checks ----------------------------------------------------------------------------

    def problem(self, text):
        self.problems.append(text)

    def expect(self, condition, text):
        if not condition:
            self.problem(text)

    def expect_summary(self, run, host, device, wanted):
        got = run.summary(host, device)
        self.expect(wanted in got, "%s %s: summary %r, expected %r" % (host, device, got, [wanted]))

    def expect_revisions(self, host, wanted):
        got = self.revisions(host)
        for drive in host.drives:
            want = wanted.get(drive.serial)
            if want:
                self.expect(got.get(drive.serial) == want, "%s %s: IDENTIFY reports %s, expected %s" % (
                    host.name, drive.serial, got.get(drive.serial), want))
        return got

    def expect_data_unchanged(self):
        for host in self.hosts:
            for drive in host.drives:
                self.expect(vmlib.sha256_file(drive.image) == drive.sha256,
                            "%s %s: the data on the disk changed" % (host.name, drive.serial))

    def expect_clean(self, host):
        left = self.leftovers(host)
        self.expect(not left, "%s: working folders left: %s" % (host.name, " ".join(left)))

    def expect_words_only(self, run, host):
        """What the role reports for the host quotes nobody but the tool."""
        for line in run.host_lines(host.name):
            for stranger in ("Shared connection", "sudo:", "unable to resolve", "BECOME-SUCCESS"):
                self.expect(stranger not in line, "%s: the report quotes %r: %s" % (host.name, stranger, line))

    def scenario(self, name, title, function):
        self.problems = []
        self.last_run = None
        started = time.monotonic()
        try:
            function()
        except Exception as error:  # a scenario that could not go on is a failed one
            self.problem("%s: %s" % (type(error).__name__, error))
        seconds = time.monotonic() - started
        if self.problems:
            self.log("FAIL  %s (%.0f s)" % (title, seconds))
            for text in self.problems:
                self.log("        " + text)
            if self.last_run:
                self.log("        (the rollout's summary and the host's report of the last run:)")
                for line in self.last_run.tail():
                    self.log("        | " + line)
        else:
            self.log("PASS  %s (%.0f s)" % (title, seconds))
        self.results.append((name, not self.problems))

    # --- Scenarios -------------------------------------------------------------------------

    def group_vars(self, revision, **more):
        values = {"quenmark_binary": os.path.abspath(self.options.exe),
                  "quenmark_devices": "discover", "quenmark_expected_model": FLEET_MODEL,
                  "quenmark_image": self.images[revision], "quenmark_image_sha256": vmlib.sha256_file(self.images[revision]),
                  "quenmark_target_revision": revision, "quenmark_mode": "segmented",
                  "quenmark_segment_blocks": SEGMENT_BLOCKS,
                  "quenmark_record_file": os.path.join(self.work, "records.jsonl")}
        values.update(more)
        return values

    def records(self, since=0):
        """The record file's lines from line since on, each decoded."""
        path = os.path.join(self.work, "records.jsonl")
        lines = open(path).read().splitlines() if os.path.exists(path) else []
        return [json.loads(line) for line in lines[since:]]

    def s_rollout(self):
        h1, h2, h3 = (self.host(n) for n in ("h1", "h2", "h3"))
        # h1 and h3 in the first batch, h2 (whose second drive aborts) in the second.
        run = self.rollout("rollout", [h1, h3, h2], self.group_vars("QF02"), batch=2)
        self.expect(run.rc != 0, "ansible-playbook ended with 0, expected a failure (h2's aborting drive)")
        other = h1.by_kind("other")[0]
        self.expect_summary(run, "h1", other.by_id(), "%s %s: QA07, skipped: the drive model is not %s" % (
            OTHER_MODEL, other.serial, FLEET_MODEL))
        if self.patched:
            self.expect(run.count("PLAY [Roll out drive firmware]") == 2, "the rollout did not run in two batches")
            self.expect_summary(run, "h2", GONE, "skipped: the tool said \"CreateFileW INVALID_HANDLE_VALUE Error: 2\"; "
                                                 "nothing was sent (exit code 2)")
            for host in (h1, h3):
                for drive in host.drives:
                    if drive.kind != "other":
                        self.expect_summary(run, host.name, drive.by_id(), "%s %s: QF01 -> QF02, updated" % (
                            FLEET_MODEL, drive.serial))
            ok, abort, after = h2.drives
            self.expect_summary(run, "h2", ok.by_id(), "QF01 -> QF02, updated")
            self.expect_summary(run, "h2", abort.by_id(), "%s %s: QF01 -> QF01, failed: the drive failed a command (exit code 1)"
                                % (FLEET_MODEL, abort.serial))
            self.expect_summary(run, "h2", after.by_id(), "QF01, not tried: the host stopped at %s" % abort.by_id())
            self.expect("CHECK CONDITION" in "\n".join(run.host_lines("h2")),
                        "h2: the tool's output of the aborted download is not in its report")
            self.expect_revisions(h1, {"QF1001": "QF02", "QA1002": "QA07", "QF1003": "QF02", "QF1004": "QF02"})
            self.expect_revisions(h3, {d.serial: "QF02" for d in h3.drives})
            self.expect_revisions(h2, {"QF2001": "QF02", "QF2002": START, "QF2003": START})
        else:
            # Every download is aborted: the first drive of the model stops its host, the first
            # batch stops the rollout.
            for host in (h1, h3):
                first = [d for d in host.drives if d.kind != "other"][0]
                self.expect_summary(run, host.name, first.by_id(), "QF01 -> QF01, failed: the drive failed a command (exit code 1)")
                self.expect("CHECK CONDITION" in "\n".join(run.host_lines(host.name)),
                            "%s: the tool's output of the aborted download is not in its report" % host.name)
            self.expect_summary(run, "h2", "-", "not tried: the rollout stopped before its batch")
            for host in self.hosts:
                self.expect_revisions(host, dict((d.serial, d.revision) for d in host.drives))
        for host in self.hosts:
            self.expect_words_only(run, host)
            self.expect_clean(host)
        self.expect_data_unchanged()

    def s_streams(self):
        # h2 again, now with the terminal that merges its streams (sudo still warns there).
        h2 = self.host("h2")
        run = self.rollout("streams", [h2], self.group_vars("QF02"), batch=1,
                           host_vars={"h2": {"ansible_ssh_use_tty": True}})
        self.expect(run.rc != 0, "ansible-playbook ended with 0, expected a failure")
        self.expect_summary(run, "h2", GONE, "skipped: the tool said \"CreateFileW INVALID_HANDLE_VALUE Error: 2\"; "
                                             "nothing was sent (exit code 2)")
        ok, abort, after = h2.drives
        if self.patched:
            self.expect_summary(run, "h2", ok.by_id(), "QF02, current: the drive already runs QF02")
        # Without a QEMU that takes firmware, the first drive aborts.
        self.expect_summary(run, "h2", (abort if self.patched else ok).by_id(),
                            "failed: the drive failed a command (exit code 1)")
        self.expect("CHECK CONDITION" in "\n".join(run.host_lines("h2")),
                    "h2: the tool's output of the aborted download is not in its report")
        self.expect_words_only(run, h2)
        self.expect_clean(h2)

    def s_dropped(self):
        h1, h3 = self.host("h1"), self.host("h3")
        slow = h1.by_kind("slow")[0]
        state = {"cut": False, "running": None}

        def watch(line):
            # h1 is alone in the first batch: its first update is the slow drive's.
            if not state["cut"] and line.startswith("TASK [quenmark_firmware : Update the firmware]"):
                state["cut"] = True
                time.sleep(5)
                state["running"] = self.tool_running(h1)
                state["killed"] = self.cut(h1)
        vars_ = self.group_vars("QF03")
        run = self.rollout("dropped", [h1, h3], vars_, batch=1, watch=watch)
        self.expect(state.get("killed"), "h1: no control master to cut")
        self.expect(state["running"], "h1: the tool was not in the download when the connection was cut")
        self.expect(run.rc != 0, "ansible-playbook ended with 0 after a dropped connection")
        self.expect("fatal: [h1]: UNREACHABLE!" in run.out, "h1 was not reported unreachable")
        self.expect_summary(run, "h1", "-", "could not be reached; the state of its drives is unknown")
        self.expect_summary(run, "h3", "-", "not tried: the rollout stopped before its batch")
        if self.patched:
            self.expect(self.tool_running(h1), "h1: the tool did not go on after the connection was cut")
        # A second run while the download goes on: the drive is busy, its folder kept.
        run = self.rollout("dropped-busy", [h1, h3], vars_, batch=1)
        if self.patched:
            self.expect_summary(run, "h1", slow.by_id(), "busy: a run is still in progress")
            for drive in h1.by_kind("ok"):
                self.expect_summary(run, "h1", drive.by_id(), "QF02 -> QF03, updated")
            self.expect_summary(run, "h1", "-", "of an earlier run, kept: a run still holds %s" % slow.by_id())
            self.expect(run.rc != 0, "ansible-playbook ended with 0 with a busy drive")
            self.expect_summary(run, "h3", "-", "not tried: the rollout stopped before its batch")
        # Once the first run's download has ended, the drive holds what it finished: QF03.
        deadline = time.monotonic() + 120
        while self.patched and self.tool_running(h1) and time.monotonic() < deadline:
            time.sleep(2)
        if self.patched:
            self.expect_revisions(h1, {slow.serial: "QF03"})
        run = self.rollout("dropped-rerun", [h1, h3], vars_, batch=1)
        if self.patched:
            self.expect(run.rc == 0, "the third run ended with %d, expected 0" % run.rc)
            for drive in h1.drives:
                if drive.kind != "other":
                    self.expect_summary(run, "h1", drive.by_id(), "QF03, current: the drive already runs QF03")
            self.expect_summary(run, "h1", "-", "of an earlier run, removed: no run used it")
            for drive in h3.drives:
                self.expect_summary(run, "h3", drive.by_id(), "QF02 -> QF03, updated")
            self.expect_revisions(h3, {d.serial: "QF03" for d in h3.drives})
        self.expect_clean(h1)
        self.expect_clean(h3)

    def s_interrupt(self):
        # h1's slow drive takes 2 s per segment, 32 s for its download: its update service is
        # stopped (SIGTERM to the step, which passes it on to the tool) 5 s into it.
        h1 = self.host("h1")
        slow = h1.by_kind("slow")[0]
        state = {"stopped": None}
        before = self.revisions(h1)[slow.serial]

        def watch(line):
            if state["stopped"] is None and line.startswith("TASK [quenmark_firmware : Update the firmware]"):
                time.sleep(5)
                state["running"] = self.tool_running(h1)
                began = time.monotonic()
                state["stop"] = self.ssh(h1, "sudo systemctl stop 'quenmark-*.service'", check=False)
                state["stopped"] = time.monotonic() - began
        first = len(self.records())
        run = self.rollout("interrupt", [h1], self.group_vars("QF04"), batch=1, watch=watch)
        self.expect(state["stopped"] is not None, "h1: no update began, so nothing was stopped")
        if state["stopped"] is None:
            return
        self.expect(state["stop"].returncode == 0, "h1: systemctl stop ended with %d: %s" % (
            state["stop"].returncode, state["stop"].stderr.strip()))
        self.log("        the update's service stopped %.1f s after systemctl stop began (a segment takes %.0f s)"
                 % (state["stopped"], SLOW_MS / 1000))
        self.expect(run.rc != 0, "ansible-playbook ended with 0, expected the interrupted drive to fail h1")
        if not self.patched:
            return
        self.expect(state["running"], "h1: the tool was not in the download when its service was stopped")
        got = run.summary("h1", slow.by_id())
        match = re.match(r'%s %s: %s -> %s, failed: the tool said "Interrupted \(shutdown or termination\) after (\d+) '
                         r'of 16 DOWNLOAD MICROCODE transfers in mode 0x03: the drive discards an incomplete download '
                         r'and keeps its firmware; it reports firmware revision %s\." \(exit code 3\)$'
                         % (FLEET_MODEL, slow.serial, before, before, before), got)
        self.expect(match and 1 <= int(match.group(1)) < 16,
                    "h1: the interrupted drive's summary %r, expected the tool's words and the revision after it" % got)
        for drive in h1.by_kind("ok"):
            self.expect_summary(run, "h1", drive.by_id(), "not tried: the host stopped at %s" % slow.by_id())
        # The record file holds the update's document: interrupted, and the revision after it.
        updates = [r for r in self.records(first) if r["step"] == "update" and r["device"] == slow.by_id()]
        document = (updates[-1]["record"] or {}) if updates else {}
        self.expect(updates and updates[-1]["exit_code"] == 3 and document.get("outcome", {}).get("result") == "interrupted"
                    and document.get("firmware_after") == before,
                    "h1: the record file's update of the slow drive: %s" % (updates[-1] if updates else "none"))
        self.expect_revisions(h1, {slow.serial: before})
        self.expect(not self.tool_running(h1), "h1: the tool still runs after its service was stopped")
        self.expect_clean(h1)
        self.expect_words_only(run, h1)
        # A second run finishes the drive, and the drives the host did not get to.
        run = self.rollout("interrupt-rerun", [h1], self.group_vars("QF04"), batch=1)
        self.expect(run.rc == 0, "the second run ended with %d, expected 0" % run.rc)
        self.expect_summary(run, "h1", slow.by_id(), "%s -> QF04, updated" % before)
        for drive in h1.by_kind("ok"):
            self.expect_summary(run, "h1", drive.by_id(), "-> QF04, updated")
        self.expect_revisions(h1, {d.serial: "QF04" for d in h1.drives if d.kind != "other"})
        self.expect_clean(h1)

    def s_stalled(self):
        # h3's network cut while its slow drive downloads (the dropped connection was h1's, on the
        # other kernel): ssh's keep-alive gives up on the host, which is reported unreachable; the
        # download goes on and ends.
        h3 = self.host("h3")
        slow = h3.by_kind("slow")[0]
        state = {"cut": None, "running": None}

        def watch(line):
            if state["cut"] is None and line.startswith("TASK [quenmark_firmware : Update the firmware]"):
                time.sleep(5)
                state["running"] = self.tool_running(h3)
                h3.vm.set_link(False)
                state["cut"] = time.monotonic()
        run = self.rollout("stalled", [h3], self.group_vars("QF04"), batch=1, watch=watch)
        h3.vm.set_link(True)
        self.expect(state["cut"], "h3: no update began, so nothing was cut")
        if state["cut"]:
            noticed = time.monotonic() - state["cut"]
            self.log("        the cut noticed and the rollout ended %.0f s after it (keep-alive: 3 x 10 s)" % noticed)
            self.expect(noticed < 90, "the rollout ended %.0f s after the cut" % noticed)
        if self.patched:
            self.expect(state["running"], "h3: the tool was not in the download when the network was cut")
        self.expect("fatal: [h3]: UNREACHABLE!" in run.out, "h3 was not reported unreachable")
        self.expect_summary(run, "h3", "-", "could not be reached; the state of its drives is unknown")
        deadline = time.monotonic() + 120
        while self.patched and self.tool_running(h3) and time.monotonic() < deadline:
            time.sleep(2)
        run = self.rollout("stalled-rerun", [h3], self.group_vars("QF04"), batch=1)
        if self.patched:
            self.expect(run.rc == 0, "the rerun ended with %d, expected 0" % run.rc)
            self.expect_summary(run, "h3", slow.by_id(), "QF04, current: the drive already runs QF04")
            for drive in h3.by_kind("ok"):
                self.expect_summary(run, "h3", drive.by_id(), "QF03 -> QF04, updated")
            self.expect_summary(run, "h3", "-", "of an earlier run, removed: no run used it")
        self.expect_clean(h3)

    def s_timing(self):
        """Printed, not asserted: the machine may be busy. A drive's own time is the span from the
        start of its update task to the next one's (or to the removal of the working folder),
        less the tool's runs in it; a host's fixed cost is the rest of the rollout's time, less
        the tool's reads at the start."""
        if not self.patched:
            self.log("        (no figures: without a QEMU that takes firmware no update goes through)")
            return
        h1, h2, h3 = (self.host(n) for n in ("h1", "h2", "h3"))
        named = {h.name: [d.by_id() for d in h.drives if d.kind == "ok"][:2] for h in self.hosts}
        roles = [("this role", DEPLOY)]
        if self.options.role_from:
            roles.append(("the role of --role-from", os.path.abspath(self.options.role_from)))
            self.log("        (--role-from: %s)" % self.options.role_from)
        if not self.rollouts:
            # VMs that have just booted start every program from a cold page cache: each role
            # runs once, one drive per host, before anything is measured.
            for role, deploy in roles:
                self.rollout("timing-warm-up-%s" % ("new" if deploy == DEPLOY else "old"), self.hosts,
                             self.group_vars("QF05", quenmark_target_revision=""), batch=len(self.hosts), deploy=deploy,
                             host_vars={h.name: {"quenmark_devices": named[h.name][:1]} for h in self.hosts})
        step_tool = None
        self.log("        %-24s %-36s %7s %9s %9s" % ("", "", "rollout", "per drive", "per host"))
        for role, deploy in roles:
            # Two drives of each host by name: none of the slow or aborting ones.
            for hosts in ([h3], [h1, h2, h3]):
                label = "timing-%d-%s" % (len(hosts), "new" if deploy == DEPLOY else "old")
                run = self.rollout(label, hosts, self.group_vars("QF05", quenmark_target_revision=""), batch=len(hosts),
                                   deploy=deploy, host_vars={h.name: {"quenmark_devices": named[h.name]} for h in hosts})
                self.expect(run.rc == 0, "%s: ansible-playbook ended with %d" % (label, run.rc))
                spans = run.drive_spans()
                tools = run.tool_by_host(steps=True)
                if deploy == DEPLOY and tools:
                    # The tool's runs of one update (its reads before and after included).
                    step_tool = sum(tools.values()) / (len(hosts) * 2)
                if step_tool is None:
                    self.log("        (no figures for %s: no measured run of the tool to take off)" % role)
                    continue
                # Side by side, a drive's span lasts as long as the slowest host's update.
                per_drive = sum(spans) / len(spans) - step_tool if spans else float("nan")
                fixed = run.seconds - sum(spans) - run.survey_seconds()
                self.log("        %-24s %-36s %6.1fs %8.2fs %8.2fs" % (
                    role, "%d host%s, 2 drives each" % (len(hosts), "s side by side" if len(hosts) > 1 else ""),
                    run.seconds, per_drive, fixed / len(hosts) if len(hosts) > 1 else fixed))
        self.log("        (per host: a host's fixed cost, its share of the rollout when side by side; the tool's "
                 "own time %.1f s per update is taken off; goals: under 1.5 s per drive, the fixed cost per host "
                 "halved; measured, not asserted)" % (step_tool or 0))

    # --- Running ---------------------------------------------------------------------------

    def finish(self):
        for host in self.hosts:
            if host.vm:
                host.vm.stop()
        if self.hosts and all(h.vm.process for h in self.hosts):
            before = list(self.problems)
            self.problems = []
            self.expect_data_unchanged()
            if self.problems:
                self.log("FAIL  the data on every drive after the VMs stopped")
                for text in self.problems:
                    self.log("        " + text)
                self.results.append(("data", False))
            self.problems = before
        if self.options.keep or not all(ok for _, ok in self.results):
            self.log("work folder kept: " + self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)


class Run:
    def __init__(self, label, rc, out, seconds, folder):
        self.label, self.rc, self.out, self.seconds, self.folder = label, rc, out, seconds, folder
        path = os.path.join(folder, "summary.json")
        self.document = json.load(open(path)) if os.path.exists(path) else {}

    def count(self, text):
        return self.out.count(text)

    def summary_lines(self):
        lines = self.out.splitlines()
        starts = [n for n, line in enumerate(lines) if line.startswith("QUENMARK SUMMARY ")]
        found = []
        for line in lines[starts[-1] + 1:] if starts else []:
            if not line.strip():
                break
            found.append(line)
        return found

    def summary(self, host, device):
        """The summary's lines of a host's device ('-' for the host's own lines), joined."""
        texts = []
        for line in self.summary_lines():
            parts = line.split(None, 2)
            if len(parts) == 3 and parts[0] == host and parts[1] == device:
                texts.append(parts[2])
        return " | ".join(texts)

    def host_lines(self, host):
        """What the role reported for the host: its summary lines and its results task."""
        lines = [l for l in self.summary_lines() if l.split(None, 1)[:1] == [host]]
        capture = False
        for line in self.out.splitlines():
            if line.startswith(("ok: [%s]" % host, "fatal: [%s]" % host)) and "=>" in line:
                capture = True
            elif capture and (line.startswith(("ok: [", "fatal: [", "TASK [", "PLAY ")) or not line.strip()):
                capture = False
            if capture:
                lines.append(line)
        return lines

    def tool_by_host(self, steps=False):
        """The tool's own time on each host, from the records: every run, or only the updates'."""
        return {host: sum(float(d.get("tool_seconds") or 0) for d in value.get("drives") or [])
                for host, value in self.document.items()}

    def tool_seconds(self):
        return sum(self.tool_by_host().values())

    def survey_seconds(self):
        return sum(float(value.get("survey_seconds") or 0) for value in self.document.values())

    def drive_spans(self):
        """From the log: the spans from each drive's first task to the next drive's, the last one
        to the removal of the working folder; the hosts of a batch share each one."""
        starts, ends = [], []
        log = open(os.path.join(self.folder, "ansible.log")).read()
        # A drive's first task: this role's update, or an older role's first read.
        first = ("Read the drive report before the update" if "Read the drive report before the update" in log
                 else "Update the firmware")
        for line in log.splitlines():
            match = re.match(r"(\S+ \S+) .*\| TASK \[quenmark_firmware : (.*?)\]", line)
            if not match:
                continue
            stamp = time.mktime(time.strptime(match.group(1)[:19], "%Y-%m-%d %H:%M:%S")) + float(
                "0." + match.group(1)[20:])
            if match.group(2) == first:
                starts.append(stamp)
            elif match.group(2) in ("Remove the working folder and the leftovers no run uses",
                                    "Remove the working folder from the host") and starts and not ends:
                ends.append(stamp)
        marks = starts + ends[:1]
        return [b - a for a, b in zip(marks, marks[1:])]

    def tail(self):
        """The summary, then each host's results with the output of the run that stopped it."""
        lines = self.summary_lines()
        capture = False
        for line in self.out.splitlines():
            if line.startswith("TASK [quenmark_firmware : Show the drives' results]"):
                capture = True
            elif line.startswith(("TASK [", "PLAY ")):
                capture = False
            if capture:
                lines.append(line)
        return lines[:150] + ["(output: %s)" % os.path.join(self.folder, "out.txt")]


SCENARIOS = [
    ("rollout", "discovery by model over SSH with become, SHA-256, target revision, batches of two", "s_rollout"),
    ("streams", "merged streams with sudo's warnings: the summary quotes the tool alone", "s_streams"),
    ("dropped", "a dropped connection mid-download, a rerun while it goes on (busy), a rerun after it", "s_dropped"),
    ("interrupt", "the update's service stopped mid-download: the tool's words, the drive's revision, a rerun finishes",
     "s_interrupt"),
    ("stalled", "a cut network mid-download: keep-alive ends the wait, the drives' state unknown, a rerun reads them",
     "s_stalled"),
    ("timing", "the role's own time per drive and per host, one host and three side by side", "s_timing"),
]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--image-tool", required=True)
    parser.add_argument("--qemu", default="qemu-system-x86_64")
    parser.add_argument("--qemu-arg", action="append", default=[])
    parser.add_argument("--role-from", help="the timing with another copy of deploy/ansible (a folder)")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("scenarios", nargs="*")
    options = parser.parse_args()
    names = [s[0] for s in SCENARIOS]
    unknown = [n for n in options.scenarios if n not in names]
    if unknown:
        print("no such scenario: %s (%s)" % (" ".join(unknown), " ".join(names)), file=sys.stderr)
        return 2
    suite = Suite(options)
    begun = time.monotonic()
    try:
        suite.setup()
        for name, title, method in SCENARIOS:
            if not options.scenarios or name in options.scenarios:
                suite.scenario(name, title, getattr(suite, method))
    finally:
        suite.finish()
    failed = [n for n, ok in suite.results if not ok]
    print("%d passed, %d failed (%.0f s in all)" % (len(suite.results) - len(failed), len(failed),
                                                    time.monotonic() - begun))
    return 1 if failed or not suite.results else 0


if __name__ == "__main__":
    sys.exit(main())
