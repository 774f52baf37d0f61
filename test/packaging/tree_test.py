"""What an installation consists of."""

import os
import pathlib
import shutil
import stat
import subprocess
import tempfile
import unittest

from support import CONTENTS
from support.bundle import APPLICATIONS, CDS_ARCHIVE
from support.private_root import BUILD_DIR

LAUNCHER = [
    "Info.plist 644",
    "MacOS/ 755",
    "MacOS/OrvaneService 755",
    "Resources/ 755",
    "Resources/launchd/ 755",
    "Resources/launchd/com.vaultory.service.agent.plist.in 644",
    "Resources/launchd/com.vaultory.service.plist 644",
    "Resources/man/ 755",
    "Resources/man/man8/ 755",
    "Resources/man/man8/OrvaneService.8 644",
    "Resources/operator/ 755",
    "Resources/operator/check-install 755",
    "Resources/operator/install 755",
    "Resources/operator/job.sh 644",
    "Resources/operator/uninstall 755",
    "Resources/operator/update-cds-archive 755",
]
SERVICE = [
    "Frameworks/ 755",
    "Resources/bin/ 755",
    "Resources/bin/service-version 755",
    "Resources/conf/ 755",
    "Resources/conf/service.log.xml 644",
    "Resources/jre/ 755",
    "Resources/lang/ 755",
    "Resources/lang/messages.properties 644",
    "Resources/lib/ 755",
    "Resources/lib/com.vaultory.desktop.jar 644",
]
PRODUCT = [
    "Orvane.app/ 755",
    "Orvane.app/Contents/ 755",
    "Orvane.app/Contents/Info.plist 644",
    "Orvane.app/Contents/Library/ 755",
    "Orvane.app/Contents/Library/LaunchServices/ 755",
    "Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/ 755",
    f"{CONTENTS}/ 755",
]


class TreeTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="install-", dir=BUILD_DIR))
        self.addCleanup(shutil.rmtree, self.directory)

    def install(self, *arguments, umask=0o022, **environment):
        """Installs the build tree and returns what it said on standard error."""
        return subprocess.run(["cmake", "--install", BUILD_DIR, *arguments], check=True,
                              env={**os.environ, **environment}, stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, umask=umask).stderr

    def test_the_service_s_bundle_has_these_files_around_its_runtime(self):
        self.assertEqual(listing(APPLICATIONS / CONTENTS), sorted(LAUNCHER + SERVICE))

    def test_the_product_s_bundle_holds_nothing_else(self):
        self.assertEqual(listing(APPLICATIONS, leave_out=CONTENTS + "/"), PRODUCT)

    def test_the_launcher_is_a_component_of_its_own(self):
        self.assertEqual(self.install("--prefix", self.directory, "--component", "launcher"), b"")
        self.assertEqual(listing(self.directory / CONTENTS), LAUNCHER)

    def test_a_staging_directory_is_honoured(self):
        self.install("--prefix", "/Applications", DESTDIR=str(self.directory))
        staged = self.directory / "Applications" / CONTENTS
        self.assertEqual(listing(staged), sorted(LAUNCHER + SERVICE))
        self.assertTrue((staged / "Resources" / CDS_ARCHIVE).is_file())

    def test_the_modes_do_not_depend_on_who_installs(self):
        self.install("--prefix", self.directory / "private", umask=0o077)
        self.install("--prefix", self.directory / "shared", umask=0o002)
        self.assertEqual(*(listing(self.directory / name / "Orvane.app", leave_out="-")
                           for name in ("private", "shared")))
        self.assertEqual(listing(self.directory / "private" / CONTENTS), sorted(LAUNCHER + SERVICE))

    def test_an_installation_over_a_signed_bundle_removes_its_signature(self):
        signatures = [self.directory / "Orvane.app/Contents/_CodeSignature/CodeResources",
                      self.directory / "Orvane.app/Contents/CodeResources",
                      self.directory / CONTENTS / "_CodeSignature/CodeResources"]
        for file in signatures:
            file.parent.mkdir(parents=True, exist_ok=True)
            file.touch()
        self.install("--prefix", self.directory, "--component", "launcher")
        self.assertEqual(listing(self.directory, leave_out=CONTENTS + "/"), PRODUCT)
        self.assertEqual(listing(self.directory / CONTENTS), LAUNCHER)

    def test_a_second_installation_replaces_nothing(self):
        self.install("--prefix", self.directory)
        before = inodes(self.directory)
        self.assertEqual(self.install("--prefix", self.directory), b"")
        self.assertEqual(inodes(self.directory), before)

    def test_a_CDS_archive_that_the_VM_rejects_is_regenerated(self):
        self.install("--prefix", self.directory)
        data = self.directory / CONTENTS / "Resources" / CDS_ARCHIVE
        data.unlink()
        data.write_bytes(b"of another runtime")
        self.assertRegex(
            self.install("--prefix", self.directory),
            rb"^Running the service once: \d+ s\nArchiving the classes it loaded \(\w+\): \d+ s\n"
            rb"Classes of the service that come from the archive: (\d+) of \1\n$")
        self.assertEqual(self.install("--prefix", self.directory), b"")

    def test_a_runtime_from_another_JDK_is_replaced_as_a_whole(self):
        jre = self.directory / CONTENTS / "Resources/jre"
        (jre / "lib").mkdir(parents=True)
        (jre / "lib/modules").write_bytes(b"another")
        (jre / "lib/left-over.so").write_bytes(b"another")
        self.install("--prefix", self.directory, "--component", "runtime")
        built = {path.relative_to(BUILD_DIR / "jre") for path in (BUILD_DIR / "jre").rglob("*")}
        self.assertEqual({path.relative_to(jre) for path in jre.rglob("*")}, built)


def listing(directory, leave_out="Resources/jre/"):
    """The paths below, directories with a slash, and their permissions; not what begins so."""
    lines = []
    for path in directory.rglob("*"):
        name = path.relative_to(directory).as_posix()
        if not name.startswith(leave_out):
            mode = stat.S_IMODE(path.lstat().st_mode)
            lines.append(f"{name}{'/' * path.is_dir()} {mode:o}")
    return sorted(lines)


def inodes(directory):
    return {path: (path.lstat().st_ino, path.lstat().st_mtime_ns) for path in directory.rglob("*")}
