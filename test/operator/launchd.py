"""A model of launchd with real processes, and of plutil, which the stand-ins for launchctl and plutil ask.

As launchd does: bootout returns before the process has ended, which is killed after ExitTimeOut; a
bootstrap of that label is refused with 5 for a while; a job runs at load, and again unless it exited with
0, but not before ThrottleInterval after its last start; a log that cannot be opened ends it with 78.
Times are 1/200 of a Mac's."""

import errno
import os
import pathlib
import plistlib
import signal
import stat
import subprocess
import threading
import time

SCALE = 200
REFUSED_AFTER_BOOTOUT = 10  # seconds
# Answers of a tool: status, standard output, standard error.
OK = 0, "", ""
IO_ERROR = 5, "", "5: Input/output error\n"
IN_PROGRESS = 36, "", "36: Operation in progress\n"
NO_PROCESS = 3, "", "3: No such process\n"
LOADED_ALREADY = 37, "", "37: Operation already in progress\n"
NO_DOMAIN = 125, "", "No such domain\n"

# A caller writes its arguments to a file of its number, announces the number, and waits for the status.
CLIENT = """#!/bin/sh
call={directory}/asked/$$
mkfifo "$call"
for last; do :; done
if [ "$last" = - ]; then cat >"$call.in"; fi
printf '%s\\0' "${{0##*/}}" "$@" >"$call.arguments"
echo $$ >{directory}/asked/announced
read -r status <"$call"
if [ -s "$call.out" ]; then cat "$call.out"; fi
if [ -s "$call.err" ]; then cat "$call.err" >&2; fi
exit "$status"
"""


class Job:
    """A loaded job: what the property list said when it was loaded, and its process."""

    def __init__(self, launchd, target, path):
        self.launchd = launchd
        self.target = target
        self.path = path
        self.keys = plistlib.loads(pathlib.Path(path).read_bytes())
        self.process = None
        self.runs = 0
        self.ended = "last exit code = (never exited)"
        self.removed = False
        threading.Thread(target=self.live, daemon=True).start()

    def spawn(self):
        def open_log(path, flags):
            return os.open(path, flags | os.O_NONBLOCK, 0o644)

        with open(self.keys["StandardOutPath"], "ab", opener=open_log) as log:
            process = subprocess.Popen(
                self.keys["ProgramArguments"],
                cwd=self.keys["WorkingDirectory"],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                env={},
                start_new_session=True,
                user=self.launchd.uid or None,
            )
        self.launchd.two_at_once |= any(other.poll() is None for other in self.launchd.processes)
        self.launchd.processes.append(process)
        self.process = process
        self.runs += 1

    def live(self):
        code = None
        while code != 0:
            started = time.monotonic()
            with self.launchd.lock:
                if self.removed or self.launchd.ended:
                    return
                try:
                    self.spawn()
                except OSError:
                    self.process = None
            code = self.process.wait() if self.process else 78
            self.process = None
            self.ended = f"last exit code = {code}"
            if code < 0:
                self.ended = f"last terminating signal = {signal.strsignal(-code)}: {-code}"
            if code != 0:
                throttled = started + self.keys["ThrottleInterval"] / SCALE
                time.sleep(max(0, throttled - time.monotonic()))

    def end(self, process):
        """What bootout starts."""
        if process:
            process.send_signal(signal.SIGTERM)
            if "forgets at once" in self.launchd.faults:
                self.forget()
            try:
                process.wait(self.keys["ExitTimeOut"] / SCALE)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        time.sleep(5 / SCALE)
        self.forget()
        self.launchd.refused[self.target] = time.monotonic() + REFUSED_AFTER_BOOTOUT / SCALE

    def forget(self):
        if self.launchd.jobs.get(self.target) is self:
            del self.launchd.jobs[self.target]


