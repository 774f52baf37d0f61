"""What depends on the platform and on the C++ library: a Mac's libc++, or libstdc++."""

from .launcher import PROGRAM, SLICE

LIBCXX = b"libc++" in PROGRAM.read_bytes()

# After a read error, libc++ takes what was read of a line for a line, and does not retry an
# interrupted read; libstdc++ drops the one and retries the other.
KEEPS_LINE_CUT_SHORT = RETRIES_NO_READ = LIBCXX

# The stand-in's errors come out of libstdc++. A libc++ that is linked into the program knows
# nothing of them: main catches none, not even a runtime error.
FOREIGN_ERRORS = bool(SLICE)

# The emulator's own word on every abort.
EMULATORS_WORD = (b"qemu: uncaught target signal 6 (Aborted) - core dumped\n"
                  if SLICE == "arm64" else b"")

# The end of a run in which the program's copy of the C++ library meets another copy's error.
TERMINATED_BY_OTHER_COPY = (b"libc++abi: terminating due to uncaught foreign exception\n" if SLICE
                            else b"libc++abi: terminating\n" if LIBCXX
                            else b"terminate called without an active exception\n"
                            ) + EMULATORS_WORD


def terminated(kind, what=None, thrown_by_runtime=False):
    """Standard error of a run that an uncaught error of this type ended."""
    if LIBCXX and not (FOREIGN_ERRORS and thrown_by_runtime):
        return (b"libc++abi: terminating " + (b"due to" if SLICE else b"with") +
                b" uncaught exception of type " + kind +
                (b"" if what is None else b": " + what) + b"\n" + EMULATORS_WORD)
    return (b"terminate called after throwing an instance of '" + kind + b"'\n" +
            (b"" if what is None else b"  what():  " + what + b"\n") + EMULATORS_WORD)


def out_of_range(size):
    """Likewise, for a directory of this size in which the sixth byte was asked for."""
    return terminated(b"std::out_of_range", b"basic_string" if LIBCXX else
                      b"basic_string::substr: __pos (which is 6) > this->size() (which is %d)" % size)


def not_loaded(program):
    """Exit status and standard error of a program that finds no runtime library."""
    if SLICE:
        return 128 + 6, b"macho: Library not loaded: @rpath/libjvm.dylib\n" + EMULATORS_WORD
    return 127, program + (b": error while loading shared libraries: libjvm.so: "
                           b"cannot open shared object file: No such file or directory\n")
