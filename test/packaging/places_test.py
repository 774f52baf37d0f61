"""A disk that is full, a checkout that cannot be written or was moved, a program that is missing."""

import errno
import os
import shutil
import sys
import types

import pytest
from bundler import launcher, main, packing
from bundler.errors import UserError
from bundling import MAIN, bundle, call, wrapped_jdk, write_jar, write_script
from support import ROOT


@pytest.fixture
def checkout(tmp_path):
    """A copy of what the launcher's build needs, and a cmake that prints how it is called to a file."""
    copy = tmp_path / "a copy"
    shutil.copytree(ROOT / "script", copy / "script")
    shutil.copy(ROOT / "CMakeLists.txt", copy)
    (tmp_path / "bin").mkdir()
    write_script(tmp_path / "bin/cmake", f'#!/bin/sh\necho "$@" >>"{tmp_path}/calls"\n')
    return copy


def test_a_full_TMPDIR_is_named_and_not_the_tool_that_met_it(path_without_space, classes):
    write_jar(path_without_space / "service.jar", {MAIN: classes[MAIN]})
    wrapped_jdk(
        path_without_space,
        "jlink",
        "echo 'Error: java.io.IOException: No space left on device'; exit 1",
    )
    (path_without_space / "work").mkdir()
    arguments = "--main-jar", "service.jar", "--jdk", "jdk", "--no-archive"
    run = bundle(*arguments, cwd=path_without_space, TMPDIR=str(path_without_space / "work"))
    assert (run.status, run.lines[-1]) == (
        1,
        f"bundle: TMPDIR: no space is left in '{path_without_space}/work'; free 300 MB there, or "
        "set TMPDIR to another directory",
    )


def test_a_full_destination_is_named_with_what_it_takes(tmp_path, monkeypatch):
    def copy_tree(source, target):
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC), source, None, target)

    monkeypatch.setattr(packing, "copy_tree", copy_tree)
    with pytest.raises(UserError) as raised:
        packing.put_in_place(tmp_path / "app", tmp_path / "dist")
    assert str(raised.value) == (
        f"--dest: no space is left in '{tmp_path}/dist'; free 200 MB there, or name another directory"
    )
    assert list((tmp_path / "dist").iterdir()) == []


def test_a_destination_that_cannot_be_written_is_named_before_anything_is_done(
    tmp_path, monkeypatch
):
    monkeypatch.setattr(os, "access", lambda path, mode: path != tmp_path / "dist")
    (tmp_path / "dist").mkdir()
    with pytest.raises(UserError) as raised:
        packing.check_destination(tmp_path / "dist/2.1", force=False)
    assert str(raised.value) == (
        f"--dest: '{tmp_path}/dist' is not writable; make it writable, or name another directory"
    )


def test_a_TMPDIR_whose_programs_cannot_be_executed_is_named(path_without_space, monkeypatch):
    monkeypatch.setenv("TMPDIR", str(path_without_space))
    monkeypatch.setattr(os, "statvfs", lambda _: types.SimpleNamespace(f_flag=8))
    monkeypatch.setattr(os, "ST_NOEXEC", 8, raising=False)
    with pytest.raises(UserError) as raised, main.work_directory():
        pass
    assert str(raised.value) == (
        f"TMPDIR: programs in '{path_without_space}' cannot be executed, as it is mounted with noexec; "
        "set TMPDIR to another directory"
    )


def test_a_build_directory_that_cannot_be_written_is_named(tmp_path, monkeypatch):
    monkeypatch.setattr(os, "access", lambda path, mode: path != tmp_path / "build")
    (tmp_path / "build").mkdir()
    with pytest.raises(UserError) as raised:
        launcher.check_writable(tmp_path / "build/release")
    assert str(raised.value) == (
        f"--executable: the launcher cannot be built, as '{tmp_path}/build' is not writable; make it "
        "writable, name a launcher that is built, or call from another checkout"
    )


@pytest.mark.parametrize("place, fresh", [("{}", ""), ("/another/place", " --fresh")])
def test_a_checkout_that_was_copied_with_its_build_is_configured_afresh(
    checkout, tmp_path, place, fresh
):
    build = checkout / "build/release"
    build.mkdir(parents=True)
    line = f"CMAKE_CACHEFILE_DIR:INTERNAL={place.format(build)}\n"
    (build / "CMakeCache.txt").write_text(line)
    call(
        checkout / "script/bundle",  # fails later, without the executable
        cwd=tmp_path,
        PATH=f"{tmp_path}/bin:{os.environ['PATH']}",
    )
    assert (tmp_path / "calls").read_text().splitlines() == [
        f"--preset release{fresh}",
        "--build --preset release --target OrvaneService operator-tool",
    ]


def test_a_cmake_that_is_missing_is_named(checkout, tmp_path):
    programs = tmp_path / "programs"
    programs.mkdir()
    (programs / "env").symlink_to(shutil.which("env"))
    (programs / "python3").symlink_to(sys.executable)
    run = call(checkout / "script/bundle", cwd=tmp_path, PATH=str(programs))
    assert run == (1, ["bundle: there is no cmake; install it, and call again"])
