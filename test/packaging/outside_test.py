"""Classes that come from outside the bundle are missing where it is installed."""

import pathlib
import types

import pytest
from bundler.errors import UserError
from bundler.training import check_class_paths, files_outside
from bundling import write_jar


@pytest.fixture
def lib(tmp_path):
    """The directory of the jars in a bundle."""
    return tmp_path / "Contents/Resources/lib"


@pytest.fixture
def outside(tmp_path):
    """A jar that is not in the bundle."""
    return write_jar(tmp_path / "out side/x.jar", {"x/X.class": b"x"})


def found(lib, *sources):
    """The files outside of the sources that a VM names, as for classes from a jar of the bundle."""
    contents = lib.parents[1]
    trial = types.SimpleNamespace(contents=contents, directory=contents / "MacOS")
    return files_outside(trial, {"file:../Resources/lib/a.jar", *sources})


def test_a_file_outside_the_bundle_is_found_by_its_source(lib, outside, tmp_path):
    write_jar(lib / "a.jar", {})
    gone = "file:" + str(tmp_path / "unpacked by the service and removed.jar")
    assert found(lib, outside.as_uri().replace("file://", "file:"), gone) == [str(outside)]


def test_a_file_that_a_jar_of_the_bundle_is_a_copy_of_is_right(lib, outside):
    copy = write_jar(lib / "x.jar", {"x/X.class": b"x"})
    copy.write_bytes(outside.read_bytes())
    assert found(lib, f"file:{outside}") == []
    write_jar(copy, {"x/X.class": b"other"})
    assert found(lib, f"file:{outside}") == [str(outside)]


def wrong(file, jar):
    return (
        f"--input: classes come from '{file}', which is not in the bundle; the Class-Path of {jar} names "
        "it; name it in --input as well"
    )


@pytest.mark.parametrize("entry", ["{uri}", "{path}", "gone.jar ../../../out%20side/x.jar"])
def test_a_class_path_that_leads_out_of_the_bundle_is_named(lib, outside, entry):
    entry = entry.format(uri=outside.as_uri(), path=str(outside).replace(" ", "%20"))
    folded = "\r\n ".join([entry[:10], entry[10:40], entry[40:]])
    write_jar(lib / "service.jar", {}, f"Class-Path: {folded}\r\n")
    with pytest.raises(UserError) as raised:
        check_class_paths(lib, [str(outside)])
    assert str(raised.value) == wrong(outside, "service.jar")


def test_a_class_path_leads_out_of_the_bundle_by_way_of_another_jar(lib, outside):
    between = write_jar(outside.with_name("y.jar"), {}, "Class-Path: x.jar\r\n")
    write_jar(lib / "service.jar", {}, f"Class-Path: {between.as_uri()}\r\n")
    with pytest.raises(UserError) as raised:
        check_class_paths(lib, [str(outside)])
    assert str(raised.value) == wrong(outside, "y.jar")


def test_what_no_class_path_names_is_no_failure(lib, outside):
    write_jar(lib / "service.jar", {}, "Class-Path: x.jar file:/none/y.jar\r\n")
    (lib / "broken.jar").write_bytes(b"no jar")
    assert check_class_paths(lib, [str(outside), str(pathlib.Path(__file__))]) is None
