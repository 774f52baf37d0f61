"""The tarball of the bundle that BUILD_DIR makes: the release's here, and the macOS one when
script/cross-macos calls."""

import os
import pathlib
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest

from support import CONTENTS
from tree_test import LAUNCHER, PRODUCT, SERVICE

BUILD = pathlib.Path(os.environ["BUILD_DIR"])
EXECUTABLE = CONTENTS + "/MacOS/OrvaneService"
JAR = CONTENTS + "/Resources/lib/com.vaultory.desktop.jar"
RUNTIME = CONTENTS + "/Resources/jre"


@unittest.skipIf(os.uname().sysname == "Darwin", "a disk image there")
class Tarball(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(dir=BUILD)
        self.addCleanup(directory.cleanup)
        # Of a copy: other tests link to the installed files, and tar takes that for a change.
        copy = pathlib.Path(directory.name, "Applications")
        shutil.copytree(BUILD / "Applications", copy, symlinks=True)
        subprocess.run(["cpack", "--config", BUILD / "CPackConfig.cmake", "-B", directory.name,
                        "-D", f"CPACK_APPLICATIONS={copy}"], stdout=subprocess.PIPE, check=True)
        self.names = sorted(file.name for file in pathlib.Path(directory.name).glob("*.*"))
        self.archive = tarfile.open(pathlib.Path(directory.name) / self.names[0])
        self.addCleanup(self.archive.close)
        self.cache = (BUILD / "CMakeCache.txt").read_text()

    def cached(self, variable):
        return re.search(rf"^{variable}:\w+=(.*)$", self.cache, re.MULTILINE).group(1)

    def test_the_tarball_is_the_installed_bundle_and_belongs_to_root(self):
        system = "Darwin" if "toolchain/toolchain.cmake" in self.cache else "Linux"
        self.assertEqual([f"Orvane-{self.cached('CMAKE_PROJECT_VERSION')}-{system}.tar.gz"],
                         self.names)
        members = {member.name + "/" * member.isdir(): member for member in self.archive.getmembers()}
        with_runtime = self.cached("BUNDLE_RUNTIME") == "ON"
        expected = PRODUCT + [f"{CONTENTS}/{line}" for line in LAUNCHER + SERVICE
                              if with_runtime or "jre" not in line]
        self.assertEqual(sorted(expected), sorted(
            f"{name} {member.mode:o}" for name, member in members.items()
            if name == RUNTIME + "/" or not name.startswith(RUNTIME)))
        self.assertEqual(with_runtime, RUNTIME + "/lib/server/libjvm.so" in members)
        self.assertEqual({(0, 0, "root", "root")}, {
            (member.uid, member.gid, member.uname, member.gname) for member in members.values()})
        self.assertLessEqual({f"{member.mode:o}" for member in members.values()},
                             {"644", "755", "777"})
        self.assertEqual((BUILD / "src/OrvaneService").read_bytes(),
                         self.archive.extractfile(EXECUTABLE).read())
        self.assertEqual(int((BUILD / "Applications" / JAR).stat().st_mtime), members[JAR].mtime,
                         "the CDS archive is for a jar of that time")
