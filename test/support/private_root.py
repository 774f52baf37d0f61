"""A root file system of a test's own, in which the launcher finds the directories of a Mac."""

import functools
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time
import typing

BUILD_DIR = pathlib.Path(os.environ["BUILD_DIR"])


class Result(typing.NamedTuple):
    """What a finished command left; the status as a shell gives it, 128 and the number
    for a signal."""
    status: int
    stdout: bytes
    stderr: bytes


class PrivateRoot:
    """Lies in a temporary directory of the build directory, deleted at the end of the test:
    /usr and /etc of the machine, read-only; a /dev and a /proc of its own; empty /Users,
    /Applications, /Library and /tmp; and what the test puts there. Commands run in it as
    an ordinary user, or as root of the namespace, without a network or an environment, and
    die with the test. Skips the test where there are no namespaces."""

    def __init__(self, test, uid=1000):
        require_namespaces(test)
        directory = tempfile.mkdtemp(prefix="root-", dir=BUILD_DIR)
        test.addCleanup(shutil.rmtree, directory, ignore_errors=True)
        self._root = pathlib.Path(directory)
        self._arguments = bwrap_arguments(self._root, uid)
        for name in "Users", "Applications", "Library", "tmp":
            self.path("/" + name).mkdir()

    def path(self, inside):
        """Where the test finds the absolute path, given as str or bytes, of the inside."""
        return self._root / os.fsdecode(inside).lstrip("/")

    def put(self, inside, content, mode=0o644):
        """Puts a file there, and the directories it lies in: bytes, or a copy of the Path."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, pathlib.Path):
            shutil.copy(content, path)
        else:
            path.write_bytes(content)
            path.chmod(mode)

    def bind(self, outside, inside):
        """Shows a file or directory of the machine there, read-only, in commands to come."""
        self._arguments += ["--ro-bind", os.fspath(outside), inside]

    def run(self, command, timeout=60, **how):
        """Runs the command to its end; arguments as for start."""
        with self.start(command, **how) as process:
            return process.finish(timeout)

    def start(self, command, cwd="/", env=None, stdout=subprocess.PIPE,
              stderr=subprocess.PIPE, stdin=subprocess.DEVNULL):
        """Starts a command, arguments str or bytes, and returns it as a Process."""
        info, child_info = os.pipe()
        arguments = [*self._arguments, "--info-fd", str(child_info), "--chdir", cwd]
        for name, value in (env or {}).items():
            arguments += ["--setenv", name, value]
        try:
            return Process([*arguments, "--", *command], info, pass_fds=[child_info],
                           stdin=stdin, stdout=stdout, stderr=stderr)
        finally:
            os.close(child_info)


class Finishing(subprocess.Popen):
    """A command, killed if left running; what is written to a stream is read from there."""

    def __exit__(self, *error):
        if self.poll() is None:
            self.kill()
        return super().__exit__(*error)

    def signal_command(self, number):
        """Sends the command itself a signal; wait for output first, to know it has begun."""
        os.kill(self.command_pid, number)

    def finish(self, timeout=60):
        """Waits for the end and returns a Result with the output not yet read."""
        try:
            stdout, stderr = self.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            stdout, stderr = self.communicate()
            raise AssertionError(f"not finished after {timeout} s: {stdout!r} {stderr!r}")
        code = self.returncode
        return Result(code if code >= 0 else 128 - code, stdout, stderr)


class Process(Finishing):
    """A command in a private root."""

    def __init__(self, arguments, info, **how):
        self._info = open(info, "rb")
        super().__init__(arguments, **how)

    def __exit__(self, *error):
        self._info.close()
        return super().__exit__(*error)

    @property
    def command_pid(self):
        """The machine's number for the command itself, rather than for what holds it."""
        if not self._info.closed:
            with self._info:
                self._init = json.load(self._info)["child-pid"]
        children = pathlib.Path(f"/proc/{self._init}/task/{self._init}/children")
        deadline = time.monotonic() + 60
        while not (pids := children.read_text().split()):
            if time.monotonic() > deadline:
                raise AssertionError("the command has not begun after 60 s")
        return int(pids[0])


def bwrap_arguments(root, uid=1000):
    """What starts a command in the directory root, which becomes a file system's root."""
    arguments = [
        "bwrap", "--unshare-all", "--unshare-user", "--uid", str(uid), "--gid", str(uid),
        "--die-with-parent", "--new-session", "--clearenv",
        "--bind", os.fspath(root), "/", "--dev", "/dev", "--proc", "/proc",
    ]
    for name in "usr", "etc", "bin", "sbin", "lib", "lib64":
        path = pathlib.Path("/", name)
        if path.is_symlink():
            (root / name).symlink_to(os.readlink(path))
        elif path.exists():
            (root / name).mkdir()
            arguments += ["--ro-bind", str(path), str(path)]
    for name in "dev", "proc":
        (root / name).mkdir()
    return arguments


def require_namespaces(test):
    reason = why_no_namespaces()
    if reason:
        test.skipTest(reason)


@functools.cache
def why_no_namespaces():
    if os.uname().sysname != "Linux":
        return "no namespaces on this system"
    if not shutil.which("bwrap"):
        return "no bwrap on this machine: install bubblewrap"
    with tempfile.TemporaryDirectory(prefix="root-", dir=BUILD_DIR) as directory:
        probe = subprocess.run([*bwrap_arguments(pathlib.Path(directory)), "/bin/true"],
                               stdin=subprocess.DEVNULL, capture_output=True)
    return probe.returncode and "no private root here: " + probe.stderr.decode().strip()
