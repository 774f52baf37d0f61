"""A run's system calls as strace lists them, and with one on the override file failing."""

import re

import pytest

from support import platform
from support.launcher import OVERRIDE_FILE, finished
from support.macos import needs
from support.root import SCRATCH

LINES = [b"-Xmx%dm" % size + b" " * 3000 for size in range(1, 9)]
CONTENT = b"".join(line + b"\n" for line in LINES)
TRACE = SCRATCH + "/trace"

# Calls that touch neither a file's content nor another process, and those of the dynamic loader.
HARMLESS = (
    r"brk|mmap|munmap|mprotect|futex|getrandom|arch_prctl|set_tid_address|set_robust_list|"
    r"rseq|prlimit64|gettid|getpid|(newfstatat|fstat|lseek)\(\d"
)
LOADER = (
    r'execve\(|getcwd\(|f?access(at)?\(.*ld\.so|openat\(.*\.so[.\d]*(cache)?", O_RDONLY\|O|'
    r"(read|pread64|close)\(\d+<[^>]*\.so[.\d]*(cache)?>"
)


@pytest.fixture
def launcher(system_wide):
    needs("strace")
    system_wide.put_override_file(CONTENT)
    return system_wide


def summary(trace):
    """The calls of a trace in order, as "name file", equal neighbours as one; what the dynamic
    loader does is left out up to the first write."""
    found = []
    for line in re.sub(r"^\d+ +", "", trace, flags=re.MULTILINE).splitlines():
        if re.match(HARMLESS, line) or not found and re.match(LOADER, line):
            continue
        call = re.match(
            r'(\w*)\(?(?:AT_FDCWD<.*>, ".*/(.*)", ([A-Z_|]+)|(\d*)(?:<.*/(.*)>)?)', line
        )
        words = " ".join(filter(None, call.groups()))
        if words and found[-1:] != [words]:
            found.append(words)
    return found


WITHOUT_FILE = ["write 1", "openat jvm_args O_RDONLY", "write 1"]
WITH_FILE = [*WITHOUT_FILE, "read 3 jvm_args", "close 3 jvm_args", "write 1"]


@pytest.mark.parametrize(
    "arguments, behaviour, calls",
    [
        pytest.param([b"a"], {}, [*WITH_FILE, "exit_group 0"], id="system-wide"),
        pytest.param(
            [b"-Duser.install=1"],
            {},
            [*WITHOUT_FILE, "exit_group 0"],
            id="without an override file",
        ),
        pytest.param([b"-x"], {}, ["write 1", "write 2", "exit_group 1"], id="rejected argument"),
        pytest.param(
            [], {"create_status": -1}, [*WITH_FILE, "write 2", "exit_group 1"], id="no VM"
        ),
    ],
)
def test_a_run_reads_the_override_file_writes_its_two_streams_and_does_nothing_else(
    launcher, arguments, behaviour, calls
):
    launcher.run(
        *arguments, record="", **behaviour, prefix=["strace", "-f", "-y", "-o", TRACE, "--"]
    )
    assert summary(launcher.root.path(TRACE).read_text()) == calls


def run_failing(launcher, call, error, number, onwards=""):
    """The run in which this call fails, and its calls on the override file as (name, result)."""
    run = launcher.run(
        prefix=[
            "strace",
            "-o",
            TRACE,
            "-P",
            OVERRIDE_FILE,
            "-e",
            f"inject={call}:error={error}:when={number}{onwards}",
            "--",
        ]
    )
    trace = launcher.root.path(TRACE).read_text()
    calls = re.findall(r"^(\w+)\(.*\) += (-?\d+)", trace, re.MULTILINE)
    assert [result for name, result in calls if name == call][number - 1] == "-1"
    return run, calls


def lines_read(calls):
    """The lines of the override file in what these calls read of it; libc++ keeps one cut short."""
    read = sum(int(result) for name, result in calls if name == "read" and result != "-1")
    lines = CONTENT[:read].split(b"\n")
    return lines if platform.LIBCXX and lines[-1] else lines[:-1]


@pytest.mark.parametrize("error", ["ENOENT", "EACCES", "EMFILE", "ENOMEM", "EINTR", "EIO"])
def test_whatever_keeps_the_file_from_being_opened_it_counts_as_absent(launcher, error):
    assert run_failing(launcher, "openat", error, 1) == (finished(), [("openat", "-1")])


@pytest.mark.parametrize("error", ["EIO", "EISDIR", "ENOMEM", *["EINTR"] * platform.LIBCXX])
@pytest.mark.parametrize("number", [1, 2, 3])
def test_a_read_error_counts_as_the_end_of_the_file(launcher, error, number):
    run, calls = run_failing(launcher, "read", error, number, "+")
    assert run == finished(lines=lines_read(calls))


@pytest.mark.parametrize("number", [1, 2, 3])
def test_after_an_interrupted_read_libstdcxx_retries_and_libcxx_stops(launcher, number):
    run, calls = run_failing(launcher, "read", "EINTR", number)
    assert run == finished(lines=lines_read(calls) if platform.LIBCXX else LINES)
