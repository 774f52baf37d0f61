"""operator/install and operator/uninstall over bundles of a few files, in a private root where
commands.sh stands in for launchctl and records every command that changes something:

    /new/VERSION/Orvane.app             a bundle as a disk image has it
    /Applications, /Users/alice         the installations

In the expected records APP is the installed Orvane.app, JOB its launchd service, PLIST its
property list, and a line that begins with "root:" or "user:" is in that mode's record alone.
"""

import itertools
import plistlib
import shutil
import stat
import unittest

from support import CONTENTS, ROOT
from support.private_root import BUILD_DIR, PrivateRoot

COMMANDS = ("launchctl", "pgrep", "sleep", "cp", "mv", "rm", "chown", "chmod", "mkdir")
INNER = CONTENTS.partition("/")[2]
DATA = "/Library/Application Support/Quillrest"
STAGED = "/Library/Application Support/Orvane.installing"

COPY = """\
rm -rf APP.new APP.gone
mkdir -p APPLICATIONS
cp -Rp SOURCE APP.new
chmod -R u+rwX,go+rX-w,ug-s APP.new
root: chown -Rh 0:0 APP.new
"""
NOT_RUNNING = """\
launchctl print JOB
launchctl print JOB
pgrep -f ^PROGRAM
"""
STOP = """\
launchctl print JOB
launchctl bootout JOB
launchctl print JOB
pgrep -f ^PROGRAM
"""
STOP_SLOWLY = """\
launchctl print JOB
launchctl bootout JOB
launchctl print JOB
sleep 1
launchctl print JOB
sleep 1
launchctl print JOB
pgrep -f ^PROGRAM
sleep 1
launchctl print JOB
pgrep -f ^PROGRAM
sleep 1
launchctl print JOB
pgrep -f ^PROGRAM
"""
PUT = "mv APP.new APP\n"
SWAP = "mv APP APP.old\n" + PUT
PUT_BACK = """\
mv APP APP.gone
rm -rf APP.gone
mv APP.old APP
"""
PLACE_JOB = """\
mkdir -p JOBS LOGS
chmod 644 PLIST.new
root: chown -Rh 0:0 PLIST.new
mv -f PLIST.new PLIST
"""
LOAD = PLACE_JOB + """\
user: launchctl print DOMAIN
launchctl enable JOB
launchctl bootstrap DOMAIN PLIST
"""
BUSY = """\
sleep 2
launchctl bootstrap DOMAIN PLIST
"""
LOOK = """\
sleep 1
launchctl print JOB
"""
KEEP = "mv APP.old APP.former\n"
REPLACE_KEPT = """\
mv APP.former APP.gone
rm -rf APP.gone
""" + KEEP
DROP_OLD = """\
mv APP.old APP.gone
rm -rf APP.gone
"""
DROP_FORMER = DROP_OLD.replace("old", "former")
UP = LOAD + 5 * LOOK
REMOVE = """\
rm -rf PLIST
mv APP APP.gone
rm -rf APP.gone
"""


def lines(*texts):
    return "".join(text + "\n" for text in texts)


def came_up(version, process, *before):
    return lines(f"Copying version {version} to APP.new.", *before, "Starting LABEL.",
                 f"Version {version} is installed; LABEL runs, process {process}.")


def stopping(process, replaced):
    return f"Stopping LABEL, process {process}.", f"Replacing version {replaced}."


def went_back(version, first, process, why, logged):
    """Output and errors of an upgrade from version 1 that did not come up."""
    return (lines(f"Copying version {version} to APP.new.", *stopping(first, 1), "Starting LABEL.",
                  "Stopping LABEL.",
                  "Starting LABEL.", f"Version 1 is back; LABEL runs, process {process}."),
            lines(f"install: version {version} did not come up: {why}; the end of LOG:",
                  *("    version " + line for line in logged)))


def back(looks):
    return COPY + STOP + SWAP + LOAD + looks * LOOK + STOP + PUT_BACK + UP


