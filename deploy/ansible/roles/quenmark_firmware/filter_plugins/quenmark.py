"""Filters of the role quenmark_firmware. They run on the controller: what a run of the tool said,
what the role decides for each drive and how it judges an update, the records that the host side
(files/quenmark_host.py) prints, the lines of the rollout's record file, the bundle that carries
the tool and the image to a Linux host, and the firmware image as the controller sees it.

The tool runs with --json: everything the role reads from a run comes from its JSON document
(docs/json.md), through run_report() and said(), never from its console text."""

import base64
import hashlib
import io
import json
import os
import re
import stat
import tarfile
import tempfile
import time

# The tool's exit codes and what each means for a drive's update. With a refusal the tool sent
# nothing to the drive, and what it said is the reason.
EXIT_CODES = {
    0: {'result': 'updated', 'meaning': 'firmware update succeeded'},
    1: {'result': 'failed', 'meaning': 'the drive failed a command'},
    # An interrupt (a hang-up, SIGINT or SIGTERM) kept a firmware command back; the tool's last
    # line says what the drive holds.
    3: {'result': 'failed', 'quote': True, 'meaning': 'interrupted: a firmware command was kept back'},
    2: {'result': 'skipped', 'refusal': True, 'meaning': 'no such drive, or not an ATA drive'},
    4: {'result': 'failed', 'refusal': True,
        'meaning': 'the firmware file cannot be used, or its transfer does not fit the adapter'},
    5: {'result': 'failed', 'meaning': 'interface CRC error with abort'},
    6: {'result': 'skipped', 'refusal': True,
        'meaning': "refused: the drive's ATA security state forbids the update"},
    8: {'result': 'failed', 'meaning': 'the tool rejected its command line'},
    9: {'result': 'failed', 'meaning': 'the driver stack does not offer this pass-through'},
    10: {'result': 'failed',
         'meaning': 'the tool failed (a controller port that does not open, a request refused, or another failure)'},
}
UNKNOWN_EXIT_CODE = {'result': 'failed', 'meaning': 'unexpected exit code'}
# A second run on a drive that a run holds: the tool cannot open it (exit code 2) and, with /v,
# its error message names the sharing violation, error 32.
BUSY_ERROR = ('INVALID_HANDLE_VALUE', 'Error:', '32')
# Results after which the host stops: the drives after it are not tried.
STOPS = ('failed', 'unknown')
# The major version of the tool's document that the role reads.
FORMAT_MAJOR = 1

_digests = {}
_documents = {}


def _lines(text):
    return (text or '').splitlines()


def exit_code(run):
    rc = (run or {}).get('rc')
    if isinstance(rc, bool):
        return -1
    if isinstance(rc, int):
        return rc
    if isinstance(rc, str) and re.match(r'^-?[0-9]+$', rc):
        return int(rc)
    return -1


def document(run):
    """The run's --json document, or None when its standard output holds none of a layout the role
    knows (a tool that could not be started, an older build)."""
    stdout = (run or {}).get('stdout') or ''
    if stdout not in _documents:
        try:
            found = json.loads(stdout)
        except ValueError:
            found = None
        if not isinstance(found, dict) or not isinstance(found.get('format_version'), list) or \
                found['format_version'][:1] != [FORMAT_MAJOR]:
            found = None
        if len(_documents) > 256:
            _documents.clear()
        _documents[stdout] = found
    return _documents[stdout]


def _messages(run):
    return [m for m in (document(run) or {}).get('messages') or []
            if isinstance(m, dict) and isinstance(m.get('text'), str) and m.get('severity') in ('error', 'warning')]


def said(run):
    """What the tool said last: its document's last error, else its last warning; for a run that
    wrote no document, its last non-blank line on standard error."""
    messages = _messages(run)
    for severity in ('error', 'warning'):
        texts = [m['text'] for m in messages if m['severity'] == severity]
        if texts:
            return texts[-1]
    if document(run) is None:
        lines = [line.strip() for line in _lines((run or {}).get('stderr')) if line.strip()]
        if lines:
            return lines[-1]
    return ''


def output(run):
    """What a run said for a person: its document's errors and warnings, else (no document) its
    standard output and standard error as they came."""
    if document(run) is None:
        return _lines((run or {}).get('stdout')) + _lines((run or {}).get('stderr'))
    return ['%s: %s' % (m['severity'], m['text']) for m in _messages(run)]


