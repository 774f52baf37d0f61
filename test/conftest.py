import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
sys.dont_write_bytecode = True

from support import macos, unavailable  # noqa: E402
from support.launcher import Launcher  # noqa: E402
from support.root import Root  # noqa: E402


@pytest.hookimpl(trylast=True)
def pytest_runtest_call(item):
    """Called after the test itself, if that has passed."""
    macos.check(item.nodeid)


def _root():
    if os.environ.get("NO_ROOT"):
        unavailable(os.environ["NO_ROOT"])
    with Root() as root:
        yield root


@pytest.fixture(scope="session", autouse=True)
def leftovers():
    """What an earlier run left that was killed is removed first."""
    if not os.environ.get("NO_ROOT"):
        Root.recover()


# The directories of a Mac, for one test or for all tests of a file.
root = pytest.fixture(_root)
module_root = pytest.fixture(_root, scope="module")


@pytest.fixture
def system_wide(root):
    """The launcher in /Applications, over the stand-in for the runtime."""
    return Launcher(root)


@pytest.fixture
def per_user(root):
    """The same in alice's Applications."""
    return Launcher(root, "/Users/alice/Applications")
