"""operator/check-install over installations made in a temporary folder:

    ROOT/Users/NAME/Applications/Orvane.app/...      the bundle
    ROOT/Users/NAME/Library/Application Support/...  the data folder
    ROOT/Users/NAME/Library/LaunchAgents/...         the job
"""

import getpass
import os
import pathlib
import subprocess
import tempfile
import unittest

from support import ROOT

SCRIPT = ROOT / "operator/check-install"
NAME = getpass.getuser()
APP = f"/Users/{NAME}/Applications/Orvane.app"
CONTENTS = APP + "/Contents/Library/LaunchServices/OrvaneService.app/Contents"
DATA = f"/Users/{NAME}/Library/Application Support/Quillrest"
ARGS = DATA + "/conf/jvm_args"
AGENTS = f"/Users/{NAME}/Library/LaunchAgents"
JSA = CONTENTS + "/Resources/jre/lib/server/classes.jsa"


class CheckInstall(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=os.environ["BUILD_DIR"])
        self.addCleanup(folder.cleanup)
        self.root = folder.name
        self.addCleanup(os.umask, os.umask(0o022))
        self.write(CONTENTS + "/MacOS/OrvaneService", mode=0o755)
        self.write(CONTENTS + "/Info.plist")
        self.write(CONTENTS + "/Resources/lib/com.vaultory.desktop.jar")
        self.write(CONTENTS + "/Resources/conf/service.log.xml")
        self.write(CONTENTS + "/Resources/jre/lib/jspawnhelper", mode=0o755)
        self.write(CONTENTS + "/Resources/jre/lib/server/libjvm.dylib")
        self.write(JSA)
        for folder in ("Frameworks", "Resources/bin", "Resources/lang"):
            os.makedirs(self.at(f"{CONTENTS}/{folder}"))

    def at(self, path):
        return self.root + path

    def write(self, path, text=b"", mode=0o644):
        os.makedirs(os.path.dirname(self.at(path)), exist_ok=True)
        pathlib.Path(self.at(path)).write_bytes(text)
        os.chmod(self.at(path), mode)

    def check(self, *lines, arguments=("--user", NAME)):
        """Runs the script: lines are all it says, of which the count is the last."""
        run = subprocess.run([SCRIPT, "--root", self.root, *arguments],
                             capture_output=True, text=True, check=False)
        last = f"Deviations found: {len(lines)}." if lines else "No deviation found."
        self.assertEqual(("", "".join(line + "\n" for line in (*lines, last)), 1 if lines else 0),
                         (run.stderr, run.stdout, run.returncode))

    def test_a_correct_installation_has_no_deviation(self):
        self.write(ARGS, b"-Xmx2g\n-Dorv.security.mode=\n-Djava.net.preferIPv4Stack=true")
        self.write(AGENTS + "/com.vaultory.service.agent.plist")
        self.check()

    def test_an_empty_disk_lacks_the_bundle(self):
        self.check("/Applications/Orvane.app: missing; install the bundle", arguments=())

    def test_each_missing_piece_is_named(self):
        for path in ("MacOS/OrvaneService", "Info.plist", "Resources/lib/com.vaultory.desktop.jar",
                     "Resources/conf/service.log.xml", "Resources/jre/lib/server/libjvm.dylib"):
            os.remove(self.at(f"{CONTENTS}/{path}"))
        for folder in ("Frameworks", "Resources/bin", "Resources/lang", "Resources/conf"):
            os.rmdir(self.at(f"{CONTENTS}/{folder}"))
        again = "missing; install the bundle again"
        self.check(
            f"{CONTENTS}/MacOS/OrvaneService: {again}",
            f"{CONTENTS}/Info.plist: {again}",
            f"{CONTENTS}/Resources/lib/com.vaultory.desktop.jar: missing; "
            "the service's archive belongs there",
            f"{CONTENTS}/Resources/bin: {again}",
            f"{CONTENTS}/Resources/conf: {again}",
            f"{CONTENTS}/Resources/lang: {again}",
            f"{CONTENTS}/Resources/conf/service.log.xml: missing; "
            "the service's log configuration belongs there",
            f"{CONTENTS}/Frameworks: {again}",
            f"{CONTENTS}/Resources/jre/lib/server/libjvm.dylib: missing; "
            "the Java runtime belongs into Resources/jre")

    def test_a_runtime_without_its_class_data_or_its_helper_is_reported(self):
        os.remove(self.at(JSA))
        os.chmod(self.at(CONTENTS + "/Resources/jre/lib/jspawnhelper"), 0o644)
        self.check(
            f"{CONTENTS}/Resources/jre/lib/jspawnhelper: not executable; "
            "the service cannot start processes without it",
            f"{JSA}: missing; starts are slower without it: run operator/update-cds-archive on Orvane.app")

    def test_class_data_older_than_the_archive_is_reported(self):
        os.utime(self.at(JSA), (0, 0))
        self.check(f"{JSA}: older than the service's archive; "
                   "run operator/update-cds-archive on Orvane.app again")

    def test_what_others_may_write_is_reported(self):
        self.write(ARGS, mode=0o666)
        os.chmod(self.at(CONTENTS + "/MacOS"), 0o775)
        self.write(AGENTS + "/com.vaultory.service.agent.plist", mode=0o664)
        others = "writable by the group or by others"
        self.check(f"{CONTENTS}/MacOS: {others}; chmod go-w",
                   f"{ARGS}: {others}; chmod go-w",
                   f"{AGENTS}/com.vaultory.service.agent.plist: {others}: "
                   "launchd refuses it; chmod go-w")

    @unittest.skipUnless(os.geteuid() == 0, "only root can give files away")
    def test_what_somebody_else_owns_is_reported(self):
        self.write(ARGS)
        self.write(AGENTS + "/com.vaultory.service.agent.plist")
        for path in (CONTENTS + "/Info.plist", ARGS, AGENTS + "/com.vaultory.service.agent.plist"):
            os.chown(self.at(path), 65534, 65534)
        remedy = f"chown it to {NAME}"
        self.check(f"{CONTENTS}/Info.plist: not owned by {NAME}; {remedy}",
                   f"{ARGS}: not owned by {NAME}; {remedy}",
                   f"{AGENTS}/com.vaultory.service.agent.plist: not owned by {NAME}: "
                   f"launchd refuses it; {remedy}")

    def test_a_link_out_of_the_bundle_is_reported(self):
        os.symlink("service.log.xml", self.at(CONTENTS + "/Resources/conf/other.xml"))
        os.symlink("../../../../../../..", self.at(CONTENTS + "/Resources/bin/app"))
        os.symlink("/etc/hosts", self.at(CONTENTS + "/Resources/bin/hosts"))
        os.symlink("../../../../../../../..", self.at(CONTENTS + "/Resources/bin/out"))
        remedy = "links out of the bundle; replace it by what it links to"
        self.check(f"{CONTENTS}/Resources/bin/hosts: {remedy}",
                   f"{CONTENTS}/Resources/bin/out: {remedy}")

    def test_each_bad_line_of_the_override_file_is_numbered(self):
        self.write(ARGS, b"\xef\xbb\xbf-Xmx2g\n-Xmx2g\r\n-Xmx2g\n\n# heap\n-Xmx2g -Xms1g\n"
                         b"-Dorv.security.mode=a b\n-Dorv.security.mode=a \n-Duser.install=1")
        refused = "will be refused, and the start with it; delete it"
        blank = "has white space the VM will see; delete it"
        self.check(*(f"{ARGS}: line {number} {what}" for number, what in (
            (1, refused), (2, blank), (4, refused), (5, refused), (6, blank), (8, blank),
            (9, refused))))

    def test_a_folder_in_the_place_of_the_override_file_is_reported(self):
        os.makedirs(self.at(ARGS))
        self.check(f"{ARGS}: not a file; remove it")

    def test_an_account_that_is_not_known_here_is_refused(self):
        run = subprocess.run([SCRIPT, "--user", "no.such.account"], capture_output=True, text=True)
        self.assertEqual(("check-install: there is no account 'no.such.account' here; "
                          "name one this machine knows\n", "", 2),
                         (run.stderr, run.stdout, run.returncode))

    def test_a_wrong_call_is_answered_with_the_usage(self):
        for arguments in (["--root"], ["--user", ""], ["folder"]):
            run = subprocess.run([SCRIPT, *arguments], capture_output=True, text=True, check=False)
            self.assertEqual(("usage: check-install [--root DIR] [--user NAME]\n", "", 2),
                             (run.stderr, run.stdout, run.returncode))