def _text(value):
    return value if isinstance(value, str) else ''


def run_report(run):
    """The drive as a run's document describes it: a /i run's report (exit code 10 when it was
    printed), or an update's drive with the outcome and the revision its closing IDENTIFY DEVICE
    gave (after; None when the document names none). A run that did not happen has the exit code
    -1 and identifies nothing."""
    run = run or {}
    found = document(run) or {}
    drive = found.get('drive') if isinstance(found.get('drive'), dict) else {}
    outcome = found.get('outcome') if isinstance(found.get('outcome'), dict) else {}
    report = {'model': _text(drive.get('model')), 'serial': _text(drive.get('serial')),
              'firmware': _text(drive.get('firmware')), 'security': _text(drive.get('security_state'))}
    rc = exit_code(run)
    after = found.get('firmware_after')
    report.update({
        'rc': rc,
        'result': _text(outcome.get('result')),
        'identified': rc == 10 and all(report[name] for name in ('model', 'serial', 'firmware')),
        'after': after if isinstance(after, str) and after else None,
        'busy': rc == 2 and any(m['severity'] == 'error' and tuple(m['text'].split()[-3:]) == BUSY_ERROR
                                for m in _messages(run)),
        'said': said(run),
        'output': output(run),
    })
    return report


def record_line(run, host, device, step):
    """One line of the rollout's record file (JSON Lines): where and why the tool ran, its exit
    code and its document (null when it wrote none). A Windows survey's run (device None) names
    its drive itself."""
    if device is None:
        device = (run or {}).get('quenmark_candidate', '')
    return json.dumps({'host': host, 'device': device, 'step': step, 'exit_code': exit_code(run),
                       'record': document(run)}, separators=(',', ':'))


# --- The host side's records -------------------------------------------------------------------

_RECORD = re.compile(r'^(QUENMARK-[A-Z]+)((?: [^ ]+)*) *$')


def _field(text):
    return '' if text == '-' else base64.b64decode(text).decode('utf-8', 'replace')


def records(result):
    """The records of a run of files/quenmark_host.py, from a registered result of script or raw:
    its lines QUENMARK-..., wherever they arrived (merged with standard error under a terminal,
    with CRLF, or beside other writers' lines), each field decoded."""
    found = {'runs': {}, 'leftovers': [], 'removed': [], 'workdir': '', 'error': '', 'step': '',
             'stopped': 0, 'end': False, 'tool_seconds': 0.0}
    text = '\n'.join(str((result or {}).get(stream) or '') for stream in ('stdout', 'stderr'))
    for line in text.replace('\r', '\n').split('\n'):
        match = _RECORD.match(line.strip())
        if not match:
            continue
        kind, fields = match.group(1), match.group(2).split()
        try:
            if kind == 'QUENMARK-RUN' and len(fields) == 7:
                name, rc, start, end = fields[0], int(fields[1]), int(fields[2]), int(fields[3])
                found['runs'][name] = {'rc': rc, 'drive': _field(fields[4]), 'stdout': _field(fields[5]),
                                       'stderr': _field(fields[6]), 'seconds': max(0, end - start) / 1e9}
                found['tool_seconds'] += found['runs'][name]['seconds']
            elif kind == 'QUENMARK-LEFTOVER' and len(fields) == 3:
                found['leftovers'].append({'path': _field(fields[0]), 'running': fields[1] == 'running',
                                           'drives': _lines(_field(fields[2]))})
            elif kind == 'QUENMARK-REMOVED' and len(fields) == 1:
                found['removed'].append(_field(fields[0]))
            elif kind == 'QUENMARK-STAGED' and len(fields) == 1:
                found['workdir'] = _field(fields[0])
            elif kind == 'QUENMARK-STEP' and len(fields) == 1:
                found['step'] = fields[0]
            elif kind == 'QUENMARK-STOPPED' and len(fields) == 1:
                found['stopped'] = int(fields[0])
            elif kind == 'QUENMARK-ERROR' and len(fields) == 1:
                found['error'] = _field(fields[0])
            elif kind == 'QUENMARK-END' and not fields:
                found['end'] = True
        except (ValueError, TypeError):
            continue
    return found


# --- Decisions ----------------------------------------------------------------------------------

