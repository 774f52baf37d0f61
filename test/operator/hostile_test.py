"""Scripts that are not called by their path."""

import pathlib
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


# As the documents call install: a shell that is POSIX's only, in the directory of the scripts.
@pytest.mark.parametrize("name", ["install", "uninstall", "check-install"])
def test_a_script_may_be_called_by_any_shell_and_finds_its_own_directory(machine, name):
    directory = pathlib.Path(machine.script(machine.bundle("1"), name)[0]).parent
    put(MAC / "other/operator/common.sh", b"echo another\n")
    environment = {"CDPATH": str(MAC / "other"), "BASH_FUNC_cd%%": "() { echo another; }"}
    for shell in ["sh"], ["bash"], ["bash", "--posix"]:
        status, out, errors = run(
            [*shell, f"operator/{name}", "--help"], cwd=directory.parent, env=environment
        )
        assert (status, out.startswith(b"usage: " + name.encode()), errors) == (0, True, b"")
