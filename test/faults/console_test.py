"""The console is closed, full, or a pipe that nobody reads from."""

import pytest

from support import expected
from support.launcher import Run, finished
from support.macos import needs
from support.root import SCRATCH

SIGPIPE = 128 + 13

# Runs the command after it with streams redirected as its first argument says.
REDIRECTED = ["sh", "-c", 'redirections=$1; shift; eval "exec \\"\\$@\\" $redirections"', "sh"]
PIPE = SCRATCH + "/pipe"
NO_READER = f"3<>{PIPE} 4>{PIPE} 3<&- >&4 4>&-"


def run_with(launcher, redirections, *arguments, prefix=(), **behaviour):
    return launcher.run(*arguments, prefix=[*REDIRECTED, redirections, *prefix], **behaviour)


each_end = pytest.mark.parametrize(
    "arguments, behaviour, run",
    [
        pytest.param([b"a"], {}, finished(arguments=[b"a"]), id="whole run"),
        pytest.param(
            [b"-x"],
            {},
            Run(1, expected.launching(), expected.rejected_argument(b"-x"), []),
            id="rejected argument",
        ),
        pytest.param(
            [],
            {"create_status": -1},
            Run(
                1,
                expected.before_vm(),
                expected.vm_error(b"Error creating JVM: -1"),
                [expected.creation() + " = -1"],
            ),
            id="no VM",
        ),
    ],
)


lost_streams = pytest.mark.parametrize(
    "lost", [["stdout"], ["stderr"], ["stdout", "stderr"]], ids=",".join
)


def assert_only_lost(launcher, lost, redirection, arguments, behaviour, run):
    """The run with these streams redirected is the whole one, except for what it wrote to them."""
    redirections = " ".join(redirection[stream] for stream in lost)
    assert run_with(launcher, redirections, *arguments, **behaviour) == run._replace(
        **{stream: b"" for stream in lost}
    )


@each_end
@lost_streams
def test_a_run_with_a_closed_console_has_its_status_and_its_calls(
    system_wide, lost, arguments, behaviour, run
):
    closed = {"stdout": ">&-", "stderr": "2>&-"}
    assert_only_lost(system_wide, lost, closed, arguments, behaviour, run)


@each_end
@lost_streams
def test_a_run_with_a_full_console_has_its_status_and_its_calls(
    system_wide, lost, arguments, behaviour, run
):
    needs("/dev/full")
    full = {"stdout": ">/dev/full", "stderr": "2>/dev/full"}
    assert_only_lost(system_wide, lost, full, arguments, behaviour, run)


def test_nothing_is_written_to_the_override_file_instead_of_a_closed_standard_output(system_wide):
    file = system_wide.put_override_file(b"-Xmx2g\n")
    assert run_with(system_wide, ">&-") == finished(lines=[b"-Xmx2g"])._replace(stdout=b"")
    assert file.read_bytes() == b"-Xmx2g\n"


def test_a_pipe_that_nobody_reads_ends_the_run_by_a_signal_unless_that_is_ignored(system_wide):
    assert system_wide.root.run(["mkfifo", PIPE]).status == 0
    assert run_with(system_wide, NO_READER) == Run(SIGPIPE, b"", b"", [], normal_end=False)
    assert run_with(
        system_wide, NO_READER, prefix=["sh", "-c", "trap '' PIPE; exec \"$@\"", "sh"]
    ) == finished()._replace(stdout=b"")
