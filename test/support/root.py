"""The directories of a Mac, at their own absolute paths; where they are is decided by run.py."""

import os
import pathlib
import select
import shutil
import signal
import subprocess
import time
import typing

from .macos import needs

# What a machine may have already; anything else must have been created here.
SHARED = [
    "/",
    "/Applications",
    "/Library",
    "/Library/Application Support",
    "/Library/LaunchDaemons",
    "/Library/Logs",
    "/Users",
    "/Volumes",
    "/private",
    "/private/tmp",
    "/tmp",
]
# For the tests' own files, writable for everybody; /tmp is a link to /private/tmp on macOS.
SCRATCH = os.path.realpath("/tmp") + "/orvane"

_uids = pathlib.Path("/proc/self/uid_map")
_all_users = os.geteuid() == 0 and (not _uids.exists() or int(_uids.read_text().split()[2]) > 1000)
# The ordinary user whom commands run as, None for the caller: on a Mac who called sudo, on Linux
# an account need not exist.
USER, GROUP = (
    [int(os.environ.get(name, "1000")) for name in ("SUDO_UID", "SUDO_GID")]
    if _all_users
    else (None, None)
)


class Result(typing.NamedTuple):
    """A finished command; the status as a shell gives it, 128 and the number for a signal."""

    status: int
    stdout: bytes
    stderr: bytes


class Root:
    """What one test, or the tests of a file, have created there. A path is written to the journal
    before it can be created, and removed at the end; nothing else is."""

    _journal = pathlib.Path(os.environ.get("TEST_JOURNAL", "/nonexistent"))
    _claimed = []  # by all live objects, in order

    def __init__(self):
        self._first = len(Root._claimed)

    def __enter__(self):
        self.path(SCRATCH).mkdir(exist_ok=True)
        self.path(SCRATCH).chmod(0o1777)
        return self

    def __exit__(self, *error):
        while len(Root._claimed) > self._first:
            remove(Root._claimed.pop())
            self._write_journal()

    @classmethod
    def recover(cls):
        """Removes what the journal of a killed run lists."""
        if cls._journal.exists():
            for line in reversed(cls._journal.read_text().splitlines()):
                remove(pathlib.Path(os.fsdecode(bytes.fromhex(line))))
            cls._journal.unlink()

    @classmethod
    def _write_journal(cls):
        text = "".join(os.fsencode(path).hex() + "\n" for path in cls._claimed)
        new = cls._journal.with_suffix(".new")
        new.write_text(text)
        new.replace(cls._journal)
        if not text:
            cls._journal.unlink()

    def path(self, inside):
        """The absolute path, str or bytes, as a Path; what is missing of it is removed at the end."""
        path = pathlib.Path(os.fsdecode(inside))
        say_what_is_needed(path)
        places = [*reversed(path.parents), path]
        missing = [place for place in places if not os.path.lexists(place)]
        present = places[len(places) - len(missing) - 1]
        if str(present) not in SHARED and not set([*present.parents, present]) & set(self._claimed):
            raise AssertionError(f"{present} is there already, and is not the tests'")
        if missing:
            self._claimed.append(missing[0])
            self._write_journal()
        return path

    def put(self, inside, content, mode=0o644):
        """Writes a file, and the directories it is in: bytes, or a copy of the Path with its mode."""
        path = self.directory(os.path.dirname(inside)) / os.path.basename(os.fsdecode(inside))
        self.path(path)
        remove(path)  # a Mac does not start a program that was written over
        if isinstance(content, pathlib.Path):
            shutil.copy(content, path)
        else:
            path.write_bytes(content)
            path.chmod(mode)
        give(path)
        return path

    def directory(self, inside):
        """Creates a directory, and those it is in, and returns its path."""
        path = self.path(inside)
        for place in [*reversed(path.parents), path]:
            if not place.exists():
                place.mkdir()
                if str(place) not in SHARED:  # a Mac's own directories belong to root
                    give(place)
        return path

    def copy(self, outside, inside):
        """Copies a directory with everything in it, the times and links as they are."""
        path = self.path(inside)
        self.directory(path.parent)
        subprocess.run(["cp", "-Rp", str(outside), str(path)], check=True)
        if USER is not None:
            subprocess.run(["chown", "-Rh", f"{USER}:{GROUP}", str(path)], check=True)
        return path

    def run(self, command, timeout=60, **options):
        """Runs a command to its end; arguments as for start."""
        with self.start(command, **options) as process:
            return process.finish(timeout)

    def start(self, command, cwd="/", env=None, **streams):
        """Starts a command, str or bytes, as the ordinary user, without an environment but env."""
        streams = {
            "stdin": subprocess.DEVNULL,
            "stdout": subprocess.PIPE,
            "stderr": subprocess.PIPE,
            **streams,
        }
        user = {} if USER is None else {"user": USER, "group": GROUP, "extra_groups": []}
        return Process(
            command, cwd=cwd, env=env or {}, start_new_session=True, umask=0o022, **user, **streams
        )


class Process(subprocess.Popen):
    """A command; it and what it has started are killed if left running."""

    def __exit__(self, *error):
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass  # it has ended
        return super().__exit__(*error)

    def expect(self, stdout, timeout=60):
        """Reads standard output up to these bytes, which must be next."""
        assert self.read_until(stdout, timeout, possible=stdout.startswith) == stdout

    def read_until(self, end, timeout=60, possible=lambda read: True):
        """Reads standard output up to these bytes, its end, or where they have become impossible."""
        read, deadline = b"", time.monotonic() + timeout
        while not read.endswith(end) and possible(read):
            ready, _, _ = select.select([self.stdout], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise AssertionError(f"waited {timeout} s for {end!r}, read {read!r}")
            byte = os.read(self.stdout.fileno(), 1)
            if not byte:
                break
            read += byte
        return read

    def finish(self, timeout=60):
        """Waits for the end and returns a Result with the output not yet read."""
        try:
            stdout, stderr = self.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(self.pid, signal.SIGKILL)
            stdout, stderr = self.communicate()
            raise AssertionError(
                f"waited {timeout} s for the end of {self.args}: {stdout!r} {stderr!r}"
            )
        code = self.returncode
        return Result(code if code >= 0 else 128 - code, stdout, stderr)


def give(path):
    if USER is not None:
        os.chown(path, USER, GROUP, follow_symlinks=False)


def remove(path):
    """Removes a file or a directory, whatever its modes, if it is there."""
    if path.is_dir() and not path.is_symlink():
        if os.geteuid() != 0:
            subprocess.run(["chmod", "-R", "u+rwX", str(path)], check=True)
        shutil.rmtree(path)
    elif os.path.lexists(path):
        path.unlink()


def say_what_is_needed(path):
    """Skips the test if macOS cannot have this path."""
    if len(path.parts) > 1 and "/" + path.parts[1] not in SHARED:
        needs("other files in its root directory")
    if any(0xD800 <= ord(character) <= 0xDFFF for character in str(path)):
        needs("file names that are not UTF-8")
    if len(os.fsencode(path)) > 1023:
        needs("paths of more than 1,023 bytes")
