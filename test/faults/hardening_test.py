"""How the executable is hardened, by readelf and the commands it was compiled with."""

import json
import re
import subprocess
import unittest

from support import ROOT
from support.launcher import PROGRAM
from support.private_root import BUILD_DIR

SRC = ROOT / "src"

# What the product itself imports, besides C++ and the compiler's own: it can read neither the
# environment nor standard input, nor start a thread, nor take a locale from elsewhere.
C_FUNCTIONS = {"JNI_CreateJavaVM", "exit", "getauxval", "getcwd", "bcmp", "memchr", "memcmp",
               "memcpy", "memmove", "memset", "strlen"}
FORBIDDEN = r"6locale(6global|C[12]E[^v])|6thread|filesystem|chrono|random_device"
COMPILER = r"_GLOBAL_OFFSET_TABLE_|__dso_handle|(_Unwind|__cxa|__gxx|__stack_chk)_\w+|__\w+_chk"


def readelf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], check=True, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True).stdout


class HardeningTest(unittest.TestCase):
    maxDiff = None

    def dynamic(self, tag):
        """The values of a tag of the dynamic section."""
        lines = re.findall(rf"\({tag}\)\s+(.*)", readelf("--dynamic", PROGRAM))
        return [line.rpartition("[")[2].rstrip("]") for line in lines]

    def segment_flags(self, kind):
        return re.findall(rf"^  {kind}(?:\s+0x[0-9a-f]+){{5}} (.{{3}})",
                          readelf("--program-headers", PROGRAM), re.MULTILINE)

    def test_it_is_position_independent(self):
        self.assertRegex(readelf("--file-header", PROGRAM), r"Type: +DYN")
        self.assertEqual(self.dynamic("FLAGS_1"), ["Flags: NOW PIE"])

    def test_everything_is_bound_at_the_start_and_read_only_afterwards(self):
        self.assertEqual(self.dynamic("FLAGS"), ["BIND_NOW"])
        self.assertEqual(self.segment_flags("GNU_RELRO"), ["R  "])

    def test_neither_the_stack_nor_anything_writable_is_executable(self):
        self.assertEqual(self.segment_flags("GNU_STACK"), ["RW "])
        self.assertEqual(sorted(set(self.segment_flags("LOAD"))), ["R  ", "R E", "RW "])
        self.assertEqual(self.dynamic("TEXTREL"), [])

    def test_the_run_path_has_the_two_directories_of_the_bundles_runtime_alone(self):
        self.assertEqual(self.dynamic("RUNPATH"),
                         ["../Resources/jre/lib/server:../Resources/jre/lib/jli"])
        self.assertEqual(self.dynamic("RPATH"), [])

    def test_it_needs_the_runtime_and_the_C_library_alone(self):
        needed = {re.sub(r"\.so.*|-linux.*", "", name) for name in self.dynamic("NEEDED")}
        self.assertEqual(needed - {"libm"}, {"libjvm", "libc", "libgcc_s", "ld"})

    def test_no_symbol_is_offered_to_the_libraries_it_loads(self):
        symbols = readelf("--dyn-syms", PROGRAM)
        defined = re.findall(r"(?:FUNC|OBJECT) +(?:GLOBAL|WEAK) +DEFAULT +\d+ ([^@\s]+)$", symbols,
                             re.MULTILINE)
        self.assertEqual(defined, [])

    def test_the_product_imports_these_C_functions_and_two_streams_alone(self):
        objects = [*(BUILD_DIR / "src").glob("*.a"), *(BUILD_DIR / "src").rglob("main.cpp.o")]
        self.assertEqual(len(objects), 4)
        symbols = subprocess.run(["nm", "--undefined-only", "--format=posix", *objects], check=True,
                                 capture_output=True, text=True).stdout
        names = set(re.findall(r"^(\w+) U", symbols, re.MULTILINE))
        self.assertLessEqual({name for name in names if not re.match(COMPILER + "|_Z", name)},
                             C_FUNCTIONS)
        self.assertEqual(set(re.findall(r"^_ZN?St(?:3__1)?\d(w?c(?:in|out|err|log))E? U", symbols,
                                        re.MULTILINE)), {"cout", "cerr"})
        self.assertEqual([name for name in names if re.search(FORBIDDEN, name)], [])
        self.assertIn("\nint main(int argc, char* argv[]) {\n",
                      (SRC / "launcher/main.cpp").read_text())

    def test_the_products_functions_with_buffers_check_their_stack(self):
        for library in "jvmargs", "executable_path":
            with self.subTest(library):
                self.assertIn("__stack_chk_fail",
                              readelf("--syms", BUILD_DIR / f"src/lib{library}.a"))

    def test_every_source_is_compiled_with_the_checks_of_the_C_library(self):
        commands = json.loads((BUILD_DIR / "compile_commands.json").read_text())
        sources = [command for command in commands if command["file"].startswith(f"{SRC}/")]
        self.assertGreater(len(sources), 3)
        for source in sources:
            with self.subTest(source["file"]):
                words = source["command"].split()
                self.assertIn("-D_FORTIFY_SOURCE=2", words)
                self.assertIn("-fstack-protector-strong", words)
                self.assertTrue({"-O2", "-O3"} & set(words))
