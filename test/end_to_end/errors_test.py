"""What an operator sees when the installed service cannot start: in the launcher's words, or in those
of the VM, which differ from JDK to JDK."""

import os
import pathlib
import subprocess

import pytest

from support import LINUX, expected
from support.bundle import CDS_ARCHIVE, JAR, with_every_jdk
from support.launcher import ABORTED
from support.macos import needs

JAVAC = pathlib.Path(os.environ.get("JAVA_HOME", "/usr"), "bin/javac")


@pytest.mark.parametrize("jar", [None, b"not a jar"])
def test_a_jar_without_the_service_is_reported(copied, jar):
    copied.replace(CDS_ARCHIVE, None)  # JDK 21 and later warn that it belongs to another jar
    copied.replace(JAR, jar)
    assert copied.run("a") == (
        1,
        copied.until_vm(b"a"),
        expected.vm_error(
            b"Class Error. Couldn't find parent class 'com/vaultory/service/QRService'"
        ),
    )


def test_a_main_that_is_not_static_is_reported(copied, tmp_path):
    source = tmp_path / "QRService.java"
    source.write_text(
        "package com.vaultory.service; public class QRService { public void main(String[] args) {} }"
    )
    javac = [JAVAC, "--release", "11", "-d", tmp_path, source]
    subprocess.run(javac, check=True)
    # In the jar's place the class is found in the directory that follows it.
    copied.replace(JAR, None)
    copied.replace(CDS_ARCHIVE, None)  # it belongs to the jar
    name = "com/vaultory/service/QRService.class"
    copied.root.put(copied.resource("lang") / name, (tmp_path / name).read_bytes())
    assert copied.run("a") == (
        1,
        copied.until_vm(b"a"),
        expected.vm_error(
            b"Couldn't find method 'main' with proper signature of '([Ljava/lang/String;)V'"
        ),
    )


@with_every_jdk
@pytest.mark.parametrize("option", [b"-Xmx12q", b"-Xmx2g\r", b"-Xmx2g ", b"-Xmx2g -Xms1g"])
def test_a_heap_size_that_the_VM_cannot_read_is_reported(bundle, root, option):
    root.put(bundle.override_file, option + b"\n")
    assert bundle.run("a") == (
        1,
        bundle.until_vm(b"a", lines=[option]),
        b"Invalid maximum heap size: "
        + option
        + b"\n"
        + expected.vm_error(b"Error creating JVM: -6"),
    )


def assert_no_service(result, statuses, head):
    """The VM itself ended the process, with a message of its own, before the service started."""
    assert result.status in statuses
    assert result.stdout.startswith(head)
    assert expected.STARTING not in result.stdout
    assert result.stdout[len(head) :] + result.stderr


@with_every_jdk
@pytest.mark.parametrize("option", [b"-Xmx1k", b"-Xmx9000000g"])
def test_where_the_VM_cannot_allocate_its_heap_the_service_does_not_start(bundle, root, option):
    root.put(bundle.override_file, option + b"\n")
    assert_no_service(bundle.run("a"), [1], bundle.until_vm(b"a", lines=[option]))


@pytest.mark.parametrize("megabytes", [100, 400, 1000])
def test_where_the_VM_finds_no_memory_the_service_does_not_start(bundle, megabytes):
    needs("limit on the address space of a process")
    result = bundle.run("a", prefix=["prlimit", f"--as={megabytes << 20}"])
    assert_no_service(result, [1], bundle.until_vm(b"a"))


@pytest.mark.parametrize(
    "name, size",
    [("modules", 0), ("modules", 1000), ("libjava", 0), ("libjava", 100), ("libjimage", 0)],
)
def test_with_a_damaged_runtime_the_service_does_not_start(copied, name, size):
    if name != "modules":
        name += ".so" if LINUX else ".dylib"
    copied.truncate("jre/lib/" + name, size)
    assert_no_service(copied.run("a"), [1, ABORTED], copied.until_vm(b"a"))
