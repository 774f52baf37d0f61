"""The console is closed, full, or a pipe that nobody reads from."""

import pytest

from support import expected
from support.launcher import Run, finished
from support.root import SCRATCH

SIGPIPE = 128 + 13

# Runs the command after it with streams redirected as its first argument says.
REDIRECTED = ["sh", "-c", 'redirections=$1; shift; eval "exec \\"\\$@\\" $redirections"', "sh"]
PIPE = SCRATCH + "/pipe"
NO_READER = f"3<>{PIPE} 4>{PIPE} 3<&- >&4 4>&-"


def run_with(launcher, redirections, *arguments, prefix=(), **behaviour):
    return launcher.run(*arguments, prefix=[*REDIRECTED, redirections, *prefix], **behaviour)


@pytest.mark.parametrize(
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
@pytest.mark.parametrize(
    "redirections, lost",
    [
        (">&-", ["stdout"]),
        (">/dev/full", ["stdout"]),
        ("2>&-", ["stderr"]),
        ("2>/dev/full", ["stderr"]),
        (">&- 2>&-", ["stdout", "stderr"]),
        (">/dev/full 2>/dev/full", ["stdout", "stderr"]),
    ],
    ids=[
        "stdout closed",
        "stdout full",
        "stderr closed",
        "stderr full",
        "both closed",
        "both full",
    ],
)
def test_a_run_without_console_has_its_status_and_its_calls(
    system_wide, redirections, lost, arguments, behaviour, run
):
    assert run_with(system_wide, redirections, *arguments, **behaviour) == run._replace(
        **{stream: b"" for stream in lost}
    )


def test_nothing_is_written_to_the_override_file_instead_of_a_closed_standard_output(system_wide):
    file = system_wide.put_override_file(b"-Xmx2g\n")
    assert run_with(system_wide, ">&-") == finished(lines=[b"-Xmx2g"])._replace(stdout=b"")
    assert file.read_bytes() == b"-Xmx2g\n"


def test_a_pipe_that_nobody_reads_ends_the_run_by_a_signal_unless_that_is_ignored(system_wide):
    assert system_wide.root.run(["mkfifo", PIPE]).status == 0
    assert run_with(system_wide, NO_READER) == Run(SIGPIPE, b"", b"", [], normal_end=False)
    assert run_with(
        system_wide, NO_READER, prefix=["env", "--ignore-signal=PIPE"]
    ) == finished()._replace(stdout=b"")
