import re
import socket
import subprocess

import pytest

from support import VERSION, expected
from support.launcher import ALICE, PER_USER, PROGRAM, Run, finished
from support.macos import needs


def writes(launcher, *arguments, with_stderr=False, **behaviour):
    """The status and each write of a run to standard output, the stand-in's record among them."""
    needs("local sockets that keep packets apart")
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    streams = {"stdout": theirs, **({"stderr": theirs} if with_stderr else {})}
    written = []
    with ours:
        ours.settimeout(60)
        with theirs:
            process = launcher.start(*arguments, record="-", streams=streams, **behaviour)
        with process:
            try:
                while written[-1:] != [b""]:
                    written.append(ours.recv(1 << 20))
            except socket.timeout:
                raise AssertionError(f"waited 60 s for a write after {written}")
            return process.finish().status, written[:-1]


def test_a_run_flushes_each_message_and_the_listing_once(per_user):
    per_user.put_override_file(b"-Xmx2g\n", "/Users/alice")
    calls = [line.encode() + b"\n" for line in expected.calls(ALICE, [b"-Xmx2g"], [b"a", b"b"])]
    assert writes(per_user, PER_USER, b"a", b"b", output="hello\n") == (
        0,
        [
            b"Launching as user\n",
            b"jvm_args file found, loading arguments\n",
            expected.listing(ALICE, [b"-Xmx2g"], [b"a", b"b"]),
            *calls[:3],
            b"Starting service.\n",
            *calls[3:-3],
            b"hello\n",
            *calls[-3:-1],
            b"Service is complete.\n",
            calls[-1],
            b"exit\n",
        ],
    )


@pytest.mark.parametrize(
    "arguments, file, before, report",
    [
        pytest.param(
            [b"-x"],
            None,
            [b"Launching as system\n"],
            expected.rejected_argument(b"-x"),
            id="the install mode before an argument",
        ),
        pytest.param(
            [],
            b"-x\n",
            [b"Launching as system\n", b"jvm_args file found, loading arguments\n"],
            expected.rejected_line(b"-x"),
            id="the notice of the override file before a line",
        ),
    ],
)
def test_what_precedes_is_flushed_before_something_is_rejected(
    system_wide, arguments, file, before, report
):
    if file is not None:
        system_wide.put_override_file(file)
    status, written = writes(system_wide, *arguments, with_stderr=True)
    assert (status, written[: len(before)], b"".join(written[len(before) :])) == (
        1,
        before,
        report + b"exit\n",
    )


@pytest.mark.parametrize("code", [-6, -2147483648, 1])
def test_a_vm_that_cannot_be_created_is_reported_with_its_code_and_not_destroyed(system_wide, code):
    message = expected.vm_error(b"Error creating JVM: %d" % code)
    assert system_wide.run(create_status=code) == Run(
        1, expected.before_vm(), message, [f"{expected.creation()} = {code}"]
    )


@pytest.mark.parametrize(
    "missing, name, message, made",
    [
        (
            "missing_class",
            "com/vaultory/service/QRService",
            b"Class Error. Couldn't find parent class 'com/vaultory/service/QRService'",
            1,
        ),
        (
            "missing_method",
            "main",
            b"Couldn't find method 'main' with proper signature of '([Ljava/lang/String;)V'",
            2,
        ),
    ],
    ids=["class", "method"],
)
def test_a_missing_class_or_method_is_reported_after_the_vm_has_been_destroyed(
    system_wide, missing, name, message, made
):
    calls = expected.calls()
    record = "".join(
        call + "\n" for call in [*calls[:made], re.sub(r"\w+#1$", "null", calls[made]), calls[-1]]
    ).encode()
    with system_wide.start(
        record="-", streams={"stderr": subprocess.STDOUT}, **{missing: name}
    ) as process:
        result = process.finish()
    assert (result.status, result.stdout) == (
        1,
        expected.before_vm() + record + expected.vm_error(message) + b"exit\n",
    )


@pytest.mark.parametrize(
    "failure, result, changed",
    [
        ("destroy_status", -1, {"DestroyJavaVM() = 0": "DestroyJavaVM() = -1"}),
        ("detach_status", -1, {"DetachCurrentThread() = 0": "DetachCurrentThread() = -1"}),
        (
            "attach_status",
            -5,
            {
                "AttachCurrentThread(null) = env#2": "AttachCurrentThread(null) = -5",
                "env#2": "env#1",
            },
        ),
        ("missing_class", "java/lang/String", {"class#2": "null"}),
        (
            "no_result",
            "NewStringUTF",
            {"string#1": "null", "string#2": "null", '["a"]': "[null]"},
        ),
        ("no_result", "NewObjectArray", {'array#1 ["a"]': "null", "array#1": "null"}),
    ],
    ids=[
        "DestroyJavaVM",
        "DetachCurrentThread",
        "AttachCurrentThread",
        "FindClass of String",
        "NewStringUTF",
        "NewObjectArray",
    ],
)
def test_other_failures_of_the_runtime_are_ignored(system_wide, failure, result, changed):
    calls = "\n".join(expected.calls(arguments=[b"a"]))
    for before, after in changed.items():
        calls = calls.replace(before, after)
    assert system_wide.run(b"a", **{failure: result}) == finished(arguments=[b"a"])._replace(
        calls=calls.split("\n")
    )


def test_the_programs_file_tells_its_version_to_what():
    found = re.findall(rb"@\(#\)[^\0]*", PROGRAM.read_bytes())
    assert found == [f"@(#)OrvaneService {VERSION}".encode()]
