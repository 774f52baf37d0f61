import os
import pathlib
import subprocess
import sys
import tarfile
import tempfile
import types

import pytest
from support import ROOT

sys.path.insert(0, str(ROOT / "script"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from bundling import EPOCH, JDK, MAIN, bundle, this_platform, write_jar, write_script  # noqa: E402

SOURCES = pathlib.Path(__file__).resolve().parent / "vendor"
CLIENT = """#!/bin/sh
until [ -e "$TMPDIR/ready" ]; do sleep 0.1; done
sleep 987 &
pwd >client-ran
"""


def javac(*arguments):
    subprocess.run([JDK / "bin/javac", "-nowarn", "-Xlint:-options", *arguments], check=True)


@pytest.fixture
def path_without_space():
    """A directory such as the bundler makes for its runs: a VM option that names a file takes no space."""
    with tempfile.TemporaryDirectory(prefix="bundler-", dir=os.path.realpath("/tmp")) as directory:
        yield pathlib.Path(directory)


@pytest.fixture(scope="session")
def classes(tmp_path_factory):
    """The classes of vendor, {entry of a jar: class file}."""
    directory = tmp_path_factory.mktemp("classes")
    java8, java11 = directory / "java8", directory / "java11"
    javac("--release", "8", "-d", java8, *SOURCES.glob("java8/**/*.java"))
    modules = "--module-source-path", SOURCES / "java11", "--module", "vendor"
    javac("--release", "11", "-d", java11, *modules)
    found = {
        file.relative_to(java8).as_posix(): file.read_bytes() for file in java8.rglob("*.class")
    }
    versioned = "versioned/Versioned.class"
    found["META-INF/versions/11/" + versioned] = (java11 / "vendor" / versioned).read_bytes()
    found["module-info.class"] = (java11 / "vendor/module-info.class").read_bytes()
    return found


@pytest.fixture(scope="session")
def vendor(tmp_path_factory, classes):
    """A vendor's directory, whose name has a space, with whatever a class path can hold:

    client                        a client of the service for the training
    plugin.jar                    has a class that the service loads by itself
    mine/service.jar              is signed, and names jars that nobody has
    mine/broken.jar               has a class that jdeps cannot analyse
    mine/lib/below/one.jar        lies in a directory
    mine/lib/Upper.JAR
    mine/lib/descriptor-1.0+5.jar has a module descriptor, which requires a module that nobody has
    mine/lib/alias.jar            is a link to it
    mine/lib/versioned.jar        has another class for Java 11
    mine/lib/xml-apis.jar         shares a package with the JDK; an entry's name is in no known encoding
    mine/lib/README
    """
    directory = tmp_path_factory.mktemp("a vendor")
    mine = directory / "mine"

    def jar(name, *entries, manifest=""):
        return write_jar(mine / name, {entry: classes[entry] for entry in entries}, manifest)

    signature = {"META-INF/A.SF": b"signed"}
    manifest = "Class-Path: /usr/share/java/gone.jar lib/other.jar\r\nBuilt-By: J\xfcrgen\r\n"
    write_jar(mine / "service.jar", {MAIN: classes[MAIN], **signature}, manifest)
    write_jar(mine / "broken.jar", {"a/Broken.class": b"\xca\xfe\xba\xbe\0\0\0\x99" + bytes(40)})
    jar("lib/below/one.jar", "below/Below.class")
    jar("lib/Upper.JAR", "upper/Upper.class")
    jar("lib/descriptor-1.0+5.jar", "vendor/Descriptor.class", "module-info.class")
    (mine / "lib/alias.jar").symlink_to("descriptor-1.0+5.jar")
    versioned = "versioned/Versioned.class"
    newer = "META-INF/versions/11/" + versioned
    jar("lib/versioned.jar", versioned, newer, manifest="Multi-Release: true\r\n")
    shared = jar("lib/xml-apis.jar", "javax/xml/transform/Shared.class")
    shared.write_bytes(shared.read_bytes().replace(b"Shared.class", b"Sh\xffred.class"))
    (mine / "lib/README").write_text("not a jar")
    jar("../plugin.jar", "agent/Agent.class")
    write_script(directory / "client", CLIENT)
    return directory


@pytest.fixture(scope="session")
def samples(tmp_path_factory):
    """What two makers with different umasks make of the sample, without a runtime: the destination of
    each, and what was printed."""
    directory = tmp_path_factory.mktemp("samples")
    arguments = "--no-runtime", "--tarball", "--dest"
    return [
        types.SimpleNamespace(
            dest=directory / name,
            result=bundle(
                *arguments, name, cwd=directory, umask=umask, SOURCE_DATE_EPOCH=str(EPOCH)
            ),
        )
        for name, umask in (("022", 0o022), ("077", 0o077))
    ]


@pytest.fixture(scope="session")
def trained(vendor):
    """The bundle of the vendor's directory, made with relative paths: its destination, and what was
    printed."""
    result = bundle(
        *("--main-jar", "mine/service.jar"),
        *("--input", "mine/lib"),
        *("--app-version", "2.1.0"),
        *("--dest", "a dist"),
        "--tarball",
        *("--training-argument", "serve"),
        *("--training-argument", vendor / "plugin.jar"),
        *("--training-command", "./client"),
        *("--training-seconds", "600"),
        *("--include-locales", "de"),
        "--java-options=--add-opens=java.base/java.lang=ALL-UNNAMED",
        *("--java-options", "'-Dtwo=two words'"),
        *("--java-options", "-XX:ErrorFile=/Library/Logs/OrvaneService-%p.log"),
        cwd=vendor,
        umask=0o077,
        SOURCE_DATE_EPOCH=str(EPOCH),
    )
    assert result.status == 0, "\n".join(result.lines)
    return types.SimpleNamespace(dest=vendor / "a dist", result=result)


@pytest.fixture(scope="session")
def unpacked(tmp_path_factory, trained):
    """The directory in which the tarball of that bundle was unpacked."""
    directory = tmp_path_factory.mktemp("unpacked")
    with tarfile.open(trained.dest / f"Orvane-2.1.0-{this_platform()}.tar.gz") as archive:
        archive.extractall(directory)
    return directory
