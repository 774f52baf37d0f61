"""operator/check-install on installations that install has made, and that a test has then changed."""

import json
import os
import re
import shutil
import subprocess
import time

import pytest

from machine import ALICE, MAC, delete, put
from support import CONTENTS, ROOT

USAGE = re.search(r'^usage="(.*?)"$', (ROOT / "operator/check-install").read_text(), re.M | re.S).group(1) + "\n"
AGAIN = "install the bundle again"
OPEN = "not OWNER's, or writable by others; chown OWNER, chmod go-w"
LINE = "DATA/conf/jvm_args: line {} is not allowed; the launcher will not start; correct or delete it"
KIND = "neither file, directory nor link, or setuid or setgid; " + AGAIN
SEAL = "signature: a sealed resource is missing or invalid\\x{{a}}file added: x; " + AGAIN
OUTER, INNER = (f"{place}: {SEAL}".replace("{{", "{").replace("}}", "}") for place in ("APP", "SERVICE"))
SIGNED = "signature: code object is not signed at all\\x{a}In architecture: x86_64; " + AGAIN


@pytest.fixture
def installed(one_machine):
    """Version 1 as install has installed it, restored for each test, and running without a restart."""
    machine, saved = one_machine, one_machine.mac / "saved"
    parts = machine.app, machine.kept, machine.data, machine.job, machine.log
    fine = saved.exists() and machine.pid() and not machine.disturbed
    if not fine:
        machine.clear()
        assert machine.install("1")[0] == 0
        jvm_args(machine, b"-Xmx2g\n")
        delete(saved)
        saved.mkdir()
        for path in parts:
            subprocess.run(["cp", "-Rp", path, saved], check=True)
    for path in parts if fine else ():
        delete(path)
        subprocess.run(["cp", "-Rp", saved / path.name, path], check=True)
    for path in machine.mac.glob("fault/*"):
        path.unlink()
    delete(machine.mac / "elsewhere")
    machine.service = machine.app / "Contents/Library/LaunchServices/OrvaneService.app"
    machine.resources = machine.service / "Contents/Resources"
    machine.disturbed = True
    yield machine
    machine.disturbed = "runs = 1\n" not in machine.launchctl("print", machine.target).stdout.replace(
        "\t\truns", "") or machine.running() != "1" or f'"{machine.label}"' in machine.launchctl(
        "print-disabled", machine.domain).stdout
    (machine.mac / "bin/ps").unlink(missing_ok=True)
    for path in machine.app.parent, machine.support.parent, machine.support, machine.jobs:
        path.chmod(0o755)
        os.chown(path, machine.uid, machine.uid)


def check(machine, *arguments, **options):
    """Status, versions, state and deviations, with short names for the paths."""
    user = ["--user", ALICE.pw_name] if machine.uid else []
    process = subprocess.run([machine.mac / "new/1" / CONTENTS / "Resources/operator/check-install", *user, *arguments],
                             capture_output=True, timeout=60, env={"PATH": "/usr/bin:/bin"}, **options)
    text = process.stdout.decode()
    for path, name in ((machine.service, "SERVICE"), (machine.app, "APP"), (machine.job, "JOB"), (machine.log, "LOG"),
                       (machine.data, "DATA"), (machine.kept, "KEPT"), (machine.support, "SUPPORT"),
                       (machine.target, "TARGET"), (machine.jobs, "JOBS"), (machine.domain, "DOMAIN")):
        text = text.replace(str(path), name)
    if machine.uid:
        text = text.replace(machine.home, "HOME")
    text = text.replace(" nobody" if machine.uid else " root", " OWNER")
    return process.returncode, re.sub(r"process \d+", "process PID", text), process.stderr.decode()


def loop(machine):
    """The service crashes again and again."""
    machine.bundle("1", "dies")
    machine.call("1")
    (machine.mac / "die").touch()
    while "runs = 1\n" in machine.launchctl("print", machine.target).stdout.replace("\t\t\truns", ""):
        time.sleep(0.02)


def crash(machine, number="9"):
    """The service was ended once, and runs again."""
    subprocess.run(["kill", "-" + number, machine.pid()])
    deadline = time.monotonic() + 60
    while "runs = 2\n" not in machine.launchctl("print", machine.target).stdout or not machine.pid():
        assert time.monotonic() < deadline
        time.sleep(0.02)


