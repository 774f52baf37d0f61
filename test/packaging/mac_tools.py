#!/usr/bin/env -S python3 -ISB
"""A stand-in for each of a Mac's tools that a release calls, by the name it is called by. It writes
its command line to $CALLS, checks what it is given, and makes what the tool would make.
  FAIL    a command line that fails with status 7; FAIL_TIMES, how often, always by default
  HANG    a command line that waits to be ended
  ANSWER  what the notary service says"""
import os
import shlex
import sys
from pathlib import Path

tool, arguments = os.path.basename(sys.argv[0]), sys.argv[1:]
line = " ".join(map(shlex.quote, [tool, *arguments]))
calls = Path(os.environ["CALLS"])
calls.touch()
failed = calls.read_text().splitlines().count(line)
with calls.open("a") as file:
    print(line, file=file)
if line == os.environ.get("HANG"):
    os.closerange(1, 3)  # of a release that may end first
    os.execl("/bin/sleep", "sleep", "60")
if line == os.environ.get("FAIL") and failed < int(os.environ.get("FAIL_TIMES", "99")):
    sys.exit(7)


def option(name):
    return Path(arguments[arguments.index(name) + 1])


def tree(directory):
    """{path: mode} of a directory, itself included."""
    return {str(path.relative_to(directory)): oct(path.stat().st_mode & 0o7777)
            for path in [directory, *sorted(directory.rglob("*"))] if not path.is_symlink()}


last = Path(arguments[-1])
if tool in ("ditto", "hdiutil", "pkgbuild", "productbuild"):
    import json
    import plistlib
    import shutil
    import xml.etree.ElementTree
if tool == "ditto":
    shutil.copytree(arguments[-2], last, symlinks=True)
elif tool == "hdiutil":
    last.write_text(json.dumps(tree(option("-srcfolder"))))
elif tool == "pkgbuild":
    bundle, = plistlib.loads(option("--component-plist").read_bytes())
    assert bundle == {"RootRelativeBundlePath": "Orvane.app", "BundleIsRelocatable": False,
                      "BundleIsVersionChecked": False, "BundleOverwriteAction": "upgrade"}
    assert (option("--root") / bundle["RootRelativeBundlePath"] / "Contents/Info.plist").is_file()
    assert all(os.access(option("--scripts") / name, os.X_OK) for name in ("preinstall", "postinstall"))
    last.write_text(json.dumps({"id": str(option("--identifier")), "version": str(option("--version")),
                                "payload": tree(option("--root")), "scripts": tree(option("--scripts"))}))
elif tool == "productbuild":
    distribution = xml.etree.ElementTree.parse(option("--distribution")).getroot()
    reference, = (found for found in distribution.iter("pkg-ref") if found.text)
    component = json.loads((option("--package-path") / reference.text).read_text())
    assert [reference.get(key) for key in ("id", "version")] == [component[key] for key in ("id", "version")]
    choice, = distribution.findall("choices-outline/line")
    assert distribution.find(f"choice[@id='{choice.get('choice')}']/pkg-ref").get("id") == component["id"]
    last.write_text(json.dumps(component))
elif arguments[:2] == ["notarytool", "submit"]:
    assert Path(arguments[2]).is_file()
    print(os.environ.get("ANSWER", '{"id": "12-ab", "status": "Accepted", "message": "Processing complete"}'))
elif arguments[:2] == ["notarytool", "log"]:
    print("the reasons of " + arguments[2])
elif tool != "sleep":  # codesign, install_name_tool, stapler, spctl, pkgutil
    assert last.exists(), last
    assert "--entitlements" not in arguments or option("--entitlements").is_file()
