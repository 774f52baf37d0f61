"""Calls of install and uninstall that are killed, or of which a step fails, and what the next call makes
of it. A step is named as the stand-in for operator-tool names it. TRIALS is the number of random kills and
of concurrent pairs; with 10 or more, every step of every call is tried."""

import os
import random
import re
import signal
import subprocess
import time

import pytest

from machine import MAC, delete, put
from support.root import Process

TRIALS = int(os.environ.get("TRIALS", "2"))
KILLED = 128 + signal.SIGKILL
UPGRADE = [  # the steps of an upgrade of version 2 over 1, with a version kept from before
    "rename new ready",
    "exchange ready/Orvane.app app",
    "exchange ready/Orvane.app app, again",
    "exchange ready/job job",
    "exchange ready/job job, again",
    "rename ready replacing",
    "exchange replacing/Orvane.app app",
    "exchange replacing/job job",
    "rename replacing replaced",
    "rename former gone",
    "rename replaced former",
]
BACK = ["exchange replacing/job job, again", "exchange replacing/Orvane.app app, again"]
REPLACED = UPGRADE[-3:]
both = pytest.mark.parametrize("machine", ["system", "user"], indirect=True)


def test_the_steps_of_a_call_are_these(machine):
    machine.good("1", "2")
    machine.bundle("3")
    machine.at("none")
    assert (machine.call("3")[0], machine.steps()) == (0, UPGRADE)
    machine.bundle("4", "crashes")
    machine.at("none")
    assert machine.call("4")[0] == 3
    assert machine.steps() == [*UPGRADE[:8], *BACK, "rename replacing gone"]


# What is installed before, the call that is killed, and the next one; and what may run, be in place and be
# kept after that. Version 3 crashes. A rollback that has undone the killed call has done its work.
CALLS = {
    "upgrade": (["1"], ["2"], ["1", "--rollback"], [("1", "1", None), ("1", "1", "2")]),
    "upgrade, then the next": (["1"], ["2"], ["4"], [("4", "4", "1"), ("4", "4", "2")]),
    "failing upgrade": (["1"], ["3"], ["4"], [("4", "4", "1")]),
    "rollback": (["1", "2"], ["2", "--rollback"], ["2"], [("2", "2", "1")]),
    "repair": (["1", "2"], ["2"], ["4"], [("4", "4", "2")]),
    "first": ([], ["2"], ["4"], [("4", "4", None), ("4", "4", "2")]),
    "uninstall": (["1", "2"], ["2", "uninstall"], ["4"], [("4", "4", "2"), ("4", "4", None)]),
}
# The steps that are tried without TRIALS.
SOME = {
    "upgrade": [step for step in UPGRADE if step != "rename former gone"],
    "failing upgrade": [*BACK, "rename replacing gone"],
    "rollback": REPLACED,
}


def call(machine, version, *more):
    if more == ("uninstall",):
        return machine.call(version, name="uninstall")
    return machine.call(version, *more)


def prepare(machine, before):
    """Only these are installed, the last one runs."""
    assert machine.call("1", name="uninstall")[0] == 0
    for number in before:
        assert machine.call(number)[0] == 0


@pytest.mark.parametrize("name", CALLS if TRIALS >= 10 else SOME)
def test_a_call_killed_after_any_step_is_completed_or_undone(machine, name):
    before, killed, following, good = CALLS[name]
    for number, program in enumerate(["stays", "stays", "crashes", "stays"], start=1):
        machine.bundle(str(number), program)
    prepare(machine, before)
    steps = SOME.get(name)
    if TRIALS >= 10:
        machine.at("none")
        call(machine, *killed)
        steps = machine.steps()
    for step in steps:
        prepare(machine, before)
        machine.at(step, after="kill -9 $PPID")
        assert call(machine, *killed)[0] == KILLED, step
        machine.steps()
        text = call(machine, *following)[1]
        *seen, left = machine.seen()
        assert (tuple(seen) in good, left) == (True, set()), (step, seen, left, text)