class Launchd:
    """It answers the stand-ins of one user. The value of a fault is the number of its uses, or what launchd
    says."""

    def __init__(self, directory, uid):
        self.asked = directory / "asked"
        self.uid = uid
        self.lock = threading.RLock()
        self.jobs, self.refused, self.disabled, self.faults = {}, {}, set(), {}
        self.two_at_once = False
        self.processes = []
        self.ended = False
        self.asked.mkdir()
        self.asked.chmod(0o777)
        announced = self.asked / "announced"
        os.mkfifo(announced)
        announced.chmod(0o666)
        self.announced = open(announced, "r+b", buffering=0)
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        for line in iter(self.announced.readline, b"\n"):
            threading.Thread(target=self.answer, args=[line.decode().strip()], daemon=True).start()

    def answer(self, number):
        call = self.asked / number
        name, *arguments = call.with_suffix(".arguments").read_bytes().split(b"\0")[:-1]
        arguments = [os.fsdecode(argument) for argument in arguments]
        with self.lock:
            if name == b"plutil":
                status, *texts = plutil(arguments, call.with_suffix(".in"))
            else:
                method = getattr(self, arguments[0].replace("-", "_"))
                status, *texts = method(*arguments[1:])
        for suffix, text in zip((".out", ".err"), texts):
            call.with_suffix(suffix).write_bytes(os.fsencode(text))
        reply(call, f"{status}\n".encode())
        call.unlink()

    def end(self):
        self.announced.write(b"\n")
        with self.lock:
            self.ended = True
            for process in self.processes:
                process.kill()
                process.wait()

    def use(self, fault):
        """Whether a fault is there, which has one use less."""
        self.faults[fault] = self.faults.get(fault, 0) - 1
        return self.faults[fault] >= 0

    def print(self, target):
        is_domain = target.count("/") == target.startswith("gui")
        if is_domain:
            return NO_DOMAIN if "logged out" in self.faults else (0, "domain\n", "")
        job = self.jobs.get(target)
        if not job:
            return 113, "", f'Could not find service "{target}" in domain\n'
        process = job.process
        pid = f"\tpid = {process.pid}\n" if process else ""
        part = '\t\t"a" = {\n\t\t\tpid = 1\n\t\t\truns = 9\n\t\t\tlast exit code = 9\n\t\t}\n'
        text = (
            f"{target} = {{\n\tpath = {job.path}\n\n\tendpoints = {{\n{part}\t}}\n\n"
            f"\truns = {job.runs}\n{pid}\t{job.ended}\n}}\n"
        )
        return 0, text, ""

    def print_disabled(self, domain):
        word = self.faults.get("disabled", "disabled")
        labels = [
            target.split("/")[-1] for target in self.disabled if target.startswith(f"{domain}/")
        ]
        rows = "".join(f'\t\t"{label}" => {word}\n' for label in labels)
        return 0, f'\n\tdisabled services = {{\n\t\t"com.vaultory.servic" => true\n{rows}', ""

    def bootout(self, target):
        job = self.jobs.get(target)
        if not job:
            return NO_PROCESS
        if self.use("bootout"):
            return IO_ERROR
        if not job.removed:
            job.removed = True
            threading.Thread(target=job.end, args=[job.process], daemon=True).start()
        return IN_PROGRESS

    def bootstrap(self, domain, path):
        found = os.lstat(path)
        target = f"{domain}/{plistlib.loads(pathlib.Path(path).read_bytes())['Label']}"
        if target in self.jobs:
            return LOADED_ALREADY
        refused = (
            target in self.disabled
            or time.monotonic() < self.refused.get(target, 0)
            or found.st_uid != self.uid
            or not stat.S_ISREG(found.st_mode)
            or found.st_mode & 0o022
        )
        if refused or self.use("bootstrap"):
            return IO_ERROR
        self.jobs[target] = Job(self, target, path)
        return OK


def plutil(arguments, standard_input):
    """-convert xml1 -o - FILE, and -lint -s FILE."""
    file = standard_input if arguments[-1] == "-" else pathlib.Path(arguments[-1])
    try:
        keys = plistlib.loads(file.read_bytes())
    except Exception as error:
        return 1, "", f"{error}\n"
    if arguments[0] == "-convert":
        return 0, plistlib.dumps(keys).decode(), ""
    return OK


def reply(fifo, text):
    """Writes to a caller as soon as it reads; one that has been killed does not."""
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        try:
            descriptor = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            if error.errno not in (errno.ENXIO, errno.EINTR):
                return
            time.sleep(0.001)
            continue
        os.write(descriptor, text)
        os.close(descriptor)
        return