# What the machine has, the state of the stand-in, the call, and what each of two such calls
# gives: status, output, errors, record, and the bundles there are afterwards.
ONE, TWO = {"": "1"}, {"": "2", ".former": "1"}
NO_FORMER = (1, "", "install: there is no former version to go back to; nothing was changed\n",
             "rm -rf APP.new APP.gone\n")
SCENARIOS = {
    "first install": ([], {}, ["1"], [
        (0, came_up(1, 101), "", COPY + NOT_RUNNING + PUT + UP, ONE),
        (0, came_up(1, 102, *stopping(101, 1)), "", COPY + STOP + SWAP + UP + DROP_OLD, ONE)]),
    "label disabled, launchd busy": ([], {"disabled": "", "busy": 2}, ["1"], [
        (0, came_up(1, 101), "", COPY + NOT_RUNNING + PUT + LOAD + 2 * BUSY + 5 * LOOK, ONE)]),
    "launchd busy for good": ([], {"busy": 99}, ["1"], [
        (3, came_up(1, 101).partition("Version")[0],
         "install: version 1 did not come up: launchctl bootstrap: Bootstrap failed: 5: "
         "Input/output error; the end of LOG:\ninstall: nothing is installed, as before\n",
         COPY + NOT_RUNNING + PUT + LOAD + 10 * BUSY + NOT_RUNNING +
         "mv APP APP.gone\nrm -rf APP.gone\nrm -f PLIST\n", {})] * 2),
    "upgrade of a running service that takes its time to end": (["1"], {"slow": 2}, ["2"], [
        (0, came_up(2, 102, *stopping(101, 1)), "", COPY + STOP_SLOWLY + SWAP + UP + KEEP, TWO),
        (0, came_up(2, 103, *stopping(102, 2)), "",
         COPY + STOP_SLOWLY + SWAP + UP + DROP_OLD, TWO)]),
    "upgrade of a service that does not end": (["1"], {"slow": 200}, ["2"], [
        (4, lines("Copying version 2 to APP.new.", "Stopping LABEL, process 101.",
                  "Starting LABEL."),
         "install: LABEL is still there 90 s after it was stopped, and does not start again: "
         "launchctl bootstrap: Bootstrap failed: 5: Input/output error\n",
         COPY + STOP.partition("pgrep")[0] + 90 * LOOK + "rm -rf APP.new\n" +
         LOAD.replace(PLACE_JOB, "") + 10 * BUSY, ONE)]),
    "second upgrade": (["1", "2"], {}, ["4"], [
        (0, came_up(4, 103, *stopping(102, 2)), "",
         COPY + STOP + SWAP + UP + REPLACE_KEPT, {"": "4", ".former": "2"})]),
    "a version that fails at once": (["1"], {}, ["fails"], [
        (3, *went_back("fails", 101, 103, "it ended with status 1", ["1", "fails"]),
         back(1), ONE),
        (3, *went_back("fails", 103, 105, "it ended with status 1", ["1", "fails"] * 2),
         back(1), ONE)]),
    "a version that crashes after three seconds": (["1"], {}, ["crashes"], [
        (3, *went_back("crashes", 101, 103, "it was ended by a signal, Abort trap: 6",
                       ["1", "crashes"]), back(4), ONE)]),
    "a version that is never started": (["1"], {}, ["never"], [
        (3, *went_back("never", 101, 103, "it had no process for 5 s on end within 60 s",
                       ["1", "never"]), back(60), ONE)]),
    "a version that has done its work": (["1"], {}, ["completes"], [
        (0, came_up("completes", 0, *stopping(101, 1)).replace(
            "runs, process 0", "has run and ended with status 0"), "",
         COPY + STOP + SWAP + LOAD + LOOK + KEEP, {"": "completes", ".former": "1"})]),
    "rollback": (["1", "2"], {}, ["", "--rollback"], [
        (0, came_up(1, 103, *stopping(102, 2)), "",
         COPY.replace("SOURCE", "APP.former") + STOP + SWAP + UP + DROP_OLD + DROP_FORMER, ONE),
        (*NO_FORMER, ONE)]),
    "uninstall": (["1", "2"], {}, ["uninstall"], [
        (0, lines("Stopping LABEL, process 102.", "Removing PLIST.", "Removing APP.",
                  "Removing APP.former.", "Keeping DATA.", "Orvane is not installed."), "",
         STOP + REMOVE + "rm -rf APP.former\n", {}),
        (0, lines("Keeping DATA.", "Orvane is not installed."), "", NOT_RUNNING, {})]),
    "uninstall with the data": (["1"], {}, ["uninstall", "--data"], [
        (0, lines("Stopping LABEL, process 101.", "Removing PLIST.", "Removing APP.",
                  "Removing DATA.", "Removing LOG.", "Orvane is not installed."), "",
         STOP + REMOVE + "rm -rf DATA\nrm -rf LOG\n", {}),
        (0, "Orvane is not installed.\n", "", NOT_RUNNING, {})]),
}


