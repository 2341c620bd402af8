"""The role's side on a Linux host (Python 3.5 or later, standard library only), in the working
folder next to the tool and the image. It runs the tool with --json and prints what each run
wrote as records on standard output, one line each, whatever else shares the connection's
streams (a terminal's CRLF, sudo's warnings, ssh's notices):

  QUENMARK-RUN <name> <exit code> <start ns> <end ns> <drive> <stdout> <stderr>
  QUENMARK-LEFTOVER <folder> <running|idle> <drives its runs named>
  QUENMARK-STAGED <working folder>        QUENMARK-STEP <done|unfinished|pending>
  QUENMARK-STOPPED <signal>               QUENMARK-REMOVED <folder>
  QUENMARK-ERROR <message>
  QUENMARK-END

Every field but the numbers is base64 ("-" when empty). The commands:

  stage WORKDIR TOOL_SHA256 IMAGE_SHA256|- VERBOSE DISCOVER BY_ID [DRIVE...]
      once the bundle has unpacked the tool as WORKDIR/quenmark and the image into WORKDIR/image/:
      checks both, lists the working folders that earlier runs left beside this one, lists the
      candidate drives (DISCOVER=1 without DRIVEs: the whole-disk links ata-* of BY_ID) and reads
      each drive's report (/i).
  drive WORKDIR STEP LIMIT VERBOSE MODEL SERIAL REVISION [NAME=VALUE...] -- DRIVE ARGUMENT...
      one drive's update (run-step), detached from the connection: a service of its own under
      systemd, else a session of its own. Waits for it up to LIMIT seconds, prints its runs: the
      read before (/i), the update (ARGUMENTs, --json among them) and, only when the update's
      document names no revision after it, a read after.
  finish WORKDIR [LEFTOVER...]
      removes the working folder and the leftover folders named, unless a run still uses one.

Every process a host starts costs time (tens of milliseconds in a small VM), and so does every
module Python loads: everything but the tool runs in this one interpreter, the tool is started
with fork and exec, and the modules that only staging and removal need are loaded there."""

import binascii
import errno
import fcntl
import os
import signal
import sys
import time

HERE = os.path.abspath(__file__)


def text(value):
    if isinstance(value, str):
        value = value.encode('utf-8', 'surrogateescape')
    return binascii.b2a_base64(value).rstrip(b'\n').decode('ascii') if value else '-'


def read(path):
    try:
        with open(path, 'rb') as f:
            return f.read()
    except (IOError, OSError):
        return b''


def say(line):
    sys.stdout.write(line + '\n')
    sys.stdout.flush()


def error(message):
    say('QUENMARK-ERROR %s' % text(message))
    say('QUENMARK-END')
    sys.exit(0)


def now():
    return int(time.time() * 1e9)


# The signals that stop a step; a step passes each one on to the run of the tool that goes on.
STOPPING = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)
# The process group of the run that goes on, while there is one.
running = []


def spawn(command, environment=None, stdout=None, stderr=None, keep_fd=None, group=False):
    """Runs a program (a path, or a name looked up in PATH) with standard input from /dev/null and
    the output into the descriptors given (else /dev/null); its exit code, 126 or 127 when it
    cannot be started, 128 + N after signal N. With group, in a process group of its own: a
    signal to the step's group or session reaches it only as the step passes it on, once."""
    if group:
        # Held back from fork until the run is known as running: a signal in between is passed on
        # to it instead of being lost.
        signal.pthread_sigmask(signal.SIG_BLOCK, STOPPING)
    pid = os.fork()
    if pid == 0:
        try:
            if group:
                os.setpgid(0, 0)
                for signum in STOPPING:
                    signal.signal(signum, signal.SIG_DFL)
                signal.pthread_sigmask(signal.SIG_UNBLOCK, STOPPING)
            null = os.open(os.devnull, os.O_RDWR)
            os.dup2(null, 0)
            os.dup2(null if stdout is None else stdout, 1)
            os.dup2(null if stderr is None else stderr, 2)
            if keep_fd is not None:
                os.set_inheritable(keep_fd, True)
            os.execvpe(command[0], command, os.environ if environment is None else environment)
        except OSError as failure:
            os.write(2, ('%s: %s\n' % (command[0], failure.strerror)).encode())
            os._exit(126 if failure.errno == errno.EACCES else 127)
        os._exit(127)
    if group:
        try:
            os.setpgid(pid, pid)
        except OSError:
            pass  # the child has made its group already, or has run and ended
        running.append(pid)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, STOPPING)
    try:
        _, status = os.waitpid(pid, 0)
    finally:
        if group:
            running.remove(pid)
    return os.WEXITSTATUS(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status)


