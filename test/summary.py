"""Ends a run of ctest: summary.py BUILD_DIR. Prints where each suite ran, what was not executed and
why, and "N of M tests executed", in which each case of a suite counts. Fails if there is no test, or
if CI is set and a unit test was not executed."""

import collections
import os
import pathlib
import sys
import xml.etree.ElementTree

TEST = pathlib.Path(__file__).resolve().parent


def main(build_dir):
    total, left_out, failed = 0, collections.Counter(), False
    for test in xml.etree.ElementTree.parse(build_dir / "tests.xml").getroot().iter("testcase"):
        name = test.get("name")
        if not (TEST / name).is_dir():
            total += 1
            if test.get("status") in ("notrun", "disabled"):
                left_out[name, "not run by ctest"] += 1
                failed = failed or bool(os.environ.get("CI"))
            continue
        results = build_dir / f"{name}.xml"
        if not results.exists():
            print(f"{name}: no case was executed")
            failed = True
            continue
        suite = xml.etree.ElementTree.parse(results).getroot().find("testsuite")
        cases = suite.findall("testcase")
        print(f"{suite.get('name')}: {len(cases)} tests")
        for note in suite.findall("properties/property[@name='JDK']"):
            print(f"{name}: JDK {note.get('value')}")
        total += len(cases)
        for skipped in suite.iter("skipped"):
            left_out[name, skipped.get("message")] += 1
    for (name, reason), count in left_out.items():
        print(f"not executed: {count} of {name}: {reason}")
    print(f"{total - sum(left_out.values())} of {total} tests executed")
    return 1 if failed or not total else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
