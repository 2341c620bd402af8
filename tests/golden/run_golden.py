#!/usr/bin/env python3
"""Runs golden transcripts: the whole quenmark-sim program against a simulated machine, with
stdout, stderr and the exit code compared byte for byte.

A case is a folder:
  args          one argument per line (UTF-8), without the program name
  machine.json  the simulated machine (optional; without it the built-in demo machine runs)
  setup         a bash script run in the work folder first (optional); $QUENMARK_SIM_IMAGE
                names the image tool, $GOLDEN_CASE the case folder
  stdout, stderr, exit
                what the run must print and return
  calls         the machine's call log, compared byte for byte (optional)
  after.json    a JSON value that the machine file must contain after the run (optional)
  wine          present: the reason the case cannot run under Wine (it is skipped there)

A case whose args hold --json must print one JSON document that docs/quenmark.schema.json
accepts (python3-jsonschema). It is run a second time without --json: the exit code, stderr,
the call log (but for the command line itself) and the machine's state must be the same, and
every message of the document must end a line that run printed.

Usage: run_golden.py --exe PROGRAM [--wine] [--update] [--image-tool TOOL] SUITE_OR_CASE...
Under --wine only line ends (CRLF) and the program's name in the "Usage: " line may differ.
The build date of the banner is compared as "<date>".
"""
import argparse
import functools
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

PROGRAM_NAME = "quenmark-sim"
SCHEMA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs",
                      "quenmark.schema.json")


def find_cases(paths):
    cases = []
    for path in paths:
        if os.path.isfile(os.path.join(path, "args")):
            cases.append(path)
            continue
        for name in sorted(os.listdir(path)):
            case = os.path.join(path, name)
            if os.path.isfile(os.path.join(case, "args")):
                cases.append(case)
    return cases


def read(path, default=None):
    if not os.path.exists(path):
        return default
    with open(path, "rb") as f:
        return f.read()


def contains(whole, part):
    """True when every key and value of part stands in whole (lists element by element)."""
    if isinstance(part, dict):
        return isinstance(whole, dict) and all(k in whole and contains(whole[k], v)
                                               for k, v in part.items())
    if isinstance(part, list):
        return (isinstance(whole, list) and len(whole) == len(part)
                and all(contains(w, p) for w, p in zip(whole, part)))
    return whole == part


def normalise_date(data):
    """The banner carries the build date; no transcript depends on it."""
    return re.sub(rb"Build Date: [A-Z][a-z]{2} [0-9]{1,2} [0-9]{4}", b"Build Date: <date>", data)


def normalise_wine(data):
    data = data.replace(b"\r\n", b"\n")
    return re.sub(rb"^Usage: .*? \[prefix\]", b"Usage: " + PROGRAM_NAME.encode() +
                  b" [prefix]", data, flags=re.M)


@functools.lru_cache(maxsize=None)
def schema_validator():
    try:
        import jsonschema
    except ImportError:
        sys.exit("run_golden.py: python3-jsonschema is missing (bash scripts/install-deps.sh build)")
    with open(SCHEMA, encoding="utf-8") as f:
        schema = json.load(f)
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


def check_document(stdout):
    """The --json run's standard output: one document the schema accepts, and a newline."""
    text = stdout.decode("utf-8", "replace")
    if not text.endswith("\n"):
        return None, ["stdout does not end with a newline"]
    try:
        document = json.loads(text)
    except ValueError as error:
        return None, ["stdout is no JSON document: %s" % error]
    errors = sorted(schema_validator().iter_errors(document), key=lambda e: list(e.path))
    return document, ["schema: %s at /%s" % (e.message, "/".join(map(str, e.path))) for e in errors]


def without_command_line(log):
    return b"".join(line for line in log.splitlines(True)
                    if not re.match(rb"^#[0-9]+ (GetCommandLineW|CommandLineToArgvW) ", line))


def check_twin(case, options, workroot, got, document):
    """The same run without --json: what was sent and returned is the same, and each message of
    the document is a line that run printed."""
    args = [a for a in read_args(case) if a != "--json"]
    twin, _ = execute(case, options, workroot, args)
    failures = []
    for name in ("stderr", "exit"):
        if twin[name] != got[name]:
            failures.append("%s differs from the run without --json" % name)
    if not options.wine and without_command_line(twin["calls"]) != without_command_line(got["calls"]):
        failures.append("the call log differs from the run without --json")
    if twin["state"] != got["state"]:
        failures.append("the machine's state differs from the run without --json")
    # A message may follow other text on its line (the progress line before a failure).
    printed = (twin["stdout"] + twin["stderr"]).decode("utf-8", "replace").split("\n")
    for message in (document or {}).get("messages", []):
        if not any(line.rstrip(" \t\r").endswith(message["text"]) for line in printed):
            failures.append("message %r ends no line of the run without --json" % message["text"])
    return failures


def read_args(case):
    with open(os.path.join(case, "args"), encoding="utf-8") as f:
        args = f.read().split("\n")
    if args and args[-1] == "":
        args.pop()
    return args


