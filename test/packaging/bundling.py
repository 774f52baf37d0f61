"""What the tests of script/bundle share: its call, jars, and made-up JDKs and executables. Fixtures are in
conftest.py."""

import os
import pathlib
import re
import struct
import subprocess
import typing
import zipfile

from bundler.platforms import platforms_of
from support import BUILD_DIR, LINUX, ROOT

JDK = pathlib.Path(os.environ["JAVA_HOME"])
JAVA = int(re.search(r'^JAVA_VERSION="(\d+)', (JDK / "release").read_text(), re.M)[1])
EXECUTABLE = BUILD_DIR / "src/OrvaneService"
MAIN = "com/vaultory/service/QRService.class"
LISTING_JAR = "com.vaultory.desktop.jar"
MANIFEST = "META-INF/MANIFEST.MF"
EPOCH = 1_700_000_000
X86_64, ARM64 = 0x01000007, 0x0100000C


class Finished(typing.NamedTuple):
    status: int
    lines: typing.List[str]  # of standard error, N in place of seconds


def call(*command, cwd, umask=-1, **environment):
    """A finished command, which prints nothing on standard output."""
    run = subprocess.run(
        command,
        cwd=cwd,
        capture_output=True,
        text=True,
        umask=umask,
        env={**os.environ, **environment},
        stdin=subprocess.DEVNULL,
    )
    assert run.stdout == ""
    return Finished(run.returncode, re.sub(r"\d+(\.\d)? s\b", "N s", run.stderr).splitlines())


def script(*arguments, cwd, **settings):
    """script/bundle, called in this directory."""
    return call(ROOT / "script/bundle", *arguments, cwd=cwd, **settings)


def bundle(*arguments, cwd, **settings):
    """The same, with the launcher that has been built."""
    return script("--executable", EXECUTABLE, *arguments, cwd=cwd, **settings)


def this_platform():
    """The JDK's, as it is in the name of a tarball."""
    library = "libjvm.so" if LINUX else "libjvm.dylib"
    (platform,), _ = platforms_of("JAVA_HOME", JDK / "lib/server" / library)
    return platform


def write_script(path, text):
    path.write_text(text)
    path.chmod(0o755)


def write_jar(path, entries, manifest=""):
    path.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(path, "w") as jar:
        jar.writestr(MANIFEST, f"Manifest-Version: 1.0\r\n{manifest}\r\n".encode("latin-1"))
        for name, data in entries.items():
            jar.writestr(name, data)
    return path


def wrapped_jdk(directory, program, line):
    """The JDK, with a line of shell before one of its programs."""
    jdk = directory / "jdk"
    (jdk / "bin").mkdir(parents=True)
    for path in [*JDK.iterdir(), *(JDK / "bin").iterdir()]:
        if path not in (JDK / "bin", JDK / "bin" / program):
            (jdk / path.relative_to(JDK)).symlink_to(path)
    write_script(jdk / "bin" / program, f'#!/bin/sh\n{line}\nexec "{JDK}/bin/{program}" "$@"\n')
    return jdk


def elf(machine):
    """A program for Linux."""
    return b"\x7fELF\2\1\1" + bytes(9) + struct.pack("<2H", 3, machine) + bytes(44)


def mach_o(*processors, macos=(11, 0)):
    """A program for this macOS and later, universal for two processors."""
    slices = []
    for processor in processors:
        header = struct.pack("<8I", 0xFEEDFACF, processor, 3, 2, 1, 24, 0, 0)
        build_version = struct.pack("<6I", 0x32, 24, 1, macos[0] << 16 | macos[1] << 8, 0, 0)
        slices.append(header + build_version)
    if len(slices) == 1:
        return slices[0]
    universal = struct.pack(">2I", 0xCAFEBABE, len(slices))
    offset = len(universal) + 20 * len(slices)
    for processor, content in zip(processors, slices):
        universal += struct.pack(">5I", processor, 3, offset, len(content), 0)
        offset += len(content)
    return universal + b"".join(slices)