def test_a_killed_call_says_that_the_next_one_goes_on(machine):
    machine.good("1")
    machine.bundle("2")
    machine.at("exchange replacing/job job", after="kill -9 $PPID")
    status, text = machine.call("2")
    assert (status, text.splitlines()[-1]) == (
        KILLED,
        "install: killed; the next call completes or undoes what this one has begun",
    )
    machine.steps()
    assert machine.call("2")[1].startswith(
        f"Undoing an interrupted call.\nStarting {machine.label}.\nVersion 1 is back; {machine.label} runs, "
        "process PID.\nCopying SOURCE.\n"
    )


def test_a_version_that_came_up_before_the_kill_stays(machine):
    machine.good("1")
    machine.bundle("2")
    machine.at("rename replacing replaced", before="kill -9 $PPID")
    assert machine.call("2")[0] == KILLED
    machine.steps()
    assert machine.install("3", "crashes")[0] == 3
    assert machine.seen() == ("2", "2", "1", set())


# Repeated after a kill, it does not exchange the two a second time, and does not stop once it has undone.
@pytest.mark.parametrize("step", UPGRADE[5:])
def test_a_rollback_that_was_killed_is_repeated_and_not_reversed(machine, step):
    machine.good("1", "2")
    machine.at(step, after="kill -9 $PPID")
    assert machine.call("2", "--rollback")[0] == KILLED
    machine.steps()
    if step != UPGRADE[-1]:
        status, text = machine.call("2", "--rollback")
        assert (status, re.split("[;.]", text.splitlines()[-1])[0]) == (0, "Version 1 is installed")
    assert machine.seen()[:3] == ("1", "1", "2")


# The old version runs from elsewhere then, and the next boot would start the new one.
def test_a_kill_while_renaming_is_tried_is_undone_by_any_call(machine):
    machine.good("1")
    machine.bundle("2")
    machine.at("exchange ready/Orvane.app app", after="kill -9 $PPID")
    assert machine.call("2")[0] == KILLED
    machine.steps()
    assert machine.seen()[:2] == ("1", "2")
    put(machine.data / "conf/jvm_args", b"-Dx\n")
    status, text = machine.call("2")
    assert (status, text.splitlines()) == (
        1,
        [
            "Undoing an interrupted call.",
            f"Stopping {machine.label}, process PID.",
            f"Starting {machine.label}.",
            f"Version 1 is back; {machine.label} runs, process PID.",
            "Copying SOURCE.",
            "install: line 1 of DATA/conf/jvm_args is not allowed: correct or delete it; nothing was changed",
        ],
    )
    assert machine.seen() == ("1", "1", None, set())


def test_an_exchange_that_cannot_be_undone_is_said_and_undone_by_the_next_call(machine):
    machine.good("1")
    process = machine.loaded().process
    machine.bundle("2")
    machine.at("exchange ready/Orvane.app app, again", before="exit 1")
    assert machine.call("2") == (
        4,
        "Copying SOURCE.\ninstall: the service runs from KEPT/ready.former.B.J/Orvane.app, which cannot be "
        "exchanged with APP again: call install again\n",
    )
    assert machine.loaded().process == process
    machine.steps()
    machine.good("2")
    assert machine.seen() == ("2", "2", "1", set())


def test_a_version_before_that_cannot_be_put_back_is_put_back_by_the_next_call(machine):
    machine.good("1")
    machine.bundle("2", "crashes")
    machine.at("exchange replacing/Orvane.app app, again", before="exit 1")
    status, text = machine.call("2")
    assert (status, text.splitlines()[-1]) == (
        4,
        "install: cannot rename KEPT/replacing.former.B.J/Orvane.app to APP; call install again",
    )
    machine.steps()
    assert "\nVersion 1 is back; " in machine.call("2")[1]
    assert machine.seen() == ("1", "1", None, set())


@pytest.mark.parametrize("step, said", zip(UPGRADE[6:8], ["", "Stopping {label}.\n"]))
def test_a_step_that_fails_after_the_stop_is_followed_by_the_version_before(machine, step, said):
    machine.good("1")
    machine.bundle("2")
    machine.at(step, before="exit 1")
    assert machine.call("2") == (
        3,
        f"Copying SOURCE.\nStopping {machine.label}, process PID.\nInstalling version 2 in place of 1.\n"
        f"install: cannot rename to APP or JOB\nStarting {machine.label}.\n"
        f"Version 1 is back; {machine.label} runs, process PID.\n",
    )
    assert machine.seen() == ("1", "1", None, set())


