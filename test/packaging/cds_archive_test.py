"""The service's own classes come out of the runtime's class data, with no option given."""

import pathlib
import re
import signal
import subprocess
import time
import unittest
import zipfile

from support import ROOT, VERSION
from support.bundle import CLASS_DATA, JAR, Bundle, in_each_mode
from support.private_root import BUILD_DIR

SCRIPT = ROOT / "operator/update-cds-archive"
REPORTING = {"LogConfig", "Messages", "QRService", "Report", "Text"}
ARCHIVED = "shared objects file"
DONE = "Running the service once: N s\nArchiving the classes it used: N s\n"


class ClassDataTest(unittest.TestCase):
    maxDiff = None

    def sources(self, bundle, *options, arguments=("hello",)):
        """Where the service's classes of a run came from, by name."""
        options = " ".join(["-Xlog:class+load:file=/tmp/loaded:none", *options])
        self.assertEqual(bundle.run(*arguments, tool_options=options).status, 0)
        loaded = bundle.root.path("/tmp/loaded").read_text()
        return dict(re.findall(r"^com\.vaultory\.service\.([\w$]+) source: (.*)$", loaded, re.M))

    def assert_all_from(self, source, sources):
        self.assertEqual(sources, dict.fromkeys(sources, source))
        self.assertLessEqual(REPORTING, set(sources))

    def make(self, bundle, *options, arguments=()):
        """Calls the script for a copied bundle: its status and what it said, less the times."""
        app = bundle.root.path(bundle.home + "/Applications/Orvane.app")
        result = subprocess.run([SCRIPT, *options, app, *arguments], capture_output=True, text=True)
        self.assertEqual(result.stdout, "")
        return result.returncode, re.sub(r"\d+ s\b", "N s", result.stderr)

    def test_every_class_of_a_run_comes_from_the_class_data(self):
        for bundle in in_each_mode(self):
            self.assert_all_from(ARCHIVED, self.sources(bundle))

    def test_every_class_does_with_the_heap_and_the_collector_of_a_small_machine(self):
        for bundle in in_each_mode(self):
            bundle.override(b"-Xmx64m")
            self.assert_all_from(ARCHIVED, self.sources(bundle, "-XX:+UseSerialGC"))

    def test_a_replaced_archive_starts_without_until_the_data_is_made_anew(self):
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(JAR, bundle.resource(JAR).read_bytes())
            with zipfile.ZipFile(bundle.resource(JAR), "a") as archive:
                archive.writestr("of-another-version", "")
            self.assert_all_from(f"file:{bundle.contents}/Resources/{JAR}", self.sources(bundle))
            self.assertEqual(self.make(bundle), (0, DONE))
            self.assert_all_from(ARCHIVED, self.sources(bundle))

    def test_a_blank_in_the_path_of_the_bundle_does_no_harm(self):
        bundle = Bundle(self, "/Users/two words", copied=True)
        bundle.replace(CLASS_DATA, None)
        self.assertEqual(self.make(bundle), (0, DONE))
        self.assert_all_from(ARCHIVED, self.sources(bundle))

    def test_a_runtime_without_class_data_starts_the_service(self):
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(CLASS_DATA, None)
            self.assertEqual(bundle.run("version"),
                             (0, bundle.stdout(b"version", service=f"{VERSION}\n".encode()), b""))

    def test_a_service_that_never_ends_is_ended_in_good_order(self):
        bundle = Bundle(self, copied=True)
        bundle.replace(CLASS_DATA, None)
        self.assertEqual(self.make(bundle, "-t", "2", arguments=["stay"]), (0, DONE))
        sources = self.sources(bundle)
        self.assertEqual((sources["QRService"], sources["Messages"]), (ARCHIVED, ARCHIVED))

    def test_a_run_that_fails_leaves_the_class_data_there_was(self):
        bundle = Bundle(self, copied=True)
        before = identity(bundle.resource(CLASS_DATA))
        status, said = self.make(bundle, arguments=["exit", "3"])
        self.assertEqual(
            (status, said.splitlines()[-1]),
            (1, "update-cds-archive: Running the service once: status 3 after N s; it said the above"))
        self.assertEqual(identity(bundle.resource(CLASS_DATA)), before)

    def test_an_interrupted_run_takes_the_service_with_it_and_leaves_the_class_data(self):
        bundle = Bundle(self, copied=True)
        before = identity(bundle.resource(CLASS_DATA))
        app = bundle.root.path("/Applications/Orvane.app")
        with subprocess.Popen([SCRIPT, app, "stay"], stderr=subprocess.PIPE) as script:
            children = pathlib.Path(f"/proc/{script.pid}/task/{script.pid}/children")
            while not (services := [child for child in children.read_text().split()
                                    if "OrvaneService" in command_of(child)]):
                time.sleep(0.01)
            script.send_signal(signal.SIGTERM)
            self.assertEqual((script.wait(60), script.stderr.read()), (143, b""))
        deadline = time.monotonic() + 60
        while command_of(services[0]) and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertEqual(command_of(services[0]), "")
        self.assertEqual(identity(bundle.resource(CLASS_DATA)), before)

    def test_a_folder_that_is_no_bundle_is_refused(self):
        result = subprocess.run([SCRIPT, BUILD_DIR], capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stderr),
                         (1, f"update-cds-archive: '{BUILD_DIR}' is no bundle of the service; "
                             "name the Orvane.app of an Applications folder\n"))


def identity(path):
    """What changes when a file is replaced or written to, but not when it is linked to."""
    stat = path.stat()
    return stat.st_ino, stat.st_size, stat.st_mtime_ns


def command_of(pid):
    """The command line of a process, empty once it has ended."""
    try:
        return pathlib.Path(f"/proc/{pid}/cmdline").read_text()
    except FileNotFoundError:
        return ""
