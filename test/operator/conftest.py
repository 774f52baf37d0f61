import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from support import impossible, unavailable  # noqa: E402


@pytest.fixture
def users(root):
    """Other accounts than root, to whom files and processes can belong."""
    from support.root import USER

    if USER is None:
        impossible("there is no ordinary user in this namespace")


@pytest.fixture
def machine(request):
    """A Mac with nothing installed, for the system-wide service or, with the parameter "user", an agent."""
    if os.environ.get("NO_ROOT") or os.geteuid() != 0:
        unavailable(os.environ.get("NO_ROOT") or "root's scripts are tested as root")
    from machine import Machine

    user = getattr(request, "param", "system") == "user"
    if user:
        request.getfixturevalue("users")
    machine = Machine(request.getfixturevalue("root"), user)
    yield machine
    machine.end()
