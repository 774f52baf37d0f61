"""How a training run is started and ended, and what is said about one that went wrong: with a shell script
in place of the launcher, and with clients that do what a vendor's clients do."""

import logging
import os
import subprocess
import sys
import time

import pytest
from bundler import processes, service
from bundler.errors import UserError
from bundler.service import Plan
from bundler.trial import Trial
from bundling import write_script
from support import LINUX, macos

# The VM writes a trace of the classes that it loads, to a file that an option names.
LAUNCHER = r"""#!/bin/sh
trace=$(printf '%s\n' "$JAVA_TOOL_OPTIONS" | sed 's/.*class+load:file=\([^ :]*\)%p:.*/\1/')$$
load_main() { echo "com.vaultory.service.QRService source: file:../Resources/lib/a.jar" >>"$trace"; }
"""
WAITS = "exec sleep 1000\n"


@pytest.fixture
def tmp_path(path_without_space):
    return path_without_space


@pytest.fixture(params=[sys.platform, "darwin"] if LINUX else ["darwin"])
def platform(request, monkeypatch):
    """Processes are found as on this system, and as on a Mac, which hides their environments."""
    monkeypatch.setattr(processes.sys, "platform", request.param)
    if request.param == "darwin":
        monkeypatch.setattr(processes, "has_variable", lambda pid, variable: False)


@pytest.fixture
def run(tmp_path, monkeypatch, caplog):
    """Runs a service, the body of a shell script, and a client; the lines of the error, if any, and its
    output before it. The lines that were logged are in run.logged, the classes in run.classes."""
    monkeypatch.setattr(service, "CLIENT_SECONDS", 0.6)
    monkeypatch.setattr(service, "CAUSE_SECONDS", 0.6)
    monkeypatch.setattr(service, "QUIET_SECONDS", 0.6)

    def run(body, client=None, seconds=60):
        macos = tmp_path / "Contents/MacOS"
        (tmp_path / "Contents/Resources").mkdir(parents=True)
        macos.mkdir()
        write_script(macos / "OrvaneService", LAUNCHER + body)
        (tmp_path / "work").mkdir()
        trial = Trial(tmp_path / "Contents", tmp_path / "work", Plan((), client, seconds))
        with caplog.at_level(logging.INFO):
            try:
                run.classes = trial.run_service("training", "give what is right").loaded_classes()
                error = []
            except UserError as raised:
                error = [*raised.printed, str(raised)]
        run.logged = [record.getMessage() for record in caplog.records]
        return error

    return run


def commands_left(word):
    """The commands that have this word in them. A process that was killed is listed until it has ended."""
    deadline = time.monotonic() + 10
    while True:
        listed = subprocess.check_output(["ps", "-axo", "command="], text=True).splitlines()
        found = [line for line in listed if word in line]
        if not found or time.monotonic() > deadline:
            return found
        time.sleep(0.05)


def test_the_client_is_started_when_the_main_class_has_been_loaded(run):
    assert run(f'sleep 0.5\ntouch "$TMPDIR/up"\nload_main\n{WAITS}', '[ -e "$TMPDIR/up" ]') == []


def test_a_client_that_ends_at_once_does_not_end_a_service_that_loads_more(run):
    body = "load_main\n"
    for name in "first.First", "last.Last":
        body += f'sleep 0.4\necho "{name} source: jrt:/java.sql" >>"$trace"\n'
    assert run(body + WAITS, "true") == []
    assert list(run.classes) == ["com.vaultory.service.QRService", "first.First", "last.Last"]


def test_a_run_that_ends_before_the_main_class_is_loaded_has_failed(run):
    assert run("echo 'nothing to do'\n", "true") == [
        "nothing to do",
        "training was ended without having loaded com.vaultory.service.QRService after 0 s, see above; "
        "give what is right",
    ]


def test_a_service_that_fails_is_named_not_the_client_that_waits_for_it(run):
    client = "while :; do sleep 0.1; done"
    assert run("load_main\nsleep 0.3\necho 'no database'\nexit 3\n", client) == [
        "no database",
        "training ended with status 3 after 0 s, see above; give what is right",
    ]


