"""A model of launchd with real processes, and of the other tools that only a Mac has.

Started as launchd.py DIRECTORY; CLIENT, linked as launchctl, codesign, ..., sends it a call over
DIRECTORY/socket. Faults are files in DIRECTORY/fault, of which the content is the value. Times are a
hundredth of a Mac's. As launchd does:
  bootout returns before the process has ended, which is killed after ExitTimeOut; a bootstrap of that
  label is refused with 5 for a while; a job runs at load, and again after ThrottleInterval unless it
  exited with 0; a log that cannot be opened ends it with 78."""

import hashlib
import os
import pathlib
import plistlib
import signal
import socketserver
import stat
import struct
import subprocess
import sys
import threading
import time

SCALE = 100
CLIENT = r"""#!/usr/bin/perl
use Socket;
my $name = $0 =~ s{.*/}{}r;
my $in = $name eq "plutil" && $ARGV[-1] eq "-" ? join("", <STDIN>) : "";
socket(S, PF_UNIX, SOCK_STREAM, 0) && connect(S, pack_sockaddr_un("DIRECTORY/socket")) or die "no model: $!";
my $call = join "\0", $>, $name, scalar @ARGV, @ARGV, $in;
syswrite S, pack("N", length $call) . $call;
my $answer = join "", <S>;
exit 70 unless length $answer;
print STDOUT substr $answer, 2 if !ord substr $answer, 1;
print STDERR substr $answer, 2 if ord substr $answer, 1;
exit ord $answer;
"""


class Job:
    """A loaded job: what the property list said when it was loaded, and its process."""

    def __init__(self, model, target, path):
        self.model, self.target, self.path = model, target, path
        self.keys = plistlib.loads(pathlib.Path(path).read_bytes())
        self.process, self.runs, self.ended, self.removed = None, 0, "last exit code = (never exited)", False
        threading.Thread(target=self.live, daemon=True).start()

    def live(self):
        while not self.removed:
            try:
                log = os.open(self.keys["StandardOutPath"],
                              os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NONBLOCK, 0o644)
                uid = int(self.target.split("/")[1]) if self.target.startswith("gui") else 0
                with self.model.lock:
                    if self.removed:
                        break
                    if self.model.alive(self.target):
                        self.model.note(f"two processes of {self.target}")
                    self.process = subprocess.Popen(
                        self.keys["ProgramArguments"], cwd=self.keys["WorkingDirectory"], stdout=log, stderr=log,
                        stdin=subprocess.DEVNULL, env={"PATH": "/usr/bin:/bin"}, start_new_session=True,
                        user=uid if uid != os.geteuid() else None)
                    self.runs += 1
                    self.model.processes.append((self.target, self.process))
                os.close(log)
                code = self.process.wait()
            except OSError:
                code = 78
            with self.model.lock:
                self.process = None
                self.ended = f"last exit code = {code}" if code >= 0 else \
                    f"last terminating signal = {signal.strsignal(-code)}: {-code}"
            if code == 0:
                return
            time.sleep(self.keys["ThrottleInterval"] / SCALE)

    def end(self):
        """What bootout starts."""
        with self.model.lock:
            self.removed, process = True, self.process
        if process:
            process.send_signal(signal.SIGTERM)
            if self.model.fault("forgets-at-once"):
                self.forget()
            try:
                process.wait(self.keys["ExitTimeOut"] / SCALE)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        time.sleep(5 / SCALE)
        with self.model.lock:
            self.forget()
            self.model.refused[self.target] = time.monotonic() + 10 / SCALE

    def forget(self):
        if self.model.jobs.get(self.target) is self:
            del self.model.jobs[self.target]


