#!/usr/bin/env python3
"""Real signals and a closed standard output against a running quenmark-sim, in the middle of a
segmented download whose every DOWNLOAD MICROCODE takes real time (the drive's downloadDelayMs).
The signal goes out once the download has begun (its warning is on standard output), so no
timing but the drive's own delay decides where it lands. Checks the exit code, the outcome line and the call log: the command with the drive completes,
nothing follows it but the closing IDENTIFY DEVICE, and the line counts what the log shows.

Usage: run_signals.py --exe build/linux/quenmark-sim --image-tool build/linux/quenmark-sim-image
"""
import argparse
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

SEGMENTS = 8  # 256 KiB in segments of 64 blocks
DELAY_MS = 150

MACHINE = {
    "drives": [{"id": "d0", "model": "QSIM TEST DRIVE", "serial": "QT00000042",
                "firmware": "QT010000", "downloadDelayMs": DELAY_MS}],
    "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}],
}


def start(options, work, name, args, stdout=subprocess.PIPE):
    machine = os.path.join(work, name + ".json")
    with open(machine, "w") as f:
        json.dump(MACHINE, f)
    env = dict(os.environ, QUENMARK_SIM_MACHINE=machine,
               QUENMARK_SIM_LOG=os.path.join(work, name + ".log"))
    return subprocess.Popen([options.exe, "\\\\.\\PhysicalDrive0", "/D:" + options.image] + args,
                            stdout=stdout, stderr=subprocess.PIPE, env=env)


def downloads(work, name):
    with open(os.path.join(work, name + ".log")) as f:
        log = f.read().splitlines()
    sent = [i for i, line in enumerate(log) if "DOWNLOAD MICROCODE" in line]
    identify_after = any("IDENTIFY DEVICE" in line for line in log[sent[-1]:]) if sent else False
    return len(sent), identify_after


def firmware_after(work, name):
    with open(os.path.join(work, name + ".json")) as f:
        return json.load(f)["drives"][0]["state"]["firmware"]


def wait_for_download(run):
    """Reads standard output up to the warning printed just before the first segment."""
    seen = b""
    while b"PLEASE DO NOT CLOSE" not in seen:
        chunk = os.read(run.stdout.fileno(), 4096)
        if not chunk:
            break
        seen += chunk


def signal_mid_download(options, work, number, event_name, twice=False):
    """One signal (or two, 40 ms apart) while the second segment is with the drive."""
    name = "sig%d%s" % (number, "x2" if twice else "")
    run = start(options, work, name, ["/s"])
    wait_for_download(run)
    time.sleep(1.5 * DELAY_MS / 1000)
    run.send_signal(number)
    if twice:
        time.sleep(0.04)
        run.send_signal(number)
    _, err = run.communicate(timeout=30)
    err = err.decode()
    problems = []
    if run.returncode != 3:
        problems.append("exit code %d, expected 3" % run.returncode)
    sent, identified = downloads(work, name)
    if not 1 <= sent < SEGMENTS:
        problems.append("%d of %d segments sent" % (sent, SEGMENTS))
    if not identified:
        problems.append("no IDENTIFY DEVICE after the last segment")
    line = "Interrupted (%s) after %d of %d DOWNLOAD MICROCODE transfers in mode 0x03: the drive " \
           "discards an incomplete download and keeps its firmware; it reports firmware " \
           "revision QT010000.\n" % (event_name, sent, SEGMENTS)
    if not err.endswith(line):
        problems.append("stderr %r, expected it to end with %r" % (err, line))
    again = "Interrupted again: the DOWNLOAD MICROCODE with the drive cannot be recalled; the " \
            "run stops when the drive answers.\n"
    if twice and again not in err:
        problems.append("no line for the second interrupt: %r" % err)
    if firmware_after(work, name) != "QT010000":
        problems.append("the firmware changed")
    return problems


def closed_stdout(options, work):
    """The reader of standard output goes away after the first bytes: the run goes on."""
    reader, writer = os.pipe()
    run = start(options, work, "closed", ["/s"], stdout=writer)
    os.close(writer)
    os.read(reader, 16)
    os.close(reader)
    _, err = run.communicate(timeout=30)
    problems = []
    if run.returncode != 0:
        problems.append("exit code %d, expected 0; stderr %r" % (run.returncode, err.decode()))
    sent, _ = downloads(work, "closed")
    if sent != SEGMENTS:
        problems.append("%d of %d segments sent" % (sent, SEGMENTS))
    if firmware_after(work, "closed") != "QT020000":
        problems.append("the firmware did not change")
    return problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--image-tool", required=True)
    options = parser.parse_args()
    work = tempfile.mkdtemp(prefix="quenmark-signals.")
    options.image = os.path.join(work, "fw.bin")
    subprocess.run([options.image_tool, "--revision", "QT020000", "--size", str(SEGMENTS * 32768),
                    "-o", options.image], check=True)
    cases = [
        ("SIGTERM", lambda: signal_mid_download(options, work, signal.SIGTERM,
                                                "shutdown or termination")),
        ("SIGINT", lambda: signal_mid_download(options, work, signal.SIGINT, "Ctrl-C")),
        ("SIGHUP", lambda: signal_mid_download(options, work, signal.SIGHUP,
                                               "console closed or hang-up")),
        ("SIGINT twice", lambda: signal_mid_download(options, work, signal.SIGINT, "Ctrl-C",
                                                     twice=True)),
        ("closed stdout", lambda: closed_stdout(options, work)),
    ]
    failed = 0
    for name, case in cases:
        problems = case()
        print(("ok   " if not problems else "FAIL ") + name)
        for problem in problems:
            print("  " + problem)
        failed += bool(problems)
    print("%d passed, %d failed" % (len(cases) - failed, failed))
    if not failed:
        subprocess.run(["rm", "-rf", work])
    else:
        print("work folder: " + work)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
