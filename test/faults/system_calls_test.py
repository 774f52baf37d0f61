"""Each system call on the override file fails in turn, by strace's injection."""

import re
import unittest

from support import platform
from support.launcher import Launcher, finished

LINES = [b"-Xmx%dm" % size + b" " * 3000 for size in range(1, 9)]
CONTENT = b"".join(line + b"\n" for line in LINES)
PATH = "/Library/Application Support/Quillrest/conf/jvm_args"
TRACE = "/tmp/trace"


class SystemCallsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.launcher = Launcher(self)
        self.launcher.put_override_file(CONTENT)

    def run_traced(self, *injection):
        """The run, and its calls on the override file as (name, result)."""
        run = self.launcher.run(by=["strace", "-o", TRACE, "-P", PATH, *injection, "--"])
        trace = self.launcher.root.path(TRACE).read_text()
        return run, re.findall(r"^(\w+)\(.*\) += (-?\d+)", trace, re.MULTILINE)

    def run_failing(self, call, error, number, onwards=""):
        run, calls = self.run_traced("-e", f"inject={call}:error={error}:when={number}{onwards}")
        self.assertEqual([result for name, result in calls if name == call][number - 1], "-1")
        return run, calls

    def reads(self):
        """How many reads a run makes that nothing disturbs, which makes no other calls."""
        run, calls = self.run_traced()
        self.assertEqual(run, finished(lines=LINES))
        names = [name for name, _ in calls if name not in ("newfstatat", "lseek")]
        self.assertEqual(names, ["openat", *["read"] * (len(names) - 2), "close"])
        self.assertGreater(len(names), 4)
        return len(names) - 2

    def test_whatever_keeps_the_file_from_being_opened_it_counts_as_absent(self):
        for error in ("ENOENT", "ENOTDIR", "EACCES", "EPERM", "ELOOP", "EMFILE", "ENFILE",
                      "ENOMEM", "EINTR", "EIO"):
            with self.subTest(error):
                run, calls = self.run_failing("openat", error, 1)
                self.assertEqual((run, calls), (finished(), [("openat", "-1")]))

    def test_a_read_error_counts_as_the_end_of_the_file(self):
        for number in range(1, self.reads() + 1):
            for error in "EIO", "EISDIR", "ENOMEM", *["EINTR"] * platform.RETRIES_NO_READ:
                with self.subTest(error, number=number):
                    run, calls = self.run_failing("read", error, number, "+")
                    read = sum(int(result) for name, result in calls
                               if name == "read" and result != "-1")
                    lines = CONTENT[:read].split(b"\n")
                    last = lines.pop()
                    if last and platform.KEEPS_LINE_CUT_SHORT:
                        lines.append(last)
                    self.assertEqual(run, finished(lines=lines))

    def test_after_an_interrupted_read_the_list_is_whole_unless_the_library_retries_no_read(self):
        for number in range(1, self.reads() + 1):
            with self.subTest(number=number):
                run = self.run_failing("read", "EINTR", number)[0]
                if run != finished(lines=LINES):
                    self.assertTrue(platform.RETRIES_NO_READ)
                    self.assertEqual((run.status, run.stderr), (0, b""))

    def test_an_error_of_closing_is_of_no_consequence(self):
        for error in "EIO", "EINTR", "EBADF":
            with self.subTest(error):
                self.assertEqual(self.run_failing("close", error, 1)[0], finished(lines=LINES))
