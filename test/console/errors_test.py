"""C++ errors out of the runtime's functions."""

import pytest

from support import expected, impossible, platform
from support.launcher import ABORTED, Run

CALLS = expected.calls(arguments=[b"a"])
DESTRUCTION = CALLS[-1:]
BEFORE_VM = expected.before_vm(arguments=[b"a"])
STARTED = BEFORE_VM + expected.STARTING
COMPLETE = STARTED + expected.COMPLETE


def by_function(*cases):
    """Parameters for (function, standard output, calls), named by the function."""
    return pytest.mark.parametrize(
        "function, stdout, calls", cases, ids=[case[0] for case in cases]
    )


@by_function(
    ("JNI_CreateJavaVM", BEFORE_VM, CALLS[:1]),
    ("FindClass", BEFORE_VM, CALLS[:2] + DESTRUCTION),
    ("GetStaticMethodID", BEFORE_VM, CALLS[:3] + DESTRUCTION),
    ("AttachCurrentThread", STARTED, CALLS[:4] + DESTRUCTION),
    ("FindClass 2", STARTED, CALLS[:5] + DESTRUCTION),
    ("NewStringUTF", STARTED, CALLS[:6] + DESTRUCTION),
    ("NewObjectArray", STARTED, CALLS[:7] + DESTRUCTION),
    ("NewStringUTF 2", STARTED, CALLS[:8] + DESTRUCTION),
    ("SetObjectArrayElement", STARTED, CALLS[:9] + DESTRUCTION),
    ("CallStaticVoidMethod", STARTED, CALLS[:11] + DESTRUCTION),
    ("DetachCurrentThread", STARTED, CALLS[:12] + DESTRUCTION),
)
def test_a_runtime_error_out_of_any_call_is_reported_with_the_vm_destroyed(
    system_wide, function, stdout, calls
):
    if platform.FOREIGN_ERRORS:
        impossible("the runtime's C++ library is another than the program's")
    assert system_wide.run(b"a", error="runtime_error " + function) == Run(
        1, stdout, expected.vm_error(b"a runtime error"), calls
    )


def test_an_error_derived_from_a_runtime_error_is_reported_with_its_own_message(system_wide):
    if platform.FOREIGN_ERRORS:
        impossible("the runtime's C++ library is another than the program's")
    assert system_wide.run(b"a", error="derived_error CallStaticVoidMethod") == Run(
        1, STARTED, expected.vm_error(b"a derived error"), CALLS[:11] + DESTRUCTION
    )


@pytest.mark.parametrize(
    "error, kind, what",
    [
        ("int", b"int", None),
        ("logic_error", b"std::logic_error", b"a logic error"),
    ],
    ids=["int", "logic_error"],
)
@by_function(
    ("JNI_CreateJavaVM", BEFORE_VM, CALLS[:1]),
    ("CallStaticVoidMethod", STARTED, CALLS[:10]),
)
def test_an_error_of_another_kind_aborts_the_run(
    system_wide, error, kind, what, function, stdout, calls
):
    assert system_wide.run(b"a", error=f"{error} {function}") == Run(
        ABORTED,
        stdout,
        platform.terminated(kind, what, thrown_by_runtime=True),
        calls,
        normal_end=False,
    )


@by_function(
    ("DeleteLocalRef", STARTED, CALLS[:11]),
    ("DestroyJavaVM", COMPLETE, CALLS[:13]),
)
def test_an_error_while_something_is_released_aborts_the_run(system_wide, function, stdout, calls):
    run = system_wide.run(b"a", error="runtime_error " + function)
    assert run.stderr in platform.terminated_by_runtime(b"std::runtime_error", b"a runtime error")
    assert run == Run(ABORTED, stdout, run.stderr, calls, normal_end=False)
