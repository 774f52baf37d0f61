"""Tools that are killed or fail once, callers with few resources, names and places that others choose."""

import os
import pty
import resource
import signal
import subprocess

import pytest

from machine import ALICE, MAC, delete, put
from support import CONTENTS
from support.macos import needs

UNSIGNED = "code object is not signed at all"


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


@pytest.mark.parametrize("number", [1, 2, 4, 6, 8])
def test_a_perl_killed_after_its_rename_costs_no_version(machine, number):
    machine.good("1")
    machine.bundle("2")
    machine.at_rename(number, after="kill -9 $$")
    status, text = machine.call("2")
    delete(MAC / "bin/perl")
    assert (status, machine.seen()) == (0, ("2", "2", "1", set())), text
    assert machine.install("3", "crashes")[0] == 3
    assert machine.seen() == ("2", "2", "1", set())


@pytest.mark.parametrize("machine", ["system", "user"], indirect=True)
def test_a_launchctl_that_fails_once_is_not_taken_for_an_answer(machine):
    machine.good("1")
    print_job, version = machine.model.print, "1"
    for number in (2, 4, 5):
        version, calls = {"1": "2", "2": "1"}[version], iter(range(1, 5000))
        machine.model.print = (
            lambda *arguments: (5, "", "5: Input/output error\n")
            if (next(calls) == number)
            else print_job(*arguments)
        )
        status, text = machine.install(version)
        assert (status, machine.seen()[0]) == (0, version), text


@pytest.mark.parametrize(
    "says, message",
    [
        (
            f"{UNSIGNED}\nIn subcomponent: /x",
            f"the signature of SOURCE is not valid: {UNSIGNED}?In subcomponent: /x",
        ),
        (
            f"changed\nfile added: {UNSIGNED}",
            f"the signature of SOURCE is not valid: changed?file added: {UNSIGNED}",
        ),
        (UNSIGNED, f"the signature of SOURCE is not valid: {UNSIGNED}"),
        ("", "Orvane.app is not signed, but the installed one is"),
    ],
)
def test_only_a_bundle_without_any_signature_is_installed_unsigned(machine, says, message):
    machine.good("1")
    machine.bundle("2", team="x" if says else "")
    if says:
        machine.stand_in(
            "codesign", f'for path; do :; done; printf "%s: {says}\n" "$path" >&2; exit 1'
        )
    status, text = machine.call("2")
    assert (status, text.splitlines()[1:]) == (1, [f"install: {message}; nothing was changed"])


@pytest.mark.parametrize("name", ["install", "check-install"])
def test_a_script_on_standard_input_starts_nothing_of_the_working_directory(machine, name):
    put(MAC / "cwd/sh", b"touch called\n", 0o755)
    with open(machine.script(machine.bundle("1"), name)[0]) as script:
        status, out, errors = run(["sh"], stdin=script, cwd=MAC / "cwd")
    assert (status, out, errors.count(b"\n"), (MAC / "cwd/called").exists()) == (2, b"", 1, False)


def test_what_a_jar_makes_unzip_ask_reaches_no_terminal(machine):
    machine.good("1")
    machine.stand_in("unzip", '(: </dev/tty) 2>/dev/null || cat "$2"')
    child, terminal = pty.fork()
    if child == 0:
        os.execv(checker(machine)[0], checker(machine))
    output = b""
    try:
        while data := os.read(terminal, 4096):
            output += data
    except OSError:  # the terminal has no other end any more
        os.waitpid(child, 0)
    assert b"service 1," in output


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


def test_versions_may_have_any_characters_or_be_missing(machine):
    machine.good("1_a", "1_b")
    assert machine.seen() == ("1_b", "1_b", "1_a", set())
    for version in "2", "3":
        machine.bundle(version)
        machine.sh(
            "cd $MAC/new/"
            + version
            + "; find . -name Info.plist -exec sh -c 'echo \"<plist><dict/></plist>"
            "\" >$0' {} ';'; find . -name CodeResources -exec touch {} +"
        )
        assert machine.call(version)[0] == 0
    assert "version-2" in (machine.kept / "former" / CONTENTS / "MacOS/OrvaneService").read_text()
