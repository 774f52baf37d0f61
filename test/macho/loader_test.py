"""The loader of the slice that SLICE names: what it does not understand ends the process with its
name, errors pass every kind of function, and a slice with a byte changed fails the tests."""

import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

from support import ROOT, macho
from support.launcher import ABORTED, EMULATOR, PROGRAM, SLICE, Launcher
from support.platform import EMULATORS_LINE
from support.private_root import BUILD_DIR

TARGET = {"x86_64": "x86_64", "arm64": "aarch64"}[SLICE]
DIRECTORY = PROGRAM.parent
CONTENT = (DIRECTORY / "slice").read_bytes()
UNIX_THREAD, LC_UUID, LC_DYLD_INFO_ONLY = 0x5, 0x1B, 0x80000022
UNWIND_INFO = CONTENT.index(b"\x01\0\0\0\x1c\0\0\0")  # the section: version, size of its head


def encodings():
    """Where the encodings of unwinding entries are: those that all pages share, each page's own."""
    info = memoryview(CONTENT)[UNWIND_INFO:]
    shared, count, _, _, index, pages = struct.unpack_from("<6I", info, 4)
    lists = [(shared, count)]
    for page in range(pages - 1):
        (begin,) = struct.unpack_from("<I", info, index + 12 * page + 4)
        offset, own = struct.unpack_from("<2H", info, begin + 8)
        lists.append((begin + offset, own))
    return [UNWIND_INFO + begin + 4 * i for begin, number in lists for i in range(number)]


def changed(old, new):
    """The program with these bytes of its slice replaced, wherever they are."""
    assert len(old) == len(new) and old in CONTENT
    program = PROGRAM.read_bytes()
    assert program.count(CONTENT) == 1
    return program.replace(CONTENT, CONTENT.replace(old, new))


def changed_at(bytes_):
    """The program with bytes of its slice replaced, {offset: byte}."""
    program = bytearray(PROGRAM.read_bytes())
    begin = program.index(CONTENT)
    for offset, byte in bytes_.items():
        program[begin + offset] = byte
    return bytes(program)


