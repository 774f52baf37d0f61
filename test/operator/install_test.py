"""operator/install, by its other name uninstall, on a model of launchd with real processes."""

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

from machine import ALICE, MAC, put
from support import CONTENTS, ROOT, unavailable

KILLS, PAIRS = int(os.environ.get("KILLS", "10")), int(os.environ.get("PAIRS", "5"))
NOTHING = (None, None, None, set())
USAGES = re.findall(r'usage="(usage: .*?)"$', (ROOT / "operator/install").read_text(), re.M | re.S)
COPY = "Copying SOURCE.\n"


def wait_for(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < deadline, what
        time.sleep(0.01)


def good_and(machine, *versions):
    """Version 1 and these are installed in turn."""
    for version in ("1", *versions):
        assert machine.install(version)[0] == 0


def test_each_call_says_what_it_does(machine):
    stop, start, runs = f"Stopping {machine.label}, process PID.\n", f"Starting {machine.label}.\n", \
        f"{machine.label} runs, process PID.\n"
    install = f"{COPY}Installing version 1.\n{start}Version 1 is installed; {runs}"
    assert machine.install("1") == (0, install)
    assert machine.seen() == ("1", "1", None, set())
    assert machine.install("2") == (0, f"{COPY}{stop}Installing version 2 in place of 1.\n{start}"
                                       f"Version 2 is installed; {runs}")
    assert machine.seen() == ("2", "2", "1", set())
    assert machine.install("3", "crashes") == (
        3, f"{COPY}{stop}Installing version 3 in place of 2.\n{start}install: version 3 failed to start: it ended: "
           f"status 1; the end of LOG:\n    no ^[[31mvalid configuration\nStopping {machine.label}.\n{start}"
           f"Version 2 is back; {runs}")
    assert machine.seen() == ("2", "2", "1", set())
    assert machine.call(machine.app, "--rollback") == (
        0, f"Copying KEPT/former/SOURCE.\n{stop}Installing version 1 in place of 2.\n{start}"
           f"Version 1 is installed; {runs}".replace("SOURCE", "Orvane.app"))
    assert machine.seen() == ("1", "1", "2", set())
    assert machine.call(machine.app, name="uninstall") == (
        0, f"{stop}Removing JOB.\nRemoving SOURCE.\nRemoving KEPT/former.\nOrvane is not installed.\n")
    assert machine.seen() == NOTHING
    assert not machine.kept.exists()


def test_a_first_version_that_fails_to_start_leaves_nothing(machine):
    assert machine.install("1", "crashes")[0] == 3
    assert (machine.seen(), machine.job.exists()) == (NOTHING, False)


@pytest.mark.parametrize("program", ["exits", "ignores", "lingers"])
def test_a_service_may_exit_with_0_or_be_slow_to_end(machine, program):
    machine.fault("forgets-at-once")
    assert machine.install("1", program)[0] == 0
    good_and(machine, "2")
    assert machine.running() == "2"
    assert [note for note in machine.notes() if note.startswith("two processes")] == []


def test_two_calls_at_once_are_done_one_after_the_other_or_one_is_refused(machine):
    for version in "123":
        machine.bundle(version)
    for trial in range(PAIRS):
        machine.call("1")
        calls = [machine.start([*machine.script(machine.mac / f"new/{version}/Orvane.app"), *more])
                 for version, more in random.sample([("2", []), ("3", []), ("1", ["--rollback"])], 2)]
        texts = [call.communicate()[0].decode() for call in calls]
        running, place, former, left = machine.seen()
        assert (running in "123", place, left) == (True, running, set()), texts
        assert former in "123", texts
        assert {call.returncode for call in calls} <= {0, 1}, texts
    assert [note for note in machine.notes() if note.startswith("two processes")] == []


def test_a_version_that_dies_later_displaces_no_version_that_has_been_seen_to_run(machine):
    good_and(machine)
    machine.install("2", "dies")
    (machine.mac / "die").touch()
    wait_for(lambda: "runs = 1\n" not in machine.launchctl("print", machine.target).stdout.split("}\n")[-2], "restart")
    assert machine.install("3")[0] == 0
    assert machine.seen() == ("3", "3", "1", set())
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert machine.seen() == ("1", "1", "3", set())
    good_and(machine, "4")
    assert machine.seen() == ("4", "4", "1", set())


def test_a_version_that_is_installed_again_displaces_none(machine):
    good_and(machine, "2")
    (machine.app.parent / CONTENTS / "MacOS/OrvaneService").write_bytes(b"damaged")
    for _ in range(2):
        assert machine.install("2")[0] == 0
        assert machine.seen() == ("2", "2", "1", set())
    assert machine.call(machine.app)[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


def test_another_s_process_of_the_same_name_is_not_waited_for(machine):
    good_and(machine)
    program = str(machine.app.parent / CONTENTS / "MacOS/OrvaneService")
    with subprocess.Popen([program, "100000"], executable="/bin/sleep", user=ALICE.pw_uid) as other:
        assert machine.install("2")[0] == 0
        assert machine.call("2", name="uninstall")[0] == 0
        assert other.poll() is None
        other.kill()


# What is wrong, and what is said before anything is stopped.
REFUSED = {
    "a copy that fails": (
        lambda m: m.stand_in("cp", '#!/bin/sh\n/bin/cp "$@"\necho "cp: no space" >&2\nexit 1\n'),
        "cp: no space\ninstall: cannot copy SOURCE; nothing was changed"),
    "an incomplete bundle": (
        lambda m: (m.mac / f"new/2/{CONTENTS}/MacOS/OrvaneService").unlink(),
        f"install: SOURCE lacks {CONTENTS[11:]}/MacOS/OrvaneService; nothing was changed"),
    "a pipe in the bundle": (
        lambda m: os.mkfifo(m.mac / f"new/2/{CONTENTS}/Resources/conf/x"),
        "install: SOURCE has something that is neither file, directory nor link; nothing was changed"),
    "a broken signature": (
        lambda m: put(m.mac / f"new/2/{CONTENTS}/Resources/conf/x", b""),
        "install: the signature of SOURCE is not valid: a sealed resource is missing or invalid?file added: x; "
        "nothing was changed"),
    "a rejected line": (
        lambda m: put(m.data / "conf/jvm_args", b"-Xmx2g\n\n"),
        "install: line 2 of DATA/conf/jvm_args is not allowed: correct or delete it; nothing was changed"),
    "a heap that the VM refuses": (
        lambda m: put(m.data / "conf/jvm_args", b"-Xmx2g\r\n"),
        "install: line 1 of DATA/conf/jvm_args is not allowed: correct or delete it; nothing was changed"),
    "a pipe for an override file": (
        lambda m: [put(m.data / "conf/x", b""), os.mkfifo(m.data / "conf/jvm_args")],
        "install: DATA/conf/jvm_args is not a regular file: remove it; nothing was changed"),
    "a link for a log": (
        lambda m: [m.log.unlink(), m.log.symlink_to("/etc/passwd")],
        "install: LOG is not a regular file: remove it; nothing was changed"),
    "a job that cannot be written": (
        lambda m: [m.job.unlink(), m.job.mkdir()],
        "install: JOB is not a regular file: remove it; nothing was changed"),
    "a bundle that cannot be renamed": (
        lambda m: m.fault("refused", "probe.app"),
        "install: APP cannot be renamed: unlock it (chflags nouchg), or give the caller App Management; "
        "nothing was changed"),
    "a disabled job that runs": (
        lambda m: m.launchctl("disable", m.target),
        "install: TARGET is disabled and loaded: call launchctl enable or bootout first; nothing was changed"),
}
RENAMES = f"""#!/bin/sh
case $1$2 in
    -erename*)
        read -r count 2>/dev/null <{MAC}/renames || count=0
        count=$((count + 1))
        echo $count >{MAC}/renames
        case $4 in *"$(cat {MAC}/fault/refused 2>/dev/null || echo none)") exit 1 ;; esac
        /usr/bin/perl "$@"
        status=$?
        [ $count != "$(cat {MAC}/fault/killed 2>/dev/null)" ] || kill -9 $PPID
        exit $status ;;
esac
exec /usr/bin/perl "$@"
"""


@pytest.fixture
def stand_ins(machine):
    """Those that a test adds go at its end; perl's refuses a rename, or kills its caller after one."""
    machine.stand_in("perl", RENAMES)
    yield
    for name in "perl", "cp", "rm":
        (machine.mac / "bin" / name).unlink(missing_ok=True)


@pytest.mark.parametrize("fault", REFUSED)
def test_what_would_fail_is_refused_while_the_service_runs(machine, stand_ins, fault):
    good_and(machine)
    machine.bundle("2")
    pid = machine.pid()
    arrange, message = REFUSED[fault]
    arrange(machine)
    if machine.uid:
        machine.give(machine.home)
    status, text = machine.call("2")
    assert (status, text[len(COPY):]) == (1, message + "\n")
    assert (machine.pid(), machine.seen()) == (pid, ("1", "1", None, set()))


def test_a_step_that_fails_after_the_stop_is_followed_by_the_version_before(machine, stand_ins):
    good_and(machine)
    machine.fault("refused", machine.app.name)
    machine.stand_in("perl", RENAMES.replace("exit 1", f'rm {MAC}/fault/refused; exit 1', 1)
                     .replace("/fault/refused", "/fault/refused-once"))
    for name in "old/Orvane.app", "Applications/Orvane.app", "plist":
        (machine.mac / "fault/refused").unlink(missing_ok=True)
        machine.fault("refused-once", name)
        status = machine.install("2")[0]
        assert machine.running() in ("1", "2"), (name, status)
        assert status in (0, 1, 3), name
        machine.clear()
        good_and(machine)


@pytest.mark.parametrize("fault, uses", [("bootout", 1), ("bootstrap", 4)])
def test_what_launchd_refuses_once_is_repeated(machine, fault, uses):
    good_and(machine)
    machine.fault(fault, uses)
    assert machine.install("2")[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


def test_a_cleanup_that_fails_is_said_and_costs_no_version(machine, stand_ins):
    good_and(machine, "2")
    machine.stand_in("rm", "#!/bin/sh\ncase $* in *gone*) exit 1 ;; esac\nexec /bin/rm \"$@\"\n")
    for version, former in ("3", "2"), ("4", "3"):
        status, text = machine.install(version)
        assert (status, text.splitlines()[-1]) == (0, "install: cannot remove what is left in KEPT")
        assert machine.seen()[:3] == (version, version, former)


def killed_at_each_rename(machine, before, call, good):
    """Kills a call after each of its renames; the next must leave one of these."""
    for count in range(random.choice([1, 2]) if KILLS <= 10 else 1, 40, 2 if KILLS <= 10 else 1):
        machine.clear()
        for version in before:
            machine.install(version)
        (machine.mac / "renames").unlink(missing_ok=True)
        machine.fault("killed", count)
        status = call()[0]
        (machine.mac / "fault/killed").unlink()
        if status != -signal.SIGKILL:
            break
        text = (machine.call("1", "--rollback") if "3" not in before else machine.install("3"))[1]
        assert machine.seen() in good, (count, text)
    assert count > 4


def test_an_upgrade_killed_at_any_rename_is_completed_or_undone(daemon, stand_ins):
    daemon.bundle("1")
    killed_at_each_rename(daemon, ["1"], lambda: daemon.install("2"),
                          [("1", "1", None, set()), ("1", "1", "2", set())])


def test_a_failed_upgrade_killed_at_any_rename_is_undone(daemon, stand_ins):
    daemon.bundle("1")
    killed_at_each_rename(daemon, ["1"], lambda: daemon.install("2", "crashes"), [("1", "1", None, set())])


def test_a_rollback_killed_at_any_rename_is_completed_or_undone(daemon, stand_ins):
    killed_at_each_rename(daemon, ["1", "3"], lambda: daemon.call("1", "--rollback"),
                          [("3", "3", "1", set())])


def test_a_version_that_came_up_before_the_kill_stays(machine, stand_ins):
    good_and(machine)
    machine.bundle("2")
    machine.stand_in("perl", RENAMES.replace('$4 in', '$4 in */former) kill -9 $PPID; exit ;;'))
    assert machine.call("2")[0] == -signal.SIGKILL
    machine.stand_in("perl", RENAMES)
    machine.bundle("3", "crashes")
    assert machine.call("3")[0] == 3
    assert machine.seen() == ("2", "2", "1", set())


def test_calls_killed_at_any_moment_leave_a_good_version_to_the_next(machine):
    for version, program in ("1", "stays"), ("2", "stays"), ("3", "crashes"):
        machine.bundle(version, program)
    machine.call("1")
    for trial in range(KILLS):
        version, more = random.choice([("1", []), ("2", []), ("3", []), ("1", ["--rollback"])])
        with machine.start([*machine.script(machine.mac / f"new/{version}/Orvane.app"), *more],
                           start_new_session=True) as call:
            time.sleep(random.uniform(0, 1.2))
            (os.killpg if trial % 2 else os.kill)(call.pid, signal.SIGKILL)
            text = call.communicate()[0].decode()  # when what it had started has ended too
        status, after = machine.call("2")
        running, place, former, left = machine.seen()
        assert (status, running, place, left) == (0, "2", "2", set()), (trial, version, more, text, after)
        assert former in ("1", "2", None), (trial, version, more, text, after)


def test_only_the_owner_may_write_what_is_installed_whatever_the_caller_has_set(machine):
    evil = machine.mac / "evil"
    for name in "perl", "cp", "sed", "launchctl", "ls", "chmod", "find":
        put(evil / name, f"#!/bin/sh\ntouch {evil}/called\n".encode(), 0o755)
    put(evil / "env", f"touch {evil}/called\n".encode())
    evil.chmod(0o777)
    app = machine.bundle("1")
    for path in app.rglob("*"):
        path.chmod(0o777 if path.is_dir() or path.stat().st_mode & 0o100 else 0o666)
    (app / "Contents/Info.plist").chmod(0o6666)
    environment = {"PATH": f"{evil}:/usr/bin:/bin", "BASH_ENV": f"{evil}/env", "ENV": f"{evil}/env", "IFS": "/",
                   "BASH_FUNC_cp%%": f"() {{ touch {evil}/called; }}", "PERL5OPT": "-Mnone", "CLEAN": "1",
                   "JAVA_TOOL_OPTIONS": "-Dx", "CDPATH": "/", "POSIXLY_CORRECT": "1"}
    for start in [], ["/bin/sh"]:
        with machine.start([*start, *machine.script(app)], env=environment, umask=0o077) as call:
            assert (call.communicate()[0].decode().count("\n"), call.returncode) == (5 if start else 4, 0)
        assert not (evil / "called").exists()
        paths = [machine.app, *machine.app.rglob("*"), machine.job]
        assert {(stat.S_IMODE(path.lstat().st_mode), path.lstat().st_uid) for path in paths} == {
            (0o755, machine.uid), (0o644, machine.uid)}
        assert stat.S_IMODE(machine.kept.stat().st_mode) == 0o700
    service = process_file(machine.pid(), "environ")
    assert b"JAVA_TOOL_OPTIONS" not in service
    shutil.rmtree(evil)


def process_file(pid, name):
    try:
        with open(f"/proc/{pid}/{name}", "rb") as file:
            return file.read()
    except FileNotFoundError:
        return b""  # a Mac


def test_a_quarantine_is_removed_once_the_signature_is_verified(machine):
    good_and(machine)
    tools = [note.split()[:2] for note in machine.notes() if not note.startswith("launchctl")]
    assert tools == [["codesign", "--verify"], ["codesign", "--verify"], ["xattr", "-rd"]]
    machine.bundle("2", team="")
    status, text = machine.call("2")
    assert (status, text.splitlines()[1:3]) == (0, ["Warning: Orvane.app is not signed.",
                                                    "Warning: OrvaneService.app is not signed."])


@pytest.mark.parametrize("word", ["disabled", "true"])
def test_what_an_administrator_has_disabled_stays_so_and_is_said(machine, word):
    machine.fault("disabled-word", word)
    machine.launchctl("disable", machine.target)
    said = (f"{COPY}Installing version 1.\nVersion 1 is installed; {machine.label} is disabled and stays so: launchctl "
            f"enable TARGET, then launchctl bootstrap {machine.domain} JOB.\n")
    assert machine.install("1") == (0, said)
    assert machine.seen() == (None, "1", None, set())
    assert "launchctl enable" not in " ".join(machine.notes())


def test_an_agent_waits_for_its_user_and_a_home_may_have_any_name(machine):
    if not machine.uid:
        pytest.skip("system-wide")
    machine.fault("logged-out")
    for name in "a b", "a&b", "<a>", "a|b", "a\\1b", "\N{LATIN SMALL LETTER E WITH ACUTE}":
        home = machine.root.path(f"/Users/{name}")
        home.mkdir()
        machine.give(home)
        status, text = machine.call(machine.bundle("1"), env={"HOME": str(home)})
        assert (status, text.splitlines()[-1]) == (
            0, f"Version 1 is installed; {machine.label} starts when the user logs in.")
        job = plistlib.loads((home / "Library/LaunchAgents" / machine.job.name).read_bytes())
        assert job["WorkingDirectory"] == f"{home}/Applications/{CONTENTS}/MacOS"
        assert job["StandardOutPath"] == f"{home}/Library/Logs/OrvaneService.log"


def test_uninstall_removes_all_and_keeps_the_data_by_default(machine):
    good_and(machine, "2")
    (machine.mac / "receipts/com.vaultory.orvane").touch()
    put(machine.data / "file", b"")
    outside = machine.mac / "outside"
    outside.write_bytes(b"kept")
    machine.log.unlink()
    machine.log.symlink_to(outside)
    put(machine.log.with_name("OrvaneService.log.0.bz2"), b"")
    machine.give(machine.data)
    assert machine.call("2", name="uninstall")[0] == 0
    assert (machine.seen(), machine.data.exists(), machine.log.is_symlink()) == (NOTHING, True, True)
    assert (machine.mac / "receipts/com.vaultory.orvane").exists() == bool(machine.uid)
    assert machine.call("2", "--data", name="uninstall")[0] == 0
    assert (machine.data.exists(), list(machine.log.parent.glob("Orvane*"))) == (False, [])
    assert outside.read_bytes() == b"kept"


def test_wrong_calls_change_nothing_and_the_usage_is_said(machine):
    machine.bundle("1")
    for name, usage in zip(("install", "uninstall"), USAGES):
        for arguments, status in (["--dry-run"], 2), (["--help"], 0), (["--help", "x"], 0), (["--data", "x"], 2):
            assert machine.call("1", *arguments, name=name) == (status, usage + "\n")
    assert machine.seen() == NOTHING
    who = {} if machine.uid else {"user": ALICE.pw_uid}
    app = machine.mac / "new/1/Orvane.app"
    wrong = ("HOME is '/Users/bob', not the caller's directory in /Users; with sudo, add -H" if machine.uid else
             "the system-wide service is root's: call with sudo, or --user")
    assert machine.call("1", env={"HOME": "/Users/bob"}, **who) == (1, f"install: {wrong}\n")
    if not machine.uid:
        assert machine.call("1", "--user") == (1, "install: an agent is its user's: call launchctl "
                                                  f"asuser UID sudo -H -u NAME {machine.script('SOURCE')[0]} --user\n"
                                               .replace(CONTENTS, f"SOURCE{CONTENTS[10:]}"))
    link = machine.mac / "link"
    link.mkdir(exist_ok=True)
    (link / "install").unlink(missing_ok=True)
    (link / "install").symlink_to(machine.script(app)[0])
    put(link / "job.sh", b"echo sourced\n")
    with machine.start([link / "install", *machine.script(app)[1:]]) as call:
        assert call.communicate()[0].decode() == (
            f"install: {link} is not in an Orvane.app; call the script where the bundle has it\n")


def test_of_a_bundle_root_executes_only_the_script_that_was_called(daemon):
    if not shutil.which("strace"):
        unavailable("there is no strace")
    good_and(daemon)
    app = daemon.bundle("2")
    for name, script in ("install", app), ("check-install", daemon.app), ("uninstall", daemon.app):
        trace = daemon.mac / "trace"
        status = subprocess.run(["strace", "-f", "-s", "4096", "-e", "trace=execve,open,openat,mmap", "-o", trace,
                                 *daemon.script(script, name)], env={}, capture_output=True).returncode
        assert status == 0
        text = trace.read_text(errors="replace")
        called = {match for match in re.findall(r'execve\("([^"]*)"', text) if "Orvane.app" in match}
        assert called == {daemon.script(script, name)[0]}