def _refusal_reason(run_or_report, code):
    words = run_or_report.get('said') if 'said' in run_or_report else said(run_or_report)
    meaning = EXIT_CODES.get(code, UNKNOWN_EXIT_CODE)['meaning']
    return '%s; nothing was sent (exit code %d)' % (
        ('the tool said "%s"' % words) if words else meaning, code)


def decide(report, settings, earlier=(), survey=None):
    """What to do with a drive, from its report: a result that leaves it alone (or fails it),
    or update. survey is the report that chose the drive at the start, when this is a later one;
    earlier holds the records of the host's drives before it."""
    discovered = settings.get('discover') and survey is None
    models = settings.get('expected_models') or []
    target = settings.get('target_revision') or ''
    if report['rc'] == 2 and report['busy']:
        return {'result': 'busy', 'reason': 'a run is still in progress'}
    if report['rc'] == 2:
        return {'result': 'skipped', 'reason': _refusal_reason(report, 2)}
    if not report['identified']:
        meaning = EXIT_CODES.get(report['rc'], UNKNOWN_EXIT_CODE)['meaning']
        # An exit code that is none of the tool's (the shell's 126 or 127 for a tool that cannot
        # be started) fails a discovered drive too: the reason is not the drive's.
        if discovered and report['rc'] in EXIT_CODES:
            return {'result': 'skipped', 'reason': 'the drive could not be identified: %s (exit code %d); it is left alone'
                    % (meaning, report['rc'])}
        if report['rc'] != 10:
            return {'result': 'failed', 'reason': 'the drive could not be identified: %s (exit code %d)' % (meaning, report['rc'])}
        return {'result': 'failed', 'reason': 'the drive report has no model, serial number or firmware revision'}
    if survey is not None and survey.get('identified') and (
            report['model'], report['serial']) != (survey['model'], survey['serial']):
        return {'result': 'failed', 'reason': 'the drive is no longer the one read at the start (%s %s); nothing was sent'
                % (survey['model'], survey['serial'])}
    same = [r['device'] for r in earlier if r.get('serial') == report['serial'] and r.get('model') == report['model']
            and r.get('serial')]
    if same:
        return {'result': 'skipped', 'reason': 'the same drive as %s' % same[0]}
    if models and report['model'] not in models:
        return {'result': 'skipped', 'reason': 'the drive model is not %s; the drive is left alone' % ' or '.join(models)}
    if target and report['firmware'] == target:
        return {'result': 'current', 'reason': 'the drive already runs %s' % target}
    if survey is not None and survey.get('identified') and report['firmware'] != survey['firmware']:
        return {'result': 'failed', 'reason': "the drive's revision changed from %s to %s since it was read; nothing was sent"
                % (survey['firmware'], report['firmware'])}
    if settings.get('check_mode'):
        security = report['security']
        if security == 'SEC4' or (settings.get('refuse_security_enabled') and security in ('SEC5', 'SEC6')):
            return {'result': 'would skip', 'reason': 'the tool would refuse the drive in ATA security state %s' % security}
        return {'result': 'would update', 'reason': 'image %s' % settings.get('image_name', '')}
    return {'result': 'update', 'reason': ''}


def revision_after(update, before, after=None):
    """The revision a drive reports after its update: the update's own closing IDENTIFY DEVICE,
    else a read after it; after a refusal nothing was sent, and the drive runs what it ran
    before. '' when it is not known."""
    report = run_report(update)
    if report['after']:
        return report['after']
    if after is not None and after['identified']:
        return after['firmware']
    if report['result'] == 'refused' or EXIT_CODES.get(report['rc'], {}).get('refusal'):
        return (before or {}).get('firmware', '')
    return ''


def judge(update, revision, settings):
    """The update judged by the tool's exit code, its document and the revision after it."""
    report = run_report(update)
    code = report['rc']
    meaning = EXIT_CODES.get(code, UNKNOWN_EXIT_CODE)
    if meaning.get('refusal'):
        return {'result': meaning['result'], 'reason': _refusal_reason(report, code)}
    if meaning.get('quote') and report['said']:
        return {'result': meaning['result'], 'reason': 'the tool said "%s" (exit code %d)' % (report['said'], code)}
    if meaning['result'] == 'failed':
        return {'result': 'failed', 'reason': '%s (exit code %d)' % (meaning['meaning'], code)}
    if not revision:
        return {'result': 'failed', 'reason': 'the update ran, but the drive could not be identified afterwards (exit code %d)'
                % code}
    target = settings.get('target_revision') or ''
    # The tool's own word that the drive keeps the image for an activation or a power cycle.
    saved = report['result'] == 'saved'
    if target and not saved and revision != target:
        return {'result': 'failed', 'reason': 'the drive reports %s after the update, not %s' % (revision, target)}
    if saved:
        return {'result': 'updated', 'reason': 'the new firmware waits for activation'}
    return {'result': 'updated', 'reason': ''}