def run(name, folder, drive, command, environment=None, keep_fd=None, group=False):
    """One run: its output and exit code kept in FOLDER/NAME.*, the exit code last, with the run's
    start and end."""
    start = now()
    flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
    out = os.open(os.path.join(folder, name + '.out'), flags, 0o600)
    err = os.open(os.path.join(folder, name + '.err'), flags, 0o600)
    try:
        code = spawn(command, environment, out, err, keep_fd, group)
    finally:
        os.close(out)
        os.close(err)
    with open(os.path.join(folder, name + '.drive'), 'wb') as f:
        f.write(drive.encode('utf-8', 'surrogateescape'))
    partial = os.path.join(folder, name + '.rc.partial')
    with open(partial, 'w') as f:
        f.write('%d %d %d\n' % (code, start, now()))
    os.rename(partial, os.path.join(folder, name + '.rc'))


def record(name, folder):
    """The QUENMARK-RUN line of a run that ended."""
    fields = read(os.path.join(folder, name + '.rc')).split()
    if len(fields) != 3:
        return
    code, start, end = (int(x) for x in fields)
    say('QUENMARK-RUN %s %d %d %d %s %s %s' % (name, code, start, end, text(read(os.path.join(folder, name + '.drive'))),
                                               text(read(os.path.join(folder, name + '.out'))),
                                               text(read(os.path.join(folder, name + '.err')))))


def document(output):
    """The tool's --json document in a run's standard output, or {} (a run that wrote none, or one
    of a layout this side does not know)."""
    import json
    try:
        found = json.loads(output.decode('utf-8', 'surrogateescape'))
    except ValueError:
        return {}
    if not isinstance(found, dict) or (found.get('format_version') or [None])[0] != 1:
        return {}
    return found


def held(path):
    """Whether a lock file is held by a process."""
    try:
        fd = os.open(path, os.O_RDONLY)
    except OSError:
        return False
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return False
    except OSError:
        return True
    finally:
        os.close(fd)


def in_use(folder):
    """Whether a run of a working folder still goes on: a step holds its lock, or a process runs a
    program of the folder (the tool of a run from before the steps had locks)."""
    import glob
    if any(held(lock) for lock in glob.glob(os.path.join(glob.escape(folder), 'step-*', 'lock'))):
        return True
    prefix = folder.rstrip('/') + '/'
    for pid in os.listdir('/proc'):
        if pid.isdigit():
            try:
                if os.readlink('/proc/%s/exe' % pid).startswith(prefix):
                    return True
            except OSError:
                continue
    return False


def own_folder(folder):
    """Whether a path is a folder of this user's, not a link to one."""
    try:
        st = os.lstat(folder)
    except OSError:
        return False
    return os.path.isdir(folder) and not os.path.islink(folder) and st.st_uid == os.geteuid()


def report_options(verbose):
    """The tool's options for a drive report."""
    return ['/i', '--json'] + (['/v'] if verbose == '1' else [])


def sha256(paths):
    import hashlib
    digest = hashlib.sha256()
    for path in paths:
        with open(path, 'rb') as f:
            for block in iter(lambda: f.read(1 << 20), b''):
                digest.update(block)
    return digest.hexdigest()


