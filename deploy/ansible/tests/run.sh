#!/usr/bin/env bash
# Fleet rollout tests: the rollout playbook against several hosts on this machine
# (ansible_connection: local). Every host is a simulated machine with its drives at
# \\.\PhysicalDrive0, 1, ...: the role deploys quenmark-sim (through quenmark-sim-logged, which
# keeps each run's arguments, times and call log) and each host's QUENMARK_SIM_MACHINE names its
# own machine file, which holds the drives' firmware revisions from run to run. Discovery always
# gets its candidates from quenmark_candidates or from a folder of links the test makes: no test
# looks at a drive of this machine. Prints
# each scenario's result, the timing figures, and "N passed, N failed"; exits non-zero when a
# scenario fails. Everything it makes stays in one temporary folder, removed at the end.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
deploy=$(dirname "$here")
root=$(cd "$deploy/../.." && pwd)

if ! command -v ansible-playbook >/dev/null 2>&1; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "ansible-playbook is missing: run this as root, or apt-get install ansible-core" >&2
    exit 1
  fi
  echo "installing ansible-core"
  { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq ansible-core; } >/dev/null ||
    exit 1
fi

build=$root/build/linux
if [ ! -x "$build/quenmark-sim" ] || [ ! -x "$build/quenmark-sim-image" ]; then
  echo "building quenmark-sim and quenmark-sim-image"
  (cd "$root" && cmake --preset linux >/dev/null &&
    cmake --build build/linux -j2 --target quenmark-sim quenmark-sim-image >/dev/null) || exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/quenmark-rollout.XXXXXX") || exit 1
# QUENMARK_TEST_KEEP=1 keeps the folder (machine files, run logs, the playbook's output) to look into.
trap 'if [ -n "${QUENMARK_TEST_KEEP:-}" ]; then echo "kept $work"; else rm -rf "$work"; fi' EXIT
# The builds are copied: the build folder may be rebuilt while the scenarios run.
cp "$build/quenmark-sim" "$build/quenmark-sim-image" "$work/" || exit 1
"$work/quenmark-sim-image" --revision QF02 --size 131072 -o "$work/QF02.LOD" || exit 1
image_sha256=$(sha256sum "$work/QF02.LOD" | cut -d' ' -f1)

# Ansible keeps its own files under HOME and in its temporary folders: all inside this one.
mkdir -p "$work/home"
export HOME=$work/home ANSIBLE_LOCAL_TEMP=$work/home/local-tmp ANSIBLE_REMOTE_TEMP=$work/home/remote-tmp
export ANSIBLE_CONFIG=$deploy/ansible.cfg ANSIBLE_NOCOLOR=1 ANSIBLE_FORCE_COLOR=0

# ansible-core comes with an SSH client or with paramiko.
remote_connection=ssh
command -v ssh >/dev/null 2>&1 || remote_connection=paramiko

passed=0
failed=0
problems=()
scenario_dir=

# problem TEXT: one failed check of the current scenario.
problem() { problems+=("$1"); }

# dev N: the name of drive N of a simulated host.
dev() { printf '\\\\.\\PhysicalDrive%s' "$1"; }

