"""Follows the documents word by word: the shell commands they show, run in order in a copy of
the tree, in a folder with a blank in its name."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from support import CONTENTS, ROOT

# Run by continuous integration itself: all tests, and what needs the npm registry.
RUN_ELSEWHERE = {"script/test", "script/cross-macos"}


def commands(document):
    """The document's blocks of shell commands, less those marked as macOS's."""
    for block in re.findall(r"^```sh\n(.*?)^```$", (ROOT / document).read_text(),
                            re.MULTILINE | re.DOTALL):
        yield "".join(line for line in block.splitlines(keepends=True)
                      if line.strip() not in RUN_ELSEWHERE)


class Commands(unittest.TestCase):
    def setUp(self):
        folder = tempfile.mkdtemp(prefix="a copy ", dir=os.environ["BUILD_DIR"])
        self.addCleanup(shutil.rmtree, folder)
        self.env = {**os.environ, "TMPDIR": folder}
        self.copy = pathlib.Path(folder, "orvane")
        shutil.copytree(ROOT, self.copy, symlinks=True, ignore=lambda path, names: (
            {"build", ".git"} & set(names) if pathlib.Path(path) == ROOT else ()))

    def follow(self, document):
        """Runs the document's commands and returns the last line of what each block says."""
        last = []
        for block in commands(document):
            run = subprocess.run(["bash", "-euo", "pipefail", "-c", block], cwd=self.copy,
                                 env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True)
            self.assertEqual(0, run.returncode, f"{block}\n{run.stdout}")
            last += run.stdout.splitlines()[-1:]
        return last

    def test_the_readme_and_then_the_packagers_guide_can_be_followed(self):
        self.assertEqual(["Service is complete."], self.follow("README.md"))

        self.follow("docs/packaging.md")
        run = subprocess.run(["./OrvaneService"], capture_output=True, text=True,
                             cwd=self.copy / "build/example/Applications" / CONTENTS / "MacOS")
        self.assertEqual(
            ("", ["Starting service.", "Hello from OrvaneService", "Service is complete."], 0),
            (run.stderr, run.stdout.splitlines()[-3:], run.returncode))
        self.assertEqual(1, len(list((self.copy / "build/release").glob(
            f"Orvane-*-{os.uname().sysname}.*"))))
