"""The scripts on a Mac, which is here a uname that says so; its bash is 3.2."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from support import ROOT

SCRIPTS = [path.read_text() for place in ("script", "operator", ".ci")
           for path in (ROOT / place).iterdir() if path.is_file()]


class Scripts(unittest.TestCase):
    def on_a_mac(self, *command, **env):
        with tempfile.TemporaryDirectory(dir=os.environ["BUILD_DIR"]) as directory:
            for name, does in ("uname", "echo Darwin"), ("xcode-select", ":"), ("cmake", ":"):
                pathlib.Path(directory, name).write_text(f"#!/bin/sh\n{does}\n")
                pathlib.Path(directory, name).chmod(0o755)
            run = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, env={
                "JAVA_HOME": "", **env, "PATH": f"{directory}:{os.environ['PATH']}"})
        return run.returncode, run.stdout + run.stderr

    def test_JAVA_HOME_names_a_JDK_that_nothing_else_has_to_find(self):
        tools = "bash", "-c", ". script/lib.sh; need_build_tools"
        self.assertEqual((0, ""), self.on_a_mac(*tools, JAVA_HOME="/a/jdk"))
        self.assertEqual((1, "bash: no JDK: install one, 11 or later, and call again\n"),
                         self.on_a_mac(*tools))

    def test_what_has_to_pass_before_a_change_lands_says_that_it_needs_Debian(self):
        self.assertEqual((1, ".ci/run runs on Debian alone: here call script/test\n"),
                         self.on_a_mac(".ci/run"))

    def test_what_the_tools_of_a_Mac_take_otherwise_is_not_used(self):
        for text in SCRIPTS:
            self.assertNotRegex(text, r"grep -\w*[ZP]")
            for name in re.findall(r"\b(\w+)=\(\)", text):  # unset, for its bash, while empty
                unguarded = re.search(rf'(?<!\+)"\${{{name}\[@\]}}"', text)
                self.assertTrue(not unguarded or f"${{#{name}[@]}} -gt 0 ]" in text, name)
