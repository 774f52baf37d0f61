"""What an executable and a library were made for."""

import zipfile

import pytest
from bundler.errors import UserError
from bundler.platforms import platforms_of
from bundling import ARM64, X86_64, elf, mach_o

JAVA_CLASS = bytes.fromhex("cafebabe00000034") + b"\3" * 32
POWERPC = 18


@pytest.mark.parametrize(
    "content, platforms",
    [
        (elf(62), (["linux-amd64"], (11, 0))),
        (elf(183), (["linux-aarch64"], (11, 0))),
        (mach_o(X86_64), (["macos-amd64"], (11, 0))),
        (mach_o(ARM64, macos=(10, 15)), (["macos-aarch64"], (11, 0))),  # the launcher's is 11.0
        (mach_o(ARM64, macos=(14, 2)), (["macos-aarch64"], (14, 2))),
        (mach_o(X86_64, ARM64, macos=(12, 0)), (["macos-amd64", "macos-aarch64"], (12, 0))),
    ],
)
def test_a_program_tells_its_platforms_and_its_macOS(tmp_path, content, platforms):
    (tmp_path / "program").write_bytes(content)
    assert platforms_of("--executable", tmp_path / "program") == platforms


def test_a_jmod_tells_the_platform_of_its_VM(tmp_path):
    with zipfile.ZipFile(tmp_path / "java.base.jmod", "w") as jmod:
        jmod.writestr("lib/libjava.dylib", mach_o(ARM64, macos=(15, 0)))
        jmod.writestr("lib/server/libjvm.dylib", mach_o(ARM64, macos=(13, 1)))
    platforms = platforms_of("--jmods", tmp_path / "java.base.jmod")
    assert platforms == (["macos-aarch64"], (13, 1))


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"#!/bin/sh\n",
        JAVA_CLASS,
        elf(POWERPC),
        mach_o(POWERPC),
        mach_o(X86_64, POWERPC),
        mach_o(X86_64)[:30],
        mach_o(X86_64, ARM64)[:30],
    ],
    ids=repr,
)
def test_any_other_file_is_rejected(tmp_path, content):
    (tmp_path / "program").write_bytes(content)
    with pytest.raises(UserError) as error:
        platforms_of("--executable", tmp_path / "program")
    assert str(error.value) == (
        f"--executable: '{tmp_path}/program' is not for macOS or Linux on amd64 or aarch64; "
        "name one that is"
    )
