"""The Java runtime is missing, is not one, is damaged, or lacks memory."""

import unittest

from support import expected
from support.bundle import Bundle
from support.launcher import ABORTED, Launcher, Run
from support.private_root import BUILD_DIR

LIBRARY = b"../Resources/jre/lib/server/libjvm.so"
NOT_LOADED = b": error while loading shared libraries: "
NOT_FOUND = b"libjvm.so: cannot open shared object file: No such file or directory"
AARCH64 = b"\xb7"


class LibraryTest(unittest.TestCase):
    maxDiff = None

    def test_a_library_that_cannot_be_loaded_is_reported_by_the_dynamic_loader(self):
        library = (BUILD_DIR / "test/runtime/libjvm.so").read_bytes()
        for what, content, message in (
                ("missing", None, NOT_LOADED + NOT_FOUND),
                ("for another machine", library[:18] + AARCH64 + library[19:],
                 NOT_LOADED + NOT_FOUND),
                ("empty", b"", NOT_LOADED + LIBRARY + b": file too short"),
                ("truncated", library[:40], NOT_LOADED + LIBRARY + b": file too short"),
                ("no library", b"not a library\n" * 1000,
                 NOT_LOADED + LIBRARY + b": invalid ELF header"),
                ("without the function that creates a VM",
                 library.replace(b"\0JNI_CreateJavaVM\0", b"\0JNI_CreateOthers\0"),
                 b": symbol lookup error: %s: undefined symbol: JNI_CreateJavaVM, version "
                 b"SUNWprivate_1.1")):
            with self.subTest(what):
                launcher = Launcher(self)
                program = launcher.program.encode()
                path = launcher.root.path(f"{launcher.directory}/{LIBRARY.decode()}")
                path.unlink()
                if content is not None:
                    path.write_bytes(content)
                self.assertEqual(launcher.run(), Run(
                    127, b"", program + message.replace(b"%s", program) + b"\n", [],
                    normal_end=False))


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

    def test_without_a_CDS_archive_or_with_a_truncated_one_the_service_runs(self):
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