def moved(machine, path):
    shutil.move(path, machine.mac / "elsewhere")
    path.symlink_to(machine.mac / "elsewhere")
    os.chown(path, machine.uid, machine.uid, follow_symlinks=False)


def job(machine, old, new):
    text = machine.job.read_bytes()
    assert old in text
    machine.job.write_bytes(text.replace(old, new))


def jvm_args(machine, content):
    put(machine.data / "conf/jvm_args", content)
    machine.give(machine.data)


def give_away(path):
    os.chown(path, 1, 1, follow_symlinks=False)


def own(machine, path, content=b""):
    put(path, content)
    os.chown(path, machine.uid, machine.uid)


def pipe(machine, path):
    path.unlink(missing_ok=True)
    os.mkfifo(path)
    os.chown(path, machine.uid, machine.uid)


def unloaded(machine):
    machine.launchctl("bootout", machine.target)
    while machine.launchctl("print", machine.target).returncode == 0:
        time.sleep(0.02)


NOT_SAME = f"JOB: not as the bundle has it; {AGAIN}"
UNLOADED = "TARGET: not loaded; launchctl bootstrap DOMAIN JOB"
BROKEN = {  # what is done to a correct installation, and the lines that report it
    "no bundle": (lambda m: shutil.rmtree(m.app), ["APP: missing, or a link; install the bundle"]),
    "bundle a link": (lambda m: moved(m, m.app), ["APP: missing, or a link; install the bundle"]),
    "a file added": (lambda m: own(m, m.resources / "conf/x"), [OUTER, INNER]),
    "a crash report": (lambda m: own(m, m.service / "Contents/MacOS/hs_err_pid7.log"), [OUTER, INNER]),
    "a file of the product's": (lambda m: own(m, m.app / "Contents/x"), [OUTER]),
    "another program": (lambda m: (m.service / "Contents/MacOS/OrvaneService").write_bytes(b"x"), [OUTER, INNER]),
    "another jar": (lambda m: (m.resources / "lib/com.vaultory.desktop.jar").write_bytes(b"x"), [OUTER, INNER]),
    "no runtime": (lambda m: (m.resources / "jre/release").unlink(), [OUTER, INNER]),
    "no signature": (lambda m: [m.bundle("1", team=""), m.call("1")], [f"APP: {SIGNED}", f"SERVICE: {SIGNED}"]),
    "only the service signed": (lambda m: shutil.rmtree(m.app / "Contents/_CodeSignature"), [f"APP: {SIGNED}"]),
    "a pipe in the bundle": (lambda m: pipe(m, m.app / "Contents/x"), [f"APP/Contents/x: {KIND}"]),
    "setuid": (lambda m: (m.resources / "jre/release").chmod(0o4755), [f"SERVICE/Contents/Resources/jre/release: {KIND}"]),
    "quarantined": (lambda m: m.fault("quarantine"), [f"APP: quarantined; {AGAIN}"]),
    "an open directory": (lambda m: (m.service / "Contents/MacOS").chmod(0o775), [f"SERVICE/Contents/MacOS: {OPEN}"]),
    "an open file": (lambda m: (m.resources / "jre/release").chmod(0o646), [f"SERVICE/Contents/Resources/jre/release: {OPEN}"]),
    "another's bundle": (lambda m: give_away(m.app), [f"APP: {OPEN}"]),
    "another's link": (lambda m: [(m.support / "x").symlink_to("y")] and [(m.kept / "x").symlink_to("y"), give_away(m.kept / "x")],
                       [f"KEPT/x: {OPEN}"]),
    "open Applications": (lambda m: m.app.parent.chmod(0o777), [f"HOME/Applications: {OPEN}"]),
    "another's Applications": (lambda m: give_away(m.app.parent), [f"HOME/Applications: {OPEN}"]),
    "open Library": (lambda m: m.support.parent.chmod(0o775), [f"HOME/Library: {OPEN}"]),
    "open Application Support": (lambda m: m.support.chmod(0o757), [f"SUPPORT: {OPEN}"]),
    "open jobs": (lambda m: m.jobs.chmod(0o777), [f"JOBS: {OPEN}"]),
    "an access list on the way": (lambda m: m.fault("acl", str(m.jobs)), ["JOBS: an access control list allows changes; chmod -RN"]),
    "an access list in the data": (lambda m: m.fault("acl", f"{m.data}/conf"), ["DATA: an access control list allows changes; chmod -RN"]),
    "an open job": (lambda m: m.job.chmod(0o664), [f"JOB: {OPEN}"]),
    "no job": (lambda m: m.job.unlink(), [f"JOB: missing, or no regular file; {AGAIN}"]),
    "job a link": (lambda m: moved(m, m.job), ["JOB: a symbolic link; replace it with what it names", f"JOB: missing, or no regular file; {AGAIN}", NOT_SAME]),
    "job a pipe": (lambda m: pipe(m, m.job), [f"JOB: missing, or no regular file; {AGAIN}"]),
    "job cut off": (lambda m: m.job.write_bytes(m.job.read_bytes()[:-20]), [NOT_SAME]),
    "job of another program": (lambda m: job(m, b"OrvaneService<", b"sh<"), [NOT_SAME]),
    "job without a restart": (lambda m: job(m, b"KeepAlive", b"KeepDead"), [NOT_SAME]),
    "job with an environment": (lambda m: job(m, b"<key>RunAtLoad", b"<key>EnvironmentVariables</key><dict/><key>RunAtLoad"),
                                [NOT_SAME]),
    "not loaded": (unloaded, [UNLOADED]),
    "disabled": (lambda m: m.launchctl("disable", m.target), ["TARGET: disabled; launchctl enable TARGET, then launchctl bootstrap DOMAIN JOB"]),
    "crashes at each start": (loop, None),
    "crashed just now": (crash, ["TARGET: restarted, 2 runs, the last ended: Killed: 9; see LOG"]),
    "rejected lines": (lambda m: jvm_args(m, b"\xef\xbb\xbf-Xmx2g\n-Xmx2g\r\n-Xmx1g\n\n# heap\n-Xmx2g -Xms1g\n-Duser.install=1"),
                       [LINE.format(number) for number in (1, 2, 4, 5, 6, 7)]),
    "override file a pipe": (lambda m: pipe(m, m.data / "conf/jvm_args"), ["DATA/conf/jvm_args: missing, or no regular file; remove it"]),
    "override file a link": (lambda m: moved(m, m.data / "conf/jvm_args"), ["DATA/conf/jvm_args: missing, or no regular file; remove it"]),
    "an open override file": (lambda m: (m.data / "conf/jvm_args").chmod(0o666), [f"DATA/conf/jvm_args: {OPEN}"]),
    "another's data": (lambda m: give_away(m.data / "conf"), [f"DATA/conf: {OPEN}"]),
    "data a link": (lambda m: moved(m, m.data), ["DATA: a symbolic link; replace it with what it names"]),
    "log a pipe": (lambda m: pipe(m, m.log), ["LOG: missing, or no regular file; remove it"]),
    "an interrupted call": (lambda m: [(m.kept / name).mkdir() or os.chown(m.kept / name, m.uid, m.uid) for name in ("old",)],
                            [f"KEPT/{name}: left by an interrupted call; call install again, unless one is at work"
                             for name in ("old",)]),
    "a bundle of two versions": (lambda m: [(m.service / "Contents/Info.plist").write_bytes(
        (m.service / "Contents/Info.plist").read_bytes().replace(b">1<", b">2<"))],
        [OUTER, INNER, f"APP: not the version of the service in it; {AGAIN}"]),
    "a name that is no name": (lambda m: own(m, m.kept / "x\ny: fine; call \x1b[2J\u202e").__class__ and (m.kept / "x\ny: fine; call \x1b[2J\u202e").chmod(0o666),
                               [f"KEPT/x\\x{{a}}y: fine; call \\x{{1b}}[2J\\x{{202e}}: {OPEN}"]),
}
CORRECT = {
    "as installed": lambda m: None,
    "no override file": lambda m: (m.data / "conf/jvm_args").unlink(),
    "an empty override file": lambda m: jvm_args(m, b""),
    "no line feed at its end": lambda m: jvm_args(m, b"-Xmx2g\n-Dorv.security.mode="),
    "any value of a property": lambda m: jvm_args(m, b"-Dorv.security.mode=a b \n-Djava.net.preferIPv4Stack=\xff\r\n"),
    "a heap in hexadecimal": lambda m: jvm_args(m, b"-Xmx0x40000000\n-Xmx1G\n"),
    "no data": lambda m: shutil.rmtree(m.data),
    "no log yet": lambda m: m.log.unlink(),
    "a rotated log": lambda m: own(m, m.log.with_name("OrvaneService.log.0.bz2")),
    "a version that is kept": lambda m: m.install("2"),
    "after a rollback": lambda m: [m.install("2"), m.call("1", "--rollback")],
    "after a failed upgrade": lambda m: m.install("2", "crashes"),
    "administrators may write to Applications": lambda m: m.uid or [os.chown(m.app.parent, 0, 80), m.app.parent.chmod(0o775)],
    "a job in other words": lambda m: job(m, b"<dict>", b"<!-- x --> <dict >\n"),
    "ended once and restarted by hand": lambda m: crash(m, "15"),
    "crashed once, long ago": lambda m: [crash(m), m.stand_in("ps", "#!/bin/sh\necho '   02-03:04:05'\n")],
    "crashed a quarter of an hour ago": lambda m: [crash(m), m.stand_in("ps", "#!/bin/sh\necho '15:01'\n")],
    "exits with 0": lambda m: m.install("1", "exits"),
    "links in the bundle": lambda m: [(m.bundle("1") / "Contents/x").symlink_to("Library"), m.call("1")],
    "a private directory of data": lambda m: m.data.chmod(0o700),
    "other disabled jobs": lambda m: m.launchctl("disable", m.target + "2"),
    "a user who is not logged in": lambda m: m.uid and m.fault("logged-out"),
}


