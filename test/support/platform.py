"""How systems and C++ libraries (libc++, a Mac's, and libstdc++) differ in what a test sees."""

import os
import re

from .launcher import ABORTED, PROGRAM
from .machine_root import CANNOT_EXIST

LINUX = os.uname().sysname == "Linux"
LIBCXX = b"libc++" in PROGRAM.read_bytes()

# After a read error, libc++ takes what was read of a line for a line, and does not retry an
# interrupted read; libstdc++ drops the one and retries the other.
KEEPS_LINE_CUT_SHORT = RETRIES_NO_READ = LIBCXX

# Allocations that a run can do without: what libstdc++ sets aside for errors; with libc++,
# which has no copy in the program, those of the stand-in's record.
SPARE_ALLOCATIONS = 10 if LIBCXX else 1

# The end of a run in which the program's copy of the C++ library meets another copy's error.
TERMINATED_BY_OTHER_COPY = (b"libc++abi: terminating\n" if LIBCXX else
                            b"terminate called without an active exception\n")


def no_runtime(program):
    """Status and, as an expression, standard error of a run that finds no libjvm."""
    if LINUX:
        return 127, (rb"\A" + re.escape(os.fsencode(program)) +
                     rb": error while loading shared libraries: libjvm\.so: "
                     rb"cannot open shared object file: No such file or directory\n\Z")
    return ABORTED, rb"Library not loaded: @rpath/libjvm\.dylib"


def require_packets(test):
    if not LINUX:
        test.skipTest(CANNOT_EXIST + "a local socket that keeps packets apart")


def terminated(kind, what=None):
    """Standard error of a run that an uncaught error of this type ended."""
    if LIBCXX:
        return (b"libc++abi: terminating with uncaught exception of type " + kind +
                (b"" if what is None else b": " + what) + b"\n")
    return (b"terminate called after throwing an instance of '" + kind + b"'\n" +
            (b"" if what is None else b"  what():  " + what + b"\n"))


def out_of_range(size):
    """Likewise, for a directory of this size in which the sixth byte was asked for."""
    return terminated(b"std::out_of_range", b"basic_string" if LIBCXX else
                      b"basic_string::substr: __pos (which is 6) > this->size() (which is %d)" % size)
