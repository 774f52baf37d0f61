"""What a run says that could not execute everything."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from support import ROOT

RAN = '<testcase name="a.b" status="run"><system-out>OK</system-out></testcase>'
LEFT_OUT = '<testcase name="a.c" status="notrun"><system-out>{}</system-out></testcase>'
PART = "test_x (a.b) [1] ... skipped 'no llvm'\n\nOK (skipped=1)"


class Summary(unittest.TestCase):
    def test_what_was_not_executed_is_named_and_where_it_could_have_been_fails_with_CI_set(self):
        for cases, said, status in (
                (RAN, "1 of 1 tests executed\n", 0),
                (RAN.replace("OK", "a\nleft out: b: c\nOK"),
                 "left out: b: c\n1 of 1 tests executed\n", 0),
                (RAN + LEFT_OUT.format(PART),
                 "not executed: a.c: no llvm\n1 of 2 tests executed\n", 1),
                (RAN + LEFT_OUT.format("skipped: there is one JDK here"),
                 "not executed: a.c: there is one JDK here\n1 of 2 tests executed\n", 0),
                (LEFT_OUT.format(""),
                 "not executed: a.c: not run, without a reason\n0 of 1 tests executed\n", 1),
                ("", "0 of 0 tests executed\n", 1)):
            with self.subTest(cases), tempfile.TemporaryDirectory(dir=os.environ["BUILD_DIR"]) as at:
                file = pathlib.Path(at, "tests.xml")
                file.write_text(f"<testsuite>{cases}</testsuite>")
                run = subprocess.run([sys.executable, ROOT / "test/support/summary.py", file],
                                     capture_output=True, text=True, env={"CI": "1"})
                self.assertEqual((run.stdout, run.stderr, run.returncode), (said, "", status))