def expected(machine, lines):
    text = "".join(f"{line}\n" for line in lines) or "No deviation found.\n"
    return (text + (f"Deviations found: {len(lines)}.\n" if lines else "")).replace(
        "HOME", "HOME" if machine.uid else "")


@pytest.mark.parametrize("case", BROKEN)
def test_what_is_broken_is_reported(installed, case):
    arrange, lines = BROKEN[case]
    arrange(installed)
    status, text, errors = check(installed)
    text = "".join(text.splitlines(True)[2:])
    if lines is None:
        assert re.fullmatch(r"TARGET: (restarted, \d+ runs, the last|does not run,) ended: 3; see LOG\n"
                            r"Deviations found: 1\.\n", text)
    elif case in ("no bundle", "bundle a link"):
        assert set(lines) <= set(text.splitlines())
    else:
        assert text == expected(installed, lines)
    assert (status, errors) == (1, "")


@pytest.mark.parametrize("case", CORRECT)
def test_what_is_unusual_and_correct_is_not_reported(installed, case):
    CORRECT[case](installed)
    assert check(installed)[1].splitlines()[2:] == ["No deviation found."]


def test_versions_and_state_are_said(installed):
    versions = "Versions: launcher 1, service 1, runtime 17.0.9.\n"
    assert check(installed) == (0, versions + "State: runs, process PID.\nNo deviation found.\n", "")
    installed.install("1", "exits")
    assert check(installed) == (0, versions + "State: exited with 0.\nNo deviation found.\n", "")


