"""The macOS executables that script/cross-macos makes, each slice: what LLVM's tools print of it."""

import filecmp
import os
import re
import struct
import subprocess

import pytest
from support import ROOT

LAUNCHER, TOOL = "OrvaneService", "operator-tool"
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: "arm64"}


class Slice:
    """One slice as bytes, and as a file for LLVM's tools."""

    def __init__(self, data, file):
        self.data, self.file = data, file
        file.write_bytes(data)

    def printed(self, pattern, tool, *options):
        """All that the pattern finds in what a tool prints, in order."""
        text = subprocess.run(
            ["llvm-" + tool, *options, self.file], stdout=subprocess.PIPE, check=True, text=True
        ).stdout
        return re.findall(pattern, text, re.MULTILINE)


def slices(program):
    data = (ROOT / "build/macos-universal/src" / program).read_bytes()
    magic, count = struct.unpack_from(">II", data)
    assert magic == 0xCAFEBABE
    headers = [struct.unpack_from(">5I", data, 8 + 20 * index) for index in range(count)]
    return [
        (PROCESSORS[processor], data[offset : offset + size])
        for processor, _, offset, size, _ in headers
    ]


def one_slice(program, processor, directory):
    found = slices(program)
    assert [each for each, _ in found] == ["x86_64", "arm64"]
    return Slice(dict(found)[processor], directory / processor)


@pytest.fixture(params=["x86_64", "arm64"])
def launcher(request, tmp_path):
    return one_slice(LAUNCHER, request.param, tmp_path)


@pytest.fixture(params=["x86_64", "arm64"])
def tool(request, tmp_path):
    return one_slice(TOOL, request.param, tmp_path)


@pytest.fixture(
    params=[(LAUNCHER, "x86_64"), (LAUNCHER, "arm64"), (TOOL, "x86_64"), (TOOL, "arm64")]
)
def macho(request, tmp_path):
    return one_slice(*request.param, tmp_path)


def test_it_is_a_position_independent_program_for_its_processor(macho):
    assert macho.printed(
        r"^ *MH_MAGIC_64 +(\w+) +ALL +0x00 +(\w+) .*\b(TWOLEVEL PIE)$", "otool", "-hv"
    ) == [(macho.file.name.upper(), "EXECUTE", "TWOLEVEL PIE")]


def test_it_runs_from_macOS_11_on(macho):
    assert macho.printed(
        r"cmd (LC_BUILD_VERSION|LC_VERSION_MIN\w*)\n.*\n +platform (\w+)\n.*\n +minos (.*)$",
        "otool",
        "-l",
    ) == [("LC_BUILD_VERSION", "macos", "11.0")]


def test_its_run_paths_are_those_of_the_runtime_in_the_bundle(launcher):
    assert launcher.printed(r"cmd LC_RPATH\n.*\n +path (.*) \(offset", "otool", "-l") == [
        "../Resources/jre/lib/server",
        "../Resources/jre/lib/jli",
    ]


def test_it_needs_the_runtime_library_and_the_system_only(launcher):
    # Weak, re-exported, lazy and upward ones would be listed too.
    assert launcher.printed(r"cmd (LC_\w+_DYLIB)\n.*\n +name (.*) \(offset", "otool", "-l") == [
        ("LC_LOAD_DYLIB", "@rpath/libjvm.dylib"),
        ("LC_LOAD_DYLIB", "/usr/lib/libSystem.B.dylib"),
    ]


def test_the_loader_binds_one_symbol_of_the_runtime_and_no_more_than_is_asked_for(launcher):
    asked = launcher.printed(
        r"\(undefined\) (?:weak )?external (\w+) \(from (\w+)\)", "nm", "-u", "-m"
    )
    bound = launcher.printed(
        r"^__DATA.* (?=lib)(\w+) +(\w+)$",
        "objdump",
        "--macho",
        "--bind",
        "--lazy-bind",
        "--weak-bind",
    )
    assert [symbol for symbol, library in asked if library == "libjvm"] == ["_JNI_CreateJavaVM"]
    assert ("libjvm", "_JNI_CreateJavaVM") in bound
    assert (
        bound.count(("libSystem", "__NSGetExecutablePath")) == 1
    )  # its own path is what the system says
    assert {(symbol, library) for library, symbol in bound} <= set(asked)


def test_it_is_signed_with_the_entitlements_of_a_release(launcher):
    assert len(launcher.printed("cmd LC_CODE_SIGNATURE$", "otool", "-l")) == 1
    assert (ROOT / "bundle/OrvaneService.entitlements").read_bytes() in launcher.data


def test_the_operators_tool_needs_the_system_only_and_has_no_entitlement(tool):
    assert tool.printed(r"cmd (LC_\w+_DYLIB)\n.*\n +name (.*) \(offset", "otool", "-l") == [
        ("LC_LOAD_DYLIB", "/usr/lib/libSystem.B.dylib")
    ]
    assert tool.printed("cmd LC_RPATH$", "otool", "-l") == []
    if tool.file.name == "arm64":  # Apple silicon executes nothing that is not signed
        assert len(tool.printed("cmd LC_CODE_SIGNATURE$", "otool", "-l")) == 1
    assert b"com.apple.security" not in tool.data


def test_the_operators_tool_asks_for_the_calls_of_a_mac(tool):
    asked = tool.printed(r"\(undefined\) external _(\w+) \(from libSystem\)", "nm", "-u", "-m")
    assert {"renamex_np", "flock", "getgrouplist", "initgroups"} <= set(asked)
    assert "getenv" not in asked


def test_another_build_directory_gives_the_same_bytes(tmp_path):
    cache = str(ROOT / "build/zig/cache")
    environment = {**os.environ, "ZIG_GLOBAL_CACHE_DIR": cache, "ZIG_LOCAL_CACHE_DIR": cache}
    other = tmp_path / "another one"
    for options in [
        ["--preset", "macos-x86_64", "-B", other],
        ["--build", other, "--target", LAUNCHER, TOOL],
    ]:
        subprocess.run(
            ["cmake", *options], cwd=ROOT, stdout=subprocess.PIPE, check=True, env=environment
        )
    for program in LAUNCHER, TOOL:
        assert filecmp.cmp(
            ROOT / "build/macos-x86_64/src" / program, other / "src" / program, shallow=False
        )