def entry(device, known, outcome, after=None, update=None, output=()):
    """One drive's record for the summary. known is the report that described the drive before
    the update; after the revision it reports after the update ('' when not known, None when no
    update ran)."""
    after_firmware = '' if after is None else (after or '?')
    drive = ''
    if known and known.get('identified'):
        drive = '%s %s: %s%s, ' % (known['model'], known['serial'], known['firmware'],
                                   (' -> ' + after_firmware) if after_firmware else '')
    return {
        'device': device,
        'model': known.get('model', '') if known and known.get('identified') else '',
        'serial': known.get('serial', '') if known and known.get('identified') else '',
        'before': known.get('firmware', '') if known and known.get('identified') else '',
        'after': after_firmware,
        'exit_code': exit_code(update) if update is not None else '',
        'result': outcome['result'],
        'reason': outcome['reason'],
        'summary': drive + outcome['result'] + ((': ' + outcome['reason']) if outcome['reason'] else ''),
        'output': list(output) if outcome['result'] in STOPS else [],
    }


def quenmark_plan(staged, settings, devices=None, host=''):
    """A Linux host after staging: its working folder, the folders earlier runs left, each drive
    with the report read at the start and what to do with it, and the reads' lines of the record
    file. devices are the drives the inventory names (None: those the host listed)."""
    found = records(staged)
    plan = {'workdir': found['workdir'], 'error': found['error'], 'leftovers': found['leftovers'],
            'drives': [], 'tool_seconds': found['tool_seconds'], 'record_lines': []}
    if not found['workdir'] and not found['error']:
        plan['error'] = 'the host side did not answer (exit code %s)' % (staged or {}).get('rc', '?')
    if plan['error']:
        return plan
    names = sorted((n for n in found['runs']), key=int)
    earlier = []
    for name in names:
        run = found['runs'][name]
        report = run_report(run)
        decision = decide(report, settings, earlier)
        drive = {'device': run['drive'], 'survey': report, 'decision': decision}
        plan['drives'].append(drive)
        plan['record_lines'].append(record_line(run, host, run['drive'], 'survey'))
        if report['identified']:
            earlier.append({'device': run['drive'], 'model': report['model'], 'serial': report['serial']})
    if devices is not None and [d['device'] for d in plan['drives']] != list(devices):
        plan['error'] = 'the host read other drives than those named'
    return plan