def test_json_is_valid_whatever_the_names_are(installed):
    names = [bytes([byte]) for byte in range(1, 256) if byte != 47] + [b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"a\\\"\n\t"]
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


def test_wrong_calls_say_what_is_right(installed):
    usage = USAGE.replace("system", "DOMAIN") if not installed.uid else USAGE
    assert check(installed, "--help")[:2] == (0, usage)
    for wrong in ["--now"], ["--json", "x"], ["--team"]:
        assert check(installed, *wrong) == (2, "", USAGE)
    wrong = "check-install: NAME must be an account here, the caller root or that user; ID only A-Z and 0-9\n"
    assert check(installed, "--user", "nobody-at-all") == (2, "", wrong)
    assert check(installed, "--team", 'Z" or "') == (2, "", wrong)


def test_a_user_s_installation_is_checked_without_root_s_rights(installed):
    if not installed.uid:
        pytest.skip("system-wide")
    put(installed.mac / "bin/codesign", f"#!/bin/sh\nid -u >>{MAC}/ids; exit 0\n".encode(), 0o755)
    try:
        assert check(installed)[0] == 0
        assert set((installed.mac / "ids").read_text().split()) == {str(installed.uid)}
    finally:
        from launchd import CLIENT
        installed.stand_in("codesign", CLIENT.replace("DIRECTORY", MAC))