def run_case(case, options, workroot):
    args = read_args(case)
    got, work = execute(case, options, workroot, args)
    log = got["calls"]
    failures = []
    for name in ("stdout", "stderr", "exit"):
        expected = read(os.path.join(case, name))
        if options.update and not options.wine:
            with open(os.path.join(case, name), "wb") as f:
                f.write(got[name])
            continue
        if expected is None:
            failures.append("%s: no expected file" % name)
        elif expected != got[name]:
            failures.append("%s differs\n--- expected\n%s\n--- got\n%s" % (
                name, expected.decode("utf-8", "replace"), got[name].decode("utf-8", "replace")))
    expected_calls = read(os.path.join(case, "calls"))
    if expected_calls is not None and not options.wine:
        if options.update:
            with open(os.path.join(case, "calls"), "wb") as f:
                f.write(log)
        elif expected_calls != log:
            failures.append("calls differ\n--- expected\n%s\n--- got\n%s" % (
                expected_calls.decode(), log.decode("utf-8", "replace")))
    after = read(os.path.join(case, "after.json"))
    if after is not None:
        state = json.loads(got["state"])
        if not contains(state, json.loads(after)):
            failures.append("machine file after the run lacks %s\n--- it holds\n%s" % (
                after.decode(), json.dumps(state, indent=1)))
    if "--json" in args:
        document, problems = check_document(got["stdout"])
        failures += problems + check_twin(case, options, workroot, got, document)
    if not failures:
        shutil.rmtree(work, ignore_errors=True)
    return failures


# Wine's own loader can fail an assertion while a process exits (seen once in some hundred runs
# on a loaded machine); the program under test has then already done all it does.
WINE_LOADER_FAULT = b"Inconsistency detected by ld.so"


def execute(case, options, workroot, args):
    """One run of the case with these arguments in a fresh work folder: what it printed and
    returned, its call log and the machine file after it. Under Wine a run that Wine's loader
    failed is run once more."""
    got, work = execute_once(case, options, workroot, args)
    if options.wine and WINE_LOADER_FAULT in got["stderr"]:
        print("note %s: Wine's loader failed at exit; run again" % os.path.basename(case))
        got, work = execute_once(case, options, workroot, args)
    return got, work


def execute_once(case, options, workroot, args):
    work = tempfile.mkdtemp(prefix=os.path.basename(case) + ".", dir=workroot)
    env = dict(os.environ)
    env.pop("QUENMARK_SIM_MACHINE", None)
    env["QUENMARK_SIM_LOG"] = os.path.join(work, "calls.log")
    env["GOLDEN_CASE"] = os.path.abspath(case)
    if options.image_tool:
        env["QUENMARK_SIM_IMAGE"] = os.path.abspath(options.image_tool)
    machine = os.path.join(case, "machine.json")
    if os.path.exists(machine):
        shutil.copy(machine, os.path.join(work, "machine.json"))
        env["QUENMARK_SIM_MACHINE"] = "machine.json"
    setup = os.path.join(case, "setup")
    if os.path.exists(setup):
        subprocess.run(["bash", os.path.abspath(setup)], cwd=work, env=env, check=True)
    exe = os.path.abspath(options.exe)
    if options.wine:
        # The wine64 loader itself: the wrapper script adds a start-up cost and its own notes.
        loader = "/usr/lib/wine/wine64" if os.path.exists("/usr/lib/wine/wine64") else "wine"
        command = [loader, exe] + args
    else:
        command = [PROGRAM_NAME] + args
    # Files, not pipes: Wine's own helper processes inherit the streams and outlive the program.
    out_path, err_path = os.path.join(work, ".stdout"), os.path.join(work, ".stderr")
    with open(out_path, "wb") as out, open(err_path, "wb") as err:
        result = subprocess.run(command, cwd=work, env=env, stdin=subprocess.DEVNULL,
                                stdout=out, stderr=err,
                                executable=None if options.wine else exe, timeout=300)
    got = {"stdout": normalise_date(read(out_path)), "stderr": read(err_path),
           "exit": b"%d\n" % result.returncode}
    if options.wine:
        got["stdout"] = normalise_wine(got["stdout"])
        # Wine's own diagnostics on stderr are not the program's.
        got["stderr"] = normalise_wine(b"".join(
            line for line in got["stderr"].splitlines(True)
            if not re.match(rb"^[0-9a-f]{4}:(err|fixme|warn):", line)))
    got["calls"] = read(os.path.join(work, "calls.log"), b"")
    got["state"] = read(os.path.join(work, "machine.json"), b"null")
    return got, work


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--exe", required=True)
    parser.add_argument("--image-tool")
    parser.add_argument("--wine", action="store_true")
    parser.add_argument("--update", action="store_true",
                        help="write what the program printed as the expected files")
    parser.add_argument("paths", nargs="+")
    options = parser.parse_args()
    cases = find_cases(options.paths)
    workroot = tempfile.mkdtemp(prefix="golden.")
    passed = failed = skipped = 0
    for case in cases:
        name = os.path.relpath(case, os.path.dirname(os.path.dirname(os.path.abspath(case))))
        if options.wine and os.path.exists(os.path.join(case, "wine")):
            skipped += 1
            print("SKIP %s (%s)" % (name, read(os.path.join(case, "wine")).decode().strip()))
            continue
        failures = run_case(case, options, workroot)
        if failures:
            failed += 1
            print("FAIL %s\n  %s" % (name, "\n  ".join(failures)))
        else:
            passed += 1
            print("ok   %s" % name)
    if failed == 0:
        shutil.rmtree(workroot, ignore_errors=True)
    print("%d passed, %d failed" % (passed, failed) + (", %d skipped" % skipped if skipped else ""))
    return 1 if failed or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