# fleet NAME HOW HOST:KIND[,KIND...]...: a new scenario folder with one machine file per host and
# the inventory. Each KIND is one drive, at \\.\PhysicalDrive0, 1, ... in turn, running QF01:
#   ok       a drive of the model QSIM FLEET SSD
#   sec4     its ATA security enabled and locked
#   abort    its first DOWNLOAD MICROCODE is aborted
#   retry    its second DOWNLOAD MICROCODE is aborted
#   model    another model, QSIM OTHER SSD
#   current  already running QF02
#   absent   no disk behind that number
#   same     a second name of the drive before it
#   held     another run holds it: the drive cannot be opened (sharing violation, error 32)
#   slow     every DOWNLOAD MICROCODE takes half a second (a download that can be interrupted)
# HOW names the drives: device (quenmark_device, the host's one drive), devices (quenmark_devices,
# a list of all of them) or discover (quenmark_devices: discover, quenmark_candidates all of
# them). A HOST of KIND unreachable cannot be reached. The hosts named in $by_id_hosts are
# discovered from a folder of disk links of their own, by-id-HOST, instead: their drives are
# named ata-<model>_<serial> there, among the links of partitions and of other kinds of disks.
by_id_hosts=
fleet() {
  scenario_dir=$work/$1
  mkdir -p "$scenario_dir/host-tmp"
  python3 - "$scenario_dir" "$work" "$here" "$remote_connection" "$by_id_hosts" "$@" <<'PYEOF'
import json, os, shutil, sys
folder, work, here, remote, by_id_hosts, name, how, *members = sys.argv[1:]
hosts = {}
for member in members:
    host, kinds = member.split(":", 1)
    if kinds == "unreachable":
        # Nothing listens on port 9 of this machine: the connection is refused at once.
        hosts[host] = {"ansible_connection": remote, "ansible_host": "127.0.0.1", "ansible_port": 9,
                       "quenmark_device": "\\\\.\\PhysicalDrive0"}
        continue
    drives, disks, names, faults = [], [], [], None
    by_id = os.path.join(folder, "by-id-" + host) if host in by_id_hosts.split() else None
    for number, kind in enumerate(kinds.split(",")):
        path = "\\\\.\\PhysicalDrive%d" % number
        names.append(path)
        if kind == "absent":
            continue
        if kind == "same":
            disks.append({"path": path, "drive": disks[-1]["drive"]})
            continue
        drive = {"id": "d%d" % number, "serial": "%sD%d" % (host.upper(), number),
                 "model": "QSIM OTHER SSD" if kind == "model" else "QSIM FLEET SSD",
                 "firmware": "QF02" if kind == "current" else "QF01"}
        if kind == "sec4":
            drive["words"] = {"128": "0x0007"}
        elif kind == "held":
            # The simulated machine fails every CreateFileW: a host with one drive.
            faults = {"calls": [{"function": "CreateFileW", "error": 32}]}
        elif kind in ("abort", "retry"):
            drive["failDownload"] = 1 if kind == "abort" else 2
        elif kind == "slow":
            drive["downloadDelayMs"] = 500
        elif kind not in ("ok", "model", "current", "held"):
            sys.exit("unknown drive kind " + kind)
        drives.append(drive)
        if by_id:
            # The drive's own link, then links that discovery must pass over: its partitions
            # and other kinds of disks.
            os.makedirs(by_id, exist_ok=True)
            path = os.path.join(by_id, "ata-%s_%s" % (drive["model"].replace(" ", "_"), drive["serial"]))
            for link in [path, path + "-part1", path + "-part12",
                         os.path.join(by_id, "wwn-0x50000000000%05d" % number),
                         os.path.join(by_id, "nvme-QSIM_NVME_%s%d" % (host, number))]:
                os.symlink("../../sd" + "abcdefghijklmnop"[number], link)
        disks.append({"path": path, "drive": drive["id"]})
    machine = os.path.join(folder, host + ".json")
    with open(machine, "w") as out:
        json.dump(dict({"drives": drives, "disks": disks}, **({"faults": faults} if faults else {})), out, indent=1)
    shutil.copy(machine, machine + ".orig")
    hosts[host] = ({"quenmark_device": names[0]} if how == "device" else
                   {"quenmark_devices": names} if how == "devices" else
                   {"quenmark_disks_by_id": by_id} if by_id else
                   {"quenmark_candidates": names})
for host in hosts:
    os.makedirs(os.path.join(folder, "host-tmp", host), exist_ok=True)
group = {
    "ansible_connection": "local",
    "ansible_python_interpreter": "{{ ansible_playbook_python }}",
    "quenmark_become": False,
    "quenmark_binary": os.path.join(here, "quenmark-sim-logged"),
    "quenmark_image": os.path.join(work, "QF02.LOD"),
    # Each host's own temporary folder, as on separate machines.
    "quenmark_remote_tmp": os.path.join(folder, "host-tmp", "{{ inventory_hostname }}"),
    "quenmark_record_file": os.path.join(folder, "records.jsonl"),
    "quenmark_environment": {
        "QUENMARK_SIM_MACHINE": os.path.join(folder, "{{ inventory_hostname }}.json"),
        "QUENMARK_TEST_SIM": os.path.join(work, "quenmark-sim"),
        "QUENMARK_TEST_RUNS": os.path.join(folder, "{{ inventory_hostname }}.runs"),
    },
}
if how == "discover":
    group["quenmark_devices"] = "discover"
with open(os.path.join(folder, "inventory.yml"), "w") as out:
    json.dump({"quenmark": {"vars": group, "hosts": hosts}}, out, indent=1)
PYEOF
}

# host_vars HOST LINE...: settings of one host, in YAML.
host_vars() {
  mkdir -p "$scenario_dir/host_vars"
  local host=$1
  shift
  printf '%s\n' "$@" >"$scenario_dir/host_vars/$host.yml"
}

# rollout ARGS...: runs the playbook on the scenario's fleet; its output goes to out.txt and
# its exit code into $rc.
rollout() {
  (cd "$deploy" && ansible-playbook -i "$scenario_dir/inventory.yml" rollout.yml "$@") \
    >"$scenario_dir/out.txt" 2>&1
  rc=$?
}
# The model the fleet's image is for.
model=(-e '{"quenmark_expected_model": "QSIM FLEET SSD"}')

# revision HOST N: the firmware revision of drive dN as the host's machine file holds it.
revision() {
  python3 - "$scenario_dir/$1.json" "d$2" <<'PYEOF'
import json, sys
drive = [d for d in json.load(open(sys.argv[1]))["drives"] if d["id"] == sys.argv[2]][0]
print(drive.get("state", {}).get("firmware", drive["firmware"]).strip())
PYEOF
}

# runs HOST N [PATTERN]: how many runs of the tool on drive N of HOST had arguments matching
# PATTERN (an extended regular expression).
runs() {
  grep -F -- "== run: $(dev "$2") " "$scenario_dir/$1.runs" 2>/dev/null | grep -c -E -- "${3:-.}"
}
# downloads HOST N: how many DOWNLOAD MICROCODE commands reached drive dN of HOST.
downloads() { grep -c "| ata d$2 DOWNLOAD MICROCODE" "$scenario_dir/$1.runs" 2>/dev/null; }
# summary HOST DEVICE: the drive's line of the rollout's summary, without the host and device
# (several lines, such as a host's own, joined by " | ").
summary() {
  python3 - "$scenario_dir/out.txt" "$1" "$2" <<'PYEOF'
import sys
lines = open(sys.argv[1]).read().splitlines()
start = [n for n, line in enumerate(lines) if line.startswith("QUENMARK SUMMARY ")]
found = []
for line in lines[start[-1] + 1:] if start else []:
    if not line.strip():
        break
    host, device, text = line.split(None, 2)
    if (host, device) == (sys.argv[2], sys.argv[3]):
        found.append(text)
print(" | ".join(found))
PYEOF
}

