"""Starts in a row and at once, and kills."""

import contextlib
import pathlib
import time

KILLS = 12
KILLED = 128 + 9


def files(bundle):
    return sorted(pathlib.Path(bundle.home or bundle.app).rglob("*"))


def test_killed_at_any_moment_it_has_written_a_prefix_of_its_output_and_leaves_no_files(bundle):
    before = files(bundle)
    begun = time.monotonic()
    whole = bundle.run("version")
    duration = time.monotonic() - begun
    ends = []
    for number in range(KILLS):
        with bundle.start("version") as process:
            time.sleep(number * duration / KILLS)
            process.kill()
            ends.append(process.finish())
    assert KILLED in [end.status for end in ends]
    for end in ends:
        assert end == whole or end == (KILLED, whole.stdout[: len(end.stdout)], b"")
    assert files(bundle) == before
    assert bundle.run("version") == whole


def test_starts_in_a_row_and_at_once_are_all_alike(bundle):
    whole = bundle.run("version")
    assert whole.status == 0
    assert [bundle.run("version") for _ in range(4)] == [whole] * 4
    with contextlib.ExitStack() as processes:
        started = [processes.enter_context(bundle.start("version")) for _ in range(6)]
        assert [process.finish() for process in started] == [whole] * 6
