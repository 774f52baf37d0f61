"""Scripts that are not called by their path."""

import subprocess

import pytest

from machine import MAC, put


def run(command, **options):
    done = subprocess.run(
        command, timeout=30, stderr=subprocess.PIPE, **{"stdout": subprocess.PIPE, **options}
    )
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("name", ["install", "uninstall", "check-install"])
def test_a_script_on_standard_input_starts_nothing_of_the_working_directory(machine, name):
    put(MAC / "cwd/sh", b"touch called\n", 0o755)
    with open(machine.script(machine.bundle("1"), name)[0]) as script:
        status, out, errors = run(["sh"], stdin=script, cwd=MAC / "cwd")
    assert (status, out, errors.count(b"\n"), (MAC / "cwd/called").exists()) == (2, b"", 1, False)
