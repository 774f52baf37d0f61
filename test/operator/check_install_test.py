"""operator/check-install on installations that install has made, and that a test has then changed."""

import json
import os
import re
import shutil
import subprocess

import pytest

from machine import ALICE, MAC, delete, put
from support import ROOT

USAGE = re.search(r'(?ms)^usage="(.*?)"$', (ROOT / "operator/check-install").read_text()).group(1) + "\n"
user = pytest.mark.parametrize("machine", ["user"], indirect=True)


@pytest.fixture
def installed(machine):
    """Version 1 as install has installed it, with an override file."""
    machine.good("1")
    jvm_args(machine, b"-Xmx2g\n")
    return machine


def check(machine, *arguments):
    """Status, text with short names for the paths, errors."""
    account = ["--user", ALICE.pw_name] if machine.uid else []
    script = machine.script(MAC / "new/1/Orvane.app", "check-install")[0]
    done = subprocess.run([script, *account, *arguments], capture_output=True, timeout=60, text=True,
                          env={"PATH": "/usr/bin:/bin"})
    return done.returncode, machine.short(done.stdout), done.stderr


def jvm_args(machine, content):
    machine.own(machine.data / "conf/jvm_args", content)
    machine.give(machine.data)


def crash(machine, number=9):
    """The service ends once, and runs again."""
    machine.loaded().process.send_signal(number)
    machine.wait(lambda job: job.runs == 2 and job.process)


def unload(machine):
    machine.model.bootout(0, machine.target)
    machine.wait(lambda job: not job)


def replace_by_link(path):
    shutil.move(path, MAC / path.name)
    path.symlink_to(MAC / path.name)


def replace_by_pipe(path):
    path.unlink(missing_ok=True)
    os.mkfifo(path)


def edit(path, old, new):
    text = path.read_bytes()
    assert old in text
    path.write_bytes(text.replace(old, new))


def give_away(path):
    os.chown(path, 1, 1, follow_symlinks=False)


AGAIN = "install the bundle again"
OPEN = "not OWNER's, or writable by others; chown OWNER, chmod go-w"
KIND = "neither file, directory nor link, or setuid or setgid; " + AGAIN
LIST = "an access control list allows changes; chmod -RN"
LINK = "a symbolic link; replace it with what it names"
LEFT = "left by an interrupted call; call install again, unless one is at work"
GONE, WRONG = "missing, or no regular file; " + AGAIN, "missing, or no regular file; remove it"
NO_BUNDLE, OTHER_JOB = "APP: missing, or a link; install the bundle", "JOB: not as the bundle has it; " + AGAIN
OUTER, INNER = (f"{path}: signature: a sealed resource is missing or invalid\\x{{a}}file added: x; {AGAIN}"
                for path in ("APP", "SERVICE"))
APP_UNSIGNED, UNSIGNED = (f"{path}: signature: code object is not signed at all\\x{{a}}In architecture: x86_64; "
                          + AGAIN for path in ("APP", "SERVICE"))
LINES = [f"DATA/conf/jvm_args: line {number} is not allowed; the launcher will not start; correct or delete it"
         for number in (1, 2, 4, 5, 6, 7)]
