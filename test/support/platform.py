"""What a test sees differently by system and by C++ library: libc++, a Mac's, or libstdc++."""

import os

from . import LINUX
from .launcher import ABORTED, EMULATOR, PROGRAM, SLICE

LIBCXX = b"libc++" in PROGRAM.read_bytes()

# Allocations that a run can do without: what libstdc++ reserves for errors; with libc++, which is not
# linked into the program, those of the stand-in's record.
SPARE_ALLOCATIONS = 10 if LIBCXX else 1

# The stand-in's errors come from the libstdc++ of Linux. The libc++ linked into a slice does not know
# their types: main catches none of them.
FOREIGN_ERRORS = bool(SLICE)

# What becomes of the path of a relative start if it is longer than 1,023 bytes: the dyld of macOS 12, whose
# kernel is 21, and later cuts it there; that of macOS 11 reports it as too long, and so it is on Linux.
LONG_PATH_IS_CUT = not LINUX and int(os.uname().release.partition(".")[0]) >= 21

# The status of a run that finds no libjvm.
NO_RUNTIME = 127 if LINUX and not SLICE else ABORTED

# The emulator's own line for every abort.
_FROM_EMULATOR = b"qemu: uncaught target signal 6 (Aborted) - core dumped\n" if EMULATOR else b""


def terminated(kind, what=None, thrown_by_runtime=False):
    """Standard error of a run that an uncaught error of this type ended."""
    if LIBCXX and not (FOREIGN_ERRORS and thrown_by_runtime):
        return (
            b"libc++abi: terminating due to uncaught exception of type "
            + kind
            + (b"" if what is None else b": " + what)
            + b"\n"
            + _FROM_EMULATOR
        )
    return (
        b"terminate called after throwing an instance of '"
        + kind
        + b"'\n"
        + (b"" if what is None else b"  what():  " + what + b"\n")
        + _FROM_EMULATOR
    )


def terminated_by_runtime(kind, what):
    """Each possible standard error if the runtime's error ended the run while something was released:
    the program and the runtime may have different C++ libraries, or copies of one."""
    return [terminated(kind, what, thrown_by_runtime=True)] + [
        line + _FROM_EMULATOR
        for line in (
            b"libc++abi: terminating due to uncaught foreign exception\n",
            b"libc++abi: terminating\n",
            b"terminate called without an active exception\n",
        )
    ]


def out_of_range(size):
    """Standard error of a run whose executable is in a directory of this size, less than six bytes."""
    return terminated(
        b"std::out_of_range",
        b"basic_string"
        if LIBCXX
        else b"basic_string::substr: __pos (which is 6) > this->size() (which is %d)" % size,
    )
