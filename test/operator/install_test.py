"""operator/install and operator/uninstall over bundles of a few files, in a private root where
commands.sh stands in for launchctl and records every command that changes something:

    /new/VERSION/Orvane.app             a bundle as a disk image has it
    /Applications, /Users/alice         the installations

In what is expected, a line ends in ";", APP is the installed Orvane.app, JOB its launchd service,
PLIST its property list, and what begins with "root:" or "user:" is of that mode alone.
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
STAGED = "/Library/Application Support/Orvane.installing"

# What is said and done, in order, by parts.
COPY = "rm -rf APP.new APP.gone;Copying version {} to APP.new.;mkdir -p APPLICATIONS;" \
    "cp -Rp SOURCE APP.new;chmod -R u+rwX,go+rX-w,ug-s APP.new;root: chown -Rh 0:0 APP.new;"
NOT_RUNNING = "launchctl print JOB;launchctl print JOB;pgrep -f ^PROGRAM;"
STOP = "launchctl print JOB;Stopping LABEL, process {}.;launchctl bootout JOB;launchctl print JOB;"
ENDED = "pgrep -f ^PROGRAM;"
LOOK = "sleep 1;launchctl print JOB;"
ENDED_SLOWLY = 2 * LOOK + ENDED + 2 * (LOOK + ENDED)
PUT = "mv APP.new APP;"
SWAP = "Replacing version {}.;mv APP APP.old;" + PUT
PLACE = "mkdir -p JOBS LOGS;chmod 644 PLIST.new;root: chown -Rh 0:0 PLIST.new;mv -f PLIST.new PLIST;"
CHECK_LOGIN = "user: launchctl print DOMAIN;"
START = CHECK_LOGIN + "Starting LABEL.;launchctl enable JOB;launchctl bootstrap DOMAIN PLIST;"
BUSY = "sleep 2;launchctl bootstrap DOMAIN PLIST;"
UP = "Version {} is installed; LABEL runs, process {}.;".replace("; ", ", ")
GONE = "rm -rf APP.gone;"
KEEP, DROP = "mv APP.old APP.former;", "mv APP.old APP.gone;" + GONE
DOWN = "install: version {} did not come up: {}, the end of LOG:;"
IO_ERROR = "launchctl bootstrap: Bootstrap failed: 5: Input/output error"
NO_FORMER = "rm -rf APP.new APP.gone;install: there is no former version to go back to, nothing was changed;"
NOT_INSTALLED = "Orvane is not installed.;"


def first(version, process, starting=PLACE + START + 5 * LOOK):
    return COPY.format(version) + NOT_RUNNING + PUT + starting + UP.format(version, process)


def upgrade(version, process, replaced, ended=ENDED, end=KEEP):
    return (COPY + STOP).format(version, process) + ended + SWAP.format(replaced) + PLACE + START + \
        5 * LOOK + end + UP.format(version, process + 1)


def went_back(version, process, looks, why, logged):
    return (COPY + STOP).format(version, process) + ENDED + SWAP.format(1) + PLACE + START + \
        looks * LOOK + DOWN.format(version, why) + \
        "".join(f"    version {line};" for line in logged) + \
        STOP.replace(", process {}", "") + ENDED + "mv APP APP.gone;" + GONE + "mv APP.old APP;" + \
        PLACE + START + 5 * LOOK + f"Version 1 is back, LABEL runs, process {process + 2}.;"


# What the machine has, the state of the stand-in, the call, and what each of such calls gives:
# the status, what is said and done, and the bundles there are afterwards.
ONE, TWO = {"": "1"}, {"": "2", ".former": "1"}
SCENARIOS = {
    "first install": ([], {}, ["1"], [
        (0, first(1, 101), ONE), (0, upgrade(1, 101, 1, end=DROP), ONE)]),
    "label disabled, launchd busy": ([], {"disabled": "", "busy": 2}, ["1"], [
        (0, first(1, 101, PLACE + START + 2 * BUSY + 5 * LOOK), ONE)]),
    "launchd busy for good": ([], {"busy": 99}, ["1"], [
        (3, first(1, 0, PLACE + START + 10 * BUSY).partition("Version")[0] + DOWN.format(1, IO_ERROR) +
         NOT_RUNNING + "mv APP APP.gone;" + GONE + "rm -f PLIST;install: nothing is installed, as before;",
         {})] * 2),
    "upgrade of a running service that takes its time to end": (["1"], {"slow": 2}, ["2"], [
        (0, upgrade(2, 101, 1, ENDED_SLOWLY), TWO), (0, upgrade(2, 102, 2, ENDED_SLOWLY, DROP), TWO)]),
    "upgrade of a service that does not end": (["1"], {"slow": 200}, ["2"], [
        (4, (COPY + STOP).format(2, 101) + 90 * LOOK + "rm -rf APP.new;" + START + 10 * BUSY +
         "install: LABEL is still there 90 s after it was stopped, and does not start again: "
         f"{IO_ERROR};", ONE)]),
    "second upgrade": (["1", "2"], {}, ["4"], [
        (0, upgrade(4, 102, 2, end="mv APP.former APP.gone;" + GONE + KEEP), {"": "4", ".former": "2"})]),
    "a version that fails at once": (["1"], {}, ["fails"], [
        (3, went_back("fails", 101, 1, "it ended with status 1", ["1", "fails"]), ONE),
        (3, went_back("fails", 103, 1, "it ended with status 1", ["1", "fails"] * 2), ONE)]),
    "a version that crashes after three seconds": (["1"], {}, ["crashes"], [
        (3, went_back("crashes", 101, 4, "it was ended by a signal, Abort trap: 6", ["1", "crashes"]),
         ONE)]),
    "a version that is never started": (["1"], {}, ["never"], [
        (3, went_back("never", 101, 60, "it had no process for 5 s on end within 60 s", ["1", "never"]),
         ONE)]),
    "a version that has done its work": (["1"], {}, ["completes"], [
        (0, upgrade("completes", 101, 1).replace(5 * LOOK, LOOK).replace(
            "runs, process 102", "has run and ended with status 0"), {"": "completes", ".former": "1"})]),
    "rollback": (["1", "2"], {}, ["", "--rollback"], [
        (0, upgrade(1, 102, 2, end=DROP + DROP.replace("old", "former")).replace("SOURCE", "APP.former"),
         ONE),
        (1, NO_FORMER, ONE)]),
    "uninstall": (["1", "2"], {}, ["uninstall"], [
        (0, STOP.format(102) + ENDED + "Removing PLIST.;rm -rf PLIST;Removing APP.;mv APP APP.gone;" +
         GONE + "Removing APP.former.;rm -rf APP.former;Keeping DATA.;" + NOT_INSTALLED, {}),
        (0, NOT_RUNNING + "Keeping DATA.;" + NOT_INSTALLED, {})]),
    "uninstall with the data": (["1"], {}, ["uninstall", "--data"], [
        (0, STOP.format(101) + ENDED + "Removing PLIST.;rm -rf PLIST;Removing APP.;mv APP APP.gone;" +
         GONE + "Removing DATA.;rm -rf DATA;Removing LOG.;rm -rf LOG;" + NOT_INSTALLED, {}),
        (0, NOT_RUNNING + NOT_INSTALLED, {})]),
}


class Machine:
    """A Mac's directories; home is empty for the system-wide service, run by root."""

    def __init__(self, test, home=""):
        self.root, self.home = PrivateRoot(test, uid=1000 if home else 0), home
        for name in COMMANDS:
            self.root.put("/stand-in/" + name, ROOT / "test/operator/commands.sh")
        for directory in "/state", home + "/Library/Logs":
            self.root.path(directory).mkdir(parents=True)
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

    def bundle(self, version, behaviour="stays", directory=None):
        """Puts a version of the bundle where a disk image has it; others may write to it."""
        contents = f"{directory or '/new/' + version}/{CONTENTS}"
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
        """The status, and what the command said and did, in the order of it."""
        for name, value in {"record": "", "kill": 0, **state}.items():
            self.root.put("/state/" + name, str(value).encode())
        with open(self.root.path("/state/record"), "ab") as record:
            with self.root.start(command, cwd="/tmp", stdout=record, stderr=record, env={
                    "PATH": "/stand-in:/usr/bin:/bin", "HOME": self.home or "/root"}) as process:
                status = process.finish().status
        return status, self.root.path("/state/record").read_text("utf-8", "replace").replace(";", ",")

    def call(self, version, *arguments, **state):
        """Calls install of that version on its disk image, or of the installed bundle for ""; or
        uninstall, of a disk image."""
        name, version = ("uninstall", "1") if version == "uninstall" else ("install", version)
        app = f"/new/{version}/Orvane.app" if version else self.app
        status, text = self.run(["/bin/sh", f"{app}/{INNER}/Resources/operator/{name}",
                                 *(["--user"] if self.home else []), *arguments], **state)
        return status, self.named(text, app)

    def named(self, text, source):
        text = text.replace(source + " ", "SOURCE ") if source != self.app else text
        for path, name in self.names.items():
            text = text.replace(path, name)
        return re.sub(rf" {self.domain}(?=[ \n])", " DOMAIN", text).replace("\n", ";")

    def expected(self, text):
        """The text of this mode."""
        mine, other = ("user: ", "root: ") if self.home else ("root: ", "user: ")
        return re.sub(f"{other}[^;]*;", "", text).replace(mine, "")

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
                    given = state
                    for status, text, versions in outcomes:
                        self.assertEqual((status, machine.expected(text), versions),
                                         (*machine.call(*call, **given), machine.versions()))
                        given = {}

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

    def test_an_upgrade_that_was_interrupted_is_undone_by_a_rollback_and_by_an_uninstall(self):
        for machine in self.machines():
            machine.call("1")
            done = machine.expected(COPY + STOP + ENDED + SWAP).split(";")
            step = sum(line.split(" ")[0] in COMMANDS for line in done)
            for call, end in (["2", "--rollback"], ONE), (["uninstall"], {}):
                self.assertEqual((137, {"": "2", ".old": "1"}),
                                 (machine.call("2", kill=step)[0], machine.versions()))
                self.assertEqual((0, end, bool(end)), (machine.call(*call)[0], machine.versions(),
                                                       machine.loaded()))

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
            (0, machine.expected(first(1, "", PLACE + CHECK_LOGIN).replace(
                "runs, process ", "starts when the user logs in"))),
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

    def test_a_wrong_call_changes_nothing_and_says_what_is_right(self):
        script = f"/new/1/Orvane.app/{INNER}/Resources/operator/install"
        usage = re.search(r'^usage="(.*?)"$', (ROOT / "operator/install").read_text(), re.M | re.S).group(1)
        agent = ("install: an agent belongs to its user: as root, call launchctl asuser UID "
                 f"sudo -H -u NAME {script} --user")
        daemon = "install: the system-wide service is root's: call with sudo, or with --user for an agent"
        bob = "install: HOME is '/Users/bob', not the caller's directory in /Users; with sudo, add -H"
        for home, caller, argument, status, output, errors in (
                ("", "/root", "--user", 1, "", agent), ("/Users/alice", "/Users/alice", "", 1, "", daemon),
                ("/Users/alice", "/Users/bob", "--user", 1, "", bob), ("", "/root", "--now", 2, "", usage),
                ("", "/root", "--help", 0, usage, "")):
            with self.subTest(argument=argument, caller=caller):
                machine = Machine(self, home)
                result = machine.root.run(["/bin/sh", script, *argument.split()],
                                          env={"PATH": "/usr/bin:/bin", "HOME": caller})
                self.assertEqual((status, output, errors, {}),
                                 (result.status, result.stdout.decode().rstrip("\n"),
                                  result.stderr.decode().rstrip("\n"), machine.versions()))

    def test_the_installer_package_s_scripts_install_what_it_has_put_beside(self):
        def installer(script):
            return machine.run(["/new/" + script, "/new/Orvane.pkg", STAGED, "/", "/"])
        machine = Machine(self)
        for script in "preinstall", "postinstall":
            shutil.copy(ROOT / "bundle/package" / script, machine.root.path("/new"))
        machine.root.put(STAGED + "/Orvane.app/left over", b"")
        for version, behaviour, versions in (("1", "stays", (0, ONE)), ("2", "stays", (0, TWO)),
                                             ("fails", "fails 0", (3, TWO))):
            self.assertEqual((0, f"rm -rf {STAGED}\n"), installer("preinstall"))
            self.assertFalse(machine.root.path(STAGED).exists())
            machine.bundle(version, behaviour, STAGED)
            self.assertEqual(versions, (installer("postinstall")[0], machine.versions()))
            self.assertFalse(machine.root.path(STAGED).exists())
        self.assertEqual((1, "preinstall: '/Volumes/Other' is not the running system, install there\n"),
                         machine.run(["/new/preinstall", "", "", "/Volumes/Other", "/"]))

    def test_the_payload_of_the_installer_package_is_the_installed_bundle_beside(self):
        """As far as Linux goes: cpack makes a tarball of what productbuild would be given."""
        config = (BUILD_DIR / "CPackConfig.cmake").read_text()
        for name, script in ("PREFLIGHT", "preinstall"), ("POSTFLIGHT", "postinstall"):
            self.assertIn(f'set(CPACK_{name}_PACKAGE_SCRIPT "{ROOT}/bundle/package/{script}")', config)
        plist = ROOT / "bundle/package/component.plist"
        self.assertIn(f'set(CPACK_COMPONENT_PACKAGE_PLIST "{plist}")', config)
        self.assertEqual([{
            "RootRelativeBundlePath": STAGED[1:] + "/Orvane.app", "BundleIsRelocatable": False,
            "BundleIsVersionChecked": False, "BundleOverwriteAction": "upgrade",
        }], plistlib.loads(plist.read_bytes()))
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as name:
            directory = pathlib.Path(name)
            own = (BUILD_DIR / "pack.cmake").read_text()
            (directory / "own.cmake").write_text(own.replace("productbuild", "TGZ"))
            (directory / "CPackConfig.cmake").write_text(
                f'{config}set(CPACK_PROJECT_CONFIG_FILE "{name}/own.cmake")\nset(CPACK_POST_BUILD_SCRIPTS)\n')
            subprocess.run(["cpack", "--config", directory / "CPackConfig.cmake", "-G", "TGZ", "-B", name],
                           check=True, capture_output=True)
            with tarfile.open(next(directory.glob("*.gz"))) as tarball:
                names = {name.partition(STAGED[1:] + "/")[2] for name in tarball.getnames()}
        installed = BUILD_DIR / "Applications"
        self.assertEqual({str(path.relative_to(installed)) for path in installed.rglob("*")}, names - {""})