class Model:
    def __init__(self, directory):
        self.directory, self.lock = directory, threading.RLock()
        self.jobs, self.refused, self.disabled, self.processes = {}, {}, set(), []

    def fault(self, name, use=False):
        """The value of a fault, which has one use less if it is a number."""
        path = self.directory / "fault" / name
        value = path.read_text() if path.exists() else ""
        if use and value.isdigit():
            if value == "1":
                path.unlink()
            else:
                path.write_text(str(int(value) - 1))
        return value

    def note(self, text):
        with open(self.directory / "notes", "a") as notes:
            notes.write(text + "\n")

    def end(self):
        for _, process in self.processes:
            process.kill()
        os._exit(0)

    def alive(self, target):
        return [process for name, process in self.processes if name == target and process.poll() is None]

    def call(self, uid, name, arguments, text):
        """What a call of the program NAME gives: status, and text for standard output or error."""
        if name != "plutil":
            self.note(" ".join([name, *arguments]))
        if name == "launchctl":
            verb, *rest = arguments
            with self.lock:
                return getattr(self, verb.replace("-", "_"))(uid, *rest)
        return getattr(self, name)(uid, arguments, text)

    def print(self, uid, target):
        if target.count("/") == target.startswith("gui"):
            return (0, "domain = {\n}\n") if not self.fault("logged-out") else (125, "", "Domain does not support\n")
        job = self.jobs.get(target)
        if not job:
            return 113, "", f'Bad request.\nCould not find service "{target}" in domain\n'
        pid = f"\tpid = {job.process.pid}\n" if job.process else ""
        return 0, (f"{target} = {{\n\tactive count = 1\n\tpath = {job.path}\n\ttype = LaunchDaemon\n"
                   f"\tstate = {'running' if pid else 'spawn scheduled'}\n\n\tendpoints = {{\n\t\t\"a\" = {{\n"
                   f"\t\t\tpid = 1\n\t\t\truns = 9\n\t\t\tlast exit code = 9\n\t\t}}\n\t}}\n\n"
                   f"\tdomain = system\n\truns = {job.runs}\n{pid}\t{job.ended}\n}}\n")

    def print_disabled(self, uid, domain):
        rows = [f'\t\t"{label}" => {self.fault("disabled-word") or "disabled"}\n'
                for target in self.disabled for place, _, label in [target.rpartition("/")] if place == domain]
        return 0, ('\n\tdisabled services = {\n\t\t"com.vaultory.service2" => disabled\n'
                   f'\t\t"com.vaultory.servic" => true\n{"".join(rows)}\t}}\n')

    def enable(self, uid, target):
        self.disabled.discard(target)
        return 0, ""

    def disable(self, uid, target):
        self.disabled.add(target)
        return 0, ""

    def kill(self, uid, name, target):
        self.jobs[target].process.send_signal(getattr(signal, name))
        return 0, ""

    def bootout(self, uid, target):
        if self.fault("bootout", use=True):
            return 5, "", "Boot-out failed: 5: Input/output error\n"
        job = self.jobs.get(target)
        if not job:
            return 3, "", "Boot-out failed: 3: No such process\n"
        if job.removed:
            return 36, "", "Boot-out failed: 36: Operation now in progress\n"
        threading.Thread(target=job.end, daemon=True).start()
        return 36, "", "Boot-out failed: 36: Operation now in progress\n"

    def bootstrap(self, uid, domain, path):
        found = os.lstat(path)
        target = f"{domain}/{plistlib.loads(pathlib.Path(path).read_bytes())['Label']}"
        if target in self.jobs:
            return 37, "", "Bootstrap failed: 37: Operation already in progress\n"
        if (target in self.disabled or time.monotonic() < self.refused.get(target, 0) or found.st_uid != uid
                or not stat.S_ISREG(found.st_mode) or found.st_mode & 0o022 or self.fault("bootstrap", use=True)):
            return 5, "", "Bootstrap failed: 5: Input/output error\n"
        self.jobs[target] = Job(self, target, path)
        return 0, ""

    def plutil(self, uid, arguments, text):
        try:
            content = text if arguments[-1] == "-" else pathlib.Path(arguments[-1]).read_bytes()
            keys = plistlib.loads(content)
        except Exception as error:
            return 1, "", f"{arguments[-1]}: {error}\n"
        return 0, plistlib.dumps(keys).decode() if arguments[0] == "-convert" else ""

    def codesign(self, uid, arguments, text):
        *options, name = arguments
        try:
            signed = pathlib.Path(name, "Contents/_CodeSignature/CodeResources").read_text().split()
        except OSError:
            return 1, "", f"{name}: code object is not signed at all\nIn architecture: x86_64\n"
        if signed[0] != seal(name):
            return 1, "", f"{name}: a sealed resource is missing or invalid\nfile added: x\n"
        if "-R" in options and f'"{signed[1]}"' not in options[-1]:
            return 3, "", f"{name}: valid on disk\n{name}: test-requirement: code failed to satisfy\n"
        return 0, ""

    def xattr(self, uid, arguments, text):
        return (0, "") if self.fault("quarantine") or "-rd" in arguments else (1, "", "No such xattr\n")

    def pkgutil(self, uid, arguments, text):
        receipt = self.directory / "receipts" / arguments[1]
        if not receipt.is_file():
            return 1, "", f"No receipt for '{arguments[1]}' found at '/'.\n"
        if arguments[0] == "--forget":
            receipt.unlink()
        return 0, f"Forgot package '{arguments[1]}' on '/'.\n"


def seal(bundle):
    """What a signature is of: names and contents of everything in the bundle but the signature."""
    value = hashlib.sha256()
    for path in sorted(pathlib.Path(bundle).rglob("*")):
        if path.is_file() and path.parent != pathlib.Path(bundle, "Contents/_CodeSignature"):
            value.update(f"{path.relative_to(bundle)}\0".encode() + path.read_bytes())
    return value.hexdigest()


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        size, = struct.unpack(">I", self.rfile.read(4))
        uid, name, count, *rest = self.rfile.read(size).split(b"\0", 3 + 64)
        arguments = [os.fsdecode(word) for word in rest[:int(count)]]
        answer = self.server.model.call(int(uid), name.decode(), arguments, b"\0".join(rest[int(count):]))
        status, out, *error = answer
        self.wfile.write(bytes([status, bool(error)]) + os.fsencode(error[0] if error else out))


class Server(socketserver.ThreadingUnixStreamServer):
    daemon_threads = True
    request_queue_size = 64


if __name__ == "__main__":
    directory = pathlib.Path(sys.argv[1])
    with Server(str(directory / "socket"), Handler) as server:
        server.model = Model(directory)
        os.chmod(directory / "socket", 0o777)
        signal.signal(signal.SIGTERM, lambda *_: server.model.end())
        print("ready", flush=True)
        server.serve_forever()