def test_a_service_that_fails_is_named_not_the_client_that_failed_over_it(run):
    assert run("load_main\nsleep 0.5\nexit 3\n", "echo 'connection refused'; exit 7") == [
        "training ended with status 3 after 0 s, see above; give what is right"
    ]


def test_an_exception_from_main_ends_the_run_at_once_though_threads_keep_the_service(run):
    start = time.monotonic()
    body = f"""load_main
echo 'Exception in thread "main" java.lang.IllegalStateException: no database'
printf '\\tat %s\\n' a.A.a a.A.b a.A.c a.A.d a.A.e a.A.f a.A.g a.A.h a.A.i a.A.j a.A.k a.A.l
echo 'Caused by: java.io.IOException: disk'
printf '\\tat %s\\n' b.B.a b.B.b
printf '\\t... 12 more\\n'
{WAITS}"""
    assert run(body, "while :; do sleep 0.1; done") == [
        'Exception in thread "main" java.lang.IllegalStateException: no database',
        "\tat a.A.a",
        "Caused by: java.io.IOException: disk",
        "\tat b.B.a",
        "training ended with an exception from main after 0 s, see above; give what is right",
    ]
    assert time.monotonic() - start < 30


def test_a_client_that_fails_is_named_with_what_it_printed(run):
    assert run(f"load_main\necho ready\n{WAITS}", "echo '404 not found' >&2; exit 22") == [
        "404 not found",
        "training's client ended with status 22 after 0 s, see above; give another --training-command",
    ]


def test_a_client_that_does_not_end_is_named_at_the_limit(run):
    assert run(f"load_main\n{WAITS}", "while :; do sleep 0.1; done", seconds=1) == [
        "training's client had not ended after 1 s, see above; give a --training-command that ends, or "
        "more --training-seconds"
    ]


@pytest.mark.parametrize("client", ["while :; do sleep 0.1; done", "sleep 0.4; exit 7"])
def test_a_service_that_ends_well_has_ended_too_early_for_a_client_that_needs_it(run, client):
    assert run("load_main\nsleep 0.2\n", client) == [
        "training ended with status 0, before its client did, after 0 s, see above; give "
        "--training-argument with which the service waits for it, or no --training-command"
    ]


def test_a_client_that_ends_shortly_after_the_service_it_has_stopped_is_right(run):
    client = 'touch "$TMPDIR/stop"; sleep 0.5'
    assert run('load_main\nuntil [ -e "$TMPDIR/stop" ]; do sleep 0.1; done\n', client) == []


GROUP_OF_ITS_OWN = (
    f"{sys.executable} -c 'import os, time; os.setpgid(0, 0); time.sleep(1000) # WORD'"
)


@pytest.mark.parametrize(
    "client",
    ["trap '' TERM HUP; while :; do sleep 0.1; : WORD; done", f"{GROUP_OF_ITS_OWN} & wait"],
    ids=["loops", "has a group of processes"],
)
def test_nothing_of_a_client_that_goes_on_is_left(run, platform, tmp_path, client):
    word = tmp_path.name
    assert len(run(f"load_main\n{WAITS}", client.replace("WORD", word), seconds=1)) == 1
    assert commands_left(word) == []


def test_what_service_and_client_leave_is_ended_removed_and_named(run, platform, tmp_path):
    service_s = "sleep 1001 &\ntouch service.db\n"
    assert run(f"{service_s}load_main\n{WAITS}", 'sleep 1002 & mkdir "$TMPDIR/d"') == []
    assert sorted(run.logged) == [
        "Left running by the service or its client, ended: sleep 1001",
        "Left running by the service or its client, ended: sleep 1002",
        "Written by the service or its client, removed: tmp/d",
        "Written by the service or its client, removed: training/Contents/MacOS/service.db",
    ]
    assert os.listdir(tmp_path / "work/tmp") == []


def test_what_has_left_the_session_is_found_by_its_environment(run):
    macos.needs("/proc")
    assert run(f"load_main\n{WAITS}", "setsid sleep 1003 & sleep 0.5") == []
    assert run.logged == ["Left running by the service or its client, ended: sleep 1003"]