def quenmark_step(result, drive, settings, host=''):
    """The outcome of one drive's update step on a Linux host (files/quenmark_host.py drive): its
    runs before and for the update (and after it, when the update's document named no revision),
    how its run ended, and their lines of the record file."""
    found = records(result)
    runs = found['runs']
    before = run_report(runs['before']) if 'before' in runs else None
    after = run_report(runs['after']) if 'after' in runs else None
    update = runs.get('update')
    limit = settings.get('limit', 0)
    # The output kept with a drive that stops the host: its update's, else its last read's.
    last = [r for r in (update, runs.get('after'), runs.get('before')) if r]
    kept = output(last[0]) if last else []
    known = before if before is not None and before['identified'] else drive['survey']
    revision = revision_after(update, known, after) if update is not None else None
    if found['step'] == 'pending':
        outcome = {'result': 'unknown', 'reason': "the tool's run did not end within %s s; it goes on on the host and the "
                   "drive's state is unknown until it ends" % limit}
    elif (result or {}).get('timedout') or 'expected time frame' in str((result or {}).get('msg', '')):
        # The task's own time limit (Ansible's timeout), a minute above the role's wait.
        outcome = {'result': 'unknown', 'reason': "the host gave no answer within %s s; the drive's state is unknown"
                   % (int(limit) + 60)}
    elif not found['end'] and (result or {}).get('failed'):
        outcome = {'result': 'unknown', 'reason': "the connection failed during the update; the drive's state is unknown"}
    elif found['error']:
        outcome = {'result': 'failed', 'reason': 'the update could not be run: %s' % found['error']}
    elif found['step'] != 'done' or before is None:
        outcome = {'result': 'unknown', 'reason': "the host's run of the tool ended before it could report; the drive's "
                   "state is unknown (exit code %s)" % (result or {}).get('rc', '?')}
    elif found['stopped'] and update is None:
        outcome = {'result': 'failed', 'reason': 'the update was stopped (signal %d) before it began; nothing was sent'
                   % found['stopped']}
    elif update is not None and not revision and exit_code(update) == 0 and found['stopped']:
        # Stopped after the tool's run, before the drive could be read again.
        outcome = {'result': 'unknown', 'reason': 'the update ended with exit code 0, but the run was stopped (signal %d) '
                   'before the drive could be read again' % found['stopped']}
    elif update is None:
        outcome = decide(before, settings, survey=drive['survey'])
        if outcome['result'] == 'update':
            outcome = {'result': 'failed', 'reason': 'the drive changed since it was read; nothing was sent'}
    else:
        # The tool's exit code and document say it all (an interrupt's 3 with its words, a
        # failure, a refusal, an update and the revision after it).
        outcome = judge(update, revision, settings)
    lines = [record_line(runs[name], host, drive['device'], step)
             for name, step in (('before', 'report'), ('update', 'update'), ('after', 'after')) if name in runs]
    return {'device': drive['device'], 'known': known, 'after': revision, 'update': update, 'outcome': outcome,
            'output': kept, 'tool_seconds': found['tool_seconds'], 'record_lines': lines}


def quenmark_results(plan, steps, settings):
    """The host's records, one per drive in the order of the plan: an updated drive's step, a
    drive left alone by its report at the start, and 'not tried' for a drive to update after the
    host stopped."""
    by_device = dict((s['device'], s) for s in steps)
    rows = []
    stopped_at = ''
    for drive in plan['drives']:
        decision = drive['decision']
        step = by_device.get(drive['device'])
        if step is not None:
            row = entry(drive['device'], step['known'], step['outcome'], step['after'], step['update'], step['output'])
            row['tool_seconds'] = step['tool_seconds']
        elif decision['result'] == 'update' or (stopped_at and decision['result'] in STOPS):
            row = entry(drive['device'], drive['survey'], {
                'result': 'not tried', 'reason': 'the host stopped at %s' % (stopped_at or 'an earlier drive')})
        else:
            known = drive['survey']
            same = [r for r in rows if r['serial'] and (r['model'], r['serial']) == (known['model'], known['serial'])]
            if same and decision['result'] == 'skipped':
                # A second name of a drive: the drive as its first name left it.
                known = dict(known, firmware=same[0]['after'] or same[0]['before'])
            row = entry(drive['device'], known, decision, output=drive['survey']['output'])
        if row['result'] in STOPS and not stopped_at:
            stopped_at = drive['device']
        rows.append(row)
    return rows


def quenmark_updates(plan):
    """The places in the plan of the drives to update, up to the first drive that stops the host."""
    places = []
    for place, drive in enumerate(plan['drives']):
        if drive['decision']['result'] in STOPS:
            break
        if drive['decision']['result'] == 'update':
            places.append(place)
    return places


def quenmark_leftovers(plan, removed=None):
    """The working folders that earlier runs left on the host, each with what the role does with
    it: removed when no run uses it any more (no process of it runs, and none of the drives its
    runs named is held by a run), else kept. removed lists the folders the host side removed."""
    busy = set(d['device'] for d in plan.get('drives', []) if d['survey']['busy'])
    rows = []
    for leftover in plan.get('leftovers', []):
        held = [d for d in leftover['drives'] if d in busy]
        if leftover['running'] or held:
            note = 'kept: %s' % (('a run still holds %s' % ', '.join(held)) if held else 'a run still works in it')
        elif removed is None:
            note = 'to be removed: no run uses it'
        elif leftover['path'] in removed:
            note = 'removed: no run used it'
        else:
            note = 'kept: a run started using it again'
        rows.append(dict(leftover, remove=not (leftover['running'] or held), note=note,
                         summary='working folder %s of an earlier run, %s' % (leftover['path'], note)))
    return rows


# --- Windows hosts: the same decisions, one run at a time ---------------------------------------

