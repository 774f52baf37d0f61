import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from support import impossible, unavailable  # noqa: E402


@pytest.fixture(scope="module", params=["system", "user"])
def one_machine(request):
    from machine import Machine
    from support.root import USER, Root
    if os.environ.get("NO_ROOT") or os.geteuid() != 0:
        unavailable(os.environ.get("NO_ROOT") or "root's scripts are tested as root")
    if request.param == "user" and USER is None:
        impossible("there is no ordinary user in this namespace")
    with Root() as root:
        machine = Machine(root, request.param == "user")
        yield machine
        machine.shut_down()


@pytest.fixture
def machine(one_machine):
    """A Mac with nothing installed."""
    one_machine.clear()
    return one_machine


@pytest.fixture
def daemon(machine):
    """The same, for what is not different for an agent."""
    if machine.uid:
        impossible("tested with the system-wide service")
    return machine
