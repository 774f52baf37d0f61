"""operator/install, by its other name uninstall, on a model of launchd with real processes. TRIALS is the
number of random kills and of concurrent pairs; with 10 or more, a failing upgrade is killed, too."""

import os
import plistlib
import random
import re
import shutil
import signal
import stat
import subprocess
import time

import pytest

from machine import ALICE, MAC, delete, put
from support import CONTENTS, ROOT, unavailable
from support.macos import needs
from support.root import Process

TRIALS = int(os.environ.get("TRIALS", "2"))
KILLED = -signal.SIGKILL
NOTHING = (None, None, None, set())
USAGES = re.findall(r'usage="(usage: .*?)"$', (ROOT / "operator/install").read_text(), re.M | re.S)
COPY = "Copying SOURCE.\n"
both = pytest.mark.parametrize("machine", ["system", "user"], indirect=True)


@both
def test_each_call_says_what_it_does(machine):
    stop, start = f"Stopping {machine.label}, process PID.\n", f"Starting {machine.label}.\n"
    runs = f"{machine.label} runs, process PID.\n"
    assert machine.install("1", "crashes")[0] == 3
    assert (machine.seen(), machine.job.exists()) == (NOTHING, False)
    assert machine.install("1") == (
        0,
        f"{COPY}Installing version 1.\n{start}Version 1 is installed; {runs}",
    )
    assert machine.seen() == ("1", "1", None, set())
    assert machine.install("2") == (
        0,
        f"{COPY}{stop}Installing version 2 in place of 1.\n{start}Version 2 is installed; {runs}",
    )
    assert machine.seen() == ("2", "2", "1", set())
    status, text = machine.install("3", "crashes")
    assert (status, re.sub(r"(    no .*\n)+", "    LOG\n", text)) == (
        3,
        f"{COPY}{stop}Installing version 3 in place of 2.\n{start}install: version 3 failed to start: it "
        "ended: status 1; the end of LOG:\n    LOG\n"
        f"Stopping {machine.label}.\n{start}Version 2 is back; {runs}",
    )
    assert "\n    no ^[[31mvalid configuration\n" in text
    assert machine.seen() == ("2", "2", "1", set())
    assert machine.call(machine.app, "--rollback") == (
        0,
        f"Copying KEPT/former/Orvane.app.\n{stop}Installing version 1 in place of 2.\n{start}"
        f"Version 1 is installed; {runs}",
    )
    assert machine.seen() == ("1", "1", "2", set())
    assert machine.call(machine.app, name="uninstall") == (
        0,
        f"{stop}Removing JOB.\nRemoving SOURCE.\nRemoving KEPT/former.\nOrvane is not installed.\n",
    )
    assert (machine.seen(), machine.kept.exists()) == (NOTHING, False)


def test_a_service_may_exit_with_0_or_be_slow_to_end(machine):
    machine.model.faults["forgets at once"] = 1
    for version, program in ("1", "exits"), ("2", "ignores"), ("3", "lingers"), ("4", "stays"):
        assert machine.install(version, program)[0] == 0
        assert machine.seen()[0] == (None if program == "exits" else version)
    assert not machine.model.two_at_once


def test_two_calls_at_once_are_done_one_after_the_other_or_one_is_refused(machine):
    machine.good("1", "2", "3")
    for trial in range(TRIALS):
        calls = [
            machine.start([*machine.script(MAC / f"new/{version}/Orvane.app"), *more])
            for version, *more in random.sample([*"123", ("1", "--rollback")], 2)
        ]
        texts = [call.communicate()[0].decode() for call in calls]
        running, place, former, left = machine.seen()
        assert (running in {*"123"}, place, left, former in {*"123"}) == (
            True,
            running,
            set(),
            True,
        ), texts
        assert {call.returncode for call in calls} <= {0, 1}, texts
    assert not machine.model.two_at_once
    with Process(
        [
            "perl",
            "-e",
            'open F, ">>", shift; flock F, 2; syswrite STDOUT, "x"; sleep 99',
            machine.kept / "lock",
        ],
        stdout=subprocess.PIPE,
        start_new_session=True,
    ) as other:
        assert other.stdout.read(1) == b"x"
        assert machine.call("1") == (
            1,
            "install: another install or uninstall is at work; nothing was changed\n",
        )


def test_a_version_that_dies_later_displaces_no_version_that_has_been_seen_to_run(machine):
    machine.good("1")
    machine.install("2", "dies")
    (MAC / "die").touch()
    machine.wait(lambda job: job.runs > 1)
    machine.good("3")
    assert machine.seen() == ("3", "3", "1", set())
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert machine.seen() == ("1", "1", "3", set())


