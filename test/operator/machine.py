"""A Mac for root's scripts: bundles of a few files, the model of launchd, stand-ins for a Mac's tools. The
scripts are copies with the directory of the stand-ins at the front of PATH and shorter waits."""

import os
import pathlib
import plistlib
import pwd
import re
import shutil
import subprocess
import time

from launchd import CLIENT, Model, seal
from support import CONTENTS, ROOT

MAC = pathlib.Path("/tmp/orvane/mac")
ALICE = pwd.getpwnam("nobody")  # any ordinary account
PROGRAMS = {
    "stays": "sleep 100000",
    "crashes": 'print STDERR "no \\e[31mvalid configuration\\n"; exit 1',
    "dies": f'select(undef, undef, undef, .02) until -e "{MAC}/die"; exit 3',  # later than install looks
    "ignores": '$SIG{TERM} = "IGNORE"; sleep 100000 while 1',
    "lingers": '$SIG{TERM} = sub { select(undef, undef, undef, .2); exit 143 }; sleep 100000 while 1',
    "exits": "exit 0",
}
# One access control list as ls shows it, on every path, and one more that allows changes.
LS = r'''shift; /bin/ls -ldn "$@" | awk -v acl="ACL" '{ print; print " 0: group:everyone deny delete" }
    acl != "" && substr($0, length($0) - length(acl)) == " " acl { print " 1: user:bob allow write" }' '''
# Does something before or after a call's rename of that number.
RENAMES = f"""case "$*" in *rename*) ;; *) exec /usr/bin/perl "$@" ;; esac
    echo >>{MAC}/renames
    number=$(wc -l <{MAC}/renames)
    [ $number != NUMBER ] || BEFORE
    /usr/bin/perl "$@"; status=$?
    [ $number != NUMBER ] || AFTER
    exit $status"""


def script_text(script):
    """A script of the product as the tests run it."""
    text = (ROOT / "operator" / script).read_text()
    text, paths = re.subn(r"(?m)^export PATH=(?=/usr/bin:/bin:/usr/sbin:/sbin$)", f"export PATH={MAC}/bin:", text)
    text, waits = re.subn(r"(?m)^pause=1 steady=5 ", "pause=0.01 steady=3 ", text)
    assert (paths, waits) == (1, "pause=" in text)
    return text.replace("alarm 5;", "alarm 1;").encode()


