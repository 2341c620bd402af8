#!/usr/bin/env bash
# Fleet rollout tests: the rollout playbook against several hosts on this machine
# (ansible_connection: local). Every host is a simulated machine with one drive: the role deploys
# quenmark-sim (through quenmark-sim-logged, which keeps each run's arguments and call log) and
# each host's QUENMARK_SIM_MACHINE names its own machine file, which holds the drive's firmware
# revision from run to run. Prints each scenario's result and "N passed, N failed"; exits non-zero
# when a scenario fails. Everything it makes stays in one temporary folder, removed at the end.
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

# drive HOST KIND: the machine file of one host, with one drive at \\.\PhysicalDrive0 running
# QF01. KIND: ok, sec4 (security enabled and locked), abort (the first DOWNLOAD MICROCODE is
# aborted), retry (the second one is aborted), model (another drive model), absent (the drive is
# at \\.\PhysicalDrive1 only), unreachable (a drive on a host that cannot be reached).
drive() {
  local host=$1 kind=$2 model="QSIM FLEET SSD" extra="" path='PhysicalDrive0'
  case $kind in
    sec4) extra=', "words": {"128": "0x0007"}' ;;
    abort) extra=', "failDownload": 1' ;;
    retry) extra=', "failDownload": 2' ;;
    model) model="QSIM OTHER SSD" ;;
    absent) path='PhysicalDrive1' ;;
  esac
  cat >"$scenario_dir/$host.json" <<EOF
{"drives": [{"id": "d0", "model": "$model", "serial": "QF000${host#h}", "firmware": "QF01"$extra}],
 "disks": [{"path": "\\\\\\\\.\\\\$path", "drive": "d0"}]}
EOF
  cp "$scenario_dir/$host.json" "$scenario_dir/$host.json.orig"
}

# fleet NAME HOST:KIND...: a new scenario folder with one machine file per host and the inventory.
fleet() {
  scenario_dir=$work/$1
  shift
  mkdir -p "$scenario_dir/host-tmp"
  {
    cat <<EOF
quenmark:
  vars:
    ansible_connection: local
    ansible_python_interpreter: "{{ ansible_playbook_python }}"
    quenmark_become: false
    quenmark_binary: $here/quenmark-sim-logged
    quenmark_image: $work/QF02.LOD
    quenmark_device: '\\\\.\\PhysicalDrive0'
    quenmark_remote_tmp: $scenario_dir/host-tmp
    quenmark_environment:
      QUENMARK_SIM_MACHINE: "$scenario_dir/{{ inventory_hostname }}.json"
      QUENMARK_TEST_SIM: $work/quenmark-sim
      QUENMARK_TEST_RUNS: "$scenario_dir/{{ inventory_hostname }}.runs"
  hosts:
EOF
    local member
    for member in "$@"; do
      if [ "${member#*:}" = unreachable ]; then
        # Nothing listens on port 9 of this machine: the connection is refused at once.
        echo "    ${member%%:*}: {ansible_connection: $remote_connection, ansible_host: 127.0.0.1, ansible_port: 9}"
      else
        echo "    ${member%%:*}: {}"
      fi
    done
  } >"$scenario_dir/inventory.yml"
  for member in "$@"; do
    drive "${member%%:*}" "${member#*:}"
  done
}

# rollout ARGS...: runs the playbook on the scenario's fleet; its output goes to out.txt and
# its exit code into $rc.
rollout() {
  (cd "$deploy" && ansible-playbook -i "$scenario_dir/inventory.yml" rollout.yml "$@") \
    >"$scenario_dir/out.txt" 2>&1
  rc=$?
}

# revision HOST: the drive's firmware revision as its machine file holds it.
revision() {
  python3 - "$scenario_dir/$1.json" <<'EOF'
import json, sys
drive = json.load(open(sys.argv[1]))["drives"][0]
print(drive.get("state", {}).get("firmware", drive["firmware"]).strip())
EOF
}

# runs HOST PATTERN: how many runs of the tool on HOST had arguments matching PATTERN.
runs() { grep -c -E "^== run: .*$2" "$scenario_dir/$1.runs" 2>/dev/null; }
# commands HOST: how many DOWNLOAD MICROCODE commands reached HOST's drive.
downloads() { grep -c 'DOWNLOAD MICROCODE' "$scenario_dir/$1.runs" 2>/dev/null; }
# summary HOST: the host's line in the rollout's summary.
summary() {
  grep -E "^[[:space:]]+$1: " "$scenario_dir/out.txt" | sed 's/^[^{]*//' |
    python3 -c 'import json, sys; print(json.loads(sys.stdin.read())["quenmark"])' 2>/dev/null
}

