"""Filters of the role quenmark_firmware: what a run of the tool said, read from the JSON document
that --json makes it print (docs/json.md), and the firmware image as the controller sees it. They
run on the controller."""

import hashlib
import json
import os
import re
import stat

# The layouts of the tool's document that these filters read.
_FORMAT_MAJOR = 1

# A drive's decisions read its report many times over while they are worked out, and the
# settings checks the image's checksum.
_reports = {}
_digests = {}


def _lines(text):
    return (text or '').splitlines()


def _exit_code(run):
    rc = run.get('rc')
    if isinstance(rc, bool):
        return -1
    if isinstance(rc, int):
        return rc
    if isinstance(rc, str) and re.match(r'^-?[0-9]+$', rc):
        return int(rc)
    return -1


def quenmark_record(run):
    """The run's document, or None when its standard output holds none of a layout the role
    knows (a tool that could not be started, an older build)."""
    try:
        document = json.loads(run.get('stdout') or '')
    except ValueError:
        return None
    if not isinstance(document, dict):
        return None
    version = document.get('format_version')
    if not isinstance(version, list) or not version or version[0] != _FORMAT_MAJOR:
        return None
    return document


def _messages(record):
    return [m for m in (record or {}).get('messages') or []
            if isinstance(m, dict) and isinstance(m.get('text'), str)]


def quenmark_said(run):
    """What the tool said last: its last error, else its last warning, else the last non-blank
    line on standard error (a run that wrote no document)."""
    messages = _messages(quenmark_record(run))
    for severity in ('error', 'warning'):
        said = [m['text'] for m in messages if m.get('severity') == severity]
        if said:
            return said[-1]
    lines = [line.strip() for line in _lines(run.get('stderr')) if line.strip()]
    return lines[-1] if lines else ''


def quenmark_output(run):
    """What the run printed for a person: the document's messages, or the raw output of a run
    that wrote no document."""
    record = quenmark_record(run)
    if record is None:
        return _lines(run.get('stdout')) + _lines(run.get('stderr'))
    return ['%s: %s' % (m.get('severity'), m['text']) for m in _messages(record)]


def quenmark_report(run):
    """The drive as a run's document describes it: the drive report of a /i run (exit code 10
    when it was printed), or the drive an update identified, with the revision it reports at the
    end of the run. A run that did not happen has the exit code -1 and identifies nothing."""
    key = (_exit_code(run), run.get('stdout') or '', run.get('stderr') or '')
    if key not in _reports:
        record = quenmark_record(run) or {}
        drive = record.get('drive') or {}
        outcome = record.get('outcome') or {}
        report = {name: drive.get(field) if isinstance(drive.get(field), str) else ''
                  for name, field in (('model', 'model'), ('serial', 'serial'),
                                      ('firmware', 'firmware'), ('security', 'security_state'))}
        after = record.get('firmware_after')
        report.update({
            'rc': key[0],
            'result': outcome.get('result', '') if isinstance(outcome, dict) else '',
            'identified': key[0] == 10 and all(report[name] for name in ('model', 'serial', 'firmware')),
            'after': after if isinstance(after, str) else None,
            'said': quenmark_said(run),
            'output': quenmark_output(run),
        })
        if len(_reports) > 64:
            _reports.clear()
        _reports[key] = report
    return dict(_reports[key])


def quenmark_audit(run, host, device, step):
    """One line of the rollout's record file: where and why the tool ran, its exit code and its
    document (null when it wrote none). A survey's run names its drive itself."""
    if device is None:
        device = run.get('quenmark_candidate', '')
    return json.dumps({'host': host, 'device': device, 'step': step, 'exit_code': _exit_code(run),
                       'record': quenmark_record(run)}, sort_keys=False, separators=(',', ':'))


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
        key = (path, st.st_dev, st.st_ino, st.st_size, st.st_mtime_ns)
        if key not in _digests:
            digest = hashlib.sha256()
            with open(path, 'rb') as image:
                for block in iter(lambda: image.read(1 << 20), b''):
                    digest.update(block)
            _digests[key] = digest.hexdigest()
        info['sha256'] = _digests[key]
    return info


class FilterModule(object):
    def filters(self):
        return {
            'quenmark_report': quenmark_report,
            'quenmark_said': quenmark_said,
            'quenmark_output': quenmark_output,
            'quenmark_audit': quenmark_audit,
            'quenmark_file': quenmark_file,
        }