class Machine:
    """A Mac's directories; home is empty for the system-wide service, run by root."""

    def __init__(self, test, home=""):
        self.root, self.home = PrivateRoot(test, uid=1000 if home else 0), home
        for name in COMMANDS:
            self.root.put("/stand-in/" + name, ROOT / "test/operator/commands.sh")
        for folder in "/state", home + "/Library/Logs":
            self.root.path(folder).mkdir(parents=True)
        self.root.put(f"{home}{DATA}/conf/jvm_args", b"-Xmx2g\n")
        label = "com.vaultory.service" + (".agent" if home else "")
        domain = "gui/1000" if home else "system"
        jobs = f"{home}/Library/Launch{'Agents' if home else 'Daemons'}"
        app = home + "/Applications/Orvane.app"
        self.names = {  # the longer first
            f"{app}/{INNER}/MacOS/OrvaneService": "PROGRAM", app: "APP",
            f"{jobs}/{label}.plist": "PLIST", f"{domain}/{label}": "JOB", label: "LABEL",
            jobs: "JOBS", home + DATA: "DATA", home + "/Library/Logs/OrvaneService.log": "LOG",
            home + "/Library/Logs": "LOGS", home + "/Applications": "APPLICATIONS"}
        self.app, self.domain, self.job = app, domain, f"{jobs}/{label}.plist"
        for version in "1", "2", "4":
            self.bundle(version)
        for version, behaviour in (("fails", "fails 0"), ("crashes", "crashes 3"),
                                   ("never", "never"), ("completes", "completes")):
            self.bundle(version, behaviour)

    def bundle(self, version, behaviour="stays", folder=None):
        """Puts a version of the bundle where a disk image has it; others may write to it."""
        contents = f"{folder or '/new/' + version}/{CONTENTS}"
        self.root.put(contents + "/Info.plist",
                      b"<key>CFBundleShortVersionString</key>\n\t<string>%s</string>\n"
                      % version.encode(), mode=0o666)
        self.root.put(contents + "/MacOS/OrvaneService",
                      f"{behaviour}\nversion {version}\n".encode(), mode=0o6755)
        for file in BUILD_DIR.glob("bundle/launchd/*"):
            self.root.put(f"{contents}/Resources/launchd/{file.name}", file)
        for name in "install", "uninstall", "job.sh":
            self.root.put(f"{contents}/Resources/operator/{name}", ROOT / "operator" / name)

    def run(self, command, **state):
        for name, value in {"record": "", "kill": 0, **state}.items():
            self.root.put("/state/" + name, str(value).encode())
        result = self.root.run(command, cwd="/tmp", env={
            "PATH": "/stand-in:/usr/bin:/bin", "HOME": self.home or "/root"})
        return (result.status, *(text.decode() for text in result[1:]),
                self.root.path("/state/record").read_text())

    def call(self, version, *arguments, **state):
        """Calls install of that version on its disk image; of the installed bundle for ""; or
        uninstall, of a disk image."""
        script = "install"
        if version == "uninstall":
            version, script = "1", "uninstall"
        app = f"/new/{version}/Orvane.app" if version else self.app
        result = self.run(["/bin/sh", f"{app}/{INNER}/Resources/operator/{script}",
                           *(["--user"] if self.home else []), *arguments], **state)
        return result[0], *(self.named(text, app) for text in result[1:])

    def named(self, text, source):
        text = text.replace(source + " ", "SOURCE ") if source != self.app else text
        for path, name in self.names.items():
            text = text.replace(path, name)
        return text.replace(" %s " % self.domain, " DOMAIN ").replace(
            " %s\n" % self.domain, " DOMAIN\n")

    def expected(self, record):
        """The record of this mode."""
        mine, other = ("user: ", "root: ") if self.home else ("root: ", "user: ")
        return "".join(line.replace(mine, "") for line in record.splitlines(keepends=True)
                       if not line.startswith(other))

    def versions(self):
        """The versions of the bundles there, by what follows their name."""
        return {path.name[10:]: (path / INNER / "Info.plist").read_text().split("string>")[1][:-2]
                for path in self.root.path(self.app).parent.glob("*")}

    def loaded(self):
        """Whether the installed job is loaded."""
        state = self.root.path("/state/loaded")
        return state.exists() and state.read_text().split()[2] == self.job and \
            self.root.path(self.job).exists()

    def image(self):
        """What a test may change, to be restored."""
        saved = self.root.path("/saved")
        for name in "Applications", "Library", "Users", "state":
            shutil.copytree(self.root.path("/" + name), saved / name, symlinks=True)

    def restore(self):
        for saved in self.root.path("/saved").iterdir():
            shutil.rmtree(self.root.path("/" + saved.name))
            shutil.copytree(saved, self.root.path("/" + saved.name), symlinks=True)


