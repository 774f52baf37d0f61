"""A Mac for root's scripts: bundles of a few files, a model of launchd with real processes, stand-ins for
the tools that only a Mac has. The scripts are copies with the directory of the stand-ins at the front of
PATH and shorter waits. A stand-in that is a CLIENT sends its call to the model over a socket.

As launchd does: bootout returns before the process has ended, which is killed after ExitTimeOut; a
bootstrap of that label is refused with 5 for a while; a job runs at load, and again after ThrottleInterval
unless it exited with 0; a log that cannot be opened ends it with 78. Times are 1/200 of a Mac's."""

import os
import pathlib
import plistlib
import pwd
import re
import shutil
import signal
import socketserver
import stat
import subprocess
import threading
import time

from support import CONTENTS, ROOT
from support.root import SCRATCH, USER

MAC = pathlib.Path(SCRATCH, "mac")
ALICE = pwd.getpwnam("nobody")  # any ordinary account
SCALE = 200
PROGRAMS = {
    "stays": "sleep 100000",
    "crashes": 'print STDERR "no \\e[31mvalid configuration\\n"; exit 1',
    "dies": f'select(undef, undef, undef, .02) until -e "{MAC}/die"; exit 3',  # later than install looks
    "ignores": '$SIG{TERM} = "IGNORE"; sleep 100000 while 1',
    "lingers": "$SIG{TERM} = sub { select(undef, undef, undef, .2); exit 143 }; sleep 100000 while 1",
    "exits": "exit 0",
}
CLIENT = f"""#!/usr/bin/perl
use Socket;
my $name = $0 =~ s{{.*/}}{{}}r;
my $in = $name eq "plutil" && $ARGV[-1] eq "-" ? join("", <STDIN>) : "";
socket(S, PF_UNIX, SOCK_STREAM, 0) && connect(S, pack_sockaddr_un("{MAC}/socket")) or die "no model: $!";
syswrite S, join "\\0", $>, $name, scalar @ARGV, @ARGV, $in;
shutdown S, 1;
my ($status, $error, $text) = unpack "CCa*", join "", <S>;
print {{ $error ? STDERR : STDOUT }} $text;
exit $status;
"""
# As a signature does, the file _CodeSignature/CodeResources notices what is changed later; it has the team.
# chmod and ls: one access control list on each path, and on ACL one more that allows changes.
STAND_INS = {
    "chflags": "exit 0",
    "unzip": 'cat "$2"',
    "chmod": f'[ $1 != -RN ] || exec echo $2 >>{MAC}/lists; exec /bin/chmod "$@"',
    "ls": r"""shift; /bin/ls -ldn "$@" | awk -v acl="ACL" '{ print; print " 0: group:everyone deny delete" }
        acl && substr($0, length($0) - length(acl)) == " " acl { print " 1: user:bob allow write" }' """,
    "xattr": f'echo "xattr $1" >>{MAC}/calls; [ $1 = -rd ] || [ -e {MAC}/quarantine ]',
    "pkgutil": f"[ -e {MAC}/receipts/$2 ] || exit 1; [ $1 != --forget ] || rm {MAC}/receipts/$2",
    "codesign": f"""echo "codesign $1" >>{MAC}/calls
        for path; do :; done
        seal=$path/Contents/_CodeSignature/CodeResources
        fail() {{ echo "$path: $1" >&2; exit 1; }}
        [ -e "$seal" ] || fail "code object is not signed at all"
        [ -z "$(find "$path" -newer "$seal")" ] || fail "a sealed resource is missing or invalid
file added: x"
        case $* in *\"$(cat "$seal")\"*) ;; *OU*) fail "test-requirement: code failed to satisfy";; esac""",
}
# Does something before or after a call's rename of that number.
RENAMES = f"""case "$*" in *rename*) ;; *) exec /usr/bin/perl "$@" ;; esac
    echo >>{MAC}/renames
    number=$(wc -l <{MAC}/renames)
    [ $number != NUMBER ] || BEFORE
    /usr/bin/perl "$@"; status=$?
    [ $number != NUMBER ] || AFTER
    exit $status"""
# Answers of a tool: status, standard output, standard error.
OK, IO_ERROR, BUSY = (
    (0, "", ""),
    (5, "", "5: Input/output error\n"),
    (36, "", "36: Operation in progress\n"),
)


