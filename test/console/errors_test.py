import unittest

from support import expected, platform
from support.launcher import ABORTED, Launcher, Run

ARGUMENTS = [b"a"]
CALLS = expected.calls(arguments=ARGUMENTS)
BEFORE_VM = expected.before_vm(arguments=ARGUMENTS)

# The calls of a run in order, but for those made with the VM gone or within destructors.
FUNCTIONS = ["JNI_CreateJavaVM", "FindClass", "GetStaticMethodID", "AttachCurrentThread",
             "FindClass 2", "NewStringUTF", "NewObjectArray", "NewStringUTF 2",
             "SetObjectArrayElement", "CallStaticVoidMethod"]
DELETION, DETACHING, DESTRUCTION = len(FUNCTIONS), len(FUNCTIONS) + 1, len(FUNCTIONS) + 2

WHAT = {"int": (b"int",), "logic_error": (b"std::logic_error", b"a logic error"),
        "bad_alloc": (b"std::bad_alloc", b"std::bad_alloc"),
        "runtime_error": (b"std::runtime_error", b"a runtime error"),
        "range_error": (b"std::range_error", b"a range error")}
TERMINATED = {kind: platform.terminated(*what, thrown_by_runtime=True)
              for kind, what in WHAT.items()}
OTHER_KINDS = ["int", "logic_error", "bad_alloc"]


def printed_at(call):
    """Standard output when the call of this index is made."""
    printed = BEFORE_VM
    if call >= FUNCTIONS.index("AttachCurrentThread"):
        printed += expected.STARTING
    if call >= DESTRUCTION:
        printed += expected.COMPLETE
    return printed


def calls_after(call):
    """What is called when a runtime error leaves the call of this index."""
    calls = CALLS[:call + 1]
    if call == FUNCTIONS.index("CallStaticVoidMethod"):
        calls.append(CALLS[DELETION])
    if call > 0:
        calls.append(CALLS[DESTRUCTION])
    return calls


class ErrorsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.launcher = Launcher(self)

    def run_with(self, kind, function):
        return self.launcher.run(*ARGUMENTS, error=f"{kind} {function}")

    def assert_reported(self, kind, message):
        for call, function in [*enumerate(FUNCTIONS), (DETACHING, "DetachCurrentThread")]:
            if platform.FOREIGN_ERRORS:
                self.assert_aborted(kind, call, function)
                continue
            with self.subTest(function):
                self.assertEqual(self.run_with(kind, function), Run(
                    1, printed_at(call), expected.vm_error(message), calls_after(call)))

    def assert_aborted(self, kind, call, function, *other_reports):
        with self.subTest(f"{kind} {function}"):
            run = self.run_with(kind, function)
            self.assertIn(run.stderr, [TERMINATED[kind], *other_reports])
            self.assertEqual(run, Run(ABORTED, printed_at(call), run.stderr, CALLS[:call + 1],
                                      normal_end=False))

    def test_a_runtime_error_out_of_any_call_is_reported_with_the_vm_destroyed(self):
        self.assert_reported("runtime_error", b"a runtime error")

    def test_an_error_derived_from_a_runtime_error_is_reported_too(self):
        self.assert_reported("range_error", b"a range error")

    def test_an_error_of_another_kind_out_of_any_call_aborts_the_run(self):
        for kind in OTHER_KINDS:
            for call, function in [*enumerate(FUNCTIONS), (DETACHING, "DetachCurrentThread")]:
                self.assert_aborted(kind, call, function)

    def test_an_error_of_any_kind_while_something_is_released_aborts_the_run(self):
        for kind in TERMINATED:
            for call, function in (DELETION, "DeleteLocalRef"), (DESTRUCTION, "DestroyJavaVM"):
                self.assert_aborted(kind, call, function, platform.TERMINATED_BY_OTHER_COPY)