def stage(workdir, tool_sha, image_sha, verbose, discover, by_id, *drives):
    import glob
    import re
    import shutil
    tool = os.path.join(workdir, 'quenmark')
    if sha256([tool]) != tool_sha:
        shutil.rmtree(workdir, ignore_errors=True)
        error('the tool arrived damaged on the host (its SHA-256 differs); nothing was run')
    if image_sha != '-' and sha256(sorted(glob.glob(os.path.join(glob.escape(workdir), 'image', '*')))) != image_sha:
        shutil.rmtree(workdir, ignore_errors=True)
        error('the firmware image arrived damaged on the host (its SHA-256 differs); nothing was run')
    # Working folders of earlier runs that were cut off: owned by this user, beside this one.
    base = os.path.dirname(workdir)
    for folder in sorted(glob.glob(os.path.join(glob.escape(base), 'quenmark.*'))):
        if folder == workdir or not own_folder(folder):
            continue
        named = b''.join(read(path) for path in sorted(glob.glob(os.path.join(glob.escape(folder), 'step-*', 'drive'))))
        say('QUENMARK-LEFTOVER %s %s %s' % (text(folder), 'running' if in_use(folder) else 'idle', text(named)))
    drives = list(drives)
    if discover == '1' and not drives:
        for link in sorted(glob.glob(os.path.join(glob.escape(by_id), 'ata-*'))):
            if os.path.islink(link) and not re.search(r'-part[0-9]+$', os.path.basename(link)):
                drives.append(link)
    survey = os.path.join(workdir, 'survey')
    os.mkdir(survey)
    options = report_options(verbose)
    for index, drive in enumerate(drives):
        run(str(index), survey, drive, [tool, drive] + options)
        record(str(index), survey)
    say('QUENMARK-STAGED %s' % text(workdir))
    say('QUENMARK-END')


def drive(workdir, step, limit, *rest):
    folder = os.path.join(workdir, 'step-' + step)
    try:
        os.mkdir(folder)
    except OSError:
        error('step %s of %s exists already' % (step, workdir))
    command = [sys.executable, '-S', HERE, 'run-step', workdir, step, limit] + list(rest)
    unit = 'quenmark-%s-%s' % (os.path.basename(workdir).split('.')[-1], step)
    started = False
    if os.path.isdir('/run/systemd/system'):
        # A stop of the service goes to the step alone, which passes it on to the tool's run and
        # waits for it: no kill before the longest the run may take.
        started = spawn(['systemd-run', '--quiet', '--collect', '--unit=' + unit, '--property=KillMode=mixed',
                         '--property=TimeoutStopSec=%ds' % max(1, int(limit))] + command) == 0
    if not started:
        # A session of its own, without the connection's terminal: a child that starts the step
        # in a grandchild and ends at once.
        child = os.fork()
        if child == 0:
            try:
                os.setsid()
                if os.fork() == 0:
                    null = os.open(os.devnull, os.O_RDWR)
                    for fd in (0, 1, 2):
                        os.dup2(null, fd)
                    os.execv(sys.executable, command)
            finally:
                os._exit(0)
        os.waitpid(child, 0)
    # started appears once the step holds its lock, which it lets go when it ends.
    deadline = time.time() + 30
    while not os.path.exists(os.path.join(folder, 'started')):
        if time.time() > deadline:
            error('the update did not start within 30 s')
        time.sleep(0.02)
    status = 'pending'
    fd = os.open(os.path.join(folder, 'lock'), os.O_RDONLY)

    def expired(signum, frame):
        raise TimeoutError()
    signal.signal(signal.SIGALRM, expired)
    signal.alarm(max(1, int(limit)))
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        signal.alarm(0)
        status = 'done' if os.path.exists(os.path.join(folder, 'done')) else 'unfinished'
    except TimeoutError:
        pass
    os.close(fd)
    for name in ('before', 'update', 'after'):
        record(name, folder)
    stopped = read(os.path.join(folder, 'stopped')).strip()
    if stopped:
        say('QUENMARK-STOPPED %s' % stopped.decode())
    say('QUENMARK-STEP %s' % status)
    say('QUENMARK-END')


