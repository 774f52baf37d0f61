"""Callers with few resources, names and places that others choose."""

import resource
import signal
import subprocess

import pytest

from machine import ALICE, MAC, delete, put
from support.macos import needs


def run(command, **options):
    done = subprocess.run(
        command, timeout=30, stderr=subprocess.PIPE, **{"stdout": subprocess.PIPE, **options}
    )
    return done.returncode, done.stdout, done.stderr


def checker(machine):
    return [
        machine.script(MAC / "new/1/Orvane.app", "check-install")[0],
        *(["--user", ALICE.pw_name] if machine.uid else []),
    ]


@pytest.mark.parametrize("name", ["install", "uninstall", "check-install"])
def test_a_script_on_standard_input_starts_nothing_of_the_working_directory(machine, name):
    put(MAC / "cwd/sh", b"touch called\n", 0o755)
    with open(machine.script(machine.bundle("1"), name)[0]) as script:
        status, out, errors = run(["sh"], stdin=script, cwd=MAC / "cwd")
    assert (status, out, errors.count(b"\n"), (MAC / "cwd/called").exists()) == (2, b"", 1, False)


@pytest.mark.parametrize("machine", ["user"], indirect=True)
def test_a_check_that_cannot_run_or_print_finds_no_correct_installation(machine):
    machine.good("1")
    limit = lambda: resource.setrlimit(resource.RLIMIT_NPROC, (0, 0))  # noqa: E731
    assert run(checker(machine), preexec_fn=limit)[:2] == (1, b"")
    assert run(["sh", "-c", '"$@" >&-', "sh", *checker(machine)])[0] == 1
    assert run(checker(machine))[::2] == (0, b"")


def test_a_check_whose_output_is_lost_finds_no_correct_installation(machine):
    needs("/dev/full")
    machine.good("1")
    with open("/dev/full", "w") as full:
        assert run(checker(machine), stdout=full)[0] == 1


def test_an_interrupted_check_says_so_with_status_1(machine):
    machine.good("1")
    machine.stand_in("codesign", f"touch {MAC}/begun; exec sleep 50")
    for number in signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGALRM:
        delete(MAC / "begun")
        with subprocess.Popen(
            checker(machine), stdout=subprocess.PIPE, stderr=subprocess.PIPE
        ) as check:
            machine.wait(lambda _: (MAC / "begun").exists())
            check.send_signal(number)
            assert (*check.communicate(), check.returncode) == (
                b"",
                b"check-install: not finished\n",
                1,
            )
