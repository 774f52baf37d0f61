"""A model of launchd with real processes, and of the other tools that only a Mac has.

CLIENT, as launchctl, codesign, ..., sends each call to the model over a socket. As launchd does:
bootout returns before the process has ended, which is killed after ExitTimeOut; a bootstrap of that
label is refused with 5 for a while; a job runs at load, and again after ThrottleInterval unless it
exited with 0; a log that cannot be opened ends it with 78. Times are 1/200 of a Mac's."""

import hashlib
import os
import pathlib
import plistlib
import signal
import socketserver
import stat
import subprocess
import threading
import time

SCALE = 200
CLIENT = r"""#!/usr/bin/perl
use Socket;
my $name = $0 =~ s{.*/}{}r;
my $in = $name eq "plutil" && $ARGV[-1] eq "-" ? join("", <STDIN>) : "";
socket(S, PF_UNIX, SOCK_STREAM, 0) && connect(S, pack_sockaddr_un("SOCKET")) or die "no model: $!";
syswrite S, join "\0", $>, $name, scalar @ARGV, @ARGV, $in;
shutdown S, 1;
my ($status, $error, $text) = unpack "CCa*", join "", <S>;
print { $error ? STDERR : STDOUT } $text;
exit $status;
"""
OK, IO_ERROR, BUSY = (0, "", ""), (5, "", "5: Input/output error\n"), (36, "", "36: Operation now in progress\n")


class Job:
    """A loaded job: what the property list said when it was loaded, and its process."""

    def __init__(self, model, target, path):
        self.model, self.target, self.path = model, target, path
        self.keys = plistlib.loads(pathlib.Path(path).read_bytes())
        self.process, self.runs, self.ended, self.removed = None, 0, "last exit code = (never exited)", False
        threading.Thread(target=self.live, daemon=True).start()

    def spawn(self):
        with self.model.lock, open(self.keys["StandardOutPath"], "ab", opener=lambda path, flags: os.open(
                path, flags | os.O_NONBLOCK, 0o644)) as log:
            if not self.removed:
                self.model.two_at_once |= any(name == self.target and process.poll() is None
                                              for name, process in self.model.processes)
                uid = int(self.target.split("/")[1]) if self.target.startswith("gui") else None
                self.process = subprocess.Popen(
                    self.keys["ProgramArguments"], cwd=self.keys["WorkingDirectory"], stdout=log, stderr=log,
                    stdin=subprocess.DEVNULL, env={"PATH": "/usr/bin:/bin"}, start_new_session=True, user=uid)
                self.runs += 1
                self.model.processes.append((self.target, self.process))

    def live(self):
        while not self.removed:
            try:
                self.spawn()
                code = self.process.wait() if self.process else 0
            except OSError:
                code = 78
            self.process, self.ended = None, (
                f"last exit code = {code}" if code >= 0 else
                f"last terminating signal = {signal.strsignal(-code)}: {-code}")
            if code == 0:
                return
            time.sleep(self.keys["ThrottleInterval"] / SCALE)

    def end(self):
        """What bootout starts."""
        with self.model.lock:
            self.removed, process = True, self.process
        if process:
            process.send_signal(signal.SIGTERM)
            if "forgets at once" in self.model.faults:
                self.forget()
            try:
                process.wait(self.keys["ExitTimeOut"] / SCALE)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        time.sleep(5 / SCALE)
        self.forget()
        self.model.refused[self.target] = time.monotonic() + 10 / SCALE

    def forget(self):
        if self.model.jobs.get(self.target) is self:
            del self.model.jobs[self.target]