def run_step(workdir, step, limit, verbose, model, serial, revision, *rest):
    """Before, update and, when needed, after of one drive, in a session of its own. The step's
    lock is held from here until the last run of the tool has ended (the tool inherits it), which
    tells a later run that this working folder is still in use. A hang-up, SIGINT or SIGTERM (the
    service stopped, the host shutting down, a signal to the step) is passed on to the tool's run:
    a download ends as the tool ends an interrupted one, the step records it and starts no
    further run."""
    stopping = []

    def stop(signum, frame):
        stopping.append(signum)
        for pid in running:
            try:
                os.killpg(pid, signum)
            except OSError:
                pass
    for signum in STOPPING:
        signal.signal(signum, stop)
    folder = os.path.join(workdir, 'step-' + step)
    try:
        os.mkdir(os.path.join(folder, 'claimed'))
    except OSError:
        return  # started twice: the first one runs the step
    lock = os.open(os.path.join(folder, 'lock'), os.O_WRONLY | os.O_CREAT, 0o600)
    fcntl.flock(lock, fcntl.LOCK_EX)
    with open(os.path.join(folder, 'started'), 'w') as f:
        f.write('%d\n' % os.getpid())
    rest = list(rest)
    split = rest.index('--')
    environment = dict(os.environ)
    environment.update(setting.split('=', 1) for setting in rest[:split])
    arguments = rest[split + 1:]
    device = arguments[0]
    with open(os.path.join(folder, 'drive'), 'w') as f:
        f.write(device + '\n')
    tool = os.path.join(workdir, 'quenmark')
    options = report_options(verbose)

    def tool_run(name, command):
        if not stopping:
            run(name, folder, device, command, environment, lock, group=True)
        return not stopping and os.path.exists(os.path.join(folder, name + '.rc'))
    if tool_run('before', [tool, device] + options):
        before = document(read(os.path.join(folder, 'before.out')))
        drive = before.get('drive') or {}
        code = read(os.path.join(folder, 'before.rc')).split()[0]
        # The update goes out only to the drive that was read at the start, still on that revision.
        if code == b'10' and (drive.get('model'), drive.get('serial'), drive.get('firmware')) == (model, serial, revision):
            if tool_run('update', [tool] + arguments):
                # The update's closing IDENTIFY DEVICE names the revision after it; a run without
                # it that may have sent something is followed by a read of its own.
                update = document(read(os.path.join(folder, 'update.out')))
                if 'firmware_after' not in update and (update.get('outcome') or {}).get('result') != 'refused':
                    tool_run('after', [tool, device] + options)
    if stopping:
        with open(os.path.join(folder, 'stopped'), 'w') as f:
            f.write('%d\n' % stopping[0])
    open(os.path.join(folder, 'done'), 'w').close()


def finish(workdir, *leftovers):
    import shutil
    # A step that outlasted its wait goes on: its working folder stays, a leftover of this run.
    if not in_use(workdir):
        shutil.rmtree(workdir, ignore_errors=True)
    for folder in leftovers:
        if not os.path.basename(folder).startswith('quenmark.'):
            continue
        if not own_folder(folder) or in_use(folder):
            continue
        shutil.rmtree(folder, ignore_errors=True)
        if not os.path.exists(folder):
            say('QUENMARK-REMOVED %s' % text(folder))
    say('QUENMARK-END')


COMMANDS = {'stage': (stage, 6), 'drive': (drive, 3), 'run-step': (run_step, 7), 'finish': (finish, 1)}

if __name__ == '__main__':
    os.environ['LC_ALL'] = 'C'
    os.environ['PATH'] = '/usr/sbin:/usr/bin:/sbin:/bin:' + os.environ.get('PATH', '')
    name = sys.argv[1] if len(sys.argv) > 1 else ''
    if name not in COMMANDS or len(sys.argv) - 2 < COMMANDS[name][1]:
        error("the host side was called wrongly: %s" % ' '.join(sys.argv[1:]))
    COMMANDS[name][0](*sys.argv[2:])