@pytest.mark.parametrize("step", REPLACED)
def test_a_step_that_fails_when_the_new_version_runs_is_done_by_the_next_call(machine, step):
    machine.good("1", "2")
    machine.bundle("3")
    machine.at(step, before="exit 1")
    status, text = machine.call("3")
    assert (status, text.splitlines()[-2]) == (
        0,
        "install: cannot tidy KEPT; the next call does it",
    )
    machine.steps()
    assert machine.install("4", "crashes")[0] == 3
    assert machine.seen() == ("3", "3", "2", set())


def test_a_tool_killed_after_its_work_costs_nothing(machine):
    machine.good("1", "2", "3")
    former, present = "2", "3"
    for step in UPGRADE[:3] + UPGRADE[5:]:
        machine.at(step, after="kill -9 $$")
        status, text = machine.call(former)
        machine.steps()
        former, present = present, former
        assert (status, machine.seen()) == (0, (present, present, former, set())), (step, text)


def test_a_cleanup_that_fails_is_said_and_costs_no_version(machine):
    machine.good("1")
    machine.stand_in("rm", 'case $* in *gone*) exit 1 ;; esac; exec /bin/rm "$@"')
    for version, former in ("2", "1"), ("3", "2"):
        status, text = machine.install(version)
        assert (status, text.splitlines()[-1]) == (0, "install: cannot remove what is left in KEPT")
        assert machine.seen() == (version, version, former, {"gone"})
    (MAC / "bin/rm").unlink()
    machine.good("4")
    assert machine.seen() == ("4", "4", "3", set())


@both
def test_a_launchctl_that_fails_once_is_not_taken_for_an_answer(machine):
    machine.good("1")
    print_job, version = machine.model.print, "1"
    for number in (2, 4, 5):
        version, calls = {"1": "2", "2": "1"}[version], iter(range(1, 5000))
        machine.model.print = lambda *arguments: (
            (5, "", "5: Input/output error\n") if next(calls) == number else print_job(*arguments)
        )
        status, text = machine.install(version)
        assert (status, machine.seen()[0]) == (0, version), text


def test_a_service_that_outlives_its_limit_is_started_again_once_it_has_ended(machine):
    machine.limits["stop_limit"] = 5
    machine.good("1")
    machine.install("1", "ignores")
    job = machine.loaded()
    job.keys["ExitTimeOut"] = 200 * 5  # which launchd waits before it kills the process
    machine.bundle("2")
    status, text = machine.call("2")
    late = f"{machine.label}, process PID, has not ended within 5 s"
    assert (status, text.splitlines()[1:]) == (
        4,
        [
            f"Stopping {machine.label}, process PID.",
            f"install: {late}",
            f"Stopping {machine.label}, process PID.",
            f"install: version 1 is in place, but is not started again: {late}; "
            "call install again",
        ],
    )
    machine.wait(lambda loaded: loaded is None)
    put(machine.data / "conf/jvm_args", b"-Dx\n")  # nothing is installed, all the same it starts
    status, text = machine.call("2")
    assert (status, f"Version 1 is back; {machine.label} runs" in text) == (1, True), text
    assert machine.seen() == ("1", "1", None, set())