# What is done to a correct installation, and the lines that report it: one fault per row. The rows with
# one number are checked in one run.
BROKEN = [
    (0, lambda m: shutil.rmtree(m.app), NO_BUNDLE),
    (1, lambda m: replace_by_link(m.app), NO_BUNDLE),
    (2, lambda m: put(m.resources / "conf/x", b""), OUTER, INNER),
    (3, lambda m: put(m.service / "Contents/MacOS/hs_err_pid7.log", b""), OUTER, INNER),
    (4, lambda m: (m.service / "Contents/MacOS/OrvaneService").write_bytes(b"x"), OUTER, INNER),
    (5, lambda m: (m.resources / "lib/com.vaultory.desktop.jar").write_bytes(b"x"), OUTER, INNER),
    (6, lambda m: (m.resources / "jre/release").unlink(), OUTER, INNER),
    (7, lambda m: put(m.app / "Contents/x", b""), OUTER),
    (8, lambda m: delete(m.app / "Contents/_CodeSignature"), APP_UNSIGNED),
    (9, lambda m: [delete(path / "Contents/_CodeSignature") for path in (m.app, m.service)], APP_UNSIGNED, UNSIGNED),
    (10, lambda m: edit(m.service / "Contents/Info.plist", b">1<", b">2<"),
     OUTER, INNER, f"APP: not the version of the service in it; {AGAIN}"),
    (2, lambda m: m.model.faults.update(quarantine=1), f"APP: quarantined; {AGAIN}"),
    (2, lambda m: replace_by_pipe(m.app / "Contents/x"), f"APP/Contents/x: {KIND}"),
    (3, lambda m: (m.resources / "jre/release").chmod(0o4755), f"SERVICE/Contents/Resources/jre/release: {KIND}"),
    (4, lambda m: (m.service / "Contents/MacOS").chmod(0o775), f"SERVICE/Contents/MacOS: {OPEN}"),
    (5, lambda m: (m.resources / "jre/release").chmod(0o646), f"SERVICE/Contents/Resources/jre/release: {OPEN}"),
    (3, lambda m: m.app.parent.chmod(0o777), f"HOME/Applications: {OPEN}"),
    (2, lambda m: m.support.parent.chmod(0o775), f"HOME/Library: {OPEN}"),
    (3, lambda m: m.support.chmod(0o757), f"SUPPORT: {OPEN}"),
    (4, lambda m: m.jobs.chmod(0o777), f"JOBS: {OPEN}"),
    (5, lambda m: m.access_list(m.jobs), f"JOBS: {LIST}"),
    (6, lambda m: m.access_list(m.data / "conf"), f"DATA: {LIST}"),
    (7, lambda m: m.access_list(m.resources / "conf"), f"APP: {LIST}"),
    (2, lambda m: m.job.chmod(0o664), f"JOB: {OPEN}"),
    (3, lambda m: m.job.unlink(), f"JOB: {GONE}"),
    (4, lambda m: replace_by_link(m.job), f"JOB: {LINK}", f"JOB: {GONE}", OTHER_JOB),
    (5, lambda m: replace_by_pipe(m.job), f"JOB: {GONE}"),
    (6, lambda m: m.job.write_bytes(m.job.read_bytes()[:-20]), OTHER_JOB),
    (7, lambda m: edit(m.job, b"OrvaneService<", b"sh<"), OTHER_JOB),
    (8, lambda m: edit(m.job, b"KeepAlive", b"KeepDead"), OTHER_JOB),
    (9, lambda m: edit(m.job, b"<key>RunAt", b"<key>EnvironmentVariables</key><dict/><key>RunAt"), OTHER_JOB),
    (0, unload, "TARGET: not loaded; launchctl bootstrap DOMAIN JOB"),
    (2, lambda m: m.model.disabled.add(m.target),
     "TARGET: disabled; launchctl enable TARGET, then launchctl bootstrap DOMAIN JOB"),
    (3, crash, "TARGET: restarted, 2 runs, the last ended: Killed: 9; see LOG"),
    (4, lambda m: setattr(m.loaded(), "path", "/x"), f"TARGET: loaded from /x; {AGAIN}"),
    (2, lambda m: jvm_args(m, b"\xef\xbb\xbf-Xmx2g\n-Xmx2g\r\n-Xmx1g\n\n# heap\n-Xmx2g -Xms1g\n-Duser.install=1"), *LINES),
    (3, lambda m: replace_by_pipe(m.data / "conf/jvm_args"), f"DATA/conf/jvm_args: {WRONG}"),
    (4, lambda m: replace_by_link(m.data / "conf/jvm_args"), f"DATA/conf/jvm_args: {WRONG}"),
    (5, lambda m: (m.data / "conf/jvm_args").chmod(0o666), f"DATA/conf/jvm_args: {OPEN}"),
    (7, lambda m: replace_by_link(m.data), f"DATA: {LINK}"),
    (5, lambda m: replace_by_pipe(m.log), f"LOG: {WRONG}"),
    (6, lambda m: (m.kept / "old").mkdir(), f"KEPT/old: {LEFT}"),
    (6, lambda m: (m.kept / "gone.1").mkdir(), f"KEPT/gone.1: {LEFT}"),
    (6, lambda m: put(m.kept / "x\ny: fine; call \x1b[2J\u202e", b"", 0o666),
     f"KEPT/x\\x{{a}}y: fine; call \\x{{1b}}[2J\\x{{202e}}: {OPEN}"),
    ("users", lambda m: give_away(m.app), f"APP: {OPEN}"),
    ("users", lambda m: give_away(m.app.parent), f"HOME/Applications: {OPEN}"),
    ("users", lambda m: give_away(m.data / "conf"), f"DATA/conf: {OPEN}"),
    ("users", lambda m: [(m.kept / "x").symlink_to("y"), give_away(m.kept / "x")], f"KEPT/x: {OPEN}"),
]
CORRECT = [  # likewise
    (0, lambda m: None),
    (1, lambda m: (m.data / "conf/jvm_args").unlink()),
    (1, lambda m: m.own(m.log.with_name("OrvaneService.log.0.bz2"))),
    (1, lambda m: m.app.parent.chmod(0o775) or os.chown(m.app.parent, 0, 80)),  # administrators may write
    (1, lambda m: edit(m.job, b"<dict>", b"<!-- x --> <dict >\n")),
    (1, lambda m: crash(m, 15)),  # ended once by hand, and restarted
    (1, lambda m: m.model.disabled.add(m.target + "2")),
    (1, lambda m: m.data.chmod(0o700)),
    (2, lambda m: m.good("2")),
    (2, lambda m: shutil.rmtree(m.data)),
    (2, lambda m: m.log.unlink()),
    (2, lambda m: [crash(m), m.stand_in("ps", "echo '   02-03:04:05'")]),  # crashed once, long ago
    (3, lambda m: [m.good("2"), m.call("1", "--rollback")]),
    (3, lambda m: jvm_args(m, b"")),
    (3, lambda m: [crash(m), m.stand_in("ps", "echo '15:01'")]),  # a quarter of an hour ago
    (4, lambda m: [(m.bundle("1") / "Contents/x").symlink_to("Library"), m.call("1")]),
    (4, lambda m: m.install("2", "crashes")),
    (4, lambda m: jvm_args(m, b"-Dorv.security.mode=a b \n-Djava.net.preferIPv4Stack=\xff\r\n")),
    (5, lambda m: m.good("2") or m.install("1", "exits")),
    (5, lambda m: jvm_args(m, b"-Xmx0x40000000\n-Xmx1G\n-Dorv.security.mode=")),  # no line feed at its end
]


