"""What the tests share."""

import os
import pathlib
import re
import sys

import pytest

CONTENTS = "Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents"
ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD_DIR = pathlib.Path(os.environ.get("BUILD_DIR", ROOT / "build/release"))
VERSION = re.search(
    r"^project\(\w+ VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE
).group(1)
LINUX = sys.platform == "linux"


def unavailable(reason):
    """Skips a test that lacks something this machine could have; where CI is set it fails."""
    if os.environ.get("CI"):
        pytest.fail(reason, pytrace=False)
    pytest.skip(reason)


def impossible(reason):
    """Skips a test of something this build, or this namespace, cannot have. A Mac has neither libstdc++
    nor namespaces: what cannot run there is listed in macos.py."""
    if not LINUX:
        pytest.fail(f"skipped on macOS without being listed: {reason}", pytrace=False)
    pytest.skip(reason)