def quenmark_decide(report, settings, results=(), survey=None):
    """The decision for a drive of a Windows host from a report (a run's, or the report that
    discovery read), with the records of the host's drives before it."""
    if 'identified' not in (report or {}):
        report = run_report(report)
    return decide(report, settings, [r for r in results if r.get('serial')], survey=survey or None)


def quenmark_entry(before_run, settings, survey=None, results=(), update_run=None, after_run=None, device='', error=''):
    """The record of a drive of a Windows host from its runs (a run that did not happen is a
    skipped result without an exit code)."""
    def ran(run):
        return bool(run) and exit_code(run) != -1 and not run.get('skipped')
    survey = survey or None
    earlier = [r for r in results if r.get('serial')]
    before = run_report(before_run) if ran(before_run) else None
    if error:
        return entry(device, before or survey or {}, {'result': 'failed', 'reason': error})
    if before is None:
        if survey is not None:
            outcome = decide(survey, settings, earlier)
            if outcome['result'] != 'update':
                return entry(device, survey, outcome, output=survey['output'])
        stopped = [r['device'] for r in results if r['result'] in STOPS]
        return entry(device, survey or {}, {'result': 'not tried', 'reason': 'the host stopped at %s'
                                            % (stopped[0] if stopped else 'an earlier drive')})
    decision = decide(before, settings, earlier, survey=survey)
    if decision['result'] != 'update' or not ran(update_run):
        return entry(device, before, decision, output=before['output'])
    revision = revision_after(update_run, before, run_report(after_run) if ran(after_run) else None)
    outcome = judge(update_run, revision, settings)
    return entry(device, before, outcome, revision, update_run, output(update_run))


def quenmark_read_after(update_run):
    """Whether a drive of a Windows host is read again after its update: only when the update's
    document names no revision after it and the tool may have sent something."""
    report = run_report(update_run)
    return not report['after'] and report['result'] != 'refused'


def quenmark_report(run):
    return run_report(run)


# --- Files on the controller ---------------------------------------------------------------------

def _sha256(path):
    st = os.stat(path)
    key = (path, st.st_dev, st.st_ino, st.st_size, st.st_mtime_ns)
    if key not in _digests:
        digest = hashlib.sha256()
        with open(path, 'rb') as f:
            for block in iter(lambda: f.read(1 << 20), b''):
                digest.update(block)
        _digests[key] = digest.hexdigest()
    return _digests[key]


def quenmark_file(path, checksum=False):
    """A file on the controller: whether it is there and a regular file, its size, and with
    checksum its SHA-256."""
    info = {'exists': False, 'isreg': False, 'size': 0, 'sha256': ''}
    try:
        st = os.stat(path)
    except (OSError, TypeError, ValueError):
        return info
    info.update(exists=True, isreg=stat.S_ISREG(st.st_mode), size=st.st_size)
    if checksum and info['isreg']:
        info['sha256'] = _sha256(path)
    return info


HOST_SIDE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'files', 'quenmark_host.py')

# The bundle: a shell script that makes the working folder, unpacks the archive appended to it
# (the tool, the role's host side and the image) and starts the host side's stage. Offsets are
# written with a fixed width, so that the header's length does not depend on them.
_BUNDLE_HEADER = '''#!/bin/sh
# Fleet role quenmark_firmware: the working folder for one run, unpacked from the archive after
# this script, then the host side's stage (the files' checks, the leftovers, the drives' reports).
set -u
umask 077
failed() {{ printf 'QUENMARK-ERROR %s\\nQUENMARK-END\\n' "$(printf '%s' "$1" | base64 -w0)"; exit 0; }}
command -v python3 >/dev/null || failed "python3 is missing on the host"
base=${{1:-}}
[ -n "$base" ] || base=${{TMPDIR:-/tmp}}
shift
workdir=$(mktemp -d "$base/quenmark.XXXXXX") || failed "no working folder could be made in $base"
tail -c +{offset:012d} "$0" | tar -x -z -f - --no-same-owner -C "$workdir" ||
    {{ rm -rf "$workdir"; failed "the archive did not unpack into $workdir"; }}
exec python3 -S "$workdir/quenmark_host.py" stage "$workdir" "$@"
'''


