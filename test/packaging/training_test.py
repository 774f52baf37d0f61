"""The run of the service that shows which modules and classes it loads."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

import pytest
from bundler import trial
from bundling import EXECUTABLE, JAVA, JDK, bundle, this_platform, write_jar
from support import ROOT

KIND = "linked" if JAVA in (24, 25) else "plain"
# The class that the service loads by itself is in an archive of linked classes, too.
ARCHIVED = 6 if KIND == "linked" else 5
LEFT = [
    "Left running by the service or its client, ended: sleep 987",
    "Left running by the service or its client, ended: sleep 987",
    "Written by the service or its client, removed: tmp/ready",
    "Written by the service or its client, removed: training/Contents/MacOS/service.db",
]


def test_a_bundle_is_made_of_whatever_a_class_path_can_hold(vendor, trained):
    status, lines = trained.result
    modules = dict(line.split(": ") for line in lines if line.startswith("Modules"))
    assert (status, [line for line in lines if not line.startswith("Modules")]) == (
        0,
        [
            "Looking up the modules that the jars refer to: N s",
            *LEFT,
            "Running the service once: N s",
            "Linking the runtime: N s",
            "Locale data: en,de",
            "Archiving the classes that it loaded: N s",
            *LEFT,
            "Running it from the bundle: N s",
            f"Classes of the service in this run, from the archive ({KIND}): {ARCHIVED} of 6",
            "Made a dist/Orvane.app",
            f"Packing a dist/Orvane-2.1.0-{this_platform()}.tar.gz: N s",
            f"Not in the bundle, though classes come from there: {vendor}/plugin.jar",
        ],
    ), trained.result
    # Only the class for Java 11 refers to SQL, only the run shows the German names of the days.
    assert modules["Modules, jdeps"] == "java.base java.sql (2)"
    assert "jdk.localedata" in modules["Modules, training"].split()
    assert (vendor / "client-ran").read_text() == f"{vendor}\n"


READY = "bundle-*/tmp/ready"  # in TMPDIR; the service makes it when it serves
REMEDY = "give --training-argument with which the service ends well, or --no-archive"


@pytest.mark.parametrize(
    "arguments, shown, wrong",
    [
        (["exit"], [], f"training ended with status 3 after N s, see above; {REMEDY}"),
        (
            ["throw"],
            [
                '  | Exception in thread "main" java.lang.IllegalStateException: no database',
                "  | \tat com.vaultory.service.QRService.main(QRService.java:N)",
                "  | Service is complete.",
            ],
            f"training ended with an exception from main after N s, see above; {REMEDY}",
        ),
        (
            ["-x"],
            ["  | Launching as system", "  | Illegal argument encountered: '-x'."],
            "--training-argument: the launcher rejects these, see above; give others",
        ),
    ],
    ids=["exit", "throw", "illegal"],
)
def test_training_that_fails_prints_why_and_leaves_the_former_bundle(
    tmp_path, vendor, arguments, shown, wrong
):
    former = tmp_path / "dist/Orvane.app/former"
    former.mkdir(parents=True)
    service = vendor / "mine/service.jar"
    run = bundle("--main-jar", service, "--training-argument", *arguments, cwd=tmp_path)
    first, *printed, last = [re.sub(r"java:\d+", "java:N", line) for line in run.lines]
    assert first == "Looking up the modules that the jars refer to: N s"
    assert (run.status, last) == (1, f"bundle: {wrong}")
    assert printed == shown
    assert sorted(tmp_path.rglob("*")) == [former.parents[1], former.parent, former]


def test_a_class_path_that_leads_out_of_the_bundle_is_a_failure(tmp_path, vendor, classes):
    below = vendor / "mine/lib/below/one.jar"
    names = "com/", "upper/", "vendor/", "versioned/"
    inside = {name: data for name, data in classes.items() if name.startswith(names)}
    write_jar(tmp_path / "service.jar", inside, f"Class-Path: {below.as_uri()}\r\n")
    assert bundle("--main-jar", "service.jar", cwd=tmp_path) == (
        1,
        [
            "Looking up the modules that the jars refer to: N s",
            "Running the service once: N s",
            f"bundle: --input: classes come from '{below}', which is not in the bundle; the Class-Path of "
            "service.jar names it; name it in --input as well",
        ],
    )


def test_with_an_agent_the_archive_is_of_a_kind_that_allows_it_or_the_VM_says_why_not(
    tmp_path, classes
):
    write_jar(
        tmp_path / "agent.jar",
        {"agent/Agent.class": classes["agent/Agent.class"]},
        "Premain-Class: agent.Agent\r\n",
    )
    names = "com/", "below/", "upper/", "vendor/", "versioned/"
    inside = {name: data for name, data in classes.items() if name.startswith(names)}
    write_jar(tmp_path / "service.jar", inside)
    run = bundle(
        *("--main-jar", "service.jar"),
        *("--input", "agent.jar"),
        *("--java-options", "-javaagent:../Resources/lib/agent.jar"),
        cwd=tmp_path,
    )
    if JAVA < 25:  # the VM's own words, and what to do
        assert "AllowArchivingWithJavaAgent" in run.lines[-3] + run.lines[-2], run
        line = (
            "bundle: the VM makes no archive, see above; --no-archive makes the bundle without one"
        )
        assert run.lines[-1] == line
    else:
        assert run.lines[-2:] == [
            "Classes of the service in this run, from the archive (cache): 6 of 6",
            "Made dist/Orvane.app",
        ]


@pytest.fixture
def short_directory():
    """An empty directory whose path has no space: the VM's options take none."""
    directory = pathlib.Path(tempfile.mkdtemp(dir="/tmp")).resolve()
    yield directory
    directory.rmdir()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_an_interrupted_run_takes_service_and_client_with_it_and_leaves_nothing(
    tmp_path, vendor, short_directory, number
):
    mark = short_directory.name  # by which both are found among the processes
    command = [
        *(ROOT / "script/bundle", "--executable", EXECUTABLE),
        *("--main-jar", vendor / "mine/service.jar", "--input", vendor / "mine/lib"),
        *("--training-argument", "serve", "--training-argument", mark),
        *("--training-command", f"while sleep 0.1; do : {mark}; done"),
    ]
    environment = {**os.environ, "TMPDIR": str(short_directory)}
    with subprocess.Popen(
        command, cwd=tmp_path, stderr=subprocess.DEVNULL, env=environment
    ) as script:
        deadline = time.monotonic() + 100
        both = [f"./OrvaneService serve {mark}", f"/bin/sh -c while sleep 0.1; do : {mark}; done"]
        while children_with(mark) != both or not list(short_directory.glob(READY)):
            assert script.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)
        script.send_signal(number)
        assert script.wait(60) == 128 + number
    assert children_with(mark) == []
    assert [*tmp_path.iterdir(), *short_directory.iterdir()] == []


def children_with(word):
    """The commands of the bundler's children that have this word."""
    listed = subprocess.check_output(["ps", "-axo", "command="], text=True).splitlines()
    return sorted(line for line in listed if word in line and "script/bundle" not in line)


def test_no_other_option_lets_the_VM_start_when_the_launcher_is_to_print_its_options():
    run = subprocess.run(
        [JDK / "bin/java", "-XX:+IgnoreUnrecognizedVMOptions", "-version"],
        env={**os.environ, "JAVA_TOOL_OPTIONS": trial.REJECTED},
        capture_output=True,
    )
    assert run.returncode == 1
