"""Runs the tests over the slice that SLICE names: those of the console and the loader's own and,
where it can host the Java runtime of this machine, those of faults and from end to end too. Its
last line counts them: "x86_64: N passed, 0 failed"."""

import sys
import unittest

from support import ROOT
from support.launcher import SLICE

FILES = ["console/*", "macho/*"]
if SLICE == "x86_64":
    FILES += ["faults/system_calls", "end_to_end/*"]


def main():
    suite = unittest.TestSuite()
    for name in FILES:
        for path in sorted((ROOT / "test").glob(name + "_test.py")):
            sys.path.insert(0, str(path.parent))
            sys.modules.pop(path.stem, None)  # two directories have an errors_test
            suite.addTests(unittest.defaultTestLoader.loadTestsFromName(path.stem))
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    bad = {test.id().partition(" ")[0] for test, _ in
           [*result.failures, *result.errors, *result.skipped]}
    print(f"{SLICE}: {result.testsRun - len(bad)} passed, {len(bad)} failed")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
