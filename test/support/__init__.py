"""What the tests share."""

import pathlib
import re

CONTENTS = "Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents"
ROOT = pathlib.Path(__file__).resolve().parents[2]
VERSION = re.search(r"^project\(\w+ VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(),
                    re.MULTILINE).group(1)
