"""A Mac for root's scripts: bundles of a few files, launchd's model, stand-ins for a Mac's tools. The
scripts are copies with the directory of the stand-ins at the front of PATH and shorter waits."""

import os
import pathlib
import plistlib
import pwd
import re
import shutil
import subprocess
import sys
import zipfile

from launchd import CLIENT, seal
from support import CONTENTS, ROOT

HERE = pathlib.Path(__file__).resolve().parent
MAC = "/tmp/orvane/mac"
ALICE = pwd.getpwnam("nobody")  # any ordinary account
PROGRAMS = {
    "stays": "sleep 100000",
    "crashes": 'print STDERR "no \\e[31mvalid configuration\\n"; exit 1',
    "dies": f'select(undef, undef, undef, .02) until -e "{MAC}/die"; exit 3',  # later than install looks
    "ignores": '$SIG{TERM} = "IGNORE"; sleep 100000 while 1',
    "lingers": '$SIG{TERM} = sub { select(undef, undef, undef, .4); exit 143 }; sleep 100000 while 1',
    "exits": "exit 0",
}
STAND_INS = {
    "chflags": "exit 0",
    "chmod": 'case $1 in -RN) exit ;; esac; exec /bin/chmod "$@"',
    # An access control list as ls shows it, on the one path in fault/acl.
    "ls": f'''shift; /bin/ls -ldn "$@" | awk -v acl="$(cat {MAC}/fault/acl 2>/dev/null)" '
        {{ print; print " 0: group:everyone deny delete" }}
        acl != "" && substr($0, length($0) - length(acl)) == " " acl {{ print " 1: user:bob allow write" }}' ''',
}


def stand_in_text(script):
    """A script of the product as the tests run it."""
    text = (ROOT / "operator" / script).read_text()
    text, paths = re.subn(r"^export PATH=(/usr/bin:/bin:/usr/sbin:/sbin)$", rf"export PATH={MAC}/bin:\1", text,
                          flags=re.M)
    text, waits = re.subn(r"^pause=1 ", "pause=0.02 ", text, flags=re.M)
    assert (paths, waits) == (1, "pause=" in text)
    return text