class LoaderTest(unittest.TestCase):
    maxDiff = None

    def assert_ended(self, program, report):
        launcher = Launcher(self)
        launcher.root.put(launcher.program, program, mode=0o755)
        run = launcher.run()
        self.assertEqual((run.status, run.stdout, run.stderr, run.calls),
                         (ABORTED, b"", b"macho: " + report + b"\n" + EMULATORS_LINE, []))

    def test_an_import_that_nothing_stands_in_for_is_named(self):
        self.assert_ended(changed(b"_wmemchr\0", b"_wmemchx\0"),
                          b"libSystem's _wmemchx has no stand-in")

    def test_an_import_that_must_not_be_called_is_named_when_it_is(self):
        self.assert_ended(changed(b"_fflush\0", b"_sscanf\0"),
                          b"the program called sscanf, which has no stand-in")

    def test_a_library_that_is_not_known_is_named(self):
        self.assert_ended(changed(b"@rpath/libjvm.dylib", b"@rpath/libjvn.dylib"),
                          b"Library not loaded: @rpath/libjvn.dylib")

    def test_a_symbol_that_the_runtime_has_not_is_named(self):
        self.assert_ended(changed(b"_JNI_CreateJavaVM\0", b"_JNI_CreateJavaVX\0"),
                          b"Symbol not found: _JNI_CreateJavaVX")

    def test_a_load_command_that_is_not_understood_is_named(self):
        (command,) = macho.commands(CONTENT, LC_UUID)
        self.assert_ended(changed(command, bytes([UNIX_THREAD]) + command[1:]),
                          b"load command 0x5 is not understood")

    def test_an_opcode_that_is_not_understood_is_named(self):
        (command,) = macho.commands(CONTENT, LC_DYLD_INFO_ONLY)
        for field, opcode, kind in (8, 0xF0, b"rebase"), (16, 0xE0, b"bind"), (32, 0xD0, b"bind"):
            offset = int.from_bytes(command[field:field + 4], "little")
            with self.subTest(kind):
                self.assert_ended(changed_at({offset: opcode}),
                                  kind + b" opcode 0x%x is not understood" % opcode)

    def test_an_unwinding_entry_that_is_not_understood_is_named(self):
        offset = next(at for at in encodings() if CONTENT[at + 3] == 2)
        encoding = CONTENT[offset:offset + 3] + b"\x0f"
        self.assert_ended(
            changed_at({offset + 3: 0x0F}),
            b"unwinding entry 0x%08x is not understood" % int.from_bytes(encoding, "little"))

    def test_an_error_passes_a_function_of_each_kind_and_destroys_its_objects(self):
        (zig,) = (ROOT / "build/zig/node_modules/@oven").glob("zig-linux-*/zig")
        cache = str(ROOT / "build/zig/cache")
        kinds = set()
        for frames in "-fomit-frame-pointer", "-fno-omit-frame-pointer":
            with self.subTest(frames), tempfile.TemporaryDirectory(dir=BUILD_DIR) as directory:
                def run(*command):
                    return subprocess.run(
                        command, check=True, encoding="utf-8", stdout=subprocess.PIPE,
                        env={**os.environ, "ZIG_GLOBAL_CACHE_DIR": cache,
                             "ZIG_LOCAL_CACHE_DIR": cache}).stdout

                target = ["-target", TARGET + "-macos.11.0"]
                here = ROOT / "test/macho"
                object_, linked, program = (f"{directory}/{name}" for name in ("o.o", "m", "p"))
                run(zig, "c++", *target, "-O2", frames, "-c", here / "program/throwing.cpp",
                    "-o", object_)
                run(zig, "build-exe", object_, "-femit-bin=" + linked, *target, "-O",
                    "ReleaseSmall", "-fstrip", "-lc", "-lc++")
                run(TARGET + "-linux-gnu-g++", f'-DSLICE="{linked}"', here / "slice.S",
                    DIRECTORY / "loader.o", "-o", program)
                text = run("llvm-objdump-14", "--macho", "--unwind-info", linked)
                kinds |= set(re.findall(r"encoding(?:\[\d+\])?=0x.(.)", text))
                self.assertEqual(
                    run(*EMULATOR, program),
                    "".join(f"{name}: as it should be\n"
                            for name in ("small", "large", "variable", "described")))
        # 0: none. x86-64: frame pointer, size in the entry, size in the code, DWARF.
        # arm64: leaf, DWARF, frame pointer.
        self.assertEqual(kinds - {"0"}, {"x86_64": set("1234"), "arm64": set("234")}[SLICE])


class ChangedSliceTest(unittest.TestCase):
    def assert_status(self, program, status):
        """A few console tests, over this program, end with the status."""
        with tempfile.TemporaryDirectory(dir=BUILD_DIR) as directory:
            slice_ = pathlib.Path(directory) / SLICE
            slice_.mkdir()
            (slice_ / "OrvaneService").write_bytes(program)
            (slice_ / "OrvaneService").chmod(0o755)
            shutil.copy(DIRECTORY / "libjvm.so", slice_)
            run = subprocess.run(
                [sys.executable, "-B", "-m", "unittest", "main_flow_test"],
                cwd=ROOT / "test/console", env={**os.environ, "SLICE": str(slice_)},
                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            self.assertEqual(run.returncode, status, run.stderr)

    def test_a_slice_without_a_change_passes(self):
        self.assert_status(PROGRAM.read_bytes(), 0)

    def test_an_option_with_a_byte_changed_is_noticed(self):
        # One that the compiler has not made part of the instructions.
        option = b"-Dorv.installation.enforcement.enabled=true"
        self.assert_status(changed(option, option[:-1] + b"f"), 1)

    def test_a_run_path_with_a_byte_changed_is_noticed(self):
        self.assert_status(changed(b"../Resources/jre/lib/server", b"../Resources/jre/lib/servex"),
                           1)

    def test_a_function_without_its_personality_is_noticed(self):
        if SLICE == "x86_64":  # the flags of compact entries
            flags = {at + 3: CONTENT[at + 3] & 0x0F for at in encodings()}
            self.assert_status(changed_at(flags), 1)
        else:  # DWARF: a letter that says there is one
            self.assert_status(changed(b"zPLR\0", b"zRLR\0"), 1)
