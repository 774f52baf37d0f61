"""Processes of other programs, which are ended whatever happens to this one."""

import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import time

SIGNALS = signal.SIGHUP, signal.SIGINT, signal.SIGTERM  # what interrupts the bundler


def exit_on_signals():
    """Ends this program with 128 and the number, after it has cleaned up, undisturbed by another signal."""

    def leave(number, _):
        for each in SIGNALS:
            signal.signal(each, signal.SIG_IGN)
        sys.exit(128 + number)

    for number in SIGNALS:
        if signal.getsignal(number) != signal.SIG_IGN:  # as nohup has it
            signal.signal(number, leave)


@contextlib.contextmanager
def signals_deferred():
    """A signal that arrives inside is handled afterwards. It is not blocked: what is started inside
    would have it blocked too."""
    received = []
    handlers = {number: signal.getsignal(number) for number in SIGNALS}
    for number, handler in handlers.items():
        if handler != signal.SIG_IGN:
            signal.signal(number, lambda number, _: received.append(number))
    try:
        yield
    finally:
        for number, handler in handlers.items():
            signal.signal(number, handler)
        for number in received[:1]:
            os.kill(os.getpid(), number)


def start_session(command, **settings):
    """Starts a command in a session of its own, by which what it starts can be found."""
    return subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **settings)


def end_sessions(sessions, variable):
    """Kills all processes of these sessions, and on Linux those with the variable NAME=VALUE, which left
    the session. A Mac hides the variables of its own programs, from root too. {pid: command} of them.
    """
    ended = {}
    for _ in range(1000):  # what is being killed can start one more
        found = {
            pid: command
            for pid, command in running()
            if pid not in ended and (session_of(pid) in sessions or has_variable(pid, variable))
        }
        if not found:
            break
        for pid in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        ended.update(found)
        time.sleep(0.01)
    return ended


def session_of(pid):
    try:
        return os.getsid(pid)
    except OSError:  # it has ended
        return None


def has_variable(pid, variable):
    try:
        environment = pathlib.Path(f"/proc/{pid}/environ").read_bytes()
    except OSError:  # it has ended, it is another user's, or this is a Mac
        return False
    return os.fsencode(variable) in environment.split(b"\0")


def running():
    """(pid, command) of each process but this one, and without those that nobody has waited for yet."""
    if sys.platform == "darwin":
        listed = subprocess.run(
            ["ps", "-axo", "pid=,stat=,command="],
            stdout=subprocess.PIPE,
            stdin=subprocess.DEVNULL,
            text=True,
            errors="replace",
        ).stdout
        for line in listed.splitlines():
            pid, status, command = (line.split(None, 2) + [""])[:3]
            if "Z" not in status and int(pid) != os.getpid():
                yield int(pid), command
        return
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = (process / "cmdline").read_bytes().replace(b"\0", b" ").strip()
            if words and int(process.name) != os.getpid():
                yield int(process.name), words.decode(errors="replace")
