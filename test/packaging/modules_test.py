"""Which modules the jars refer to, and the runtime for another platform, with the modules of its JDK."""

import dataclasses
import logging
import os
import plistlib
import subprocess
import zipfile

import pytest
from bundler.jdk import find_jdk
from bundler.modules import expand, modules_by_jdeps
from bundling import ARM64, JAVA, JDK, X86_64, mach_o, script
from support import CONTENTS, unavailable


@pytest.fixture(scope="session")
def jdk():
    return find_jdk(JDK, None, {})


@pytest.mark.parametrize(
    "name, modules",
    [
        ("service.jar", {"java.base"}),
        ("lib/versioned.jar", {"java.base", "java.sql"}),  # by its class for Java 11
        ("lib/descriptor-1.0+5.jar", {"java.base"}),  # not what its descriptor requires
        ("lib/xml-apis.jar", {"java.base"}),
    ],
)
def test_the_modules_are_those_that_a_jar_s_classes_refer_to(
    tmp_path, vendor, jdk, caplog, name, modules
):
    caplog.set_level(logging.WARNING)
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib/a.jar").write_bytes((vendor / "mine" / name).read_bytes())
    assert modules_by_jdeps(tmp_path / "lib", jdk, tmp_path / "work") == modules
    assert caplog.messages == []


def test_a_jar_that_jdeps_cannot_analyse_is_passed_over_and_named(tmp_path, vendor, jdk, caplog):
    caplog.set_level(logging.WARNING)
    (tmp_path / "lib").mkdir()
    for name in "broken.jar", "lib/versioned.jar", "service.jar":
        (tmp_path / "lib" / os.path.basename(name)).write_bytes(
            (vendor / "mine" / name).read_bytes()
        )
    assert modules_by_jdeps(tmp_path / "lib", jdk, tmp_path / "work") == {"java.base", "java.sql"}
    # jdeps of JDK 24 and later accepts that class.
    passed_over = ["Passed over, jdeps cannot analyse it: broken.jar"] if JAVA < 24 else []
    assert caplog.messages == passed_over


def test_a_jar_whose_classes_cannot_be_read_is_passed_over_and_named(tmp_path, vendor, jdk, caplog):
    caplog.set_level(logging.WARNING)
    damaged = bytearray((vendor / "mine/service.jar").read_bytes())
    damaged[damaged.index(b"\xca\xfe\xba\xbe") + 20] ^= 1  # in the class, which is stored
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib/damaged.jar").write_bytes(damaged)
    assert modules_by_jdeps(tmp_path / "lib", jdk, tmp_path / "work") == set()
    assert caplog.messages == ["Passed over, its classes cannot be read: damaged.jar"]


def test_ALL_DEFAULT_stands_for_the_modules_with_an_interface(jdk):
    modules = {"java.logging", "java.sql", "jdk.charsets", "jdk.unsupported", "jdk.zipfs"}
    expanded = expand({"ALL-DEFAULT", "jdk.zipfs"}, dataclasses.replace(jdk, modules=modules))
    assert expanded == {"java.logging", "java.sql", "jdk.unsupported", "jdk.zipfs"}


@pytest.fixture
def macos_jmods(tmp_path):
    """The module java.base, for macOS 12.3 on Intel, as a directory of a JDK's jmods."""
    original = JDK / "jmods/java.base.jmod"
    if not original.is_file():
        unavailable(f"{JDK} has no jmods")
    jmods, programs, libraries = (tmp_path / name for name in ("jmods", "programs", "libraries"))
    for directory in jmods, programs, libraries / "server":
        directory.mkdir(parents=True)
    classes = tmp_path / "classes.jar"
    with zipfile.ZipFile(original) as jmod, zipfile.ZipFile(classes, "w") as jar:
        for name in jmod.namelist():
            if name.startswith("classes/"):
                jar.writestr(name[len("classes/") :], jmod.read(name))
    (programs / "java").write_bytes(mach_o(X86_64))
    (programs / "keytool").write_bytes(mach_o(X86_64))
    (libraries / "server/libjvm.dylib").write_bytes(mach_o(X86_64, macos=(12, 3)))
    subprocess.run(
        [
            *(JDK / "bin/jmod", "create"),
            *("--target-platform", "macos-amd64"),
            *("--class-path", classes),
            *("--cmds", programs),
            *("--libs", libraries),
            jmods / "java.base.jmod",
        ],
        check=True,
    )
    return jmods


def test_a_bundle_for_a_Mac_has_the_modules_of_a_JDK_for_it_and_requires_its_macOS(
    tmp_path, vendor, macos_jmods
):
    for name in "universal", "operator-tool":
        (tmp_path / name).write_bytes(mach_o(X86_64, ARM64))
    run = script(
        *("--executable", "universal"),
        *("--jmods", "jmods"),
        *("--main-jar", vendor / "mine/service.jar"),
        *("--add-modules", "ALL-DEFAULT"),
        cwd=tmp_path,
    )
    assert run == (
        0,
        [
            "Looking up the modules that the jars refer to: N s",
            "Modules, always: none (0)",
            "Modules, --add-modules: ALL-DEFAULT (1)",
            "Modules, jdeps: java.base (1)",
            "Linking the runtime: N s",
            "Modules of the runtime, with those that these require: 1",
            "The runtime is for macos-amd64: call --train there, before signing, for the CDS archive",
            "Made dist/Orvane.app",
        ],
    )
    contents = tmp_path / "dist" / CONTENTS
    for file in tmp_path / "dist/Orvane.app/Contents/Info.plist", contents / "Info.plist":
        assert plistlib.loads(file.read_bytes())["LSMinimumSystemVersion"] == "12.3"
    jre = contents / "Resources/jre"
    assert os.listdir(jre / "bin") == ["java"]
    assert (jre / "lib/server/libjvm.dylib").read_bytes() == mach_o(X86_64, macos=(12, 3))
    assert '\nMODULES="java.base"\n' in (jre / "release").read_text()
