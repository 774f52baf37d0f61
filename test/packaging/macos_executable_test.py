"""The macOS executable that script/cross-macos makes, read byte by byte."""
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


class ExecutableTest(unittest.TestCase):
    def setUp(self):
        if not EXECUTABLE.exists():
            if os.environ.get("CI") and os.uname().sysname == "Linux":
                self.fail(f"no {EXECUTABLE}: call script/cross-macos")
            self.skipTest(f"no {EXECUTABLE}: script/cross-macos makes it, on Linux")
        self.slices = [macho.Slice(data)
                       for data in macho.slices(EXECUTABLE.read_bytes()).values()]

    def each(self, look):
        return {part.architecture: look(part) for part in self.slices}

    def both(self, expected):
        return {"x86_64": expected, "arm64": expected}

    def objdump(self, *options):
        """What LLVM's reader says of each slice, without its headings."""
        if shutil.which("llvm-objdump-14") is None:
            self.skipTest("no llvm-objdump-14")
        return {architecture: subprocess.run(
            ["llvm-objdump-14", "--macho", f"--arch={architecture}", *options, str(EXECUTABLE)],
            stdout=subprocess.PIPE, check=True, encoding="utf-8").stdout
                for architecture in ("x86_64", "arm64")}

    def test_it_has_a_slice_for_either_processor(self):
        self.assertEqual(["x86_64", "arm64"], [part.architecture for part in self.slices])

    def test_it_is_a_position_independent_program(self):
        wanted = macho.MH_PIE | macho.MH_TWOLEVEL
        self.assertEqual(self.both((macho.MH_EXECUTE, wanted)),
                         self.each(lambda part: (part.file_type, part.flags & wanted)))

    def test_it_runs_from_macOS_11_on(self):
        self.assertEqual(self.both([(1, "11.0")]), self.each(macho.Slice.minimum_systems))

    def test_its_run_paths_are_those_of_the_runtime_in_the_bundle(self):
        self.assertEqual(self.both(["../Resources/jre/lib/server", "../Resources/jre/lib/jli"]),
                         self.each(macho.Slice.run_paths))

    def test_it_needs_the_runtime_library_and_the_system_only(self):
        self.assertEqual(self.both([JVM, SYSTEM]), self.each(macho.Slice.libraries))

    def test_it_asks_the_runtime_library_for_one_symbol(self):
        self.assertEqual(self.both({"_JNI_CreateJavaVM"}),
                         self.each(lambda part: part.imports()[JVM]))

    def test_it_asks_the_system_for_its_own_path(self):
        self.assertEqual(self.both({"__NSGetExecutablePath"}), self.each(
            lambda part: part.imports()[SYSTEM] & {"__NSGetExecutablePath"}))

    def test_the_loader_is_told_to_bind_those_and_none_that_is_not_asked_for(self):
        bound = {}
        for architecture, text in self.objdump("--bind", "--lazy-bind", "--weak-bind").items():
            bound[architecture] = {"libjvm": set(), "libSystem": set()}
            for library, symbol in re.findall(r"^__DATA.* (lib\w+) +(\w+)", text, re.MULTILINE):
                bound[architecture][library].add(symbol)
        self.assertEqual(self.both(({"_JNI_CreateJavaVM"}, {"__NSGetExecutablePath"}, set())), {
            part.architecture: (bound[part.architecture]["libjvm"],
                                bound[part.architecture]["libSystem"] & {"__NSGetExecutablePath"},
                                bound[part.architecture]["libSystem"] - part.imports()[SYSTEM])
            for part in self.slices})

    def test_LLVM_reads_the_same_libraries(self):
        self.assertEqual(self.each(macho.Slice.libraries), {
            architecture: re.findall(r"^\t(.*) \(compat", text, re.MULTILINE)
            for architecture, text in self.objdump("--dylibs-used").items()})

    def test_LLVM_reads_the_same_run_paths(self):
        self.assertEqual(self.each(macho.Slice.run_paths), {
            architecture: re.findall(r"^ +path (.*) \(offset", text, re.MULTILINE)
            for architecture, text in self.objdump("--private-headers").items()})

    def test_the_entitlements_are_the_file_that_a_release_is_signed_with(self):
        expected = (ROOT / "bundle/OrvaneService.entitlements").read_bytes()
        self.assertEqual(self.both(expected), self.each(macho.Slice.entitlements))

    def test_its_signature_fits_every_page_and_the_entitlements(self):
        self.assertEqual(self.both([]), self.each(macho.Slice.wrong_hashes))

    def test_a_changed_byte_is_found(self):
        for part in self.slices:
            start, blobs = part.signature()
            directory = blobs[macho.CODE_DIRECTORY]
            hashes, _, _, pages = struct.unpack_from(">4I", directory, 16)
            size, at = 1 << directory[39], part.data.index(directory) + hashes
            for what, offset, wrong in (
                    *(("code", offset, offset // size) for offset in (4096, start // 2, start - 1)),
                    ("header", part.data.index(b"../Resources/jre/lib/server"), 0),
                    ("entitlements", part.data.rindex(b"allow-jit"), -macho.ENTITLEMENTS),
                    *(("hash", at + 32 * page, page) for page in (0, pages - 1))):
                with self.subTest(architecture=part.architecture, what=what, offset=offset):
                    changed = bytearray(part.data)
                    changed[offset] ^= 1
                    self.assertEqual([wrong], macho.Slice(bytes(changed)).wrong_hashes())

    def test_another_build_directory_gives_the_same_bytes(self):
        with tempfile.TemporaryDirectory(dir=ROOT / "build", prefix="another ") as folder:
            cache = str(ROOT / "build/zig/cache")
            environment = dict(os.environ, ZIG_GLOBAL_CACHE_DIR=cache, ZIG_LOCAL_CACHE_DIR=cache)
            for command in (["--preset", "macos-x86_64", "-B", folder],
                            ["--build", folder, "--target", "OrvaneService"]):
                subprocess.run(["cmake", *command], cwd=ROOT, stdout=subprocess.PIPE, check=True,
                               env=environment)
            self.assertTrue(filecmp.cmp(ROOT / "build/macos-x86_64/src/OrvaneService",
                                        pathlib.Path(folder) / "src/OrvaneService", shallow=False))