class Machine:
    def __init__(self, root, user):
        self.root, self.uid = root, ALICE.pw_uid if user else 0
        self.home = f"/Users/{ALICE.pw_name}" if user else ""
        self.domain = f"gui/{self.uid}" if user else "system"
        self.label = "com.vaultory.service" + (".agent" if user else "")
        self.app = root.path(f"{self.home}/Applications/Orvane.app")
        self.service = self.app / "Contents/Library/LaunchServices/OrvaneService.app"
        self.owner = ALICE.pw_name if user else "root"
        self.support = root.path(f"{self.home}/Library/Application Support")
        self.kept, self.data = root.path(self.support / "Orvane"), root.path(self.support / "Quillrest")
        self.jobs = root.path(f"{self.home}/Library/Launch{'Agents' if user else 'Daemons'}")
        self.job, self.target = root.path(self.jobs / f"{self.label}.plist"), f"{self.domain}/{self.label}"
        self.log = root.path(f"{self.home}/Library/Logs/OrvaneService.log")
        self.names = {  # the longer paths first
            "RELEASE": self.service / "Contents/Resources/jre/release", "SERVICE": self.service, "APP": self.app,
            "JOB": self.job, "KEPT": self.kept, "DATA": self.data, "LOG": self.log, "TARGET": self.target,
            "JOBS": self.jobs, "SUPPORT": self.support}
        for path in self.app.parent, self.support, self.jobs, self.log.parent, root.path(MAC) / "bin":
            path.mkdir(parents=True, exist_ok=True)
        if user:
            self.give(self.home)
        self.shared = [(path, path.stat()) for path in (self.app.parent, self.support.parent, self.support, self.jobs)]
        MAC.chmod(0o777)
        for name in "launchctl", "codesign", "plutil", "xattr", "pkgutil":
            self.stand_in(name, CLIENT.replace("SOCKET", f"{MAC}/socket"))
        self.stand_in("chflags", "exit 0")
        self.stand_in("unzip", 'cat "$2"')
        self.stand_in("chmod", 'case $1 in -RN) echo $2 >>/tmp/orvane/mac/lists; exit ;; esac; exec /bin/chmod "$@"')
        self.access_list("")
        self.model = Model(MAC)

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.model.end()
        for path, before in self.shared:  # which this test may not have created
            path.chmod(before.st_mode & 0o7777)
            os.chown(path, before.st_uid, before.st_gid)

    def stand_in(self, name, text):
        put(MAC / "bin" / name, (text if text.startswith("#!") else f"#!/bin/sh\n{text}\n").encode(), 0o755)

    def access_list(self, path):
        """An access control list on this path allows changes."""
        self.stand_in("ls", LS.replace("ACL", str(path)))

    def at_rename(self, number, before=":", after=":"):
        (MAC / "renames").unlink(missing_ok=True)
        self.stand_in("perl", RENAMES.replace("NUMBER", str(number)).replace("BEFORE", before).replace(
            "AFTER", after))

    def give(self, path):
        subprocess.run(["chown", "-Rh", f"{self.uid}:{self.uid}", path], check=True)

    def bundle(self, version, program="stays", team="A1B2C3D4E5"):
        """Builds the version, signed if there is a team, and returns the Orvane.app."""
        app = MAC / "new" / version / "Orvane.app"
        delete(app)
        contents, inner = app / "Contents", app.parent / CONTENTS
        resources, applications = inner / "Resources", f"/Applications/{CONTENTS}/MacOS"
        for directory in inner / "Frameworks", resources / "conf":
            directory.mkdir(parents=True)
        for place, identifier in (contents, "com.vaultory.orvane"), (inner, "com.vaultory.orvane.service"):
            put(place / "Info.plist", plistlib.dumps({"CFBundleIdentifier": identifier,
                                                      "CFBundleShortVersionString": version}))
        put(inner / "MacOS/OrvaneService",
            f"#!/bin/sh\nexec perl -e '{PROGRAMS[program]}' version-{version}\n".encode(), 0o755)
        for script in "install", "check-install":
            put(resources / "operator" / script, script_text(script), 0o755)
        (resources / "operator/uninstall").symlink_to("install")
        for name, home, arguments in (("com.vaultory.service.plist", "", []),
                                      ("com.vaultory.service.agent.plist.in", "@HOME@", ["-Duser.install=1"])):
            put(resources / "launchd" / name, plistlib.dumps({
                "Label": re.sub(r"\.plist.*", "", name), "RunAtLoad": True, "KeepAlive": {"SuccessfulExit": False},
                "ProgramArguments": [f"{home}{applications}/OrvaneService", *arguments],
                "WorkingDirectory": home + applications, "ThrottleInterval": 30, "ExitTimeOut": 60,
                "StandardOutPath": f"{home}/Library/Logs/OrvaneService.log"}))
        put(resources / "jre/release", b'IMPLEMENTOR="x"\nJAVA_VERSION="17.0.9"\n')
        put(resources / "lib/com.vaultory.desktop.jar", f"x\r\nImplementation-Version: {version}\r\n".encode())
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
                                **{**user, **options})

    def call(self, app, *arguments, name="install", **options):
        """Runs a script of that bundle, by version or path: its status and text, paths shortened."""
        app = MAC / "new" / app / "Orvane.app" if "/" not in str(app) else app
        with self.start([*self.script(app, name), *arguments], **options) as process:
            text = process.communicate(timeout=60)[0].decode(errors="surrogateescape")
        return process.returncode, self.short(text.replace(str(app), "SOURCE"))

    def install(self, version, program="stays", *arguments):
        self.bundle(version, program)
        return self.call(version, *arguments)

    def good(self, *versions):
        """Installs these in turn; each runs."""
        for version in versions:
            assert self.install(version)[0] == 0

    def short(self, text):
        for name, path in self.names.items():
            text = text.replace(str(path), name)
        return re.sub(r"process \d+", "process PID", text)

    def loaded(self):
        return self.model.jobs.get(self.target)

    def running(self):
        """The version of the process that launchd knows, None without one."""
        process = self.loaded() and self.loaded().process
        command = subprocess.run(["ps", "-o", "args=", "-p", str(process.pid if process else 0)],
                                 capture_output=True, text=True).stdout
        found = re.search(r"version-(\S+)", command)
        return found and found.group(1)

    def seen(self):
        """What runs, is in place, is kept and is left over."""
        left = {path.name for path in self.kept.glob("*")} - {"lock", "former"}
        return self.running(), version(self.app), version(self.kept / "former/Orvane.app"), left

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
