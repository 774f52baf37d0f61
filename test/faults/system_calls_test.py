"""A run's system calls as strace lists them, whole, and with each one on the override file failing
in turn."""

import re
import unittest

from support import platform
from support.launcher import Launcher, finished

LINES = [b"-Xmx%dm" % size + b" " * 3000 for size in range(1, 9)]
CONTENT = b"".join(line + b"\n" for line in LINES)
PATH = "/Library/Application Support/Quillrest/conf/jvm_args"
TRACE = "/tmp/trace"

# Calls that touch neither a file's content nor another process, and those of the dynamic loader.
HARMLESS = (r"brk|mmap|munmap|mprotect|futex|getrandom|arch_prctl|set_tid_address|set_robust_list|"
            r"rseq|prlimit64|gettid|getpid|(newfstatat|fstat|lseek)\(\d")
LOADER = (r'execve\(|getcwd\(|f?access(at)?\(.*ld\.so|openat\(.*\.so[.\d]*(cache)?", O_RDONLY\|O|'
          r"(read|pread64|close)\(\d+<[^>]*\.so[.\d]*(cache)?>")


def summary(trace):
    """The calls of a trace in order, as "name file", equal neighbours as one; what the dynamic
    loader does is left out up to the first write."""
    found = []
    for line in re.sub(r"^\d+ +", "", trace, flags=re.MULTILINE).splitlines():
        if re.match(HARMLESS, line) or not found and re.match(LOADER, line):
            continue
        call = re.match(r'(\w*)\(?(?:AT_FDCWD<.*>, ".*/(.*)", ([A-Z_|]+)|(\d*)(?:<.*/(.*)>)?)', line)
        words = " ".join(filter(None, call.groups()))
        if words and found[-1:] != [words]:
            found.append(words)
    return found


def lines_read(calls):
    """The lines of the override file out of what these calls read of it."""
    read = sum(int(result) for name, result in calls if name == "read" and result != "-1")
    lines = CONTENT[:read].split(b"\n")
    return lines if platform.KEEPS_LINE_CUT_SHORT and lines[-1] else lines[:-1]


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
        names = [name for name, _ in calls if name not in ("newfstatat", "lseek")]  # of libc++
        self.assertEqual(names, ["openat", *["read"] * (len(names) - 2), "close"])
        self.assertGreater(len(names), 4)
        return len(names) - 2

    def test_a_run_reads_the_override_file_writes_its_two_streams_and_does_nothing_else(self):
        absent = ["write 1", "openat jvm_args O_RDONLY", "write 1"]
        read = [*absent, "read 3 jvm_args", "close 3 jvm_args", "write 1"]
        for arguments, behaviour, calls in (
                ([b"a"], {}, [*read, "exit_group 0"]),
                ([b"-Duser.install=1"], {}, [*absent, "exit_group 0"]),
                ([b"-x"], {}, ["write 1", "write 2", "exit_group 1"]),
                ([], {"create_status": -1}, [*read, "write 2", "exit_group 1"])):
            with self.subTest(arguments, behaviour=behaviour):
                self.launcher.run(*arguments, record="", **behaviour,
                                  by=["strace", "-f", "-y", "-o", TRACE, "--"])
                self.assertEqual(summary(self.launcher.root.path(TRACE).read_text()), calls)

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
                    self.assertEqual(run, finished(lines=lines_read(calls)))

    def test_after_an_interrupted_read_the_list_is_whole_unless_the_library_retries_no_read(self):
        for number in range(1, self.reads() + 1):
            with self.subTest(number=number):
                run, calls = self.run_failing("read", "EINTR", number)
                lines = lines_read(calls) if platform.RETRIES_NO_READ else LINES
                self.assertEqual(run, finished(lines=lines))

    def test_an_error_of_closing_is_ignored(self):
        for error in "EIO", "EINTR", "EBADF":
            with self.subTest(error):
                self.assertEqual(self.run_failing("close", error, 1)[0], finished(lines=LINES))
