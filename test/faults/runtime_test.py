"""The Java runtime is missing, is not one, is damaged, or lacks memory."""

import unittest

from support import expected
from support.bundle import Bundle
from support.launcher import ABORTED, Launcher, Run
from support.private_root import BUILD_DIR

LIBRARY = "../Resources/jre/lib/server/libjvm.so"
NOT_LOADED = b": error while loading shared libraries: "
NOT_FOUND = b"libjvm.so: cannot open shared object file: No such file or directory"
AARCH64 = b"\xb7"


class LibraryTest(unittest.TestCase):
    maxDiff = None

    def assert_not_started(self, library, message):
        """The run over this libjvm.so, None for no such file, ends in the dynamic loader."""
        launcher = Launcher(self)
        path = launcher.root.path(f"{launcher.folder}/{LIBRARY}")
        path.unlink()
        if library is not None:
            path.write_bytes(library)
        self.assertEqual(launcher.run(),
                         Run(127, b"", launcher.program.encode() + message + b"\n", [],
                             normal_end=False))

    def setUp(self):
        self.library = (BUILD_DIR / "test/runtime/libjvm.so").read_bytes()

    def test_a_missing_library_is_reported(self):
        self.assert_not_started(None, NOT_LOADED + NOT_FOUND)

    def test_a_library_for_another_machine_counts_as_missing(self):
        self.assert_not_started(self.library[:18] + AARCH64 + self.library[19:],
                                NOT_LOADED + NOT_FOUND)

    def test_a_truncated_library_is_reported(self):
        for size in 0, 40:
            self.assert_not_started(self.library[:size], NOT_LOADED + LIBRARY.encode() +
                                    b": file too short")

    def test_what_is_no_library_is_reported(self):
        self.assert_not_started(b"not a library\n" * 1000, NOT_LOADED + LIBRARY.encode() +
                                b": invalid ELF header")

    def test_a_library_without_the_function_that_creates_a_VM_is_reported(self):
        launcher = Launcher(self)
        self.assert_not_started(
            self.library.replace(b"\0JNI_CreateJavaVM\0", b"\0JNI_CreateOthers\0"),
            b": symbol lookup error: " + launcher.program.encode() +
            b": undefined symbol: JNI_CreateJavaVM, version SUNWprivate_1.1")


class ImageTest(unittest.TestCase):
    maxDiff = None

    def assert_no_service(self, result, statuses, said):
        """The VM itself, in words of its own, ends the run before the service starts."""
        head = expected.before_vm(arguments=[b"version"])
        self.assertIn(result.status, statuses)
        self.assertEqual(result.stdout[:len(head)], head)
        self.assertIn(said, result.stdout[len(head):] + result.stderr)
        self.assertNotIn(expected.STARTING, result.stdout)
        self.assertNotIn(expected.COMPLETE, result.stdout)

    def damaged(self, name, size=None):
        """A bundle with the file of its runtime cut to this size, or away."""
        bundle = Bundle(self, copied=True)
        content = bundle.resource(name).read_bytes()
        bundle.replace(name, None if size is None else content[:size])
        return bundle

    def test_without_its_modules_or_a_library_the_VM_refuses_to_start(self):
        for name in "modules", "libjava.so", "libjimage.so":
            with self.subTest(name):
                self.assert_no_service(self.damaged("jre/lib/" + name).run("version"), [1],
                                       b"Error occurred during initialization of VM\n")

    def test_with_a_truncated_library_the_VM_refuses_to_start(self):
        self.assert_no_service(self.damaged("jre/lib/libjava.so", 100).run("version"), [1],
                               b"Error occurred during initialization of VM\n")

    def test_truncated_modules_crash_the_VM_which_leaves_its_report_beside_the_executable(self):
        bundle = self.damaged("jre/lib/modules", 1000)
        self.assert_no_service(bundle.run("version"), [ABORTED], b"/MacOS/hs_err_pid")
        self.assertEqual(
            [path.name for path in bundle.resource("../MacOS").iterdir()
             if not path.name.startswith("hs_err_pid")], ["OrvaneService"])

    def test_without_class_data_or_with_truncated_ones_the_service_runs(self):
        for size in None, 1000:
            with self.subTest(size):
                bundle = self.damaged("jre/lib/server/classes.jsa", size)
                whole = Bundle(self).run("version")
                self.assertEqual(whole.status, 0)
                self.assertEqual(bundle.run("version"), whole)

    def test_where_the_VM_finds_no_memory_it_refuses_to_start(self):
        for megabytes in 100, 400, 1000:
            with self.subTest(megabytes):
                bundle = Bundle(self)
                limited = ["prlimit", f"--as={megabytes << 20}", *bundle.command("version")]
                self.assert_no_service(bundle.root.run(limited, **bundle.how()), [1],
                                       b"Error occurred during initialization of VM\nCould not ")
