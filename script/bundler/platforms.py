"""What programs and libraries were made for. This is the one reader of Mach-O and ELF files; the script
that signs a release uses it too."""

import dataclasses
import io
import struct
import sys
import zipfile
from typing import Tuple

from .errors import UserError

OLDEST_MACOS = 11, 0  # the launcher's
PROGRAM = 2  # a Mach-O file type, MH_EXECUTE
HEADER = struct.Struct("<8I")
PROCESSORS = {0x01000007: "x86_64", 0x0100000C: "arm64"}  # as lipo names them
ARCHITECTURES = {"x86_64": "amd64", "arm64": "aarch64"}  # as Java names them
ELF_ARCHITECTURES = {62: "amd64", 183: "aarch64"}
JVM_LIBRARY = "libjvm.dylib" if sys.platform == "darwin" else "libjvm.so"  # of this system
LC_VERSION_MIN_MACOSX, LC_BUILD_VERSION = 0x24, 0x32


@dataclasses.dataclass(frozen=True)
class Slice:
    """What a Mach-O file has for one processor."""

    processor: str  # as lipo names it, or a number
    file_type: int
    minimum_macos: Tuple[int, int]


@dataclasses.dataclass(frozen=True)
class Target:
    """What a bundle is made for: "macos-amd64" or the like, the minimum macOS, and whether a runtime for
    it can be executed here."""

    platform: str
    minimum_macos: Tuple[int, int]
    runs_here: bool


def mach_o_slices(file):
    """The slices of a Mach-O file, a binary stream; none if it is something else, or damaged."""
    try:
        return [read_slice(file, offset) for offset in slice_offsets(file)]
    except struct.error:  # shorter than its header says
        return []


def slice_offsets(file):
    file.seek(0)
    magic, count = struct.unpack(">4sI", file.read(8))
    if magic == b"\xcf\xfa\xed\xfe":
        return [0]
    # A Java class begins like a universal file, with more slices than there are processors.
    if magic == b"\xca\xfe\xba\xbe" and count < 45:
        return [offset for (offset,) in struct.iter_unpack(">8xI8x", file.read(20 * count))]
    return []


def read_slice(file, offset):
    file.seek(offset)
    _, processor, _, file_type, command_count, size, _, _ = HEADER.unpack(file.read(HEADER.size))
    commands, at, minimum = file.read(size), 0, OLDEST_MACOS
    for _ in range(command_count):
        command, command_size = struct.unpack_from("<2I", commands, at)
        if command_size < 8:
            break
        if command in (LC_VERSION_MIN_MACOSX, LC_BUILD_VERSION):
            # LC_BUILD_VERSION has the platform before the version, which is 0xMMMMmmpp.
            version_at = at + (8 if command == LC_VERSION_MIN_MACOSX else 12)
            (version,) = struct.unpack_from("<I", commands, version_at)
            minimum = max(minimum, divmod(version >> 8, 256))
        at += command_size
    return Slice(PROCESSORS.get(processor, hex(processor)), file_type, minimum)


def elf_architecture(file):
    """The architecture of an ELF file, a binary stream; None if it is something else."""
    file.seek(0)
    header = file.read(20)
    if header[:4] != b"\x7fELF" or len(header) < 20:
        return None
    return ELF_ARCHITECTURES.get(struct.unpack_from("<H", header, 18)[0])


def platforms_of(option, path):
    """The platforms of a program, of a library, or of the VM in a java.base.jmod, and the minimum macOS."""
    try:
        with open_binary(path) as file:
            architecture = elf_architecture(file)
            slices = mach_o_slices(file)
    except (OSError, zipfile.BadZipFile) as error:
        raise unknown_platform(option, path) from error
    if architecture:
        return ["linux-" + architecture], OLDEST_MACOS
    if not slices or not all(each.processor in ARCHITECTURES for each in slices):
        raise unknown_platform(option, path)
    minimum = max(each.minimum_macos for each in slices)
    return ["macos-" + ARCHITECTURES[each.processor] for each in slices], minimum


def open_binary(path):
    if path.suffix != ".jmod":
        return path.open("rb")
    with zipfile.ZipFile(path) as jmod:
        for name in "lib/server/libjvm.dylib", "lib/server/libjvm.so":
            if name in jmod.namelist():
                return io.BytesIO(jmod.read(name))
    return io.BytesIO()


def unknown_platform(option, path):
    return UserError(
        f"{option}: '{path}' is not for macOS or Linux on amd64 or aarch64", "name one that is"
    )


def target_of(executable, jdk):
    """What the bundle is made for. Raises unless the executable and the JDK, or its jmods, are for the
    same platform. Without a JDK it is the executable's alone."""
    platforms, minimum = platforms_of("--executable", executable)
    if jdk is None:
        return Target(
            platforms[0] if len(platforms) == 1 else "macos-universal", minimum, runs_here=False
        )
    (host,), runtime_minimum = platforms_of("--jdk", jdk.home / "lib/server" / JVM_LIBRARY)
    option, origin, platform = "--jdk", jdk.home, host
    if jdk.jmods:
        option, origin = "--jmods", jdk.jmods
        (platform,), runtime_minimum = platforms_of(option, origin / "java.base.jmod")
    if platform not in platforms:
        raise UserError(
            f"{option}: '{origin}' is for {platform}, the executable for {' and '.join(platforms)}",
            "name the jmods directory of a JDK for that in --jmods",
        )
    return Target(platform, max(minimum, runtime_minimum), runs_here=platform == host)
