"""One run of the service, with its client: how it is started, what ends it, and whether it went well."""

import contextlib
import dataclasses
import enum
import logging
import re
import signal
import subprocess
import time
from typing import Optional, Tuple

from .commands import execution_errors, log_command
from .errors import UserError
from .inputs import MAIN_CLASS
from .processes import end_sessions, signals_deferred, start_session

log = logging.getLogger(__name__)

MAIN_CLASS_LOADED = rf"{re.escape(MAIN_CLASS)} source: "
EXCEPTION_FROM_MAIN = 'Exception in thread "main" '
# Of a VM that has run its shutdown hooks, and of one that was not ready to.
SIGTERM_STATUS = 143, -signal.SIGTERM
STOP_SECONDS = 60  # after SIGTERM, as an installed service has
CLIENT_SECONDS = 5  # for the client to end after the service
CAUSE_SECONDS = 2  # for a service whose client has failed to end, too
QUIET_SECONDS = 1  # without a loaded class, after which a service counts as ready
LINES = 12  # of the service's output in a message


@dataclasses.dataclass(frozen=True)
class Plan:
    """How the service is run."""

    arguments: Tuple[str, ...] = ()  # of the launcher
    client: Optional[str] = None  # a command for the shell
    seconds: int = 30


class End(enum.Enum):
    """What ended a run."""

    SERVICE = "the service ended by itself"
    EXCEPTION = "main threw an exception"
    CLIENT = "the client ended"
    LIMIT = "the time was up"


class Follower:
    """A file that another program writes, which need not be there yet."""

    def __init__(self, path, pattern):
        self.path, self.pattern = path, re.compile(pattern.encode())
        self.read_to, self.found = 0, False

    def shows(self):
        """Whether a line that is complete begins with the pattern."""
        if not self.found:
            with contextlib.suppress(FileNotFoundError), self.path.open("rb") as file:
                file.seek(self.read_to)
                for line in file:
                    if not line.endswith(b"\n"):
                        break
                    self.read_to += len(line)
                    self.found |= bool(self.pattern.match(line))
        return self.found


