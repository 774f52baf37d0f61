"""Says what a run of ctest could not execute, and why, from its --output-junit file. With CI
set that is a failure, but for what this platform or, if none was named, a second JDK lacks."""

import os
import re
import sys
import xml.etree.ElementTree

ELSEWHERE = r"cannot exist on a Mac|there is one JDK here"
if os.uname().sysname == "Darwin":
    ELSEWHERE += r"|no namespaces|here it would sign|a disk image there|script/cross-macos makes it"


def reasons(output):
    """Why parts of a test were skipped, as unittest -v or the test itself says it."""
    found = re.findall(r"skipped ['\"](.*)['\"]$|^skipped: (.*)$", output, re.MULTILINE)
    return [first or second for first, second in found] or ["not run, without a reason"]


def main(file):
    tests = list(xml.etree.ElementTree.parse(file).getroot().iter("testcase"))
    left_out = {test.get("name"): reasons(test.findtext("system-out") or "")
                for test in tests if test.get("status") in ("notrun", "disabled")}
    for test in tests:
        for line in re.findall("^left out: .*|^.* tests executed whole, .*",
                               test.findtext("system-out") or "", re.MULTILINE):
            print(line)
    for name, why in left_out.items():
        print(f"not executed: {name}: {'; '.join(dict.fromkeys(why))}")
    print(f"{len(tests) - len(left_out)} of {len(tests)} tests executed")
    avoidable = any(not re.search(ELSEWHERE, reason) for why in left_out.values() for reason in why)
    return 1 if avoidable and os.environ.get("CI") or not tests else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