class Machine:
    def __init__(self, root, user=False):
        self.root, self.uid = root, ALICE.pw_uid if user else 0
        self.home = f"/Users/{ALICE.pw_name}" if user else ""
        self.domain = f"gui/{self.uid}" if user else "system"
        self.label = "com.vaultory.service" + (".agent" if user else "")
        self.app = pathlib.Path(f"{self.home}/Applications/Orvane.app")
        self.support = pathlib.Path(f"{self.home}/Library/Application Support")
        self.kept, self.data = self.support / "Orvane", self.support / "Quillrest"
        self.jobs = pathlib.Path(f"{self.home}/Library/Launch{'Agents' if user else 'Daemons'}")
        self.job, self.target = self.jobs / f"{self.label}.plist", f"{self.domain}/{self.label}"
        self.log = pathlib.Path(f"{self.home}/Library/Logs/OrvaneService.log")
        self.mac = pathlib.Path(MAC)
        for path in *([self.home] if user else []), self.app.parent, self.support, self.jobs, self.log.parent:
            root.path(path).mkdir(parents=True, exist_ok=True)
        for path in self.app, self.kept, self.data, self.job, self.log, self.mac:
            root.path(path)
        if user:
            self.give(self.home)
        for name in "fault", "bin", "receipts", "new":
            (self.mac / name).mkdir(parents=True)
        for path in self.mac, self.mac / "fault":
            path.chmod(0o777)
        for name in "launchctl", "codesign", "plutil", "xattr", "pkgutil":
            self.stand_in(name, CLIENT.replace("DIRECTORY", MAC))
        for name, text in STAND_INS.items():
            self.stand_in(name, f"#!/bin/sh\n{text}\n")
        self.server = None
        self.boot()

    def boot(self):
        self.shut_down()
        (self.mac / "socket").unlink(missing_ok=True)
        self.server = subprocess.Popen([sys.executable, "-B", HERE / "launchd.py", MAC], stdout=subprocess.PIPE)
        assert self.server.stdout.readline() == b"ready\n"

    def shut_down(self):
        if self.server:
            with self.server:
                self.server.terminate()

    def clear(self):
        """As it was before anything was installed."""
        self.boot()
        for path in self.app, self.kept, self.data, self.job, *self.log.parent.glob("Orvane*"), self.mac / "die":
            delete(path)
        for path in self.mac.glob("fault/*"):
            path.unlink()
        (self.mac / "notes").write_bytes(b"")
        (self.mac / "notes").chmod(0o666)

    def stand_in(self, name, text):
        path = self.mac / "bin" / name
        path.write_text(text)
        path.chmod(0o755)

    def fault(self, name, value="yes"):
        (self.mac / "fault" / name).write_text(str(value))

    def give(self, path):
        subprocess.run(["chown", "-Rh", f"{self.uid}:{self.uid}", path], check=True)

    def bundle(self, version, program="stays", team="A1B2C3D4E5"):
        """Builds the version, signed if there is a team, and returns the Orvane.app."""
        app = self.mac / "new" / version / "Orvane.app"
        delete(app)
        contents, inner = app / "Contents", app.parent / CONTENTS
        resources, name = inner / "Resources", "com.vaultory.orvane"
        for directory in inner / "MacOS", inner / "Frameworks", resources / "conf":
            directory.mkdir(parents=True)
        for place, identifier in (contents, name), (inner, name + ".service"):
            put(place / "Info.plist", plistlib.dumps({"CFBundleIdentifier": identifier,
                                                      "CFBundleShortVersionString": version}))
        put(inner / "MacOS/OrvaneService",
            f"#!/bin/sh\nexec perl -e '{PROGRAMS[program]}' version-{version}\n".encode(), 0o755)
        for script in "install", "check-install":
            put(resources / "operator" / script, stand_in_text(script).encode(), 0o755)
        (resources / "operator/uninstall").symlink_to("install")
        for label, home, arguments in (("com.vaultory.service.plist", "", []),
                                       ("com.vaultory.service.agent.plist.in", "@HOME@", ["-Duser.install=1"])):
            put(resources / "launchd" / label, plistlib.dumps({
                "Label": re.sub(r"\.plist.*", "", label), "RunAtLoad": True, "KeepAlive": {"SuccessfulExit": False},
                "ProgramArguments": [f"{home}/Applications/{CONTENTS}/MacOS/OrvaneService", *arguments],
                "WorkingDirectory": f"{home}/Applications/{CONTENTS}/MacOS", "ThrottleInterval": 30,
                "ExitTimeOut": 60, "StandardOutPath": f"{home}/Library/Logs/OrvaneService.log",
                "StandardErrorPath": f"{home}/Library/Logs/OrvaneService.log"}))
        put(resources / "jre/release", b'IMPLEMENTOR="x"\nJAVA_VERSION="17.0.9"\n')
        put(resources / "lib/com.vaultory.desktop.jar", b"")
        with zipfile.ZipFile(resources / "lib/com.vaultory.desktop.jar", "w") as jar:
            jar.writestr("META-INF/MANIFEST.MF", f"Manifest-Version: 1.0\r\nImplementation-Version: {version}\r\n")
        for place in (inner, contents) if team else ():
            put(place / "_CodeSignature/CodeResources", f"{seal(place.parent)} {team}".encode())
        return app

    def script(self, app, name="install"):
        return [str(pathlib.Path(app).parent / CONTENTS / "Resources/operator" / name),
                *(["--user"] if self.uid else [])]

    def start(self, command, env=None, **options):
        user = {"user": self.uid, "group": self.uid, "extra_groups": []} if self.uid else {}
        return subprocess.Popen(command, cwd="/", env={"HOME": self.home, "PATH": "/usr/bin:/bin", **(env or {})},
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                **user, **options)

    def call(self, app, *arguments, name="install", **options):
        """Runs a script of that bundle, by version or path: its status and text, paths shortened."""
        app = self.mac / "new" / app / "Orvane.app" if "/" not in str(app) else app
        with self.start([*self.script(app, name), *arguments], **options) as process:
            text = process.communicate(timeout=60)[0].decode(errors="surrogateescape")
        for path, short in ((app, "SOURCE"), (self.app, "APP"), (self.job, "JOB"), (self.kept, "KEPT"),
                            (self.data, "DATA"), (self.log, "LOG"), (self.target, "TARGET")):
            text = text.replace(str(path), short)
        return process.returncode, re.sub(r"process \d+", "process PID", text)

    def install(self, version, program="stays", *arguments):
        self.bundle(version, program)
        return self.call(version, *arguments)

    def launchctl(self, *arguments):
        return subprocess.run([f"{MAC}/bin/launchctl", *arguments], capture_output=True, text=True)

    def pid(self):
        found = re.search(r"^\tpid = (\d+)$", self.launchctl("print", self.target).stdout, re.M)
        return found and found.group(1)

    def running(self):
        """The version of the process that launchd knows, None without one."""
        command = subprocess.run(["ps", "-o", "args=", "-p", self.pid() or "0"], capture_output=True, text=True)
        found = re.search(r"version-(\S+)", command.stdout)
        return found and found.group(1)

    def seen(self):
        """What runs, is in place, is kept and is left over."""
        left = {path.name for path in self.kept.glob("*")} - {"lock", "former"}
        return self.running(), version(self.app), version(self.kept / "former/Orvane.app"), left

    def notes(self):
        return (self.mac / "notes").read_text().splitlines()


def version(app):
    path = pathlib.Path(app).parent / CONTENTS / "Info.plist"
    return plistlib.loads(path.read_bytes())["CFBundleShortVersionString"] if path.exists() else None


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
