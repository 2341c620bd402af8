"""Filters of the role quenmark_firmware: what a run of the tool said, and the firmware image as
the controller sees it. They run on the controller."""

import hashlib
import os
import re
import stat

_FIELDS = {
    'model': re.compile(r'^  MN: (.*?)\r?$', re.M),
    'serial': re.compile(r'^  SN: (.*?)\r?$', re.M),
    'firmware': re.compile(r'^  FW: (.*?)\r?$', re.M),
    'security': re.compile(r'^  (SEC[0-6])\r?$', re.M),
}

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


def quenmark_said(run):
    """What the tool said last: its last non-blank line on standard error, else on standard
    output. A refusal is the tool's last word; with /v the drive report comes before it."""
    for stream in ('stderr', 'stdout'):
        lines = [line.strip() for line in _lines(run.get(stream)) if line.strip()]
        if lines:
            return lines[-1]
    return ''


def quenmark_report(run):
    """The drive report of a /i run, which ends with exit code 10 when the report was printed.
    A run that did not happen has the exit code -1 and identifies nothing."""
    key = (_exit_code(run), run.get('stdout') or '', run.get('stderr') or '')
    if key not in _reports:
        stdout = key[1]
        report = {}
        for name, pattern in _FIELDS.items():
            found = pattern.findall(stdout)
            report[name] = found[0] if found else ''
        report.update({
            'rc': key[0],
            'identified': key[0] == 10 and all(report[name] for name in ('model', 'serial', 'firmware')),
            'said': quenmark_said(run),
            'output': _lines(run.get('stdout')) + _lines(run.get('stderr')),
        })
        if len(_reports) > 64:
            _reports.clear()
        _reports[key] = report
    return dict(_reports[key])


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
            'quenmark_file': quenmark_file,
        }
