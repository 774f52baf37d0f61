"""The launcher's executable and operator-tool beside it, built from this checkout where none is given."""

import os
import pathlib
import re

from .commands import require, step
from .errors import UserError, nearest_existing

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXECUTABLE = ROOT / "build/release/src/OrvaneService"


def project_version():
    project = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"^project\(.* VERSION ([\d.]+)", project, re.M)[1]


def build_launcher(jdk):
    """Configures build/release and builds both; the launcher."""
    directory = ROOT / "build/release"
    check_writable(directory)
    configure = ["--preset", "release"]
    if is_of_another_place(directory):
        configure.append("--fresh")
    build = ["--build", "--preset", "release", "--target", "OrvaneService", "operator-tool"]
    environment = {**os.environ, "JAVA_HOME": str(jdk.home)}
    with step("Building the launcher"):
        for arguments in configure, build:
            require(
                "--executable: the launcher cannot be built",
                ["cmake", *arguments],
                cwd=ROOT,
                env=environment,
            )
    return EXECUTABLE


def check_writable(directory):
    """Raises if the build directory cannot be written, or made."""
    directory = nearest_existing(directory)
    if not os.access(directory, os.W_OK):
        raise UserError(
            f"--executable: the launcher cannot be built, as '{directory}' is not writable",
            "make it writable, name a launcher that is built, or call from another checkout",
        )


def is_of_another_place(directory):
    """Whether the checkout was moved or copied with this build directory, which CMake would reject."""
    cache = directory / "CMakeCache.txt"
    if not cache.exists():
        return False
    recorded = re.search(r"^CMAKE_CACHEFILE_DIR:INTERNAL=(.*)$", cache.read_text(), re.M)
    return not recorded or os.path.realpath(recorded[1]) != os.path.realpath(directory)