class ServiceRun:
    """The launcher in a trial bundle, and the client, each in a session of its own."""

    def __init__(self, trial, options, last_options):
        self.trial, self.plan = trial, trial.plan
        self.output, self.client_output = trial.work / "output", trial.work / "client-output"
        trace = trial.work / "trace-%p"  # by its number, as others may inherit the option
        self.environment = {
            **trial.environment,
            "JAVA_TOOL_OPTIONS": " ".join([*options, f"-Xlog:class+load:file={trace}:none"]),
            "_JAVA_OPTIONS": " ".join([*trial.options, *last_options]),
        }
        self.exception = Follower(self.output, EXCEPTION_FROM_MAIN)
        self.service = self.client = self.main_class = None
        self.end, self.seconds = None, 0.0
        self.stopped = False  # by this program's SIGTERM
        self.client_status = None  # if it ended by itself

    def execute(self):
        """Runs both until one of them ends, and leaves no process behind."""
        start = time.monotonic()
        try:
            self.start_service()
            self.end = self.wait(start + self.plan.seconds)
            if self.end is End.CLIENT and not self.client.returncode:
                self.let_the_service_load(start + self.plan.seconds)
            self.seconds = time.monotonic() - start
            self.let_the_other_end()
            if self.client:
                self.client_status = self.client.poll()
            self.stop_service()
        finally:
            self.end_processes()

    def start_service(self):
        command = self.trial.launcher
        log_command(command)
        with self.output.open("wb") as output, execution_errors(command), signals_deferred():
            self.service = start_session(
                command,
                cwd=self.trial.directory,
                env=self.environment,
                stdout=output,
                stderr=output,
            )
        trace = self.trial.work / f"trace-{self.service.pid}"
        self.main_class = Follower(trace, MAIN_CLASS_LOADED)

    def start_client(self):
        command = ["/bin/sh", "-c", self.plan.client]
        log_command(command)
        with self.client_output.open("wb") as output, signals_deferred():
            self.client = start_session(
                command, env=self.trial.environment, stdout=output, stderr=output
            )

    def wait(self, deadline):
        """Waits for whatever ends the run. The client is started when the service has loaded its main class:
        an earlier one can end, or be answered by another program, before there is a service."""
        while True:
            if self.service.poll() is not None:
                return End.SERVICE
            if self.exception.shows():
                return End.EXCEPTION
            if self.client and self.client.poll() is not None:
                return End.CLIENT
            if time.monotonic() >= deadline:
                return End.LIMIT
            if self.plan.client and not self.client and self.main_class.shows():
                self.start_client()
            time.sleep(0.05)

    def let_the_service_load(self, deadline):
        """A client can succeed before the service is ready: it does not wait, or another program answers at
        the same port. What the service loads afterwards must not be missed."""
        size, since = -1, time.monotonic()
        while time.monotonic() < min(deadline, since + QUIET_SECONDS):
            if self.service.poll() is not None or self.exception.shows():
                return
            if self.main_class.path.stat().st_size != size:
                size, since = self.main_class.path.stat().st_size, time.monotonic()
            time.sleep(0.05)

    def let_the_other_end(self):
        """A client may need a moment to notice that the service has ended. One that fails may have noticed
        first what ends the service."""
        if self.end is End.SERVICE and self.client:
            wait_for_end(self.client, CLIENT_SECONDS)
        if self.end is End.CLIENT and self.client.returncode:
            wait_for_end(self.service, CAUSE_SECONDS)
        if self.end is End.EXCEPTION:
            wait_for_end(self.service, 1)  # until the stack trace is printed

    def stop_service(self):
        if self.service.poll() is None:
            self.stopped = True
            self.service.terminate()
            wait_for_end(self.service, STOP_SECONDS)

    def end_processes(self):
        """Kills what is left of both sessions, and names what the service or its client started."""
        started = [process for process in (self.service, self.client) if process]
        sessions = {process.pid for process in started}
        mark = f"ORVANE_TRAINING={self.trial.work}"
        for pid, command in end_sessions(sessions, mark).items():
            if pid not in sessions:
                log.warning("Left running by the service or its client, ended: %s", command)
        for process in started:
            process.kill()
            process.wait()

    def check(self, name, remedy):
        """Raises with what went wrong in this run, which messages call by this name."""
        problem = self.problem_of_service()
        printed = read(self.output)
        if not problem and self.plan.client:
            problem, remedy = self.problem_of_client()
            printed = read(self.client_output) or printed
        if problem:
            after = f"after {self.seconds:.0f} s, see above"
            raise UserError(f"{name}{problem} {after}", remedy, last_lines(printed))

    def problem_of_service(self):
        status = self.service.returncode
        if self.exception.shows():
            return " ended with an exception from main"
        if self.stopped and status == -signal.SIGKILL:
            return f" did not end within {STOP_SECONDS} s of the SIGTERM that was sent"
        if status and not (self.stopped and status in SIGTERM_STATUS):
            return f" ended with status {shell_status(status)}"
        if not self.main_class.shows():
            return f" was ended without having loaded {MAIN_CLASS}"
        return ""

    def problem_of_client(self):
        """What went wrong, and what to do."""
        if self.end is End.SERVICE and self.client_status != 0:
            return (
                " ended with status 0, before its client did,",
                "give --training-argument with which the service waits for it, or no --training-command",
            )
        if self.client_status:
            return (
                f"'s client ended with status {shell_status(self.client_status)}",
                "give another --training-command",
            )
        if self.client_status is None:
            return (
                "'s client had not ended",
                "give a --training-command that ends, or more --training-seconds",
            )
        return "", ""

    def loaded_classes(self):
        """{class: where it came from}"""
        return dict(re.findall(r"^(\S+) source: (.*)$", read(self.main_class.path), re.M))


def wait_for_end(process, seconds):
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(seconds)


def shell_status(status):
    """128 and the number for a signal."""
    return status if status >= 0 else 128 - status


def read(path):
    try:
        return path.read_text(errors="replace")
    except FileNotFoundError:
        return ""


def last_lines(printed):
    """The last lines that the service printed, or the launcher before it. Of each stack trace the first
    line is kept and where it was thrown: the rest would take the place of the cause."""
    printed = printed.rpartition("\nStarting service.\n")[2].rstrip()
    lines = [line for line in printed.splitlines() if not line.startswith("Picked up ")]
    frame = re.compile(r"\s+(at |\.\.\. \d+ )")
    kept = [
        line
        for line, before in zip(lines, ["", *lines])
        if not (frame.match(line) and frame.match(before))
    ]
    return kept[-LINES:]