def run_of(table):
    return dict.fromkeys(row[0] for row in table if row[0] != "users")


def assert_reported(machine, number):
    rows = [row for row in BROKEN if row[0] == number]
    for row in rows:
        row[1](machine)
    status, text, errors = check(machine)
    lines = [line.replace("HOME", machine.home).replace("DOMAIN", machine.domain).replace(
        "OWNER", ALICE.pw_name if machine.uid else "root") for row in rows for line in row[2:]]
    assert sorted(text.splitlines()[2:]) == sorted([*lines, f"Deviations found: {len(lines)}."])
    assert (status, errors) == (1, "")


@pytest.mark.parametrize("number", run_of(BROKEN))
def test_what_is_broken_is_reported(installed, number):
    assert_reported(installed, number)


@user
def test_what_is_broken_is_reported_of_a_user_s_installation(installed):
    assert_reported(installed, "users")


def test_what_belongs_to_others_is_reported(installed, users):
    assert_reported(installed, "users")


@pytest.mark.parametrize("number", run_of(CORRECT))
def test_what_is_unusual_and_correct_is_not_reported(installed, number):
    for arrange in [row[1] for row in CORRECT if row[0] == number]:
        arrange(installed)
    assert check(installed)[1].splitlines()[2:] == ["No deviation found."]


def test_a_service_that_crashes_at_each_start_is_reported(machine):
    machine.bundle("1", "dies")
    machine.call("1")
    (MAC / "die").touch()
    machine.wait(lambda job: job.runs > 1)
    assert re.fullmatch(r"(?s).*\nTARGET: (restarted, \d+ runs, the last|does not run,) ended: 3; see LOG\n"
                        r"Deviations found: 1\.\n", check(machine)[1])


@user
def test_a_user_s_installation_is_checked_with_that_user_s_rights(installed):
    installed.stand_in("codesign", f"id -u >>{MAC}/ids")
    versions = "Versions: launcher 1, service 1, runtime 17.0.9.\n"
    assert check(installed) == (0, versions + "State: runs, process PID.\nNo deviation found.\n", "")
    installed.model.faults["logged out"] = 1
    assert check(installed) == (0, versions + "State: not logged in.\nNo deviation found.\n", "")
    assert {*(MAC / "ids").read_text().split()} == {str(ALICE.pw_uid)}


def test_versions_and_state_are_said(installed):
    versions = "Versions: launcher 1, service 1, runtime 17.0.9.\n"
    assert check(installed) == (0, versions + "State: runs, process PID.\nNo deviation found.\n", "")
    installed.install("1", "exits")
    assert check(installed) == (0, versions + "State: exited with 0.\nNo deviation found.\n", "")


def test_json_is_valid_whatever_the_names_are(installed):
    names = [bytes([byte]) for byte in range(1, 256) if byte != 47]
    names += [b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"a\\\"\n\t"]
    for name in names:
        os.mkdir(os.fsencode(installed.kept) + b"/x" + name)
        os.chmod(os.fsencode(installed.kept) + b"/x" + name, 0o777)
    status, text, errors = check(installed, "--json")
    result = json.loads(text)
    assert (status, errors, list(result)) == (1, "", ["launcher", "service", "runtime", "state", "deviations"])
    assert len({entry["path"] for entry in result["deviations"]}) == len(names)
    assert not re.search(r"[\x00-\x1f\x7f-\x9f]", text[:-1])


def test_the_team_of_the_signature_may_be_required(installed):
    assert check(installed, "--team", "A1B2C3D4E5")[0] == 0
    status, text, _ = check(installed, "--team", "Z")
    assert (status, text.count("test-requirement: code failed to satisfy")) == (1, 2)


def test_wrong_calls_say_what_is_right(machine):
    machine.bundle("1")
    assert check(machine, "--help") == (0, USAGE, "")
    for wrong in ["--now"], ["--json", "x"], ["--team"]:
        assert check(machine, *wrong) == (2, "", USAGE)
    wrong = "check-install: NAME must be an account here, the caller root or that user; ID only A-Z and 0-9\n"
    assert check(machine, "--user", "nobody-at-all") == (2, "", wrong)
    assert check(machine, "--team", 'Z" or "') == (2, "", wrong)
