import re
import socket
import unittest

from support import expected, platform
from support.launcher import Launcher, Run, finished

USER = b"-Duser.install=1"
ALICE = b"/Users/alice"


def failed(message, calls, after=expected.before_vm()):
    return Run(1, after, expected.vm_error(message), calls)


class MainFlowTest(unittest.TestCase):
    maxDiff = None

    def writes(self, launcher, *arguments, joined_stderr=False, **behaviour):
        """Each write of a run to standard output, the stand-in's record among them."""
        platform.require_packets(self)
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        streams = {"stdout": theirs, **({"stderr": theirs} if joined_stderr else {})}
        with ours:
            ours.settimeout(60)
            with theirs:
                process = launcher.start(*arguments, record="-", streams=streams, **behaviour)
            with process:
                writes = list(iter(lambda: ours.recv(1 << 20), b""))
                return process.finish().status, writes

    def test_a_whole_run_flushes_each_message_and_the_listing_once(self):
        launcher = Launcher(self, "/Users/alice/Applications")
        launcher.put_override_file(b"-Xmx2g\n", "/Users/alice")
        status, writes = self.writes(launcher, USER, b"a", b"b", output="hello\n")
        calls = [line.encode() + b"\n" for line in expected.calls(ALICE, [b"-Xmx2g"], [b"a", b"b"])]
        self.assertEqual((status, writes), (0, [
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
        ]))

    def test_the_install_mode_is_flushed_before_an_argument_is_rejected(self):
        status, writes = self.writes(Launcher(self), b"-x", joined_stderr=True)
        self.assertEqual((status, writes[0], b"".join(writes)),
                         (1, expected.launching(),
                          expected.launching() + expected.rejected_argument(b"-x") + b"exit\n"))

    def test_the_override_files_notice_is_flushed_before_a_line_is_rejected(self):
        launcher = Launcher(self)
        launcher.put_override_file(b"-x\n")
        status, writes = self.writes(launcher, joined_stderr=True)
        self.assertEqual((status, writes[:2], b"".join(writes)),
                         (1, expected.launching(lines=[]).splitlines(keepends=True),
                          expected.launching(lines=[]) + expected.rejected_line(b"-x") +
                          b"exit\n"))

    def test_an_error_is_reported_after_the_vm_has_been_destroyed(self):
        status, writes = self.writes(Launcher(self), joined_stderr=True, missing_method="main")
        calls = expected.calls()
        report = expected.vm_error(b"Couldn't find method 'main' with proper signature of "
                                   b"'([Ljava/lang/String;)V'")
        self.assertEqual((status, b"".join(writes)), (1, expected.before_vm() + "\n".join([
            *calls[:2], calls[2].replace("method#1", "null"), calls[-1], ""]).encode() +
            report + b"exit\n"))

    def test_what_the_service_writes_stands_between_the_two_messages(self):
        self.assertEqual(Launcher(self).run(b"a", output="line\nno end"),
                         finished(arguments=[b"a"], service=b"line\nno end"))

    def test_a_vm_that_cannot_be_created_is_reported_with_its_code_and_not_destroyed(self):
        launcher = Launcher(self)
        for code in -1, -6, -2147483648, 1:
            with self.subTest(code):
                self.assertEqual(launcher.run(b"a", create_status=code), failed(
                    b"Error creating JVM: %d" % code, [f"{expected.creation()} = {code}"],
                    after=expected.before_vm(arguments=[b"a"])))

    def test_a_vm_of_a_per_user_run_that_cannot_be_created_is_reported(self):
        launcher = Launcher(self, "/Users/alice/Applications")
        launcher.put_override_file(b"-Xmx2g\n", "/Users/alice")
        self.assertEqual(launcher.run(USER, create_status=-1), failed(
            b"Error creating JVM: -1", [expected.creation(ALICE, [b"-Xmx2g"]) + " = -1"],
            after=expected.before_vm(ALICE, [b"-Xmx2g"])))

    def test_a_missing_class_or_method_is_reported_and_the_service_not_started(self):
        calls = expected.calls()
        for what, name, message, made in (
                ("missing_class", "com/vaultory/service/QRService",
                 b"Class Error. Couldn't find parent class 'com/vaultory/service/QRService'", 1),
                ("missing_method", "main", b"Couldn't find method 'main' with proper signature of "
                                           b"'([Ljava/lang/String;)V'", 2)):
            with self.subTest(what):
                null = re.sub(r"\w+#1$", "null", calls[made])
                self.assertEqual(Launcher(self).run(**{what: name}),
                                 failed(message, [*calls[:made], null, calls[-1]]))

    def test_what_else_the_runtime_cannot_do_is_ignored(self):
        for what, result, changed in (
                ("destroy_status", -1, {"DestroyJavaVM() = 0": "DestroyJavaVM() = -1"}),
                ("detach_status", -1, {"DetachCurrentThread() = 0": "DetachCurrentThread() = -1"}),
                ("attach_status", -5, {"AttachCurrentThread(null) = env#2":
                                       "AttachCurrentThread(null) = -5", "env#2": "env#1"}),
                ("missing_class", "java/lang/String", {"class#2": "null"})):
            with self.subTest(what):
                calls = "\n".join(expected.calls(arguments=[b"a"]))
                for before, after in changed.items():
                    calls = calls.replace(before, after)
                self.assertEqual(Launcher(self).run(b"a", **{what: result}),
                                 finished(arguments=[b"a"])._replace(calls=calls.split("\n")))
