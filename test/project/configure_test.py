"""Which JDKs the launcher can be built with."""

import os
import re
import subprocess

import pytest

from support import LINUX, ROOT, impossible


@pytest.fixture
def jdk8(tmp_path):
    """What CMake looks at in a JDK 8: the version that it prints, and where its files are."""
    if not LINUX:
        impossible("a build on a Mac links a stub of libjvm, not that of a JDK")
    home = tmp_path / "jdk 8"
    machine = {"x86_64": "amd64"}.get(os.uname().machine, os.uname().machine)
    for name in (
        "bin/java",
        "bin/javac",
        "bin/javah",
        "bin/javadoc",
        "bin/jar",
        "include/jni.h",
        "include/linux/jni_md.h",
        f"jre/lib/{machine}/server/libjvm.so",
    ):
        file = home / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text("#!/bin/sh\necho 'openjdk version \"1.8.0_392\"' >&2\n")
        file.chmod(0o755)
    (home / "include/jni.h").write_text('#include "jni_md.h"\n')
    return home


def test_a_JDK_8_which_calls_itself_1_8_can_build_the_launcher(tmp_path, jdk8):
    build = tmp_path / "build"
    result = subprocess.run(
        ["cmake", "-S", ROOT, "-B", build, "-DBUILD_TESTING=OFF"],
        env={**os.environ, "JAVA_HOME": str(jdk8)},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    assert result.returncode == 0, result.stdout
    cache = (build / "CMakeCache.txt").read_text()
    (library,) = jdk8.glob("jre/lib/*/server/libjvm.so")
    assert re.findall(r"^(JAVA_\w+):(?:FILE)?PATH=(.*)", cache, re.MULTILINE) == [
        ("JAVA_INCLUDE_PATH", f"{jdk8}/include"),
        ("JAVA_INCLUDE_PATH2", f"{jdk8}/include/linux"),
        ("JAVA_JVM_LIBRARY", str(library)),
    ]
