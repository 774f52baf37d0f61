"""What the program allocates, counted and let fail by a library loaded before the others."""

import pytest

from support import BUILD_DIR, expected, platform
from support.launcher import ABORTED, ALICE, PER_USER, finished
from support.macos import needs
from support.root import SCRATCH

LINES = [b"-Xmx1g", b"-Dorv.security.mode=" + b"m" * 3000, b"-Djava.net.preferIPv4Stack=true"]
ARGUMENTS = [b"first", b"a second one, too long for a string to keep within itself"]
OUT_OF_MEMORY = platform.terminated(b"std::bad_alloc", b"std::bad_alloc")
INJECTOR = SCRATCH + "/allocation_fault.so"  # LD_PRELOAD takes no path with a space


@pytest.fixture
def launcher(per_user):
    needs("LD_PRELOAD")
    per_user.root.put(INJECTOR, BUILD_DIR / "test/liballocation_fault.so")
    return per_user


def run_failing(launcher, allocation):
    """The run in which the allocation of this number, from 1, fails, and how many there were."""
    run = launcher.run(
        PER_USER,
        *ARGUMENTS,
        env={
            "LD_PRELOAD": INJECTOR,
            "ALLOCATION_FAULT": str(allocation),
            "ALLOCATIONS": SCRATCH + "/allocations",
        },
    )
    return (
        run,
        int(launcher.root.path(SCRATCH + "/allocations").read_text()) if run.status == 0 else None,
    )


def test_whichever_allocation_fails_the_run_aborts_there(launcher):
    launcher.put_override_file(b"\n".join(LINES), "/Users/alice")
    whole = finished(ALICE, LINES, ARGUMENTS)
    run, allocations = run_failing(launcher, 0)
    assert run == whole and allocations > 50
    went_on = []
    for allocation in range(1, allocations + 1):
        run, _ = run_failing(launcher, allocation)
        if run == whole or platform.LIBCXX and run.stdout == whole.stdout:
            went_on.append(allocation)
            continue
        assert (run.status, run.stderr) == (ABORTED, OUT_OF_MEMORY), allocation
        assert run.stdout == whole.stdout[: len(run.stdout)], allocation
        assert run.calls == whole.calls[: len(run.calls)], allocation
        assert expected.COMPLETE not in run.stdout, allocation
    assert len(went_on) <= platform.SPARE_ALLOCATIONS


def test_twice_the_lines_in_the_override_file_take_at_most_twice_the_allocations(launcher):
    needed = []
    for count in 500, 1000:
        lines = [b"-Xmx%096d" % number for number in range(count)]
        launcher.put_override_file(b"\n".join(lines), "/Users/alice")
        run, allocations = run_failing(launcher, 0)
        assert run == finished(ALICE, lines, ARGUMENTS)
        needed.append(allocations)
    assert needed[1] <= 2 * needed[0]