class Job:
    """A loaded job: what the property list said when it was loaded, and its process."""

    def __init__(self, model, uid, target, path):
        self.model, self.uid, self.target, self.path = model, uid, target, path
        self.keys = plistlib.loads(pathlib.Path(path).read_bytes())
        self.process, self.runs, self.ended, self.removed = (
            None,
            0,
            "last exit code = (never exited)",
            False,
        )
        threading.Thread(target=self.live, daemon=True).start()

    def spawn(self):
        with open(
            self.keys["StandardOutPath"],
            "ab",
            opener=lambda path, flags: os.open(path, flags | os.O_NONBLOCK, 0o644),
        ) as log:
            self.process = subprocess.Popen(
                self.keys["ProgramArguments"],
                cwd=self.keys["WorkingDirectory"],
                stdout=log,
                stderr=log,
                stdin=subprocess.DEVNULL,
                env={},
                start_new_session=True,
                user=self.uid or None,
            )
        self.model.two_at_once |= any(process.poll() is None for process in self.model.processes)
        self.model.processes.append(self.process)
        self.runs += 1

    def live(self):
        code = None
        while code != 0:
            with self.model.lock:
                if self.removed or self.model.ended:
                    return
                try:
                    self.spawn()
                except OSError:
                    self.process = None
            code = self.process.wait() if self.process else 78
            self.process, self.ended = None, f"last exit code = {code}" if code >= 0 else (
                f"last terminating signal = {signal.strsignal(-code)}: {-code}"
            )
            time.sleep(self.keys["ThrottleInterval"] / SCALE if code else 0)

    def end(self, process):
        """What bootout starts."""
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
    """launchd, and plutil; the value of a fault is the number of its uses, or what launchd says."""

    daemon_threads, request_queue_size = True, 64

    def __init__(self):
        super().__init__(f"{MAC}/socket", None)
        os.chmod(f"{MAC}/socket", 0o777)
        self.lock, self.two_at_once, self.ended, self.processes = (
            threading.RLock(),
            False,
            False,
            [],
        )
        self.jobs, self.refused, self.disabled, self.faults = {}, {}, set(), {}
        threading.Thread(target=self.serve_forever, args=[0.01], daemon=True).start()

    def finish_request(self, request, _):
        with request.makefile("rb") as file:
            uid, name, count, rest = file.read().split(b"\0", 3)
        *arguments, text = rest.split(b"\0", int(count))
        arguments = [os.fsdecode(argument) for argument in arguments]
        with self.lock:
            status, out, error = (
                self.plutil(arguments, text)
                if name == b"plutil"
                else getattr(self, arguments[0].replace("-", "_"))(int(uid), *arguments[1:])
            )
        request.sendall(bytes([status, bool(error)]) + os.fsencode(error or out))

    def end(self):
        self.shutdown()
        self.server_close()
        with self.lock:
            self.ended = True
            for process in self.processes:
                process.kill()
                process.wait()

    def use(self, fault):
        """Whether a fault is there, which has one use less."""
        self.faults[fault] = self.faults.get(fault, 0) - 1
        return self.faults[fault] >= 0

    def print(self, uid, target):
        if target.count("/") == target.startswith("gui"):
            return (
                (125, "", "No such domain\n")
                if "logged out" in self.faults
                else (0, "domain\n", "")
            )
        job = self.jobs.get(target)
        if not job:
            return 113, "", f'Could not find service "{target}" in domain\n'
        process = job.process
        pid = f"\tpid = {process.pid}\n" if process else ""
        return (
            0,
            (
                f'{target} = {{\n\tpath = {job.path}\n\n\tendpoints = {{\n\t\t"a" = {{\n\t\t\tpid = 1\n'
                "\t\t\truns = 9\n\t\t\tlast exit code = 9\n\t\t}\n\t}\n\n"
                f"\truns = {job.runs}\n{pid}\t{job.ended}\n}}\n"
            ),
            "",
        )

    def print_disabled(self, uid, domain):
        rows = [
            f'\t\t"{target.split("/")[-1]}" => {self.faults.get("disabled", "disabled")}\n'
            for target in self.disabled
            if target.rpartition("/")[0] == domain
        ]
        return (
            0,
            '\n\tdisabled services = {\n\t\t"com.vaultory.servic" => true\n' + "".join(rows),
            "",
        )

    def bootout(self, uid, target):
        job = self.jobs.get(target)
        if not job or self.use("bootout"):
            return IO_ERROR if job else (3, "", "3: No such process\n")
        if not job.removed:
            job.removed = True
            threading.Thread(target=job.end, args=[job.process], daemon=True).start()
        return BUSY

    def bootstrap(self, uid, domain, path):
        found = os.lstat(path)
        target = f"{domain}/{plistlib.loads(pathlib.Path(path).read_bytes())['Label']}"
        if target in self.jobs:
            return 37, "", "37: Operation already in progress\n"
        if (
            target in self.disabled
            or time.monotonic() < self.refused.get(target, 0)
            or found.st_uid != uid
            or not stat.S_ISREG(found.st_mode)
            or found.st_mode & 0o022
            or self.use("bootstrap")
        ):
            return IO_ERROR
        self.jobs[target] = Job(self, uid, target, path)
        return OK

    def plutil(self, arguments, text):
        try:
            keys = plistlib.loads(
                text if arguments[-1] == "-" else pathlib.Path(arguments[-1]).read_bytes()
            )
        except Exception as error:
            return 1, "", f"{error}\n"
        return (0, plistlib.dumps(keys).decode(), "") if arguments[0] == "-convert" else OK


