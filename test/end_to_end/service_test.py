"""The installed bundle runs its service, the sample, on its real Java runtime."""

import re
import signal

import pytest

from support import VERSION, expected
from support.bundle import CDS_ARCHIVE, JAR, java_version, with_every_jdk

RUNNING = b"Running until a signal ends it.\n"
STATES = {  # of a complete installation that has not been upgraded yet
    "orv.log.config": "file",
    "orv.service.bin.path": "directory",
    "java.library.path": "directory",
    "jna.library.path": "directory",
    "orv.config.defaultPath": "directory",
    "orv.service.upgrade.path": "missing",
}


def picked_up(options):
    return f"Picked up JAVA_TOOL_OPTIONS: {options}\n".encode()


@with_every_jdk
def test_the_service_gets_what_the_launcher_passes(bundle):
    report = bundle.report(bundle.run("a", "b"), b"a", b"b")
    options = [option.decode() for option in expected.options(bundle.home.encode())]
    values = dict(option[2:].split("=", 1) for option in options if option.startswith("-D"))
    assert min(report.pop("heap").values()) > 0
    assert report == {
        "version": VERSION,
        "arguments": ["a", "b"],
        "options": options,
        "properties": {name: value for name, value in values.items() if name not in STATES},
        "java": {
            "java.version": java_version(bundle.app.parent),
            "java.home": str(bundle.resource("jre")),
            "user.dir": str(bundle.contents / "MacOS"),
        },
        "paths": [
            {"state": "file", "name": "java.class.path", "path": "../Resources/" + JAR},
            {"state": "directory", "name": "java.class.path", "path": "../Resources/lang"},
            *(
                {"state": state, "name": name, "path": values[name]}
                for name, state in STATES.items()
            ),
        ],
        "messages": "found",
        "missing": ["orv.service.upgrade.path"],
    }


def test_arguments_arrive_byte_for_byte(bundle):
    arguments = [
        "",
        " ",
        "two words",
        "two\nlines",
        "\ttab",
        "Grüße",
        "日本",
        '"quoted"',
        "back\\slash",
        "a-b",
        "é" * 3000,
    ]
    encoded = [argument.encode() for argument in arguments]
    assert bundle.report(bundle.run(*encoded), *encoded)["arguments"] == arguments


def test_the_lines_of_the_override_file_take_effect(bundle, root):
    lines = [
        b"-Xmx64m",
        b"-Dorv.security.mode=strict\r",
    ]  # the carriage return is part of the value
    root.put(bundle.override_file, b"".join(line + b"\n" for line in lines))
    report = bundle.report(
        bundle.run("a", tool_options="-XX:+UseG1GC"),
        b"a",
        lines=lines,
        stderr=picked_up("-XX:+UseG1GC"),
    )
    assert report["heap"]["maximum"] == 64 << 20
    assert report["properties"]["orv.security.mode"] == "strict\r"


def test_an_exception_that_leaves_main_gives_status_0(bundle):
    result = bundle.run("throw", "No disk.")
    trace = re.sub(rb":\d+\)", b":N)", result.stderr)
    assert result._replace(stderr=trace) == (
        0,
        bundle.until_main(b"throw", b"No disk.") + expected.COMPLETE,
        b'Exception in thread "main" java.lang.IllegalStateException: No disk.\n'
        b"\tat com.vaultory.service.QRService.main(QRService.java:N)\n",
    )


@with_every_jdk
def test_the_status_of_System_exit_is_the_exit_status(bundle):
    assert bundle.run("exit", "3") == (3, bundle.until_main(b"exit", b"3"), b"")


@with_every_jdk
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_signal_runs_the_shutdown_hooks(bundle, number):
    with bundle.start("stay", "1000") as process:
        process.expect(bundle.until_main(b"stay", b"1000") + RUNNING)
        process.send_signal(number)
        assert process.finish() == (128 + number, b"Stopped cleanly.\n", b"")


def test_SIGQUIT_writes_a_thread_dump_and_the_service_continues(bundle):
    with bundle.start("stay", "1000") as process:
        process.expect(bundle.until_main(b"stay", b"1000") + RUNNING)
        process.send_signal(signal.SIGQUIT)
        dump = process.read_until(b"JNI global refs")
        assert re.match(rb"\d+-\d+-\d+ \d+:\d+:\d+\nFull thread dump ", dump)
        assert b"at com.vaultory.service.QRService.main(" in dump
        process.send_signal(signal.SIGTERM)
        result = process.finish()
        assert (result.status, result.stdout[-17:]) == (143, b"Stopped cleanly.\n")


def test_a_remaining_thread_keeps_the_process_running_after_completion(bundle):
    assert bundle.run("linger", "1") == (
        0,
        bundle.until_main(b"linger", b"1")
        + b"Returning with a thread still running.\n"
        + expected.COMPLETE
        + b"The remaining thread has ended.\n",
        b"",
    )


@with_every_jdk
def test_the_VMs_own_check_of_JNI_calls_finds_nothing(bundle):
    arguments = [b"version", b"", "Grüße".encode()]
    assert bundle.run(*arguments, tool_options="-Xcheck:jni") == (
        0,
        bundle.until_main(*arguments) + f"{VERSION}\n".encode() + expected.COMPLETE,
        picked_up("-Xcheck:jni"),
    )


@with_every_jdk
def test_the_classes_of_the_service_come_from_the_CDS_archive(bundle):
    result = bundle.run("version", tool_options="-Xlog:class+load:stderr")
    sources = re.findall(rb" com\.vaultory\.\S+ source: (.*)", result.stderr)
    assert (result.status, set(sources)) == (0, {b"shared objects file"})


@pytest.mark.parametrize("size", [0, 1000])
def test_without_a_CDS_archive_or_with_a_truncated_one_the_service_runs(copied, size):
    copied.truncate(CDS_ARCHIVE, size)
    result = copied.run("version")
    # JDK 21 and later warn on standard output.
    stdout = re.sub(rb"\[[\d.]+s\]\[warning\]\[cds\] .*\n", b"", result.stdout)
    assert result._replace(stdout=stdout) == (
        0,
        copied.until_main(b"version") + f"{VERSION}\n".encode() + expected.COMPLETE,
        b"",
    )


def test_the_program_in_the_bin_directory_prints_the_version_alone(copied):
    copied.replace(
        JAR, copied.resource(JAR).read_bytes()
    )  # of another time: the archive does not fit
    assert copied.root.run([copied.resource("bin/service-version")]) == (
        0,
        f"{VERSION}\n".encode(),
        b"",
    )