def test_a_version_that_is_installed_again_displaces_none(machine):
    machine.good("1", "2")
    (machine.service / "Contents/MacOS/OrvaneService").write_bytes(b"damaged")
    machine.good("2")
    assert machine.call(machine.app)[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


def test_another_s_process_of_the_same_name_is_not_waited_for(machine, users):
    machine.good("1")
    program = str(machine.service / "Contents/MacOS/OrvaneService")
    with Process(
        [program, "99"], executable="/bin/sleep", user=ALICE.pw_uid, start_new_session=True
    ) as other:
        machine.good("2")
        assert machine.call("2", name="uninstall")[0] == 0
        assert other.poll() is None


# What is wrong, and what is said before anything is stopped.
ARGS, FILE = "DATA/conf/jvm_args", "is not a regular file: remove it"
REFUSED = {
    "printf '#!/bin/sh\n/bin/cp \"$@\"; exit 1' >$MAC/bin/cp; chmod 755 $MAC/bin/cp": "cannot copy SOURCE",
    "rm $NEW/MacOS/OrvaneService": f"SOURCE lacks {CONTENTS[11:]}/MacOS/OrvaneService",
    "mkfifo $NEW/x": "SOURCE has something that is neither file, directory nor link",
    "touch $NEW/x": "the signature of SOURCE is not valid: a sealed resource is missing "
    "or invalid?file added: x",
    "mkdir -p $DATA/conf; printf '%s\n' -Xmx2g '' >$ARGS": f"line 2 of {ARGS} is not allowed: "
    "correct or delete it",
    "mkdir -p $DATA/conf; mkfifo $ARGS": f"{ARGS} {FILE}",
    "rm -f $LOG; ln -s /etc/passwd $LOG": f"LOG {FILE}",
    "rm $JOB; mkdir $JOB": f"JOB {FILE}",
    lambda m: m.at_rename(
        1, before="exit 1"
    ): "APP cannot be renamed: unlock it (chflags nouchg), or give the caller App Management",
    lambda m: m.model.disabled.add(
        m.target
    ): "TARGET is disabled and loaded: call launchctl enable or bootout first",
}


def test_what_would_fail_is_refused_while_the_service_runs(machine):
    machine.good("1")
    process, job = machine.loaded().process, machine.job.read_bytes()
    for change, message in REFUSED.items():
        machine.bundle("2")
        change(machine) if callable(change) else machine.sh(change)
        assert machine.call("2") == (1, f"{COPY}install: {message}; nothing was changed\n")
        assert (machine.loaded().process, machine.seen()) == (process, ("1", "1", None, set()))
        for path in machine.data, machine.log, machine.job, MAC / "bin/cp", MAC / "bin/perl":
            delete(path)
        put(machine.job, job)


def test_a_step_that_fails_after_the_stop_is_followed_by_the_version_before(machine):
    machine.good("1")
    machine.bundle("2")
    for number, status in (6, 3), (7, 3), (8, 3), (9, 0):  # of the renames, until "2" is in place
        machine.at_rename(number, before="exit 1")
        found, text = machine.call("2")
        assert (found, "failed to start: cannot rename to APP or JOB" in text) == (
            status,
            status == 3,
        )
        assert machine.seen()[0] == ("2" if status == 0 else "1")


def test_what_launchd_refuses_once_is_repeated(machine):
    machine.good("1")
    machine.model.faults.update(bootout=1, bootstrap=4)
    machine.good("2")
    assert machine.seen() == ("2", "2", "1", set())


def test_a_cleanup_that_fails_is_said_and_costs_no_version(machine):
    machine.good("1")
    machine.stand_in("rm", 'case $* in *gone*) exit 1 ;; esac; exec /bin/rm "$@"')
    for version, former in ("2", "1"), ("3", "2"):
        status, text = machine.install(version)
        assert (status, text.splitlines()[-1]) == (0, "install: cannot remove what is left in KEPT")
        assert machine.seen()[:3] == (version, version, former)


def test_who_recreates_the_bundle_again_and_again_stops_no_upgrade(machine):
    machine.good("1")
    with Process(
        ["perl", "-e", 'symlink "x", $ARGV[0] while 1', machine.app], start_new_session=True
    ):
        statuses = [machine.install(version)[0] for version in "23"]
    assert (statuses, machine.seen()) == ([0, 0], ("3", "3", "2", set()))


# What is installed first, the call that is killed, the next one, and what there is after it.
CALLS = {
    "upgrade": (
        ["1"],
        ["2"],
        ["1", "--rollback"],
        [("1", "1", None, set()), ("1", "1", "2", set())],
    ),
    "rollback": (["1", "3"], ["1", "--rollback"], ["3"], [("3", "3", "1", set())]),
    "failing upgrade": (["1"], ["4"], ["1", "--rollback"], [("1", "1", None, set())]),
}


@pytest.mark.parametrize("name", CALLS if TRIALS >= 10 else ["upgrade", "rollback"])
def test_a_call_killed_at_any_rename_is_completed_or_undone(machine, name):
    before, killed, following, good = CALLS[name]
    machine.good(*before)
    machine.bundle("2")
    machine.bundle("4", "crashes")
    for number in range(1, 40):
        machine.at_rename(number, after="kill -9 $PPID")
        status = machine.call(*killed)[0]
        delete(MAC / "bin/perl")
        if status != KILLED:
            break
        text = machine.call(*following)[1]
        assert machine.seen() in good, (number, text)
        if name != "rollback":
            delete(machine.kept / "former")
    assert number > 8


def test_a_version_that_came_up_before_the_kill_stays(machine):
    machine.good("1")
    machine.bundle("2")
    machine.at_rename(9, before="kill -9 $PPID")
    assert machine.call("2")[0] == KILLED
    delete(MAC / "bin/perl")
    assert machine.install("3", "crashes")[0] == 3
    assert machine.seen() == ("2", "2", "1", set())


def test_calls_killed_at_any_moment_leave_a_good_version_to_the_next(machine):
    for version, program in ("1", "stays"), ("2", "stays"), ("3", "crashes"):
        machine.bundle(version, program)
    machine.call("1")
    for trial in range(TRIALS):
        version, *more = random.choice([*"123", ("1", "--rollback")])
        with machine.start(
            [*machine.script(MAC / f"new/{version}/Orvane.app"), *more], start_new_session=True
        ) as call:
            time.sleep(random.uniform(0, 0.6))
            (os.killpg if trial % 2 else os.kill)(call.pid, signal.SIGKILL)
            text = call.communicate()[0].decode()  # when what it had started has ended too
        status, after = machine.call("2")
        running, place, former, left = machine.seen()
        assert (status, running, place, left) == (0, "2", "2", set()), (
            trial,
            version,
            more,
            text,
            after,
        )
        assert former in ("1", "2", None), (trial, version, more, text, after)


def test_only_the_owner_may_write_what_is_installed_whatever_the_caller_has_set(machine):
    evil = MAC / "evil"
    for name in "perl", "cp", "sed", "launchctl", "ls", "chmod", "find":
        put(evil / name, f"#!/bin/sh\ntouch {evil}/called\n".encode(), 0o755)
    put(evil / "env", f"touch {evil}/called\n".encode())
    app = machine.bundle("1")
    for path in app.rglob("*"):
        if not path.is_symlink():
            path.chmod(0o777 if path.is_dir() or path.stat().st_mode & 0o100 else 0o666)
    (app / "Contents/Info.plist").chmod(0o6666)
    if not any(machine.jobs.iterdir()):
        machine.jobs.rmdir()
    environment = {
        "PATH": f"{evil}:/usr/bin:/bin",
        "BASH_ENV": f"{evil}/env",
        "ENV": f"{evil}/env",
        "BASH_FUNC_cp%%": f"() {{ touch {evil}/called; }}",
        "PERL5OPT": "-Mnone",
        "CLEAN": "1",
        "JAVA_TOOL_OPTIONS": "-Dx",
        "CDPATH": "/",
        "POSIXLY_CORRECT": "1",
        "IFS": "/",
    }
    machine.stand_in(
        "launchctl",
        (MAC / "bin/launchctl")
        .read_text()
        .replace(
            "use Socket;", f'open E, ">", "{MAC}/environment"; print E %ENV; close E; use Socket;'
        ),
    )
    for start, lines in ([], 4), (["/bin/sh"], 5):
        with machine.start([*start, *machine.script(app)], env=environment, umask=0o077) as call:
            assert (call.communicate()[0].decode().count("\n"), call.returncode) == (lines, 0)
        assert not (evil / "called").exists()
        paths = [machine.app, *machine.app.rglob("*"), machine.job]
        assert {
            (stat.S_IMODE(path.lstat().st_mode), path.lstat().st_uid)
            for path in paths
            if not path.is_symlink()
        } == {(0o755, 0), (0o644, 0)}
        assert [stat.S_IMODE(path.stat().st_mode) for path in (machine.kept, machine.jobs)] == [
            0o700,
            0o755,
        ]
    assert "JAVA" not in (MAC / "environment").read_text()
    assert re.fullmatch(r"(/.*/Orvane/new\.\w+/Orvane\.app\n){2}", (MAC / "lists").read_text())


def test_a_quarantine_is_removed_once_the_signature_is_verified(machine):
    machine.good("1")
    assert (MAC / "calls").read_text() == "codesign --verify\ncodesign --verify\nxattr -d\n"
    machine.call("1", name="uninstall")
    machine.bundle("2", team="")
    status, text = machine.call("2")
    assert (status, text.splitlines()[1:3]) == (
        0,
        ["Warning: Orvane.app is not signed.", "Warning: OrvaneService.app is not signed."],
    )


def test_what_an_administrator_has_disabled_stays_so_and_is_said(machine):
    machine.model.disabled.add(machine.target)
    for word, place in ("disabled", ""), ("true", " in place of 1"):
        machine.model.faults["disabled"] = word
        assert machine.install("1") == (
            0,
            (
                f"{COPY}Installing version 1{place}.\nVersion 1 is installed; {machine.label} is disabled "
                "and stays so: launchctl enable TARGET, then launchctl bootstrap system JOB.\n"
            ),
        )
    assert (machine.seen(), machine.model.disabled) == ((None, "1", None, set()), {machine.target})


@pytest.mark.parametrize("machine", ["user"], indirect=True)
def test_an_agent_waits_for_its_user_and_a_home_may_have_any_name(machine):
    machine.model.faults["logged out"] = 1
    for name in "a b", "a&b", "<a>", "a|b", "a\\1b", "\N{LATIN SMALL LETTER E WITH ACUTE}":
        home = machine.root.path(f"/Users/{name}")
        home.mkdir()
        machine.give(home)
        status, text = machine.call(machine.bundle("1"), env={"HOME": str(home)})
        assert (status, text.splitlines()[-1]) == (
            0,
            f"Version 1 is installed; {machine.label} starts when the user logs in.",
        )
        job = plistlib.loads((home / "Library/LaunchAgents" / machine.job.name).read_bytes())
        assert job["WorkingDirectory"] == f"{home}/Applications/{CONTENTS}/MacOS"
        assert job["StandardOutPath"] == f"{home}/Library/Logs/OrvaneService.log"
    assert machine.call("1", env={"HOME": "/Users/bob"}) == (
        1,
        "install: HOME is '/Users/bob', not the caller's directory in /Users; with sudo, add -H\n",
    )


def test_uninstall_removes_all_and_keeps_the_data_by_default(machine):
    machine.good("1", "2")
    put(MAC / "receipts/com.vaultory.orvane", b"")
    put(machine.data / "file", b"")
    outside = MAC / "outside"
    outside.write_bytes(b"kept")
    machine.log.unlink()
    machine.log.symlink_to(outside)
    put(machine.log.with_name("OrvaneService.log.0.bz2"), b"")
    assert machine.call("2", name="uninstall")[0] == 0
    assert (machine.seen(), machine.data.exists(), machine.log.is_symlink()) == (
        NOTHING,
        True,
        True,
    )
    assert not (MAC / "receipts/com.vaultory.orvane").exists()
    assert machine.call("2", "--data", name="uninstall")[0] == 0
    assert (machine.data.exists(), list(machine.log.parent.glob("Orvane*"))) == (False, [])
    assert outside.read_bytes() == b"kept"


def test_wrong_calls_change_nothing_and_the_usage_is_said(machine):
    machine.good("1")
    for name, usage in zip(("install", "uninstall"), USAGES):
        for arguments, status in ("--dry-run", 2), ("--help", 0), ("--help x", 0), ("--data x", 2):
            assert machine.call("1", *arguments.split(), name=name) == (status, usage + "\n")
    assert machine.call("1", "--user") == (
        1,
        "install: an agent is its user's: call launchctl asuser UID sudo -H -u NAME "
        f"SOURCE{CONTENTS[10:]}/Resources/operator/install --user\n",
    )
    link = MAC / "link/install"
    put(link.with_name("job.sh"), b"echo sourced\n")
    link.symlink_to(machine.script(MAC / "new/1/Orvane.app")[0])
    with machine.start([link]) as call:
        assert call.communicate()[0].decode() == (
            f"install: {link.parent} is not in an Orvane.app; call the script where the bundle has it\n"
        )
    assert machine.seen() == ("1", "1", None, set())


def test_the_system_wide_service_is_root_s(machine, users):
    machine.bundle("1")
    assert machine.call("1", user=ALICE.pw_uid) == (
        1,
        "install: the system-wide service is root's: call with sudo, or --user\n",
    )


def test_of_a_bundle_root_executes_only_the_script_that_was_called(machine):
    needs("strace")
    if not shutil.which("strace"):
        unavailable("there is no strace")
    machine.good("1")
    app = machine.bundle("2")
    for name, script in (
        ("install", app),
        ("check-install", machine.app),
        ("uninstall", machine.app),
    ):
        trace = MAC / "trace"
        status = subprocess.run(
            [
                "strace",
                "-f",
                "-s",
                "4096",
                "-e",
                "trace=execve",
                "-o",
                trace,
                *machine.script(script, name),
            ],
            env={},
            capture_output=True,
        ).returncode
        assert status == 0
        called = re.findall(r'execve\("([^"]*Orvane\.app[^"]*)"', trace.read_text(errors="replace"))
        assert {*called} == {machine.script(script, name)[0]}
