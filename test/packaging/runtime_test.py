"""The Java runtime that is linked for a bundle."""

import filecmp

import pytest
from bundler.errors import UserError
from bundler.jdk import find_jdk
from bundler.runtime import Wanted, link_runtime
from bundling import JDK, bundle, wrapped_jdk, write_script


def test_VM_options_that_the_VM_rejects_are_found_before_the_service_runs(tmp_path, vendor):
    run = bundle(
        *("--main-jar", vendor / "mine/service.jar"),
        *("--java-options", "-Xss1m"),
        *("--java-options", "-XX:+NoSuchOption"),
        cwd=tmp_path,
    )
    assert run == (
        1,
        [
            "Looking up the modules that the jars refer to: N s",
            "bundle: --java-options: the VM does not start with them: "
            "Unrecognized VM option 'NoSuchOption'",
        ],
    )


def test_VM_options_that_only_the_runtime_rejects_are_found_when_it_is_linked(tmp_path):
    # The whole JDK accepts them: its debugger is not in the runtime.
    wanted = Wanted(
        java_options=("-Xss1m", "-agentlib:jdwp=transport=dt_socket,server=y,suspend=n")
    )
    with pytest.raises(UserError) as raised:
        link_runtime(
            tmp_path / "jre", {"java.base"}, find_jdk(JDK, None, {}), wanted, starts_in=tmp_path
        )
    line, _, reason = str(raised.value).partition(", with error: ")
    assert line == (
        "--java-options: the linked runtime does not start: "
        "Could not find agent library jdwp on the library path"
    )
    assert "libjdwp" in reason  # in the words of the platform's loader


def test_every_runtime_is_linked_by_the_JDK_that_is_there_now_and_has_the_same_bytes(tmp_path):
    home = wrapped_jdk(tmp_path, "jlink", "")
    jdk = find_jdk(home, None, {})
    first, second = tmp_path / "first", tmp_path / "second"
    link_runtime(first, {"java.base"}, jdk, Wanted(), None)
    # An update behind the same path.
    updated = f'#!/bin/sh\ntouch "{tmp_path}/updated"\nexec "{JDK}/bin/jlink" "$@"\n'
    (home / "bin/jlink").unlink()
    write_script(home / "bin/jlink", updated)
    link_runtime(second, {"java.base"}, jdk, Wanted(), None)
    assert (tmp_path / "updated").exists()
    files = sorted(path.relative_to(first) for path in first.rglob("*") if path.is_file())
    assert files == sorted(path.relative_to(second) for path in second.rglob("*") if path.is_file())
    assert filecmp.cmpfiles(first, second, files, shallow=False)[1:] == ([], [])