expect_rc() { [ "$rc" -eq "$1" ] || problem "ansible-playbook exited with $rc, expected $1"; }
expect_rc_failed() { [ "$rc" -ne 0 ] || problem "ansible-playbook exited with 0, expected a failure"; }
expect_revision() {
  local got
  got=$(revision "$1")
  [ "$got" = "$2" ] || problem "$1: the drive runs '$got', expected '$2'"
}
expect_summary() {
  local got
  got=$(summary "$1")
  [ "$got" = "$2" ] || problem "$1: summary '$got', expected '$2'"
}
expect_updated() {
  expect_revision "$1" QF02
  expect_summary "$1" "QSIM FLEET SSD QF000${1#h}: QF01 -> QF02, updated"
  [ "$(runs "$1" '/D:')" = 1 ] || problem "$1: $(runs "$1" '/D:') download runs, expected 1"
}
expect_no_download() {
  [ "$(downloads "$1")" = 0 ] || problem "$1: $(downloads "$1") DOWNLOAD MICROCODE commands reached the drive"
}
# The drive report only: the tool never ran with an image.
expect_reports_only() {
  expect_no_download "$1"
  [ "$(runs "$1" '/D:')" = 0 ] || problem "$1: the tool ran with /D:"
}
expect_untouched() {
  cmp -s "$scenario_dir/$1.json" "$scenario_dir/$1.json.orig" || problem "$1: its machine file changed"
  [ ! -e "$scenario_dir/$1.runs" ] || problem "$1: the tool ran on it"
}
expect_clean_hosts() {
  [ -z "$(ls -A "$scenario_dir/host-tmp")" ] || problem "working folders left on the hosts: $(ls "$scenario_dir/host-tmp")"
}
expect_output() {
  grep -q -F -- "$1" "$scenario_dir/out.txt" || problem "the playbook's output lacks '$1'"
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
  # h4's first download is aborted and the retry goes through, in segments of 16 blocks.
  fleet all_updated h1:ok h2:ok h3:ok h4:retry
  mkdir -p "$scenario_dir/host_vars"
  printf 'quenmark_mode: segmented\nquenmark_segment_blocks: 16\nquenmark_retries: 1\n' \
    >"$scenario_dir/host_vars/h4.yml"
  rollout -e quenmark_batch_size=2 -e quenmark_image_sha256="${image_sha256^^}"
  expect_rc 0
  local host
  for host in h1 h2 h3 h4; do expect_updated $host; done
  [ "$(runs h4 '/D:[^ ]*QF02.LOD /s /g 16 /r 1 /v')" = 1 ] || problem "h4: the download did not run with /s /g 16 /r 1"
  [ "$(grep -c '\[injected\]' "$scenario_dir/h4.runs")" = 1 ] || problem "h4: the retry did not follow one aborted download"
  [ "$(grep -c '^PLAY \[Roll out drive firmware\]' "$scenario_dir/out.txt")" = 2 ] ||
    problem "the rollout did not run in two batches of two"
  grep -q -E '^h1 +: ok=[0-9]+ +changed=1 ' "$scenario_dir/out.txt" || problem "h1: not reported as changed"
  expect_clean_hosts
}

security_locked() {
  fleet security_locked h1:sec4 h2:ok
  rollout
  expect_rc 0
  [ "$(runs h1 '/D:')" = 1 ] || problem "h1: the tool did not get to refuse the drive itself"
  expect_revision h1 QF01
  expect_no_download h1
  expect_summary h1 "QSIM FLEET SSD QF0001: QF01 -> QF01, skipped: refused: the drive's ATA security state forbids the update (ATA SECURITY LOCKED); nothing was sent (exit code 6)"
  grep -q -E '^h1 +: ok=[0-9]+ +changed=0 +unreachable=0 +failed=0 ' "$scenario_dir/out.txt" ||
    problem "h1: not reported as unchanged and not failed"
  expect_updated h2
  expect_clean_hosts
}