class Install(unittest.TestCase):
    maxDiff = None

    def machines(self):
        for home in "", "/Users/alice":
            with self.subTest(home=home):
                yield Machine(self, home)

    def test_each_call_does_this_in_this_order_once_and_again(self):
        for name, (before, state, call, outcomes) in SCENARIOS.items():
            for machine in self.machines():
                with self.subTest(name):
                    for version in before:
                        machine.call(version)
                    for index, (status, output, errors, record, versions) in enumerate(outcomes):
                        self.assertEqual(
                            (status, output, errors, machine.expected(record), versions),
                            (*machine.call(*call, **(state if index == 0 else {})),
                             machine.versions()))

    def killed_after_each_step(self, before, call, *ends):
        """Calls once more after a kill between any two steps: ends are the status of that
        call and the bundles afterwards that are right; the last bundle named runs."""
        for machine in self.machines():
            for version in before:
                machine.call(version)
            machine.image()
            for step in itertools.count(1):
                status = machine.call(*call, kill=step)[0]
                if status != 137:
                    break
                result = machine.call(*call)
                self.assertIn((result[0], machine.versions(), machine.loaded()), ends,
                              (step, result))
                machine.restore()
            self.assertGreater(step, 10)
            self.assertTrue(machine.root.path(f"{machine.home}{DATA}/conf/jvm_args").exists())

    def test_a_first_install_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step([], ["1"], (0, ONE, True))

    def test_an_upgrade_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step(["1"], ["2"], (0, TWO, True))

    def test_a_failed_upgrade_killed_at_any_step_is_reverted_by_the_next(self):
        self.killed_after_each_step(["1"], ["fails"], (3, ONE, True))

    def test_a_rollback_killed_at_any_step_is_completed_or_undone_by_the_next(self):
        self.killed_after_each_step(["1", "2"], ["1", "--rollback"], (0, ONE, True),
                                    (0, TWO, True), (1, ONE, True))

    def test_an_upgrade_killed_at_any_step_is_undone_by_a_rollback(self):
        pass

    def test_an_uninstall_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step(["1", "2"], ["uninstall"], (0, {}, False))
