"""The console is closed, full, or a pipe that nobody reads from."""

import os
import unittest

from support import expected
from support.launcher import Launcher, Run, finished

SIGPIPE = 128 + 13

# Runs the command after it with streams redirected as its first argument says.
REDIRECTED = ["sh", "-c", 'redirections=$1; shift; eval "exec \\"\\$@\\" $redirections"', "sh"]
NO_READER = "3<>/tmp/pipe 4>/tmp/pipe 3<&- >&4 4>&-"


def unusable(*streams):
    """The redirections that make these streams, by descriptor, unusable each way."""
    return [" ".join(f"{stream}{way}" for stream in streams) for way in (">&-", ">/dev/full")]


class ConsoleTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.launcher = Launcher(self)

    def run_with(self, redirections, *arguments, by=(), **behaviour):
        return self.launcher.run(*arguments, by=[*REDIRECTED, redirections, *by], **behaviour)

    def test_without_standard_output_or_error_or_both_a_run_has_its_status_and_its_calls(self):
        rejected = Run(1, expected.launching(), expected.rejected_argument(b"-x"), [])
        not_created = Run(1, expected.before_vm(), expected.vm_error(b"Error creating JVM: -1"),
                          [expected.creation() + " = -1"])
        for arguments, behaviour, run in (([b"a"], {}, finished(arguments=[b"a"])),
                                          ([b"-x"], {}, rejected),
                                          ([], {"create_status": -1}, not_created)):
            for streams in (1,), (2,), (1, 2):
                lost = {{1: "stdout", 2: "stderr"}[stream]: b"" for stream in streams}
                for redirections in unusable(*streams):
                    with self.subTest(arguments, redirections=redirections, **behaviour):
                        self.assertEqual(self.run_with(redirections, *arguments, **behaviour),
                                         run._replace(**lost))

    def test_a_closed_standard_output_does_not_turn_up_in_the_override_file(self):
        file = self.launcher.put_override_file(b"-Xmx2g\n")
        self.assertEqual(self.run_with("1>&-"), finished(lines=[b"-Xmx2g"])._replace(stdout=b""))
        self.assertEqual(file.read_bytes(), b"-Xmx2g\n")

    def test_a_pipe_that_nobody_reads_ends_the_run_by_its_signal_before_the_VM_exists(self):
        os.mkfifo(self.launcher.root.path("/tmp/pipe"))
        self.assertEqual(self.run_with(NO_READER), Run(SIGPIPE, b"", b"", [], normal_end=False))

    def test_with_that_signal_ignored_the_service_runs_anyway(self):
        os.mkfifo(self.launcher.root.path("/tmp/pipe"))
        self.assertEqual(self.run_with(NO_READER, by=["env", "--ignore-signal=PIPE"]),
                         finished()._replace(stdout=b""))