class Machine:
    def __init__(self, root, user):
        self.root, self.uid, self.owner = root, *(
            (ALICE.pw_uid, ALICE.pw_name) if user else (0, "root")
        )
        self.user = {"user": self.uid, "group": self.uid, "extra_groups": []} if user else {}
        self.home = f"/Users/{ALICE.pw_name}" if user else ""
        self.domain, self.label = "system", "com.vaultory.service"
        if user:
            self.domain, self.label = f"gui/{self.uid}", self.label + ".agent"
        self.target = f"{self.domain}/{self.label}"
        self.app, self.support, self.jobs, logs, _ = self.shared = [
            root.path(self.home + path)
            for path in (
                "/Applications/Orvane.app",
                "/Library/Application Support",
                "/Library/LaunchAgents" if user else "/Library/LaunchDaemons",
                "/Library/Logs",
                "/Library",
            )
        ]
        self.shared[0] = self.app.parent
        self.service = self.app / "Contents/Library/LaunchServices/OrvaneService.app"
        self.kept, self.data, self.job, self.log = map(
            root.path,
            (
                self.support / "Orvane",
                self.support / "Quillrest",
                self.jobs / f"{self.label}.plist",
                logs / "OrvaneService.log",
            ),
        )
        self.names = {  # the longer paths first
            "RELEASE": self.service / "Contents/Resources/jre/release",
            "SERVICE": self.service,
            "APP": self.app,
            "JOB": self.job,
            "KEPT": self.kept,
            "DATA": self.data,
            "LOG": self.log,
            "TARGET": self.target,
            "JOBS": self.jobs,
            "SUPPORT": self.support,
        }
        for path in *self.shared, root.path(MAC) / "bin":
            path.mkdir(parents=True, exist_ok=True)
        MAC.chmod(0o777)
        if user:
            self.give(self.home)
        self.shared = {path: path.stat() for path in self.shared}
        if not user and USER is not None:  # root:admin 775, as on a Mac
            os.chown(self.app.parent, 0, 80)
            self.app.parent.chmod(0o775)
        for name, text in {"launchctl": CLIENT, "plutil": CLIENT, **STAND_INS}.items():
            self.stand_in(name, text.replace("ACL", ""))
        self.model = Model()

    def end(self):
        self.model.end()
        for path, before in self.shared.items():  # which this test may not have created
            path.chmod(before.st_mode & 0o7777)
            os.chown(path, before.st_uid, before.st_gid)

    def stand_in(self, name, text):
        put(
            MAC / "bin" / name,
            (text if text.startswith("#!") else f"#!/bin/sh\n{text}\n").encode(),
            0o755,
        )

    def access_list(self, path):
        """An access control list on this path allows changes."""
        self.stand_in("ls", STAND_INS["ls"].replace("ACL", str(path)))

    def at_rename(self, number, before=":", after=":"):
        (MAC / "renames").unlink(missing_ok=True)
        self.stand_in(
            "perl",
            RENAMES.replace("NUMBER", str(number))
            .replace("BEFORE", before)
            .replace("AFTER", after),
        )

    def give(self, path):
        subprocess.run(["chown", "-Rh", f"{self.uid}:{self.uid}", path], check=True)

    def sh(self, command):
        """Runs a command of the shell in which $APP, $JOB, ... are the paths."""
        subprocess.run(
            ["sh", "-ec", "IFS=; ARGS=$DATA/conf/jvm_args; " + command],
            check=True,
            env={**os.environ, **self.names, "MAC": MAC, "NEW": MAC / "new/2" / CONTENTS},
        )

    def bundle(self, version, program="stays", team="A1B2C3D4E5"):
        """Builds the version, signed if there is a team, and returns the Orvane.app."""
        app = MAC / "new" / version / "Orvane.app"
        delete(app)
        inner = app.parent / CONTENTS
        resources, macos = inner / "Resources", f"/Applications/{CONTENTS}/MacOS"
        for directory in inner / "Frameworks", resources / "conf":
            directory.mkdir(parents=True)
        for place, identifier in (app / "Contents", "com.vaultory.orvane"), (
            inner,
            "com.vaultory.service",
        ):
            put(
                place / "Info.plist",
                plistlib.dumps(
                    {"CFBundleIdentifier": identifier, "CFBundleShortVersionString": version}
                ),
            )
        put(
            inner / "MacOS/OrvaneService",
            f"#!/bin/sh\nexec perl -e '{PROGRAMS[program]}' version-{version}\n".encode(),
            0o755,
        )
        for script in "install", "check-install":
            put(resources / "operator" / script, script_text(script), 0o755)
        (resources / "operator/uninstall").symlink_to("install")
        for label, suffix, home in ("service", "", ""), ("service.agent", ".in", "@HOME@"):
            put(
                resources / f"launchd/com.vaultory.{label}.plist{suffix}",
                plistlib.dumps(
                    {
                        "Label": f"com.vaultory.{label}",
                        "ProgramArguments": [f"{home}{macos}/OrvaneService"],
                        "WorkingDirectory": home + macos,
                        "StandardOutPath": f"{home}/Library/Logs/OrvaneService.log",
                        "RunAtLoad": True,
                        "KeepAlive": {"SuccessfulExit": False},
                        "ThrottleInterval": 30,
                        "ExitTimeOut": 60,
                    }
                ),
            )
        put(resources / "jre/release", b'IMPLEMENTOR="x"\nJAVA_VERSION="17.0.9"\n')
        put(
            resources / "lib/com.vaultory.desktop.jar",
            f"Implementation-Version: {version}\r\n".encode(),
        )
        for place in (inner, app / "Contents") if team else ():
            put(place / "_CodeSignature/CodeResources", team.encode())
        return app

    def script(self, app, name="install"):
        return [
            f"{app.parent}/{CONTENTS}/Resources/operator/{name}",
            *(["--user"] if self.uid else []),
        ]

    def start(self, command, env={}, **options):
        options = {
            "env": {"HOME": self.home, "PATH": "/usr/bin:/bin", **env},
            **self.user,
            **options,
        }
        return subprocess.Popen(
            command,
            cwd="/",
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            **options,
        )

    def call(self, app, *arguments, name="install", **options):
        """Runs a script of that bundle, by version or path: its status and text, paths shortened."""
        app = MAC / "new" / app / "Orvane.app" if isinstance(app, str) else app
        with self.start([*self.script(app, name), *arguments], **options) as process:
            text = process.communicate(timeout=60)[0].decode(errors="surrogateescape")
        return process.returncode, self.short(text.replace(str(app), "SOURCE"))

    def install(self, version, program="stays", *arguments):
        self.bundle(version, program)
        return self.call(version, *arguments)

    def good(self, *versions):
        """Installs these in turn; each runs."""
        for version in versions:
            status, text = self.install(version)
            assert status == 0, text

    def short(self, text):
        for name, path in self.names.items():
            text = text.replace(str(path), name)
        return re.sub(r"process \d+", "process PID", text)

    def loaded(self):
        return self.model.jobs.get(self.target)

    def seen(self):
        """The version that runs, is in place, is kept, and what is left over."""
        running = None
        while (
            not running and (job := self.loaded()) and (process := job.process)
        ):  # sh has no version
            command = subprocess.run(
                ["ps", "-ww", "-o", "args=", "-p", str(process.pid)], stdout=subprocess.PIPE
            )
            running = re.search(r"version-(\S+)|$", command.stdout.decode()).group(1)
        left = {path.name for path in self.kept.glob("*")} - {"lock", "former"}
        return running, version(self.app), version(self.kept / "former/Orvane.app"), left

    def wait(self, condition):
        deadline = time.monotonic() + 60
        while not condition(self.loaded()):
            assert time.monotonic() < deadline
            time.sleep(0.01)

    def die(self):
        """The version that "dies" does so, again and again."""
        (MAC / "die").touch()
        self.wait(lambda job: job.runs > 1)


def script_text(script):
    """A script of the product as the tests run it."""
    text = (ROOT / "operator" / script).read_text()
    text, paths = re.subn(
        r"(?m)^export PATH=(?=/usr/bin:/bin:/usr/sbin:/sbin$)", rf"\g<0>{MAC}/bin:", text
    )
    text, waits = re.subn(r"(?m)^pause=1 steady=5 ", "pause=0.01 steady=3 ", text)
    assert (paths, waits) == (1, "pause=" in text)
    return text.replace("alarm 5;", "alarm 1;").encode()


def version(app):
    path = app.parent / CONTENTS / "Info.plist"
    return (
        plistlib.loads(path.read_bytes())["CFBundleShortVersionString"] if path.exists() else None
    )


def put(path, content, mode=0o644):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    path.write_bytes(content)
    path.chmod(mode)


def delete(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)
