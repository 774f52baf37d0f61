"""What macOS does not have, and the tests that cannot run there because of it: not_on_macos.txt.

A test says with needs() what it uses, and Root says it of a path. On macOS the test is then skipped. On
every system it fails if it is not listed, and a listed test that passes without having needed anything
fails as well: a run on Linux notices a test that a Mac would skip by mistake."""

import os
import pathlib

import pytest

from . import LINUX

LIST = pathlib.Path(__file__).with_name("not_on_macos.txt")

_needed = set()  # (test, facility) of this run


def needs(facility):
    """Skips this test on macOS, which has none of this."""
    test = os.environ["PYTEST_CURRENT_TEST"].rpartition(" ")[0]
    if facility not in _listed(test):
        pytest.fail(f"macOS has no {facility}: do without, or list {test} in {LIST}", pytrace=False)
    if not LINUX:
        pytest.skip(f"macOS has no {facility}")
    _needed.add((test, facility))


def check(test):
    """Fails if this test, which has passed, did not need what it is listed for."""
    for facility in _listed(test):
        if (test, facility) not in _needed:
            pytest.fail(f"no need of {facility}: remove {test} from {LIST}", pytrace=False)


def _listed(test):
    """What the list says that a test needs. A line names a file, a test with all its cases or one case."""
    facilities = set()
    for line in LIST.read_text().splitlines():
        if line and not line.startswith(" "):
            facility = line
        elif line and test.startswith(line.strip()):
            if test[len(line.strip()) :][:1] in ("", ":", "["):
                facilities.add(facility)
    return facilities
