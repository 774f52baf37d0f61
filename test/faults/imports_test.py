import re
import subprocess

from support import BUILD_DIR, impossible, platform

LAUNCHER = [
    "libexecutable_path.a",
    "libjvm.a",
    "libjvmargs.a",
    "CMakeFiles/OrvaneService.dir/launcher/main.cpp.o",
]

# What the launcher itself imports, besides C++ and the compiler's own: it can read neither the
# environment nor standard input, nor start a thread, nor take a locale from elsewhere.
C_FUNCTIONS = {
    "JNI_CreateJavaVM",
    "exit",
    "getauxval",
    "getcwd",
    "bcmp",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "strlen",
}
FORBIDDEN = r"6locale(6global|C[12]E[^v])|6thread|filesystem|chrono|random_device"
COMPILER = r"_GLOBAL_OFFSET_TABLE_|__dso_handle|(_Unwind|__cxa|__gxx|__stack_chk)_\w+|__\w+_chk"


def test_the_launcher_imports_only_these_c_functions_and_streams():
    if platform.LIBCXX:
        impossible("the headers of libc++ import C functions that libstdc++ has in its library")
    objects = [BUILD_DIR / "src" / name for name in LAUNCHER]
    symbols = subprocess.run(
        ["nm", "--undefined-only", "--format=posix", *objects],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    ).stdout
    names = set(re.findall(r"^(\w+) U", symbols, re.MULTILINE))
    assert {name for name in names if not re.match(COMPILER + "|_Z", name)} <= C_FUNCTIONS
    assert set(
        re.findall(r"^_ZN?St(?:3__1)?\d(w?c(?:in|out|err|log))E? U", symbols, re.MULTILINE)
    ) == {"cout", "cerr"}
    assert [name for name in names if re.search(FORBIDDEN, name)] == []
