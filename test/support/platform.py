"""How systems and C++ libraries (libc++, a Mac's, and libstdc++) differ in what a test sees."""

import os
import re

from . import LINUX, impossible
from .launcher import ABORTED, PROGRAM, SLICE

LIBCXX = b"libc++" in PROGRAM.read_bytes()

# After a read error, libc++ takes what was read of a line for a line, and does not retry an
# interrupted read; libstdc++ drops the one and retries the other.
KEEPS_LINE_CUT_SHORT = RETRIES_NO_READ = LIBCXX

# Allocations that a run can do without: what libstdc++ sets aside for errors; with libc++,
# which has no copy in the program, those of the stand-in's record.
SPARE_ALLOCATIONS = 10 if LIBCXX else 1

# The stand-in's errors come out of libstdc++. A libc++ that is linked into the program knows
# nothing of them: main catches none, not even a runtime error.
FOREIGN_ERRORS = bool(SLICE)

# The emulator's own line for every abort.
EMULATORS_LINE = (b"qemu: uncaught target signal 6 (Aborted) - core dumped\n"
                  if SLICE == "arm64" else b"")

# The end of a run in which the program's copy of the C++ library meets another copy's error.
TERMINATED_BY_OTHER_COPY = (b"libc++abi: terminating due to uncaught foreign exception\n" if SLICE
                            else b"libc++abi: terminating\n" if LIBCXX
                            else b"terminate called without an active exception\n"
                            ) + EMULATORS_LINE


def no_runtime(program):
    """Status and, as an expression, standard error of a run that finds no libjvm."""
    if SLICE:
        return ABORTED, (rb"\Amacho: Library not loaded: @rpath/libjvm\.dylib\n" +
                         re.escape(EMULATORS_LINE) + rb"\Z")
    if LINUX:
        return 127, (rb"\A" + re.escape(os.fsencode(program)) +
                     rb": error while loading shared libraries: libjvm\.so: "
                     rb"cannot open shared object file: No such file or directory\n\Z")
    return ABORTED, rb"Library not loaded: @rpath/libjvm\.dylib"


def require_packets():
    if not LINUX:
        impossible("a Mac has no local socket that keeps packets apart")


def terminated(kind, what=None, thrown_by_runtime=False):
    """Standard error of a run that an uncaught error of this type ended."""
    if LIBCXX and not (FOREIGN_ERRORS and thrown_by_runtime):
        return (b"libc++abi: terminating " + (b"due to" if SLICE else b"with") +
                b" uncaught exception of type " + kind +
                (b"" if what is None else b": " + what) + b"\n" + EMULATORS_LINE)
    return (b"terminate called after throwing an instance of '" + kind + b"'\n" +
            (b"" if what is None else b"  what():  " + what + b"\n") + EMULATORS_LINE)


def out_of_range(size):
    """The same for a directory of this size in which the sixth byte was asked for."""
    return terminated(b"std::out_of_range", b"basic_string" if LIBCXX else
                      b"basic_string::substr: __pos (which is 6) > this->size() (which is %d)" % size)