expect_rc() { [ "$rc" -eq "$1" ] || problem "ansible-playbook exited with $rc, expected $1"; }
expect_rc_failed() { [ "$rc" -ne 0 ] || problem "ansible-playbook exited with 0, expected a failure"; }
expect_revision() {
  local got
  got=$(revision "$1" "$2")
  [ "$got" = "$3" ] || problem "$1: drive d$2 runs '$got', expected '$3'"
}
# expect_summary HOST N|- TEXT: the summary line of drive N of HOST (- for the host's own line).
expect_summary() {
  local got device=-
  [ "$2" = - ] || device=$(dev "$2")
  got=$(summary "$1" "$device")
  [ "$got" = "$3" ] || problem "$1 $device: summary '$got', expected '$3'"
}
# expect_updated HOST N: drive N now runs QF02 after one update run, and says so.
expect_updated() {
  expect_revision "$1" "$2" QF02
  expect_summary "$1" "$2" "QSIM FLEET SSD ${1^^}D$2: QF01 -> QF02, updated"
  [ "$(runs "$1" "$2" ' /D:')" = 1 ] || problem "$1: $(runs "$1" "$2" ' /D:') update runs on drive $2, expected 1"
}
expect_no_download() {
  [ "$(downloads "$1" "$2")" = 0 ] || problem "$1: $(downloads "$1" "$2") DOWNLOAD MICROCODE commands reached drive d$2"
}
# The drive report only: the tool never ran with an image on drive N.
expect_reports_only() {
  expect_no_download "$1" "$2"
  [ "$(runs "$1" "$2" ' /D:')" = 0 ] || problem "$1: the tool ran with /D: on drive $2"
}
expect_untouched() {
  cmp -s "$scenario_dir/$1.json" "$scenario_dir/$1.json.orig" || problem "$1: its machine file changed"
  [ ! -e "$scenario_dir/$1.runs" ] || problem "$1: the tool ran on it"
}
# expect_records [HOST...]: the record file holds one line per run of the tool on each host (or
# those named), in the host's order, each with the tool's document; an update's names the
# revision the drive reports after it.
expect_records() {
  local wrong
  wrong=$(python3 - "$scenario_dir" "$@" <<'PYEOF'
import glob, json, os, re, sys
folder, only = sys.argv[1], sys.argv[2:]
lines = open(os.path.join(folder, "records.jsonl")).read().splitlines()
records = [json.loads(line) for line in lines if only == [] or json.loads(line)["host"] in only]
for path in glob.glob(os.path.join(folder, "*.runs")):
    host = os.path.basename(path)[:-5]
    if only and host not in only:
        continue
    runs = re.findall(r"^== run: (\S+) .*=> exit (\d+) ", open(path).read(), re.M)
    mine = [(r["device"], r["exit_code"]) for r in records if r["host"] == host]
    if mine != [(device, int(code)) for device, code in runs]:
        print("%s: records %s, runs %s" % (host, mine, runs))
for r in records:
    document = r["record"] or {}
    if document.get("format_version", [0])[0] != 1 or document["outcome"]["exit_code"] != r["exit_code"]:
        print("no document of the run: %s" % r)
    if r["step"] == "update" and r["exit_code"] == 0 and "firmware_after" not in document:
        print("an update without firmware_after: %s" % r)
PYEOF
)
  [ -z "$wrong" ] || problem "the record file: $wrong"
}
expect_clean_hosts() {
  local left
  left=$(cd "$scenario_dir/host-tmp" && find . -mindepth 2 -maxdepth 2)
  [ -z "$left" ] || problem "working folders left on the hosts: $left"
}
expect_output() {
  grep -q -F -- "$1" "$scenario_dir/out.txt" || problem "the playbook's output lacks '$1'"
}
# Discovery took its candidates from the inventory and never listed this machine's drives: the
# listing task was skipped on every host.
expect_no_listing() {
  sed -n "/^TASK \[quenmark_firmware : List the host's ATA drives\]/,/^\$/p" "$scenario_dir/out.txt" |
    grep -q -E '^(ok|changed|fatal)' && problem "the role listed this machine's drives"
}

