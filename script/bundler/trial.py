"""A copy of the bundle, in which the service is run: it is thrown away with what the service writes."""

import contextlib
import dataclasses
import logging
import os
import re
import shutil
import signal
import subprocess
import time
from typing import Optional, Tuple

from .commands import log_command, run
from .errors import UserError
from .inputs import MAIN_CLASS
from .layout import SERVICE
from .processes import end_sessions, signals_deferred, start_session

log = logging.getLogger(__name__)

VM_OPTIONS = "JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "CLASSPATH"
# How the launcher's options name the place that the bundle is meant for.
INSTALLED = re.compile(f"=.*/Applications/Orvane.app/{SERVICE}(?=/)")
STOP_SECONDS = 60  # an installed service has as many after SIGTERM
MAIN_CLASS_LOADED = re.compile(rf"^{re.escape(MAIN_CLASS)} source: ", re.M)
EXCEPTION_FROM_MAIN = re.compile('^Exception in thread "main" ', re.M)


@dataclasses.dataclass(frozen=True)
class Plan:
    """How the service is run."""

    arguments: Tuple[str, ...] = ()  # of the launcher
    client: Optional[str] = None  # a command for the shell
    seconds: int = 30


class Trial:
    """The copy, with one runtime or another."""

    def __init__(self, contents, work, plan):
        self.work, self.plan = work, plan
        self.contents = work / "training/Contents"
        self.directory = self.contents / "MacOS"
        self.temporary = work / "tmp"
        self.options = [f"-Djava.io.tmpdir={self.temporary}"]  # after the launcher's
        self.launcher = ["./OrvaneService", *plan.arguments]
        self.mark = f"ORVANE_TRAINING={work}"
        shutil.copytree(contents, self.contents, symlinks=True)
        self.temporary.mkdir()
        self.environment = {
            name: value for name, value in os.environ.items() if name not in VM_OPTIONS
        }
        self.environment.update(TMPDIR=str(self.temporary), ORVANE_TRAINING=str(work))

    def use_runtime(self, home):
        link = self.contents / "Resources/jre"
        if link.is_symlink():
            link.unlink()
        link.symlink_to(home)

    def call(self, *command, **environment):
        """Runs a command in the launcher's directory."""
        return run(command, cwd=self.directory, env={**self.environment, **environment})

    def java(self, *arguments):
        """Runs the java of the copy's runtime."""
        return self.call(self.contents / "Resources/jre/bin/java", *arguments)

    def relocate_options(self, java_options):
        """VM options name the place that the bundle is meant for: those of the launcher and the stored ones
        are repeated with the place of the copy in each run."""
        # The launcher prints its options before the VM fails over one that it does not know.
        printed = self.call(*self.launcher, JAVA_TOOL_OPTIONS="-XX:+NoSuchOption").stdout
        if "JVM arguments in use" not in printed:
            raise UserError(
                "--training-argument: the launcher rejects these, see above",
                "give others",
                service_lines(printed),
            )
        for option in [*" ".join(java_options).split(), *printed.splitlines()]:
            if INSTALLED.search(option):
                self.options.append(INSTALLED.sub(f"={self.contents}", option))

    def run_service(self, name, remedy, options=(), last_options=()):
        """Runs the launcher with more VM options, before and after its own, to SIGTERM when the client
        ends, or at the limit. {class: where it came from}, and the run's number."""
        return ServiceRun(self, options, last_options).result(name, remedy)


class ServiceRun:
    """One run of the service and of its client, each in a session of its own."""

    def __init__(self, trial, options, last_options):
        self.trial = trial
        self.output = trial.work / "output"
        trace = trial.work / "trace-%p"  # by its number, as others may inherit the option
        self.service_environment = {
            **trial.environment,
            "JAVA_TOOL_OPTIONS": " ".join([*options, f"-Xlog:class+load:file={trace}:none"]),
            "_JAVA_OPTIONS": " ".join([*trial.options, *last_options]),
        }
        self.service = self.client = None
        self.stopped = False  # by this program's SIGTERM

    def result(self, name, remedy):
        files = {*self.trial.contents.rglob("*")}
        start = time.monotonic()
        with self.output.open("wb") as channel:
            try:
                self.start(channel)
                self.wait(start + self.trial.plan.seconds)
                self.stop(name, remedy)
            finally:
                self.remove_leftovers(files)
        problem = self.problem()
        if problem:
            failure, other_remedy = problem
            raise UserError(
                f"{name}{failure} after {time.monotonic() - start:.0f} s, see above",
                other_remedy or remedy,
                service_lines(self.printed()),
            )
        return self.loaded(), self.service.pid

    def start(self, channel):
        log_command(self.trial.launcher)
        streams = {"stdout": channel, "stderr": channel}
        with signals_deferred():
            self.service = start_session(
                self.trial.launcher,
                cwd=self.trial.directory,
                env=self.service_environment,
                **streams,
            )
            if self.trial.plan.client:
                self.client = start_session(
                    ["/bin/sh", "-c", self.trial.plan.client], env=self.trial.environment, **streams
                )

    def wait(self, deadline):
        """Waits for the end of the service, of its client, or of the time."""
        while self.service.poll() is None and time.monotonic() < deadline:
            if self.client and self.client.poll() is not None:
                return
            time.sleep(0.05)

    def stop(self, name, remedy):
        self.stopped = self.service.poll() is None
        if not self.stopped:
            return
        self.service.terminate()
        try:
            self.service.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            raise UserError(
                f"{name} did not end within {STOP_SECONDS} s of SIGTERM", remedy
            ) from None

    def remove_leftovers(self, files):
        """Ends and removes what the service and its client left behind, and names it."""
        started = [process for process in (self.service, self.client) if process]
        sessions = {process.pid for process in started}
        for pid, command in end_sessions(sessions, self.trial.mark).items():
            if pid != self.service.pid:
                log.warning("Left running by the service or its client, ended: %s", command)
        for process in started:
            process.wait()
        left = {*self.trial.contents.rglob("*"), *self.trial.temporary.iterdir()} - files
        for path in sorted(left):
            if os.path.lexists(path):
                name = path.relative_to(self.trial.work)
                log.warning("Written by the service or its client, removed: %s", name)
                if path.is_dir() and not path.is_symlink():
                    shutil.rmtree(path)
                else:
                    path.unlink()

    def problem(self):
        """What went wrong, and what to do if that is not what the caller would say."""
        status = self.service.returncode
        if self.client and self.client.returncode:
            return (
                f"'s client ended with status {self.client.returncode}",
                "give another --training-command",
            )
        if EXCEPTION_FROM_MAIN.search(self.printed()):
            return " ended with an exception from main", ""
        if status and not (self.stopped and status in (143, -signal.SIGTERM)):
            return f" ended with status {status if status > 0 else 128 - status}", ""
        return None

    def printed(self):
        return self.output.read_text(errors="replace")

    def loaded(self):
        trace = self.trial.work / f"trace-{self.service.pid}"
        text = ""
        with contextlib.suppress(FileNotFoundError):
            text = trace.read_text(errors="replace")
        return dict(re.findall(r"^(\S+) source: (.*)$", text, re.M))


def service_lines(printed):
    """The last lines that the service printed, or the launcher before it."""
    return printed.rpartition("\nStarting service.\n")[2].rstrip().splitlines()[-12:]
