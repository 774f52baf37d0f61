"""Calls of install and uninstall that are killed, or of which a step fails, and what the next call makes of it. A
step is named as the stand-in for operator-tool names it. TRIALS is the number of random kills and of concurrent
pairs; with 10 or more, every step of every call is tried."""

import os
import random
import signal
import subprocess
import time

import pytest

from machine import MAC, delete, put, version
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


# What is installed before, the call that is killed, and the next one; and what there may be after that. Version 3
# crashes. A rollback that undoes the killed call has done its work.
CALLS = {
    "upgrade": (["1"], ["2"], ["1", "--rollback"], [("1", "1", None), ("1", "1", "2")]),
    "upgrade, then the next": (["1"], ["2"], ["4"], [("4", "4", "1"), ("4", "4", "2")]),
    "failing upgrade": (["1"], ["3"], ["4"], [("4", "4", "1")]),
    "rollback": (["1", "2"], ["2", "--rollback"], ["2"], [("2", "2", "1")]),
    "repair": (["1", "2"], ["2"], ["4"], [("4", "4", "2")]),
    "first": ([], ["2"], ["4"], [("4", "4", None), ("4", "4", "2")]),
    "uninstall": (["1", "2"], ["2", "uninstall"], ["4"], [("4", "4", "2"), ("4", "4", None)]),
}


def call(machine, version, *more):
    if more == ("uninstall",):
        return machine.call(version, name="uninstall")
    return machine.call(version, *more)


@pytest.mark.parametrize("name", CALLS if TRIALS >= 10 else ["upgrade", "failing upgrade", "rollback"])
def test_a_call_killed_after_any_step_is_completed_or_undone(machine, name):
    before, killed, following, good = CALLS[name]
    for number, program in enumerate(["stays", "stays", "crashes", "stays"], start=1):
        machine.bundle(str(number), program)
    step, tried = "first of all", []
    while True:
        for number in before:
            assert machine.call(number)[0] == 0
        machine.at(step, after="kill -9 $PPID")
        status = call(machine, *killed)[0]
        steps = machine.steps()
        assert status == (KILLED if tried else status)
        if tried:
            text = call(machine, *following)[1]
            *seen, left = machine.seen()
            assert (tuple(seen) in good, left) == (True, set()), (step, text)
        assert call(machine, "1", "uninstall")[0] == 0
        left_to_try = [other for other in steps if other not in tried] if not tried else left_to_try
        if not left_to_try:
            break
        step = left_to_try.pop(0)
        tried.append(step)
    assert len(tried) > 3


def test_a_step_that_fails_after_the_stop_is_followed_by_the_version_before(machine):
    machine.good("1")
    machine.bundle("2")
    for step in UPGRADE[6:8]:
        machine.at(step, before="exit 1")
        status, text = machine.call("2")
        assert (status, text.splitlines()[-4:]) == (
            3,
            [
                "install: cannot rename to APP or JOB",
                f"Starting {machine.label}.",
                f"Version 1 is back; {machine.label} runs, process PID.",
            ][-4:],
        )
        assert machine.seen() == ("1", "1", None, set())