abort_stops() {
  # In a batch with h2, h1 finishes its update and its report before the rollout stops.
  fleet abort_stops h1:ok h2:abort h3:ok
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_updated h1
  expect_revision h2 QF01
  expect_summary h2 "QSIM FLEET SSD QF0002: QF01 -> QF01, failed: the drive failed a command (exit code 1)"
  expect_output 'CHECK CONDITION ERROR for CMD: 92'
  expect_output 'fatal: [h2]: FAILED! => {"changed": false, "msg": "the drive failed a command (exit code 1)"}'
  expect_untouched h3
  expect_clean_hosts
  # The rollout resumes once the drive is mended: the drives that already run the new revision
  # are left alone.
  python3 - "$scenario_dir/h2.json" <<'EOF'
import json, sys
machine = json.load(open(sys.argv[1]))
del machine["drives"][0]["failDownload"]
json.dump(machine, open(sys.argv[1], "w"))
EOF
  rollout -e quenmark_target_revision=QF02 -e quenmark_batch_size=3
  expect_rc 0
  [ "$(runs h1 '/D:')" = 1 ] || problem "h1: the drive was updated again"
  expect_summary h1 "QSIM FLEET SSD QF0001: QF02, current: the drive already runs QF02"
  expect_revision h2 QF02
  expect_summary h2 "QSIM FLEET SSD QF0002: QF01 -> QF02, updated"
  expect_updated h3
}

check_mode() {
  fleet check_mode h1:ok h2:sec4
  rollout --check -e quenmark_batch_size=2
  expect_rc 0
  local host
  for host in h1 h2; do
    expect_revision $host QF01
    expect_reports_only $host
    [ "$(runs $host '/i')" = 1 ] || problem "$host: $(runs $host '/i') drive reports, expected 1"
  done
  expect_summary h1 "QSIM FLEET SSD QF0001: QF01, would update: image QF02.LOD"
  expect_summary h2 "QSIM FLEET SSD QF0002: QF01, would skip: the tool would refuse the drive in ATA security state SEC4"
  expect_clean_hosts
}

left_alone() {
  fleet left_alone h1:model h2:absent h3:ok
  rollout -e quenmark_batch_size=3 -e '{"quenmark_expected_model": "QSIM FLEET SSD"}'
  expect_rc 0
  expect_revision h1 QF01
  expect_reports_only h1
  expect_summary h1 "QSIM OTHER SSD QF0001: QF01, skipped: the drive model is not QSIM FLEET SSD; the drive is left alone"
  expect_revision h2 QF01
  expect_reports_only h2
  expect_summary h2 '\\.\PhysicalDrive0, skipped: no such drive: \\.\PhysicalDrive0'
  expect_updated h3
  expect_clean_hosts
}

unreachable_stops() {
  # h1 runs in parallel with h2, which cannot be reached: h1 is updated, then the rollout stops.
  fleet unreachable_stops h1:ok h2:unreachable h3:ok
  rollout -e quenmark_batch_size=2
  expect_rc_failed
  expect_output 'fatal: [h2]: UNREACHABLE!'
  expect_output 'h2 could not be reached; the state of its drive is unknown'
  expect_updated h1
  expect_untouched h3
}

doubtful_input() {
  fleet doubtful_input h1:ok h2:ok
  rollout -e quenmark_batch_size=2 -e quenmark_image_sha256="$(printf '0%.0s' {1..64})"
  expect_rc_failed
  expect_output "has SHA-256 $image_sha256, not 0000"
  expect_untouched h1
  expect_untouched h2
  rollout -e quenmark_batch_size=2 -e quenmark_device=--scan
  expect_rc_failed
  expect_output "quenmark_device '--scan' is an option, not a drive"
  expect_untouched h1
  expect_untouched h2
  expect_clean_hosts
}

# run.sh [NAME...] runs only the scenarios named (all_updated, security_locked, ...).
only=" $* "
for entry in \
  "all_updated|all hosts updated, in batches of two, one after a retry" \
  "security_locked|a drive locked by ATA security is skipped and the rollout goes on" \
  "abort_stops|an aborted download stops the rollout; later batches are untouched; the rollout resumes" \
  "check_mode|check mode reads the drive reports and changes nothing" \
  "left_alone|another drive model and a missing drive are skipped, never updated" \
  "unreachable_stops|a host that cannot be reached stops the rollout after its batch" \
  "doubtful_input|a wrong image or an option as device stops the rollout before any drive is touched"; do
  name=${entry%%|*}
  if [ "$only" = "  " ] || [[ $only == *" $name "* ]]; then
    scenario "${entry#*|}" "$name"
  fi
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
