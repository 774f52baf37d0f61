"""operator/install and operator/uninstall over bundles of a few files, in a private root where
commands.sh stands in for launchctl and records every command that changes something:

    /new/VERSION/Orvane.app             a bundle as a disk image has it
    /Applications, /Users/alice         the installations

In the expected records APP is the installed Orvane.app, JOB its launchd service, PLIST its
property list, and a line that begins with "root:" or "user:" is in that mode's record alone.
"""

import itertools
import pathlib
import plistlib
import re
import shutil
import stat
import subprocess
import tarfile
import tempfile
import unittest

from support import CONTENTS, ROOT
from support.private_root import BUILD_DIR, PrivateRoot

COMMANDS = ("launchctl", "pgrep", "sleep", "cp", "mv", "rm", "chown", "chmod", "mkdir")
INNER = CONTENTS.partition("/")[2]
DATA = "/Library/Application Support/Quillrest"
USAGE = re.search(r'^usage="(.*?)"$', (ROOT / "operator/install").read_text(),
                  re.M | re.S).group(1) + "\n"
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
        return state.exists() and self.root.path(self.job).exists() and \
            state.read_text().split(" ", 2)[2].startswith(self.job + ":" + self.app + "/")

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

    def machines(self, homes=("", "/Users/alice")):
        for home in homes:
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

    def killed_after_each_step(self, before, call, *ends, homes=("",)):
        """Calls once more after a kill between any two steps: ends are the status of that
        call and the bundles afterwards that are right; the last bundle named runs."""
        for machine in self.machines(homes):
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
            self.assertGreater(step, 8)
            self.assertTrue(machine.root.path(f"{machine.home}{DATA}/conf/jvm_args").exists())

    def test_a_first_install_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step([], ["1"], (0, ONE, True))

    def test_an_upgrade_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step(["1"], ["2"], (0, TWO, True), homes=("", "/Users/alice"))

    def test_a_failed_upgrade_killed_at_any_step_is_reverted_by_the_next(self):
        self.killed_after_each_step(["1"], ["fails"], (3, ONE, True))

    def test_a_rollback_killed_at_any_step_is_completed_or_undone_by_the_next(self):
        self.killed_after_each_step(["1", "2"], ["1", "--rollback"], (0, ONE, True),
                                    (0, TWO, True), (1, ONE, True))

    def test_an_upgrade_that_was_interrupted_is_undone_by_a_rollback(self):
        for machine in self.machines():
            machine.call("1")
            step = 1 + machine.expected(COPY + STOP + SWAP).count("\n")
            self.assertEqual((137, {"": "2", ".old": "1"}),
                             (machine.call("2", kill=step)[0], machine.versions()))
            self.assertEqual((0, ONE, True), (machine.call("2", "--rollback")[0],
                                              machine.versions(), machine.loaded()))

    def test_an_uninstall_killed_at_any_step_is_completed_by_the_next(self):
        self.killed_after_each_step(["1", "2"], ["uninstall"], (0, {}, False))

    def test_only_the_owner_may_write_what_is_installed(self):
        for machine in self.machines():
            machine.call("1")
            paths = [machine.root.path(machine.job), *machine.root.path(machine.app).rglob("*")]
            self.assertEqual([], [path for path in paths if path.stat().st_mode & 0o6022])
            self.assertEqual({0o755, 0o644},
                             {stat.S_IMODE(path.stat().st_mode) for path in paths})

    def test_the_bundle_in_place_may_be_installed_again_which_keeps_the_former_one(self):
        for machine in self.machines():
            machine.call("1")
            machine.call("2")
            self.assertEqual((0, TWO, True),
                             (machine.call("")[0], machine.versions(), machine.loaded()))

    def test_an_agent_of_a_user_who_is_not_logged_in_starts_later(self):
        machine = Machine(self, "/Users/alice")
        self.assertEqual(
            (0, lines("Copying version 1 to APP.new.",
                      "Version 1 is installed; LABEL starts when the user logs in."), "",
             machine.expected(COPY + NOT_RUNNING + PUT + PLACE_JOB) + "launchctl print DOMAIN\n"),
            machine.call("1", **{"logged-out": ""}))

    def test_an_agent_s_home_may_have_characters_that_mean_something_elsewhere(self):
        for home in ("/Users/a b", "/Users/a&b", "/Users/<a>", "/Users/a|b", "/Users/a\\1b",
                     "/Users/\N{LATIN SMALL LETTER E WITH ACUTE}", "/Users/@HOME@"):
            with self.subTest(home=home):
                machine = Machine(self, home)
                machine.call("1", **{"logged-out": ""})
                job = plistlib.loads(machine.root.path(machine.job).read_bytes())
                self.assertEqual([f"{machine.app}/{INNER}/MacOS/OrvaneService", "-Duser.install=1"],
                                 job["ProgramArguments"])
                self.assertEqual(f"{machine.app}/{INNER}/MacOS", job["WorkingDirectory"])
                self.assertEqual(home + "/Library/Logs/OrvaneService.log", job["StandardErrorPath"])

    def test_a_wrong_call_changes_nothing_and_is_answered_in_one_line(self):
        script = f"/new/1/Orvane.app/{INNER}/Resources/operator/install"
        agent = (f"install: an agent belongs to its user: as root, call launchctl asuser UID "
                 f"sudo -H -u NAME {script} --user\n")
        daemon = ("install: the system-wide service is root's: call with sudo, or with --user for "
                  "an agent\n")
        for home, run_home, arguments, status, errors in (
                ("", "/root", ["--user"], 1, agent),
                ("/Users/alice", "/Users/alice", [], 1, daemon),
                ("/Users/alice", "/Users/bob", ["--user"], 1,
                 "install: HOME is '/Users/bob', not the caller's directory in /Users; with sudo, "
                 "add -H\n"),
                ("", "/root", ["--now"], 2, USAGE)):
            with self.subTest(errors):
                machine = Machine(self, home)
                result = machine.root.run(["/bin/sh", script, *arguments],
                                          env={"PATH": "/usr/bin:/bin", "HOME": run_home})
                self.assertEqual((status, "", errors, {}),
                                 (result.status, result.stdout.decode(), result.stderr.decode(),
                                  machine.versions()))

    def test_help_is_the_usage(self):
        run = subprocess.run([ROOT / "operator/install", "--help"], capture_output=True, text=True)
        self.assertEqual((0, USAGE, ""), (run.returncode, run.stdout, run.stderr))

    def test_the_installer_package_s_scripts_install_what_it_has_put_beside(self):
        def installer(script):
            return machine.run(["/new/" + script, "/new/Orvane.pkg", STAGED, "/", "/"])[:3]
        machine = Machine(self)
        for script in "preinstall", "postinstall":
            shutil.copy(ROOT / "bundle/package" / script, machine.root.path("/new"))
        machine.root.put(STAGED + "/Orvane.app/left over", b"")
        for version, process, before in (("1", 101, []), ("2", 102, stopping(101, 1))):
            self.assertEqual((0, "", ""), installer("preinstall"))
            self.assertFalse(machine.root.path(STAGED).exists())
            machine.bundle(version, folder=STAGED)
            status, output, errors = installer("postinstall")
            self.assertEqual((0, came_up(version, process, *before), ""),
                             (status, machine.named(output, STAGED), errors))
            self.assertFalse(machine.root.path(STAGED).exists())
        machine.bundle("fails", "fails 0", folder=STAGED)
        self.assertEqual((3, TWO | {".former": "1"}), (installer("postinstall")[0], machine.versions()))
        self.assertEqual((1, "preinstall: '/Volumes/Other' is not the running system; install there\n"),
                         machine.run(["/new/preinstall", "", "", "/Volumes/Other", "/"])[:2])

    def test_the_payload_of_the_installer_package_is_the_installed_bundle_beside(self):
        """As far as Linux goes: cpack makes a tarball of what productbuild would be given."""
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as folder:
            folder = pathlib.Path(folder)
            own = (ROOT / "cmake/installer_package.cmake").read_text()
            (folder / "own.cmake").write_text(own.replace("productbuild", "TGZ"))
            config = (BUILD_DIR / "CPackConfig.cmake").read_text()
            for name, script in ("PREFLIGHT", "preinstall"), ("POSTFLIGHT", "postinstall"):
                self.assertIn(f'set(CPACK_{name}_PACKAGE_SCRIPT "{ROOT}/bundle/package/{script}")', config)
            plist = re.search('set\\(CPACK_COMPONENT_PACKAGE_PLIST "(.*)"\\)', config).group(1)
            self.assertEqual([{
                "RootRelativeBundlePath": STAGED[1:] + "/Orvane.app", "BundleIsRelocatable": False,
                "BundleIsVersionChecked": False, "BundleOverwriteAction": "upgrade",
            }], plistlib.loads(pathlib.Path(plist).read_bytes()))
            (folder / "CPackConfig.cmake").write_text(
                config + f'set(CPACK_PROJECT_CONFIG_FILE "{folder}/own.cmake")\n'
                'set(CPACK_POST_BUILD_SCRIPTS "")\n')
            subprocess.run(["cpack", "--config", folder / "CPackConfig.cmake", "-G", "TGZ", "-B", folder],
                           check=True, capture_output=True)
            with tarfile.open(next(folder.glob("*.gz"))) as tarball:
                names = {name.partition(STAGED[1:] + "/")[2] for name in tarball.getnames()}
        installed = BUILD_DIR / "Applications"
        self.assertEqual({str(path.relative_to(installed)) for path in installed.rglob("*")},
                         names - {""})
