"""The macOS executable that script/cross-macos makes, each slice: what LLVM's tools print of it, and its
signature, which they do not read."""

import filecmp
import hashlib
import os
import re
import struct
import subprocess

import pytest
from support import ROOT

EXECUTABLE = ROOT / "build/macos-universal/src/OrvaneService"
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: "arm64"}
CODE_DIRECTORY, ENTITLEMENTS = 0, 5  # slots of a signature


class Slice:
    """One slice as bytes, and as a file for LLVM's tools."""

    def __init__(self, data, file):
        self.data, self.file = data, file
        file.write_bytes(data)

    def printed(self, pattern, tool, *options):
        """All that the pattern finds in what a tool prints, in order."""
        text = subprocess.run(["llvm-" + tool, *options, self.file], stdout=subprocess.PIPE, check=True,
                              text=True).stdout
        return re.findall(pattern, text, re.MULTILINE)


def slices():
    data = EXECUTABLE.read_bytes()
    magic, count = struct.unpack_from(">II", data)
    assert magic == 0xCAFEBABE
    headers = [struct.unpack_from(">5I", data, 8 + 20 * index) for index in range(count)]
    return [(PROCESSORS[processor], data[offset:offset + size]) for processor, _, offset, size, _ in headers]


@pytest.fixture(params=["x86_64", "arm64"])
def macho(request, tmp_path):
    assert [processor for processor, _ in slices()] == ["x86_64", "arm64"]
    return Slice(dict(slices())[request.param], tmp_path / request.param)


def test_it_is_a_position_independent_program_for_its_processor(macho):
    assert macho.printed(r"^ *MH_MAGIC_64 +(\w+) +ALL +0x00 +(\w+) .*\b(TWOLEVEL PIE)$", "otool", "-hv") == [
        (macho.file.name.upper(), "EXECUTE", "TWOLEVEL PIE")]


def test_it_runs_from_macOS_11_on(macho):
    assert macho.printed(r"cmd (LC_BUILD_VERSION|LC_VERSION_MIN\w*)\n.*\n +platform (\w+)\n.*\n +minos (.*)$",
                         "otool", "-l") == [("LC_BUILD_VERSION", "macos", "11.0")]


def test_its_run_paths_are_those_of_the_runtime_in_the_bundle(macho):
    assert macho.printed(r"cmd LC_RPATH\n.*\n +path (.*) \(offset", "otool", "-l") == [
        "../Resources/jre/lib/server", "../Resources/jre/lib/jli"]


def test_it_needs_the_runtime_library_and_the_system_only(macho):
    # Weak, re-exported, lazy and upward ones would be listed too.
    assert macho.printed(r"cmd (LC_\w+_DYLIB)\n.*\n +name (.*) \(offset", "otool", "-l") == [
        ("LC_LOAD_DYLIB", "@rpath/libjvm.dylib"), ("LC_LOAD_DYLIB", "/usr/lib/libSystem.B.dylib")]


def test_the_loader_binds_one_symbol_of_the_runtime_and_no_more_than_is_asked_for(macho):
    asked = macho.printed(r"\(undefined\) (?:weak )?external (\w+) \(from (\w+)\)", "nm", "-u", "-m")
    bound = macho.printed(r"^__DATA.* (?=lib)(\w+) +(\w+)$", "objdump", "--macho", "--bind", "--lazy-bind",
                          "--weak-bind")
    assert [symbol for symbol, library in asked if library == "libjvm"] == ["_JNI_CreateJavaVM"]
    assert ("libjvm", "_JNI_CreateJavaVM") in bound
    assert bound.count(("libSystem", "__NSGetExecutablePath")) == 1  # its own path is what the system says
    assert {(symbol, library) for library, symbol in bound} <= set(asked)


def signature(data):
    """(where it begins, {slot: blob}) of a slice."""
    at = 32
    for _ in range(struct.unpack_from("<I", data, 16)[0]):
        command, length, start, size = struct.unpack_from("<4I", data, at)
        at += length
        if command == 0x1D:  # LC_CODE_SIGNATURE
            break
    whole = data[start:start + size]
    magic, _, count = struct.unpack_from(">3I", whole)
    assert (command, magic) == (0x1D, 0xFADE0CC0)
    places = [struct.unpack_from(">II", whole, 12 + 8 * index) for index in range(count)]
    return start, {slot: whole[place:place + struct.unpack_from(">I", whole, place + 4)[0]]
                   for slot, place in places}


def wrong_hashes(data):
    """What the code directory's hashes do not fit: page numbers from 0 on, and the negative
    numbers of special slots; and "end" if they leave out some of the file."""
    start, blobs = signature(data)
    directory = blobs[CODE_DIRECTORY]
    magic, hashes, special, pages, limit, *kind = struct.unpack_from(">I12xI4x3I2B", directory)
    assert (magic, kind) == (0xFADE0C02, [32, 2]), "not SHA-256"
    size = 1 << directory[39]

    def stored(slot):
        return directory[hashes + 32 * slot:][:32]

    content = {page: data[page * size:min((page + 1) * size, limit)] for page in range(pages)}
    content.update({-slot: blob for slot, blob in blobs.items() if 0 < slot < 0x1000})
    wrong = [slot for slot, part in content.items()
             if -slot > special or stored(slot) != hashlib.sha256(part).digest()]
    wrong += [-slot for slot in range(1, special + 1) if -slot not in content and stored(-slot) != bytes(32)]
    return wrong + ["end"] * (limit != start or pages != -(-limit // size))


def test_its_signature_fits_every_page_and_has_the_entitlements_of_a_release(macho):
    assert wrong_hashes(macho.data) == []
    blob = signature(macho.data)[1][ENTITLEMENTS]
    assert blob[:4].hex() == "fade7171"
    assert blob[8:] == (ROOT / "bundle/OrvaneService.entitlements").read_bytes()


def test_another_build_directory_gives_the_same_bytes(tmp_path):
    cache = str(ROOT / "build/zig/cache")
    environment = {**os.environ, "ZIG_GLOBAL_CACHE_DIR": cache, "ZIG_LOCAL_CACHE_DIR": cache}
    other = tmp_path / "another one"
    for options in ["--preset", "macos-x86_64", "-B", other], ["--build", other, "--target", "OrvaneService"]:
        subprocess.run(["cmake", *options], cwd=ROOT, stdout=subprocess.PIPE, check=True, env=environment)
    assert filecmp.cmp(ROOT / "build/macos-x86_64/src/OrvaneService", other / "src/OrvaneService",
                       shallow=False)
