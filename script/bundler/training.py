"""The run of the service with all modules of the JDK, which shows what it loads."""

import dataclasses
import logging
import os
import pathlib
import urllib.parse
from typing import FrozenSet

from .commands import step

log = logging.getLogger(__name__)


@dataclasses.dataclass(frozen=True)
class Trained:
    """What the service loaded."""

    modules: FrozenSet[str]
    classes: FrozenSet[str]  # its own, not those of the modules
    class_list: pathlib.Path  # in the VM's format


def train(trial, runtime, modules, java_options):
    """Runs the service once with this runtime, which has these modules."""
    trial.use_runtime(runtime)
    trial.relocate_options(java_options)
    class_list = f"{trial.work}/names-%p"
    with step("Running the service once"):
        loaded, pid = trial.run_service(
            "training",
            "give --training-argument with which the service ends well, or --no-archive",
            options=["-Xshare:off", f"-XX:DumpLoadedClassList={class_list}", *java_options],
        )
    own = {name: source for name, source in loaded.items() if source.startswith("file:")}
    for file in outside(trial, set(own.values())):
        log.warning("Not in the bundle, though classes come from there: %s", file)
    used = {source[len("jrt:/") :] for source in loaded.values() if source.startswith("jrt:/")}
    return Trained(frozenset(used & modules), frozenset(own), trial.work / f"names-pid{pid}")


def outside(trial, sources):
    """The files outside the copy of the bundle, of sources such as file:../Resources/lib/a.jar."""
    for source in sorted(sources):
        path = urllib.parse.unquote(source[len("file:") :])
        file = os.path.realpath(trial.directory / path)
        if os.path.exists(file) and not file.startswith(f"{trial.contents}/"):
            yield file