def _bundle_folder():
    folder = os.path.join(tempfile.gettempdir(), 'quenmark-bundles-%d' % os.getuid())
    try:
        os.mkdir(folder, 0o700)
    except FileExistsError:
        pass
    st = os.lstat(folder)
    if not stat.S_ISDIR(st.st_mode) or st.st_uid != os.getuid() or st.st_mode & 0o077:
        raise ValueError('%s is not a private folder of this user' % folder)
    return folder


def quenmark_bundle(tool, image=''):
    """The bundle for a Linux host: its path on the controller and the SHA-256 of the tool and the
    image, which the host checks after unpacking. Made once per tool, image and host side, and
    kept in a private folder of the controller's temporary folder (bundles unused for a day are
    removed)."""
    tool_sha = _sha256(tool)
    image_sha = _sha256(image) if image else ''
    with open(HOST_SIDE, 'rb') as f:
        host_side = f.read()
    key = hashlib.sha256(('%s %s %s %s' % (tool_sha, image_sha, hashlib.sha256(host_side).hexdigest(),
                                           hashlib.sha256(_BUNDLE_HEADER.encode()).hexdigest())).encode()).hexdigest()
    folder = _bundle_folder()
    path = os.path.join(folder, 'quenmark-bundle-%s.sh' % key[:24])
    info = {'path': path, 'tool_sha256': tool_sha, 'image_sha256': image_sha,
            'image': 'image/' + os.path.basename(image) if image else ''}
    if os.path.exists(path):
        os.utime(path)
        return info
    archive = io.BytesIO()
    # Compressed lightly: a build with its debug information shrinks to a third, which the
    # connection then carries, for a fraction of a second of unpacking on the host.
    with tarfile.open(fileobj=archive, mode='w:gz', format=tarfile.USTAR_FORMAT, compresslevel=1) as tar:
        def add(name, data, mode):
            member = tarfile.TarInfo(name)
            member.size, member.mode, member.mtime = len(data), mode, int(time.time())
            tar.addfile(member, io.BytesIO(data))
        add('quenmark_host.py', host_side, 0o600)
        with open(tool, 'rb') as f:
            add('quenmark', f.read(), 0o700)
        if image:
            directory = tarfile.TarInfo('image')
            directory.type, directory.mode = tarfile.DIRTYPE, 0o700
            tar.addfile(directory)
            with open(image, 'rb') as f:
                add(info['image'], f.read(), 0o600)
    header = _BUNDLE_HEADER.format(offset=0)
    header = _BUNDLE_HEADER.format(offset=len(header.encode()) + 1)
    partial = '%s.%d.partial' % (path, os.getpid())
    with open(partial, 'wb') as f:
        f.write(header.encode())
        f.write(archive.getvalue())
    os.chmod(partial, 0o700)
    os.rename(partial, path)
    for old in os.listdir(folder):
        old = os.path.join(folder, old)
        try:
            if time.time() - os.stat(old).st_mtime > 86400:
                os.remove(old)
        except OSError:
            pass
    return info


def quenmark_worst_case(image_size, settings):
    """The longest a run of the tool may take for an update, in seconds: every DOWNLOAD MICROCODE
    of every attempt at its time-out, the pause after each attempt, the activation, and a margin
    for opening the drive and reading it before and after."""
    blocks = max(1, (int(image_size) + 511) // 512)
    per_transfer = int(settings.get('segment_blocks') or 64)
    commands = 1 if settings.get('mode') == 'whole' else (blocks + per_transfer - 1) // per_transfer
    attempts = int(settings.get('retries') or 0) + 1
    timeout = int(settings.get('timeout') or 120)
    activation = timeout if settings.get('activate') else 0
    return attempts * (commands * timeout + 2) + activation + int(settings.get('margin', 120))


class FilterModule(object):
    def filters(self):
        return {
            'quenmark_report': quenmark_report,
            'quenmark_file': quenmark_file,
            'quenmark_bundle': quenmark_bundle,
            'quenmark_plan': quenmark_plan,
            'quenmark_updates': quenmark_updates,
            'quenmark_step': quenmark_step,
            'quenmark_results': quenmark_results,
            'quenmark_leftovers': quenmark_leftovers,
            'quenmark_records': records,
            'quenmark_record_line': record_line,
            'quenmark_read_after': quenmark_read_after,
            'quenmark_decide': quenmark_decide,
            'quenmark_entry': quenmark_entry,
            'quenmark_worst_case': quenmark_worst_case,
        }