# scenario TITLE FUNCTION: runs one scenario and prints its result.
scenario() {
  problems=()
  local started=$SECONDS
  "$2"
  if ((${#problems[@]} == 0)); then
    echo "PASS  $1 ($((SECONDS - started)) s)"
    passed=$((passed + 1))
  else
    echo "FAIL  $1 ($((SECONDS - started)) s)"
    printf '        %s\n' "${problems[@]}"
    echo "        (output: see below)"
    sed 's/^/        | /' "$scenario_dir/out.txt" | tail -n 60
    failed=$((failed + 1))
  fi
}

all_updated() {
  # One drive per host, named by quenmark_device. h4's first download is aborted and the retry
  # goes through, in segments of 16 blocks, with a time-out of 30 s.
  fleet all_updated device h1:ok h2:ok h3:ok h4:retry
  host_vars h4 'quenmark_mode: segmented' 'quenmark_segment_blocks: 16' 'quenmark_retries: 1' 'quenmark_timeout: 30'
  rollout -e quenmark_batch_size=2 -e quenmark_image_sha256="${image_sha256^^}"
  expect_rc 0
  local host
  for host in h1 h2 h3 h4; do expect_updated $host 0; done
  [ "$(runs h4 0 '/D:[^ ]*QF02.LOD /s /g 16 /r 1 /t 30 --json /v =>')" = 1 ] || problem "h4: the download did not run with /s /g 16 /r 1 /t 30 --json /v"
  [ "$(runs h1 0 '/D:[^ ]*QF02.LOD /t 120 --json /v =>')" = 1 ] || problem "h1: the download did not run with the default /t 120"
  # A drive is read at the start and just before its update; the update's own document says what
  # it runs afterwards.
  [ "$(runs h1 0 ' /i --json /v =>')" = 2 ] || problem "h1: drive 0 read $(runs h1 0 ' /i --json /v =>') times with /i --json /v, expected 2"
  expect_records
  # The time-out reaches the pass-through requests that carry DOWNLOAD MICROCODE.
  [ "$(grep 'DOWNLOAD MICROCODE' "$scenario_dir/h4.runs" | grep -c -v ' timeout=30 ')" = 0 ] ||
    problem "h4: a DOWNLOAD MICROCODE went out without the time-out of 30 s"
  [ "$(grep -c '\[injected\]' "$scenario_dir/h4.runs")" = 1 ] || problem "h4: the retry did not follow one aborted download"
  [ "$(grep -c '^PLAY \[Roll out drive firmware\]' "$scenario_dir/out.txt")" = 2 ] ||
    problem "the rollout did not run in two batches of two"
  grep -q -E '^h1 +: ok=[0-9]+ +changed=1 ' "$scenario_dir/out.txt" || problem "h1: not reported as changed"
  expect_clean_hosts
}

discover_model() {
  # h1 has three drives, two of the image's model, and its candidates from the inventory; h2 one
  # of each, the other model first, and lists its own links (in a folder of the test's).
  by_id_hosts=h2 fleet discover_model discover h1:ok,model,ok h2:model,ok
  rollout -e quenmark_batch_size=2 "${model[@]}"
  expect_rc 0
  expect_updated h1 0
  expect_reports_only h1 1
  [ "$(runs h1 1 ' /i')" = 1 ] || problem "h1: drive 1 read $(runs h1 1 ' /i') times, expected once (discovery)"
  expect_revision h1 1 QF01
  expect_summary h1 1 "QSIM OTHER SSD H1D1: QF01, skipped: the drive model is not QSIM FLEET SSD; the drive is left alone"
  expect_updated h1 2
  # A drive to update is read in discovery and just before its update.
  [ "$(runs h1 2 ' /i')" = 2 ] || problem "h1: drive 2 read $(runs h1 2 ' /i') times, expected 2"
  # h2's two whole-disk ATA links, and nothing else of its folder, are its candidates.
  local links=$scenario_dir/by-id-h2
  [ "$(grep -c '^== run: ' "$scenario_dir/h2.runs")" = 4 ] ||
    problem "h2: $(grep -c '^== run: ' "$scenario_dir/h2.runs") runs of the tool, expected 4 (2 in discovery, 2 for one update)"
  expect_records
  [ "$(summary h2 "$links/ata-QSIM_OTHER_SSD_H2D0")" = "QSIM OTHER SSD H2D0: QF01, skipped: the drive model is not QSIM FLEET SSD; the drive is left alone" ] ||
    problem "h2: drive 0 not skipped for its model: '$(summary h2 "$links/ata-QSIM_OTHER_SSD_H2D0")'"
  [ "$(summary h2 "$links/ata-QSIM_FLEET_SSD_H2D1")" = "QSIM FLEET SSD H2D1: QF01 -> QF02, updated" ] ||
    problem "h2: drive 1 not updated: '$(summary h2 "$links/ata-QSIM_FLEET_SSD_H2D1")'"
  [ "$(grep -c "^h2 " <(sed -n '/^QUENMARK SUMMARY/,$p' "$scenario_dir/out.txt"))" = 2 ] ||
    problem "h2: the summary has other lines than its two drives"
  expect_revision h2 1 QF02
  expect_no_download h2 0
  expect_clean_hosts
}

left_alone() {
  # h1's middle drive is locked; h2 runs the tool without /v, so the reason is the exit code's;
  # h3 has another model, a number with no disk, a drive to update and a second name of it.
  fleet left_alone devices h1:ok,sec4,ok h2:sec4 h3:model,absent,ok,same
  host_vars h2 'quenmark_verbose: false'
  rollout -e quenmark_batch_size=3 "${model[@]}"
  expect_rc 0
  expect_updated h1 0
  [ "$(runs h1 1 ' /D:')" = 1 ] || problem "h1: the tool did not get to refuse drive 1 itself"
  expect_revision h1 1 QF01
  expect_no_download h1 1
  expect_summary h1 1 "QSIM FLEET SSD H1D1: QF01 -> QF01, skipped: the tool said \"Err: ATA SECURITY LOCKED\"; nothing was sent (exit code 6)"
  expect_updated h1 2
  expect_no_download h2 0
  expect_summary h2 0 "QSIM FLEET SSD H2D0: QF01 -> QF01, skipped: refused: the drive's ATA security state forbids the update; nothing was sent (exit code 6)"
  grep -q -E '^h2 +: ok=[0-9]+ +changed=0 +unreachable=0 +failed=0 ' "$scenario_dir/out.txt" ||
    problem "h2: not reported as unchanged and not failed"
  expect_revision h3 0 QF01
  expect_reports_only h3 0
  expect_summary h3 0 "QSIM OTHER SSD H3D0: QF01, skipped: the drive model is not QSIM FLEET SSD; the drive is left alone"
  expect_reports_only h3 1
  expect_summary h3 1 'skipped: the tool said "CreateFileW INVALID_HANDLE_VALUE Error: 2"; nothing was sent (exit code 2)'
  expect_updated h3 2
  expect_reports_only h3 3
  expect_summary h3 3 'QSIM FLEET SSD H3D2: QF02, skipped: the same drive as \\.\PhysicalDrive2'
  [ "$(downloads h3 2)" = 1 ] || problem "h3: $(downloads h3 2) DOWNLOAD MICROCODE commands reached drive d2, expected 1"
  expect_clean_hosts
}

abort_stops() {
  # h2's second drive aborts the download: its third is not tried, h1 in the same batch finishes
  # its three drives, and h3 in the next batch is not touched.
  fleet abort_stops devices h1:ok,ok,ok h2:ok,abort,ok h3:ok
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  local drive
  for drive in 0 1 2; do expect_updated h1 $drive; done
  expect_updated h2 0
  expect_revision h2 1 QF01
  expect_summary h2 1 "QSIM FLEET SSD H2D1: QF01 -> QF01, failed: the drive failed a command (exit code 1)"
  # Every drive is read at the start; the third is never updated.
  expect_reports_only h2 2
  expect_revision h2 2 QF01
  expect_summary h2 2 'QSIM FLEET SSD H2D2: QF01, not tried: the host stopped at \\.\PhysicalDrive1'
  expect_output 'CHECK CONDITION ERROR for CMD: 92'
  expect_output 'fatal: [h2]: FAILED!'
  expect_summary h3 - 'not tried: the rollout stopped before its batch'
  expect_output '"\\\\.\\PhysicalDrive1: QSIM FLEET SSD H2D1: QF01 -> QF01, failed: the drive failed a command (exit code 1)",'
  expect_untouched h3
  expect_clean_hosts
  # Run again once the drive is mended: only what is left is updated.
  python3 - "$scenario_dir/h2.json" <<'PYEOF'
import json, sys
machine = json.load(open(sys.argv[1]))
del machine["drives"][1]["failDownload"]
json.dump(machine, open(sys.argv[1], "w"))
PYEOF
  rollout -e quenmark_target_revision=QF02 -e quenmark_batch_size=3
  expect_rc 0
  for drive in 0 1 2; do
    [ "$(runs h1 $drive ' /D:')" = 1 ] || problem "h1: drive $drive was updated again"
    expect_summary h1 $drive "QSIM FLEET SSD H1D$drive: QF02, current: the drive already runs QF02"
  done
  expect_summary h2 0 "QSIM FLEET SSD H2D0: QF02, current: the drive already runs QF02"
  [ "$(runs h2 0 ' /D:')" = 1 ] || problem "h2: drive 0 was updated again"
  expect_revision h2 1 QF02
  expect_summary h2 1 "QSIM FLEET SSD H2D1: QF01 -> QF02, updated"
  expect_updated h2 2
  expect_updated h3 0
}

order() {
  # Each host updates its drives in its own order, whatever places they have in its plan: h1's
  # first drive is current, so its first update is its second drive, h2's second update.
  fleet order devices h1:current,ok,ok h2:ok,abort,ok
  rollout -e quenmark_batch_size=2 -e quenmark_target_revision=QF02
  expect_rc_failed
  expect_summary h1 0 "QSIM FLEET SSD H1D0: QF02, current: the drive already runs QF02"
  expect_updated h1 1
  expect_updated h1 2
  expect_updated h2 0
  expect_summary h2 1 "QSIM FLEET SSD H2D1: QF01 -> QF01, failed: the drive failed a command (exit code 1)"
  expect_summary h2 2 'QSIM FLEET SSD H2D2: QF01, not tried: the host stopped at \\.\PhysicalDrive1'
  expect_reports_only h2 2
}

interrupted() {
  # Runs cut off earlier left working folders on h1: one that no run uses (removed and
  # reported) and one whose step still holds its lock (kept). h2's drive is held by another
  # run: busy, not "no such drive". h3's update outlasts the role's wait (a margin of 0 and /t 1
  # give 3 s): its state is unknown and its working folder stays while the run goes on; once it
  # has ended, a rerun removes the folder and finds the drive current. h4's and h5's drives are
  # slow (8 s for the download): the tool itself gets SIGINT in h4's download, and h5's step
  # gets SIGTERM in its session (as a shutdown or a stopped service would send it), which the
  # step passes on to the tool. Either way the tool ends its run as interrupted and says what the
  # drive holds; the role reports it in the tool's words with the revision after it, and a rerun
  # updates both drives.
  fleet interrupted devices h1:ok h2:held h3:ok h4:slow h5:slow
  local tmp=$scenario_dir/host-tmp
  mkdir -p "$tmp/h1/quenmark.idle01" "$tmp/h1/quenmark.held01/step-0"
  : >"$tmp/h1/quenmark.idle01/quenmark"
  printf '%s\n' "$(dev 0)" >"$tmp/h1/quenmark.held01/step-0/drive"
  # A process that holds the step's lock, as a run's step does until its last run has ended.
  (
    exec 9>"$tmp/h1/quenmark.held01/step-0/lock"
    flock 9
    exec sleep 60
  ) &
  local holder=$!
  while flock -n "$tmp/h1/quenmark.held01/step-0/lock" true; do sleep 0.05; done
  host_vars h3 'quenmark_run_margin: 0' 'quenmark_timeout: 1' 'quenmark_environment:' \
    "  QUENMARK_SIM_MACHINE: $scenario_dir/h3.json" "  QUENMARK_TEST_SIM: $work/quenmark-sim" \
    "  QUENMARK_TEST_RUNS: $scenario_dir/h3.runs" "  QUENMARK_TEST_SLEEP: '6'"
  host_vars h4 'quenmark_mode: segmented' 'quenmark_segment_blocks: 16'
  host_vars h5 'quenmark_mode: segmented' 'quenmark_segment_blocks: 16'
  # Each signal goes out 2 s after the step began: its read before takes milliseconds, its
  # download 16 x 0.5 s.
  (
    until started=$(cat "$tmp"/h4/quenmark.*/step-0/started 2>/dev/null) && [ -n "$started" ]; do sleep 0.1; done
    sleep 2
    pkill -INT -f "^$work/quenmark-sim .*/D:$tmp/h4/"
  ) &
  local interrupter=$!
  (
    until started=$(cat "$tmp"/h5/quenmark.*/step-0/started 2>/dev/null) && [ -n "$started" ]; do sleep 0.1; done
    sleep 2
    kill -TERM -- "-$(ps -o pgid= -p "$started" | tr -d ' ')"
  ) &
  local stopper=$!
  rollout -e quenmark_batch_size=5 -e quenmark_target_revision=QF02
  wait "$interrupter" "$stopper"
  expect_rc_failed
  local host event
  for host in h4 h5; do
    event=Ctrl-C
    [ $host = h4 ] || event="shutdown or termination"
    [[ $(summary $host "$(dev 0)") =~ ^"QSIM FLEET SSD ${host^^}D0: QF01 -> QF01, failed: the tool said \"Interrupted ($event) after "([0-9]+)" of 16 DOWNLOAD MICROCODE transfers in mode 0x03: the drive discards an incomplete download and keeps its firmware; it reports firmware revision QF01.\" (exit code 3)"$ ]] ||
      problem "$host: summary '$(summary $host "$(dev 0)")', expected the tool's words on its interrupt"
    # The command with the drive completed, nothing was sent after it but the closing IDENTIFY
    # DEVICE, and the tool's line counts what went out.
    [ "$(downloads $host 0)" = "${BASH_REMATCH[1]:-x}" ] && [ "$(downloads $host 0)" -ge 1 ] ||
      problem "$host: $(downloads $host 0) DOWNLOAD MICROCODE commands reached the drive, the tool said ${BASH_REMATCH[1]:-nothing}"
    expect_revision $host 0 QF01
    # The update's document says what the drive runs: no read after it.
    [ "$(runs $host 0 ' /i')" = 2 ] || problem "$host: drive 0 read $(runs $host 0 ' /i') times, expected twice"
  done
  # (h3's update ended after the role stopped waiting: it is in no record.)
  expect_records h1 h2 h4 h5
  expect_updated h1 0
  expect_summary h1 - "working folder $tmp/h1/quenmark.held01 of an earlier run, kept: a run still works in it | working folder $tmp/h1/quenmark.idle01 of an earlier run, removed: no run used it"
  [ ! -e "$tmp/h1/quenmark.idle01" ] || problem "h1: the idle leftover is still there"
  [ -e "$tmp/h1/quenmark.held01" ] || problem "h1: the leftover in use was removed"
  kill "$holder" 2>/dev/null
  wait "$holder" 2>/dev/null
  expect_summary h2 0 'busy: a run is still in progress'
  expect_no_download h2 0
  expect_summary h3 0 "QSIM FLEET SSD H3D0: QF01, unknown: the tool's run did not end within 3 s; it goes on on the host and the drive's state is unknown until it ends"
  [ -n "$(ls -d "$tmp"/h3/quenmark.* 2>/dev/null)" ] || problem "h3: the working folder of the run that goes on was removed"
  # Once h3's run has ended, a rerun finds its drive updated and removes the folder; h1's
  # folder that was in use is removed too; h4's and h5's drives are updated.
  sleep 6
  rm -f "$scenario_dir/host_vars/h3.yml"
  rollout -e quenmark_batch_size=4 -e quenmark_target_revision=QF02 --limit h1,h3,h4,h5
  expect_rc 0
  expect_summary h1 - "working folder $tmp/h1/quenmark.held01 of an earlier run, removed: no run used it"
  expect_summary h3 0 "QSIM FLEET SSD H3D0: QF02, current: the drive already runs QF02"
  grep -q "of an earlier run, removed: no run used it" <(summary h3 -) || problem "h3: the folder of the earlier run was not removed"
  for host in h4 h5; do
    expect_revision $host 0 QF02
    expect_summary $host 0 "QSIM FLEET SSD ${host^^}D0: QF01 -> QF02, updated"
  done
  expect_clean_hosts
}

check_mode() {
  fleet check_mode discover h1:ok,sec4,model h2:current,ok
  rollout --check -e quenmark_batch_size=2 -e quenmark_target_revision=QF02 "${model[@]}"
  expect_rc 0
  expect_no_listing
  local host drive
  for host in h1 h2; do
    for drive in 0 1; do expect_reports_only $host $drive; done
  done
  expect_reports_only h1 2
  for drive in 0 1 2; do expect_revision h1 $drive QF01; done
  expect_revision h2 0 QF02
  expect_revision h2 1 QF01
  expect_summary h1 0 "QSIM FLEET SSD H1D0: QF01, would update: image QF02.LOD"
  expect_summary h1 1 "QSIM FLEET SSD H1D1: QF01, would skip: the tool would refuse the drive in ATA security state SEC4"
  expect_summary h1 2 "QSIM OTHER SSD H1D2: QF01, skipped: the drive model is not QSIM FLEET SSD; the drive is left alone"
  expect_summary h2 0 "QSIM FLEET SSD H2D0: QF02, current: the drive already runs QF02"
  expect_summary h2 1 "QSIM FLEET SSD H2D1: QF01, would update: image QF02.LOD"
  expect_clean_hosts
}

discover_needs_model() {
  fleet discover_needs_model discover h1:ok,ok h2:ok
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_output 'quenmark_devices is discover but quenmark_expected_model is not set: without a model no drive is updated'
  expect_untouched h1
  expect_untouched h2
  expect_summary h1 - 'failed before any drive was read (see its error above)'
}

unreachable_stops() {
  # h1 runs in parallel with h2, which cannot be reached: h1 is updated, then the rollout stops.
  fleet unreachable_stops device h1:ok h2:unreachable h3:ok
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_output 'fatal: [h2]: UNREACHABLE!'
  expect_output 'h2 could not be reached; the state of its drives is unknown'
  expect_summary h2 - 'could not be reached; the state of its drives is unknown'
  expect_updated h1 0
  expect_untouched h3
  expect_summary h3 - 'not tried: the rollout stopped before its batch'
}

doubtful_input() {
  fleet doubtful_input devices h1:ok,ok h2:ok
  rollout -e quenmark_batch_size=2 -e quenmark_image_sha256="$(printf '0%.0s' {1..64})"
  expect_rc_failed
  expect_output "has SHA-256 $image_sha256, not 0000"
  expect_untouched h1
  expect_untouched h2
  host_vars h2 "quenmark_devices: ['$(dev 0)', --scan]"
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_output "options, not drives: --scan"
  expect_untouched h1
  expect_untouched h2
  host_vars h2 "quenmark_device: '$(dev 0)'"
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_output "quenmark_devices and quenmark_device are both set"
  expect_untouched h1
  expect_untouched h2
  expect_clean_hosts
  # An image that the tool cannot use: it refuses, and says why; the host stops.
  host_vars h1 'quenmark_environment:' \
    "  QUENMARK_SIM_MACHINE: $scenario_dir/h1.json" \
    "  QUENMARK_TEST_SIM: $work/quenmark-sim" \
    "  QUENMARK_TEST_RUNS: $scenario_dir/h1.runs" \
    "  QUENMARK_TEST_IMAGE_GONE: '1'"
  rm -f "$scenario_dir/host_vars/h2.yml"
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_summary h1 0 'QSIM FLEET SSD H1D0: QF01 -> QF01, failed: the tool said "File Open Failure: No such file or directory"; nothing was sent (exit code 4)'
  expect_summary h1 1 'QSIM FLEET SSD H1D1: QF01, not tried: the host stopped at \\.\PhysicalDrive0'
  expect_no_download h1 0
  expect_reports_only h1 1
  expect_updated h2 0
  expect_clean_hosts
  # A tool that cannot be started gives the shell's exit code, none of the tool's: the drive fails
  # and the rollout stops, where a "no such drive" would have skipped it.
  rm -f "$scenario_dir/host_vars/h1.yml" "$scenario_dir"/*.runs
  cp "$scenario_dir/h2.json.orig" "$scenario_dir/h2.json"
  printf '#!/nonexistent/sh\n' >"$scenario_dir/broken-tool"
  chmod +x "$scenario_dir/broken-tool"
  rollout -e quenmark_batch_size=1 -e quenmark_binary="$scenario_dir/broken-tool"
  expect_rc_failed
  expect_summary h1 0 'failed: the drive could not be identified: unexpected exit code (exit code 127)'
  expect_summary h1 1 'not tried: the host stopped at \\.\PhysicalDrive0'
  expect_untouched h2
  expect_clean_hosts
  # Discovery too: a drive is not "left alone" for a reason that is not the drive's.
  rollout -e quenmark_batch_size=1 -e quenmark_binary="$scenario_dir/broken-tool" \
    -e '{"quenmark_devices": "discover", "quenmark_candidates": ["\\\\.\\PhysicalDrive0"]}' "${model[@]}"
  expect_rc_failed
  expect_summary h1 0 'failed: the drive could not be identified: unexpected exit code (exit code 127)'
  expect_clean_hosts
}

# timing: 8 hosts of 4 drives in batches of 4, each drive discovered and updated. Prints the
# rollout's wall-clock and CPU time, the tool's own time, and the role's own time per drive and
# per host: from the playbook's log (when each batch and each drive began) and the run logs (when
# each run of the tool began and ended). Nothing here is asserted: the machine may be busy.
timing() {
  local members=() host
  for host in t1 t2 t3 t4 t5 t6 t7 t8; do members+=("$host:ok,ok,ok,ok"); done
  fleet timing discover "${members[@]}"
  python3 - "$scenario_dir" "$deploy" "${model[@]}" <<'PYEOF'
import json, os, resource, subprocess, sys, time
folder, deploy, *extra = sys.argv[1:]
before = resource.getrusage(resource.RUSAGE_CHILDREN)
started = time.monotonic()
with open(os.path.join(folder, "out.txt"), "w") as out:
    rc = subprocess.call(["ansible-playbook", "-i", os.path.join(folder, "inventory.yml"), "rollout.yml",
                          "-e", "quenmark_batch_size=4"] + extra, cwd=deploy, stdout=out, stderr=subprocess.STDOUT,
                         env=dict(os.environ, ANSIBLE_LOG_PATH=os.path.join(folder, "ansible.log")))
wall = time.monotonic() - started
after = resource.getrusage(resource.RUSAGE_CHILDREN)
cpu = after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime
json.dump({"rc": rc, "wall": wall, "cpu": cpu}, open(os.path.join(folder, "rollout.json"), "w"))
PYEOF
  rc=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["rc"])' "$scenario_dir/rollout.json")
  expect_rc 0
  # Every drive updated once, to QF02.
  local wrong
  wrong=$(python3 - "$scenario_dir" <<'PYEOF'
import json, os, re, sys
folder = sys.argv[1]
for host in ["t%d" % n for n in range(1, 9)]:
    drives = json.load(open(os.path.join(folder, host + ".json")))["drives"]
    runs = open(os.path.join(folder, host + ".runs")).read() if os.path.exists(os.path.join(folder, host + ".runs")) else ""
    for number, drive in enumerate(drives):
        updates = len(re.findall(r"^== run: \\\\\.\\PhysicalDrive%d /D:" % number, runs, re.M))
        if drive.get("state", {}).get("firmware", "").strip() != "QF02" or updates != 1:
            print("%s d%d: %s after %d update runs" % (host, number, drive.get("state", {}).get("firmware", "QF01"), updates))
PYEOF
)
  [ -z "$wrong" ] || problem "drives not updated once: $wrong"
  python3 - "$scenario_dir" <<'PYEOF'
import datetime, glob, json, os, re, sys
folder = sys.argv[1]
rollout = json.load(open(os.path.join(folder, "rollout.json")))

def stamp(line):
    return datetime.datetime.strptime(line[:23], "%Y-%m-%d %H:%M:%S,%f").timestamp()

# A batch begins with its PLAY banner; each of its drives with the task that updates it, which
# the hosts of the batch run side by side.
batches = []
for line in open(os.path.join(folder, "ansible.log")):
    if "| PLAY [" in line or "| PLAY RECAP" in line:
        batches.append({"start": stamp(line), "drives": []})
    elif "| TASK [quenmark_firmware : Update the firmware]" in line:
        batches[-1]["drives"].append(stamp(line))
walls = [b2["start"] - b1["start"] for b1, b2 in zip(batches, batches[1:])]
steps = [d2 - d1 for b in batches for d1, d2 in zip(b["drives"], b["drives"][1:])]

# The tool's own time, from the start and end of each run.
tool = {}
for path in glob.glob(os.path.join(folder, "*.runs")):
    spans = re.findall(r"=> exit \d+ \((\d+) (\d+)\)", open(path).read())
    tool[os.path.basename(path)[:-5]] = sum(int(end) - int(start) for start, end in spans) / 1e9
hosts, per_host = len(tool), 4
drives = hosts * per_host
tool_host = sum(tool.values()) / hosts
wall, cpu = rollout["wall"], rollout["cpu"] - sum(tool.values())
batch = sum(walls) / len(walls)
step = sum(steps) / len(steps)
print("        %d hosts of %d drives in %d batches of %d: %.1f s (batches %s s), %.1f s of CPU; the tool's runs %.2f s per host"
      % (hosts, per_host, len(walls), hosts // len(walls), wall, " and ".join("%.1f" % w for w in walls), rollout["cpu"], tool_host))
print("        role's own time per drive: %.2f s over the rollout, %.2f s of CPU; a drive more on each host of a batch adds %.2f s"
      % ((wall - tool_host * len(walls)) / drives, cpu / drives, step - tool_host / per_host))
print("        role's own time per host: %.2f s over the rollout, %.2f s of CPU; a host's batch takes %.2f s beyond its tool runs"
      % ((wall - tool_host * len(walls)) / hosts, cpu / hosts, batch - tool_host))
print("        (goals: under 3 s per drive and under 10 s per host; measured, not asserted)")
PYEOF
}

# run.sh [NAME...] runs only the scenarios named (all_updated, discover_model, ...).
only=" $* "
for entry in \
  "all_updated|one drive per host by quenmark_device: all updated, in batches of two, one after a retry" \
  "discover_model|discovery updates the drives of the image's model and leaves the others alone" \
  "left_alone|a locked drive, another model, a missing drive and a second name of a drive are left alone; their neighbours are updated" \
  "abort_stops|an aborted drive stops its host and the rollout; a rerun updates only what is left" \
  "order|each host updates its drives in its own order" \
  "interrupted|leftovers of interrupted runs, a drive another run holds, a run that outlasts the wait, an update interrupted by the tool's signal or the step's" \
  "check_mode|check mode reads the drive reports and changes nothing" \
  "discover_needs_model|discovery without a model updates nothing" \
  "unreachable_stops|a host that cannot be reached stops the rollout after its batch" \
  "doubtful_input|a wrong image, a wrong drive list, an image the tool refuses or a tool that cannot start stops the rollout" \
  "timing|8 hosts of 4 drives in batches of 4: the role's own time"; do
  name=${entry%%|*}
  if [ "$only" = "  " ] || [[ $only == *" $name "* ]]; then
    scenario "${entry#*|}" "$name"
  fi
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
