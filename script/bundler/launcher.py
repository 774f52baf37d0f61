"""The launcher's executable and operator-tool beside it, built from this checkout where none is given."""

import os
import pathlib
import re

from .commands import require, step

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXECUTABLE = ROOT / "build/release/src/OrvaneService"


def project_version():
    project = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"^project\(.* VERSION ([\d.]+)", project, re.M)[1]


def build_launcher(jdk):
    """Configures build/release and builds both; the launcher."""
    environment = {**os.environ, "JAVA_HOME": str(jdk.home)}
    with step("Building the launcher"):
        for arguments in (
            ["--preset", "release"],
            ["--build", "--preset", "release", "--target", "OrvaneService", "operator-tool"],
        ):
            require(
                "--executable: the launcher cannot be built",
                ["cmake", *arguments],
                cwd=ROOT,
                env=environment,
            )
    return EXECUTABLE
