"""What the launcher's object files import. The tests of system calls do not see the environment."""

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


@pytest.fixture
def imports():
    needs("libstdc++")
    if platform.LIBCXX:
        impossible("the headers of libc++ import C functions that libstdc++ has in its library")
    source = BUILD_DIR / "src"
    output = subprocess.run(
        [
            *("nm", "--demangle", "--undefined-only"),
            *(source / f"lib{name}.a" for name in ("executable_path", "jvm", "jvmargs")),
            source / "CMakeFiles/OrvaneService.dir/launcher/main.cpp.o",
        ],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    ).stdout
    return {line.split(" U ")[1] for line in output.splitlines() if " U " in line}


def test_the_launcher_imports_no_other_functions_of_C(imports):
    c_names = {name for name in imports if "::" not in name and "(" not in name}
    own = {name for name in c_names if not name.startswith(COMPILER) and not name.endswith(CHECKED)}
    assert own <= C_FUNCTIONS and "JNI_CreateJavaVM" in own


def test_the_launcher_uses_two_streams_and_no_threads_locales_clocks_or_file_names(imports):
    assert imports & STREAMS == {"std::cout", "std::cerr"}
    assert [name for name in imports for part in NOT_USED if part in name] == []
    locales = {name for name in imports if name.startswith("std::locale::locale(")}
    assert locales <= {"std::locale::locale()"}