def test_a_launchctl_that_falls_silent_after_the_stop_is_said(machine):
    machine.limits["launchctl_limit"] = 1
    machine.good("1")
    (MAC / "bin/launchctl").rename(MAC / "launchctl")
    machine.stand_in(
        "launchctl",
        f"[ ! -e {MAC}/silent ] || exec sleep 1000\n"
        f'[ $1 != bootout ] || touch {MAC}/silent\nexec {MAC}/launchctl "$@"',
    )
    machine.bundle("2")
    status, text = machine.call("2")
    assert (status, text.splitlines()[1:]) == (
        4,
        [
            f"Stopping {machine.label}, process PID.",
            "install: launchctl does not answer",
            "install: version 1 is in place, but is not started again: launchctl does not answer; "
            "call install again",
        ],
    )
    (MAC / "silent").unlink()
    (MAC / "launchctl").rename(MAC / "bin/launchctl")
    assert machine.call("2")[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


@pytest.mark.parametrize("command", ["bootout", "bootstrap"])
def test_a_launchctl_that_does_its_work_and_does_not_return_costs_nothing(machine, command):
    machine.limits.update(launchctl_limit=1, bootout_limit=1)
    machine.good("1")
    (MAC / "bin/launchctl").rename(MAC / "launchctl")
    machine.stand_in(
        "launchctl",
        f'[ $1 = {command} ] || exec {MAC}/launchctl "$@"\n{MAC}/launchctl "$@"\nexec sleep 1000',
    )
    status, text = machine.install("2")
    assert (status, machine.seen()) == (0, ("2", "2", "1", set())), text


def test_the_template_of_the_bundle_serves_where_the_job_is_missing(machine):
    machine.good("1")
    job = machine.job.read_bytes()
    machine.job.unlink()
    assert machine.install("2", "crashes")[0] == 3
    assert (machine.seen(), machine.job.read_bytes()) == (("1", "1", None, set()), job)


def test_a_call_that_is_refused_leaves_nothing_behind(machine):
    machine.good("1")
    machine.bundle("2")
    machine.stand_in("mkdir", 'case $* in */new) exit 1 ;; esac; exec /bin/mkdir "$@"')
    assert machine.call("2")[1].endswith("install: cannot write KEPT; nothing was changed\n")
    assert machine.seen() == ("1", "1", None, set())


def test_a_listing_that_fails_is_not_taken_for_an_answer(machine):
    machine.good("1")
    machine.bundle("2")
    machine.at("exchange replacing/job job", after="kill -9 $PPID")
    assert machine.call("2")[0] == KILLED
    machine.steps()
    machine.stand_in("ls", "exit 1")
    assert machine.call("2") == (4, "install: cannot examine APP; call install again\n")
    (MAC / "bin/ls").unlink()
    machine.good("2")
    assert machine.seen() == ("2", "2", "1", set())


def test_a_bundle_that_names_no_version_is_called_unknown(machine):
    machine.bundle("1")
    machine.bundle("2", "crashes")
    for number in "1", "2":
        machine.sh(
            f"cd $MAC/new/{number}; "
            "find . -name Info.plist -exec sh -c 'echo \"<plist><dict/></plist>\" >$0' {} ';'; "
            "find . -name CodeResources -exec touch {} +"
        )
    assert machine.call("1")[1].endswith(
        f"Version unknown is installed; {machine.label} runs, process PID.\n"
    )
    assert machine.call("2")[1].endswith(
        f"Version unknown is back; {machine.label} runs, process PID.\n"
    )


def test_what_a_killed_call_has_started_keeps_the_next_one_out_until_it_ends(machine):
    machine.good("1")
    machine.bundle("2")
    machine.stand_in("cp", f'touch {MAC}/copies; sleep 2; exec /bin/cp "$@"')
    with machine.start(machine.script(MAC / "new/2/Orvane.app")) as call:
        machine.wait(lambda _: (MAC / "copies").exists())
        for number, command in family(call.pid):
            if "operator/install" in command:
                kill(number)
        delete(MAC / "bin/cp")
        status, text = machine.call("2")
        assert (status, text.splitlines()[-1]) == (
            1,
            "install: another install or uninstall is at work; nothing was changed",
        )
        call.communicate()  # what has been started has ended
    assert machine.call("2")[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


def processes():
    """{process: (its parent, its command)}"""
    listed = subprocess.run(["ps", "-axo", "pid=,ppid=,args="], stdout=subprocess.PIPE, text=True)
    rows = [line.split(None, 2) for line in listed.stdout.splitlines()]
    return {int(pid): (int(parent), command) for pid, parent, command in rows}


def family(pid):
    """The process and what it has started, directly or not."""
    found, listed = [pid], processes()
    for number in found:
        found += [child for child, (parent, _) in listed.items() if parent == number]
    return [(number, listed[number][1]) for number in found if number in listed]


def kill(number):
    try:
        os.kill(number, signal.SIGKILL)
    except ProcessLookupError:
        pass


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


def test_a_call_is_refused_as_long_as_another_has_the_lock(machine):
    machine.good("1")
    lock = "import fcntl, sys, time; file = open(sys.argv[1]); "
    lock += "fcntl.flock(file, fcntl.LOCK_EX); print(flush=True)"
    with Process(
        ["python3", "-c", lock + "; time.sleep(99)", machine.kept / "lock"],
        stdout=subprocess.PIPE,
        start_new_session=True,
    ) as other:
        assert other.stdout.read(1) == b"\n"
        assert machine.call("1") == (
            1,
            "operator-tool: KEPT/lock: locked by another process\n"
            "install: another install or uninstall is at work; nothing was changed\n",
        )


# Whether the call alone is killed, one of the processes that it has started, or all of them but launchctl's.
def test_calls_killed_at_any_moment_leave_a_good_version_to_the_next(machine):
    for version, program in ("1", "stays"), ("2", "stays"), ("3", "crashes"):
        machine.bundle(version, program)
    machine.call("1")
    start = time.monotonic()
    machine.call("2")
    duration = time.monotonic() - start
    for trial in range(TRIALS):
        version, *more = random.choice([*"123", ("1", "--rollback")])
        with machine.start([*machine.script(MAC / f"new/{version}/Orvane.app"), *more]) as call:
            time.sleep(random.uniform(0, duration))
            killed = family(call.pid)
            if trial % 3 == 0:
                killed = killed[:2]  # the script, and its child with the lock
            elif trial % 3 == 1:
                killed = random.sample(killed, min(1, len(killed)))
            for number, _ in killed:
                kill(number)
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


# What the scripts before these left when they were killed, as commands after version 2 has been installed
# over 1, and what the next call says, which is refused. Version 2 is in place then, and runs.
OLD = "mkdir $KEPT/old; cp -p $JOB $KEPT/old/job; "
TO_BE_KEPT = OLD + "touch $KEPT/old/good $KEPT/old/keep; "
EARLIER = {
    "a bundle renamed to try it": ("mv $APP $KEPT/probe.app", "Undoing"),
    "a job renamed to try it": ("mv $JOB $KEPT/probe.plist", "Undoing"),
    "before the bundles are renamed": (TO_BE_KEPT, "Undoing"),
    "between the two renames": (TO_BE_KEPT + "mv $APP $KEPT/old", "Undoing"),
    "after both": (TO_BE_KEPT + "mv $KEPT/former/Orvane.app $KEPT/old", "Completing"),
    "after both, not to be kept": (OLD + "cp -Rp $KEPT/former/Orvane.app $KEPT/old", "Completing"),
}


@pytest.mark.parametrize("name", EARLIER)
def test_what_earlier_scripts_left_is_understood(machine, name):
    commands, said = EARLIER[name]
    machine.good("1", "2")
    machine.sh("mkdir $KEPT/new.a $KEPT/gone.b; " + commands)
    put(machine.data / "conf/jvm_args", b"-Dx\n")
    status, text = machine.call("2")
    assert (status, machine.seen()) == (1, ("2", "2", "1", set())), text
    assert text.startswith(f"{said} an interrupted call.\n"), text


def test_an_upgrade_of_earlier_scripts_that_does_not_run_is_undone(machine):
    machine.good("1")
    machine.bundle("3", "crashes")
    # As killed after the start: the new bundle and job are in place, the old ones in "old".
    machine.sh("mkdir $KEPT/old; cp -p $JOB $KEPT/old/job; touch $KEPT/old/good $KEPT/old/keep")
    machine.model.bootout(machine.target)
    machine.wait(lambda job: job is None)
    machine.sh("mv $APP $KEPT/old; cp -Rp $MAC/new/3/Orvane.app $APP")
    put(machine.data / "conf/jvm_args", b"-Dx\n")
    assert "Undoing an interrupted call.\n" in machine.call("3")[1]
    assert machine.seen() == ("1", "1", None, set())