class Model(socketserver.ThreadingUnixStreamServer):
    """What tests read and set: jobs, disabled, faults (name: value, or uses left), calls, two_at_once."""
    daemon_threads, request_queue_size = True, 64

    def __init__(self, directory):
        super().__init__(str(directory / "socket"), Handler)
        os.chmod(directory / "socket", 0o777)
        self.receipts, self.lock, self.two_at_once = set(), threading.RLock(), False
        self.jobs, self.refused, self.disabled, self.processes = {}, {}, set(), []
        self.faults, self.calls = {}, []
        threading.Thread(target=self.serve_forever, args=[.01], daemon=True).start()

    def end(self):
        self.shutdown()
        self.server_close()
        with self.lock:
            for job in self.jobs.values():
                job.removed = True
            for _, process in self.processes:
                process.kill()
                process.wait()

    def use(self, fault):
        """Whether a fault is there, which has one use less."""
        self.faults[fault] = self.faults.get(fault, 0) - 1
        return self.faults[fault] >= 0

    def call(self, uid, name, arguments, text):
        """What a call of a tool gives: status, standard output, standard error."""
        self.calls.append([name, *arguments])
        if name != "launchctl":
            return getattr(self, name)(arguments, text)
        with self.lock:
            return getattr(self, arguments[0].replace("-", "_"))(uid, *arguments[1:])

    def print(self, uid, target):
        if target.count("/") == target.startswith("gui"):
            return (125, "", "Domain does not support\n") if "logged out" in self.faults else (0, "domain\n", "")
        job = self.jobs.get(target)
        if not job:
            return 113, "", f'Bad request.\nCould not find service "{target}" in domain\n'
        pid = f"\tpid = {job.process.pid}\n" if job.process else ""
        return 0, (f"{target} = {{\n\tactive count = 1\n\tpath = {job.path}\n\ttype = LaunchDaemon\n"
                   f"\tstate = {'running' if pid else 'spawn scheduled'}\n\n\tendpoints = {{\n\t\t\"a\" = {{\n"
                   f"\t\t\tpid = 1\n\t\t\truns = 9\n\t\t\tlast exit code = 9\n\t\t}}\n\t}}\n\n"
                   f"\tdomain = system\n\truns = {job.runs}\n{pid}\t{job.ended}\n}}\n"), ""

    def print_disabled(self, uid, domain):
        rows = [f'\t\t"{target.split("/")[-1]}" => {self.faults.get("disabled", "disabled")}\n'
                for target in self.disabled if target.rpartition("/")[0] == domain]
        return 0, ('\n\tdisabled services = {\n\t\t"com.vaultory.service2" => disabled\n'
                   f'\t\t"com.vaultory.servic" => true\n{"".join(rows)}\t}}\n'), ""

    def bootout(self, uid, target):
        if self.use("bootout"):
            return IO_ERROR
        job = self.jobs.get(target)
        if not job:
            return 3, "", "3: No such process\n"
        if not job.removed:
            job.removed = True
            threading.Thread(target=job.end, daemon=True).start()
        return BUSY

    def bootstrap(self, uid, domain, path):
        found = os.lstat(path)
        target = f"{domain}/{plistlib.loads(pathlib.Path(path).read_bytes())['Label']}"
        if target in self.jobs:
            return 37, "", "37: Operation already in progress\n"
        if (target in self.disabled or time.monotonic() < self.refused.get(target, 0) or found.st_uid != uid
                or not stat.S_ISREG(found.st_mode) or found.st_mode & 0o022 or self.use("bootstrap")):
            return IO_ERROR
        self.jobs[target] = Job(self, target, path)
        return OK

    def plutil(self, arguments, text):
        try:
            keys = plistlib.loads(text if arguments[-1] == "-" else pathlib.Path(arguments[-1]).read_bytes())
        except Exception as error:
            return 1, "", f"{arguments[-1]}: {error}\n"
        return 0, plistlib.dumps(keys).decode() if arguments[0] == "-convert" else "", ""

    def codesign(self, arguments, text):
        *options, name = arguments
        try:
            signed = pathlib.Path(name, "Contents/_CodeSignature/CodeResources").read_text().split()
        except OSError:
            return 1, "", f"{name}: code object is not signed at all\nIn architecture: x86_64\n"
        if signed[0] != seal(name):
            return 1, "", f"{name}: a sealed resource is missing or invalid\nfile added: x\n"
        if "-R" in options and f'"{signed[1]}"' not in options[-1]:
            return 3, "", f"{name}: valid on disk\n{name}: test-requirement: code failed to satisfy\n"
        return OK

    def xattr(self, arguments, text):
        return OK if "quarantine" in self.faults or "-rd" in arguments else (1, "", "No such xattr\n")

    def pkgutil(self, arguments, text):
        known = arguments[1] in self.receipts
        self.receipts -= {arguments[1]} if arguments[0] == "--forget" else set()
        return OK if known else (1, "", "No receipt\n")


def seal(bundle):
    """What a signature is of: names and contents of everything in the bundle but the signature."""
    files = sorted(path for path in pathlib.Path(bundle).rglob("*") if path.is_file())
    return hashlib.sha256(repr([(path.relative_to(bundle), path.read_bytes()) for path in files
                                if path.parent.name != "_CodeSignature"]).encode()).hexdigest()


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        uid, name, count, rest = self.rfile.read().split(b"\0", 3)
        *arguments, text = rest.split(b"\0", int(count))
        status, out, error = self.server.call(int(uid), name.decode(), list(map(os.fsdecode, arguments)), text)
        self.wfile.write(bytes([status, bool(error)]) + os.fsencode(error or out))
