"""A Mac for root's scripts: the model of launchd, the stand-ins, and the bundles to install on it."""

import os
import pathlib
import plistlib
import pwd
import re
import shutil
import subprocess
import time

from bundles import TOOL, delete, make_bundle, put, stand_in
from launchd import CLIENT, Launchd
from stand_ins import LS, STAND_INS
from support import CONTENTS
from support.root import SCRATCH, USER

__all__ = ["ALICE", "MAC", "Machine", "delete", "put"]

MAC = pathlib.Path(SCRATCH, "mac")
ALICE = pwd.getpwnam("nobody")  # any ordinary account


class Machine:
    def __init__(self, root, user):
        self.root = root
        self.uid, self.owner = (ALICE.pw_uid, ALICE.pw_name) if user else (0, "root")
        self.user = {"user": self.uid, "group": self.uid, "extra_groups": []} if user else {}
        self.home = f"/Users/{ALICE.pw_name}" if user else ""
        self.domain, self.label = "system", "com.vaultory.service"
        jobs = "/Library/LaunchDaemons"
        if user:
            self.domain, self.label = f"gui/{self.uid}", self.label + ".agent"
            jobs = "/Library/LaunchAgents"
        self.target = f"{self.domain}/{self.label}"
        applications, self.support, self.jobs, logs, library = [
            root.path(self.home + path)
            for path in (
                "/Applications",
                "/Library/Application Support",
                jobs,
                "/Library/Logs",
                "/Library",
            )
        ]
        self.app = root.path(applications / "Orvane.app")
        self.service = self.app / "Contents/Library/LaunchServices/OrvaneService.app"
        self.kept = root.path(self.support / "Orvane")
        self.data = root.path(self.support / "Quillrest")
        self.job = root.path(self.jobs / f"{self.label}.plist")
        self.log = root.path(logs / "OrvaneService.log")
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
        shared = [applications, self.support, self.jobs, logs, library]
        for path in *shared, root.path(MAC) / "bin":
            path.mkdir(parents=True, exist_ok=True)
        MAC.chmod(0o777)
        shutil.copy(TOOL, MAC / "operator-tool")
        if user:
            self.give(self.home)
        self.shared = {path: path.stat() for path in shared}
        if not user and USER is not None:  # root:admin 775, as on a Mac
            os.chown(applications, 0, 80)
            applications.chmod(0o775)
        for name, text in STAND_INS.items():
            self.stand_in(name, text)
        for name in "launchctl", "plutil":
            put(MAC / "bin" / name, CLIENT.format(directory=MAC).encode(), 0o755)
        # As a Mac's, but in seconds that are shorter.
        self.limits = {"pause": 0.01, "steady": 3, "lock_limit": 1}
        self.model = Launchd(MAC, self.uid)

    def end(self):
        self.model.end()
        for path, before in self.shared.items():  # which this test may not have created
            path.chmod(before.st_mode & 0o7777)
            os.chown(path, before.st_uid, before.st_gid)

    def stand_in(self, name, text):
        put(MAC / "bin" / name, stand_in(text, MAC), 0o755)

    def access_list(self, path):
        """An access control list on this path allows changes."""
        self.stand_in("ls", LS.replace("ACL", str(path)))

    def at(self, step, before="", after=""):
        """What happens before and after this step of the next calls, see stand_ins; $PPID is the script."""
        delete(MAC / "steps")
        put(
            MAC / "at",
            f"case $step in '{step}') BEFORE='{before}' AFTER='{after}' ;; esac".encode(),
        )
        put(MAC / "steps", b"", 0o666)

    def steps(self):
        """The steps of the calls since then; nothing happens at any from now on."""
        (MAC / "at").unlink()
        steps = (MAC / "steps").read_text().splitlines()
        return [step + ", again" * (step in steps[:number]) for number, step in enumerate(steps)]

    def give(self, path):
        subprocess.run(["chown", "-Rh", f"{self.uid}:{self.uid}", path], check=True)

    def sh(self, command):
        """Runs a command of the shell in which $APP, $JOB, ... are the paths."""
        subprocess.run(
            ["sh", "-ec", "IFS=; ARGS=$DATA/conf/jvm_args; " + command],
            check=True,
            env={**os.environ, **self.names, "MAC": MAC, "NEW": MAC / "new/2" / CONTENTS},
        )

    def bundle(self, version, program="stays", team="A1B2C3D4E5", interposed=True):
        """Builds the version, signed if there is a team, and returns the Orvane.app."""
        app = MAC / "new" / version / "Orvane.app"
        delete(app)
        make_bundle(MAC, app, version, program, team, self.limits, interposed)
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
        text = re.sub(r"(ready|replacing)\.(\w+)\.\d+\.\d+", r"\1.\2.B.J", text)
        return re.sub(r"process \d+", "process PID", text)

    def loaded(self):
        return self.model.jobs.get(self.target)

    def seen(self):
        """The version that runs, is in place, is kept, and what is left over."""
        running = None
        while not running and (job := self.loaded()) and (process := job.process):
            command = subprocess.run(  # which has no version as long as it is the shell's
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


def version(app):
    path = app.parent / CONTENTS / "Info.plist"
    return (
        plistlib.loads(path.read_bytes())["CFBundleShortVersionString"] if path.exists() else None
    )
