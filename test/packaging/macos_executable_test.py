"""The macOS executable that script/cross-macos makes: what LLVM's tools print of each slice, and
its signature, which they do not read."""
import filecmp
import os
import pathlib
import re
import shutil
import struct
import subprocess
import tempfile
import unittest

from support import ROOT, macho

EXECUTABLE = ROOT / "build/macos-universal/src/OrvaneService"
JVM = "@rpath/libjvm.dylib"
SYSTEM = "/usr/lib/libSystem.B.dylib"
TOOLS = ["llvm-otool-14", "llvm-objdump-14", "llvm-nm-14"]


class ExecutableTest(unittest.TestCase):
    def setUp(self):
        missing = None if EXECUTABLE.exists() else str(EXECUTABLE)
        missing = missing or next((tool for tool in TOOLS if not shutil.which(tool)), None)
        if missing and os.environ.get("CI") and os.uname().sysname == "Linux":
            self.fail(f"no {missing}: call script/cross-macos")
        if missing:
            self.skipTest(f"no {missing}: script/cross-macos brings it, on Linux")
        self.slices = macho.slices(EXECUTABLE.read_bytes())

    def each(self, look):
        return {architecture: look(data) for architecture, data in self.slices.items()}

    def both(self, expected):
        return {"x86_64": expected, "arm64": expected}

    def printed(self, pattern, *command):
        """All that the pattern finds in what a tool prints of each slice, in order."""
        def look(data):
            with tempfile.NamedTemporaryFile(dir=ROOT / "build") as file:
                file.write(data)
                file.flush()
                text = subprocess.run([*command, file.name], stdout=subprocess.PIPE, check=True,
                                      encoding="utf-8").stdout
            return re.findall(pattern, text, re.MULTILINE)
        return self.each(look)

    def load_commands(self, pattern):
        return self.printed(pattern, "llvm-otool-14", "-l")

    def test_it_has_a_slice_for_either_processor(self):
        self.assertEqual(["x86_64", "arm64"], list(self.slices))
        self.assertEqual({"x86_64": ["X86_64"], "arm64": ["ARM64"]},
                         self.printed(r"^ *MH_MAGIC_64 +(\w+)", "llvm-otool-14", "-hv"))

    def test_it_is_a_position_independent_program(self):
        self.assertEqual(self.both([("EXECUTE", "TWOLEVEL PIE")]), self.printed(
            r"^ *MH_MAGIC_64 +\w+ +ALL +0x00 +(\w+) .*\b(TWOLEVEL PIE)$", "llvm-otool-14", "-hv"))

    def test_it_runs_from_macOS_11_on(self):
        # LC_VERSION_MIN_* would state it too, for older systems.
        self.assertEqual(self.both([("LC_BUILD_VERSION", "macos", "11.0")]), self.load_commands(
            r"cmd (LC_BUILD_VERSION)\n.*\n +platform (\w+)\n.*\n +minos (.*)$"))
        self.assertEqual(self.both([]), self.load_commands(r"LC_VERSION_MIN\w*"))

    def test_its_run_paths_are_those_of_the_runtime_in_the_bundle(self):
        self.assertEqual(self.both(["../Resources/jre/lib/server", "../Resources/jre/lib/jli"]),
                         self.load_commands(r"cmd LC_RPATH\n.*\n +path (.*) \(offset"))

    def test_it_needs_the_runtime_library_and_the_system_only(self):
        # Weak, re-exported, lazy and upward ones would be listed too.
        self.assertEqual(self.both([("LC_LOAD_DYLIB", JVM), ("LC_LOAD_DYLIB", SYSTEM)]),
                         self.load_commands(r"cmd (LC_\w+_DYLIB)\n.*\n +name (.*) \(offset"))

    def imports(self):
        """(symbol, library) of every undefined symbol, in order."""
        return self.printed(r"\(undefined\) (?:weak )?external (\w+) \(from (\w+)\)",
                            "llvm-nm-14", "-u", "-m")

    def test_it_asks_the_runtime_library_for_one_symbol(self):
        self.assertEqual(self.both(["_JNI_CreateJavaVM"]), {
            architecture: [symbol for symbol, library in found if library == "libjvm"]
            for architecture, found in self.imports().items()})

    def test_its_own_path_is_what_the_system_says_and_that_is_bound_once(self):
        self.assertEqual(self.both([("libSystem", "__NSGetExecutablePath")]), self.printed(
            r"^__DATA.* (lib\w+) +(__NSGetExecutablePath)$",
            "llvm-objdump-14", "--macho", "--bind", "--lazy-bind", "--weak-bind"))

    def test_the_loader_is_told_to_bind_what_is_asked_for_and_no_more(self):
        bound = self.printed(r"^__DATA.* (lib\w+) +(\w+)$", "llvm-objdump-14", "--macho", "--bind",
                             "--lazy-bind", "--weak-bind")
        asked = self.imports()
        for architecture, found in bound.items():
            self.assertLessEqual({(symbol, library) for library, symbol in found},
                                 set(asked[architecture]))
            self.assertIn(("libjvm", "_JNI_CreateJavaVM"), found)

    def test_the_entitlements_are_the_file_that_a_release_is_signed_with(self):
        expected = (ROOT / "bundle/OrvaneService.entitlements").read_bytes()
        self.assertEqual(self.both(expected), self.each(macho.entitlements))

    def test_its_signature_fits_every_page_and_the_entitlements(self):
        self.assertEqual(self.both([]), self.each(macho.wrong_hashes))

    def test_a_changed_byte_is_found(self):
        for architecture, data in self.slices.items():
            start, blobs = macho.signature(data)
            directory = blobs[macho.CODE_DIRECTORY]
            hashes, _, _, pages = struct.unpack_from(">4I", directory, 16)
            size, at = macho.page_size(data), data.index(directory) + hashes
            for what, offset, wrong in (
                    *(("code", offset, offset // size) for offset in (4096, start // 2, start - 1)),
                    ("header", data.index(b"../Resources/jre/lib/server"), 0),
                    ("entitlements", data.rindex(b"allow-jit"), -macho.ENTITLEMENTS),
                    *(("hash", at + 32 * page, page) for page in (0, pages - 1))):
                with self.subTest(architecture=architecture, what=what, offset=offset):
                    changed = bytearray(data)
                    changed[offset] ^= 1
                    self.assertEqual([wrong], macho.wrong_hashes(bytes(changed)))

    def test_another_build_directory_gives_the_same_bytes(self):
        with tempfile.TemporaryDirectory(dir=ROOT / "build", prefix="another ") as directory:
            cache = str(ROOT / "build/zig/cache")
            environment = dict(os.environ, ZIG_GLOBAL_CACHE_DIR=cache, ZIG_LOCAL_CACHE_DIR=cache)
            for command in (["--preset", "macos-x86_64", "-B", directory],
                            ["--build", directory, "--target", "OrvaneService"]):
                subprocess.run(["cmake", *command], cwd=ROOT, stdout=subprocess.PIPE, check=True,
                               env=environment)
            self.assertTrue(filecmp.cmp(ROOT / "build/macos-x86_64/src/OrvaneService",
                                        pathlib.Path(directory) / "src/OrvaneService", shallow=False))
