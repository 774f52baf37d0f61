"""What the object files of the two programs import. Tests of system calls do not see the environment."""

import subprocess

import pytest
from support import BUILD_DIR, impossible, platform
from support.macos import needs

C_FUNCTIONS = {
    "JNI_CreateJavaVM",
    "bcmp",
    "exit",
    "getauxval",
    "getcwd",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "strlen",
}
# What the compiler itself calls, and glibc's checked variants of the functions above.
COMPILER = ("_GLOBAL_OFFSET_TABLE_", "__dso_handle", "_Unwind_", "__cxa_", "__gxx_", "__stack_chk_")
CHECKED = "_chk"

STREAMS = {f"std::{wide}{name}" for wide in ("", "w") for name in ("cin", "cout", "cerr", "clog")}
NOT_USED = [
    "std::locale::global(",
    "std::thread",
    "std::this_thread",
    "std::filesystem",
    "std::chrono",
    "std::random_device",
]

# What the program that root's scripts call must not do: read the environment, follow a name's link,
# replace, change or remove what has a name, or start a program but by exec.
FORBIDDEN_TO_ROOT = {
    *("getenv", "secure_getenv", "environ", "stat", "chmod", "chown", "rename", "unlink", "remove"),
    *("system", "popen", "posix_spawn", "posix_spawnp", "dlopen"),
}


def imported(program, directory, *libraries):
    """The names that a program's own code imports."""
    needs("libstdc++")
    if platform.LIBCXX:
        impossible("the headers of libc++ import C functions that libstdc++ has in its library")
    source = BUILD_DIR / "src"
    output = subprocess.run(
        [
            *("nm", "--demangle", "--undefined-only"),
            *(source / f"lib{name}.a" for name in libraries),
            source / f"CMakeFiles/{program}.dir/{directory}/main.cpp.o",
        ],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    ).stdout
    return {line.split(" U ")[1] for line in output.splitlines() if " U " in line}


@pytest.fixture
def imports():
    return imported("OrvaneService", "launcher", "executable_path", "jvm", "jvmargs")


def test_the_launcher_imports_no_other_functions_of_C(imports):
    c_names = {name for name in imports if "::" not in name and "(" not in name}
    own = {name for name in c_names if not name.startswith(COMPILER) and not name.endswith(CHECKED)}
    assert own <= C_FUNCTIONS and "JNI_CreateJavaVM" in own


def test_the_launcher_uses_two_streams_and_no_threads_locales_clocks_or_file_names(imports):
    assert imports & STREAMS == {"std::cout", "std::cerr"}
    assert [name for name in imports for part in NOT_USED if part in name] == []
    locales = {name for name in imports if name.startswith("std::locale::locale(")}
    assert locales <= {"std::locale::locale()"}


def test_the_operators_tool_imports_nothing_that_root_must_not_do():
    names = imported("operator-tool", "operator", "operator_tool")
    assert {"flock", "renameat2", "execvp"} <= names
    assert names & FORBIDDEN_TO_ROOT == set()
    assert [name for name in names for part in [*NOT_USED, "fstream"] if part in name] == []
