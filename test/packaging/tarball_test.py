"""The archive of the bundle that BUILD_DIR makes: the release's here, and the macOS one when
script/cross-macos calls."""

import os
import pathlib
import re
import subprocess
import tarfile
import tempfile
import unittest

from support import CONTENTS

BUILD = pathlib.Path(os.environ["BUILD_DIR"])
EXECUTABLE = CONTENTS + "/MacOS/OrvaneService"
RUNTIME = CONTENTS + "/Resources/jre"
LISTING = f"""\
Orvane.app/
Orvane.app/Contents/
Orvane.app/Contents/Info.plist
Orvane.app/Contents/Library/
Orvane.app/Contents/Library/LaunchServices/
Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/
{CONTENTS}/
{CONTENTS}/Frameworks/
{CONTENTS}/Info.plist
{CONTENTS}/MacOS/
{CONTENTS}/MacOS/OrvaneService*
{CONTENTS}/Resources/
{CONTENTS}/Resources/bin/
{CONTENTS}/Resources/bin/service-version*
{CONTENTS}/Resources/conf/
{CONTENTS}/Resources/conf/service.log.xml
{CONTENTS}/Resources/lang/
{CONTENTS}/Resources/lang/messages.properties
{CONTENTS}/Resources/launchd/
{CONTENTS}/Resources/launchd/com.vaultory.service.agent.plist.in
{CONTENTS}/Resources/launchd/com.vaultory.service.plist
{CONTENTS}/Resources/lib/
{CONTENTS}/Resources/lib/com.vaultory.desktop.jar
{CONTENTS}/Resources/man/
{CONTENTS}/Resources/man/man8/
{CONTENTS}/Resources/man/man8/OrvaneService.8
{CONTENTS}/Resources/operator/
{CONTENTS}/Resources/operator/check-install*
{CONTENTS}/Resources/operator/install*
{CONTENTS}/Resources/operator/job.sh
{CONTENTS}/Resources/operator/uninstall*
{CONTENTS}/Resources/operator/update-cds-archive*
"""


@unittest.skipIf(os.uname().sysname == "Darwin", "a disk image there, not a tar archive")
class Archive(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=BUILD)
        self.addCleanup(folder.cleanup)
        subprocess.run(["cpack", "--config", BUILD / "CPackConfig.cmake", "-B", folder.name],
                       stdout=subprocess.PIPE, check=True)
        self.names = sorted(file.name for file in pathlib.Path(folder.name).glob("*.*"))
        self.archive = tarfile.open(pathlib.Path(folder.name) / self.names[0])
        self.addCleanup(self.archive.close)
        self.cache = (BUILD / "CMakeCache.txt").read_text()

    def cached(self, variable):
        return re.search(rf"^{variable}:\w+=(.*)$", self.cache, re.MULTILINE).group(1)

    def test_the_archive_is_the_installed_bundle(self):
        system = "Darwin" if "toolchain/toolchain.cmake" in self.cache else "Linux"
        self.assertEqual([f"Orvane-{self.cached('CMAKE_PROJECT_VERSION')}-{system}.tar.gz"],
                         self.names)
        listing, runtime = [], set()
        for member in self.archive.getmembers():
            name = member.name
            if name == RUNTIME or name.startswith(RUNTIME + "/"):
                runtime.add(name)
            else:
                kind = "/" if member.isdir() else "*" if member.mode & 0o111 else ""
                listing.append(name + kind)
        self.assertEqual(LISTING, "".join(f"{line}\n" for line in sorted(
            listing, key=lambda line: line.rstrip("*/"))))
        self.assertEqual(self.cached("BUNDLE_RUNTIME") == "ON",
                         RUNTIME + "/lib/server/libjvm.so" in runtime)
        self.assertEqual(self.cached("BUNDLE_RUNTIME") == "ON", bool(runtime))
        self.assertEqual((BUILD / "src/OrvaneService").read_bytes(),
                         self.archive.extractfile(EXECUTABLE).read())
        jar = CONTENTS + "/Resources/lib/com.vaultory.desktop.jar"
        self.assertEqual(int((BUILD / "Applications" / jar).stat().st_mtime),
                         self.archive.getmember(jar).mtime, "class data are for a jar of that time")
        outside = [member for member in self.archive.getmembers()
                   if not member.name.startswith(RUNTIME + "/")]
        self.assertEqual([], [member.name for member in outside if member.mode & 0o022],
                         "writable by the group or by others")
        self.assertEqual(1, len({member.mode for member in outside if member.isdir()}),
                         "a folder that is less open than the others")
