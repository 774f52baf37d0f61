"""The scripts that the Installer runs as root for the installer package, in bundle/package."""

import os
import pathlib
import re
import subprocess

import pytest
from bundles import put, stand_in
from stand_ins import LS
from support import CONTENTS, ROOT, impossible
from support.macos import needs
from support.root import SCRATCH

PARENT = "/Library/Application Support"
STAGE = PARENT + "/Orvane.installing"
SCRATCH_BIN = pathlib.Path(SCRATCH, "bin")
INSTALL = f"{STAGE}/{CONTENTS}/Resources/operator/install"


@pytest.fixture
def stage(root):
    root.directory(PARENT + "/another's")
    for tool in "find", "rm":
        root.put(f"{SCRATCH}/{tool}", b"#!/bin/sh\necho the caller's $0\n", 0o755)
    return root.path(STAGE)


def call(script, volume="/", listed=""):
    """(status, output) of a copy that finds a Mac's ls first; listed is the directory with an access control
    list that allows changes."""
    put(SCRATCH_BIN / "ls", stand_in(LS.replace("ACL", listed), SCRATCH), 0o755)
    text = (ROOT / "bundle/package" / script).read_text()
    text, found = re.subn(
        r"(?m)^PATH=(?=/usr/bin:/bin:/usr/sbin:/sbin$)", rf"\g<0>{SCRATCH_BIN}:", text
    )
    assert found == 1
    copy = put(SCRATCH_BIN / script, text.encode(), 0o755)
    command = f"'{copy}' /Orvane.pkg '{STAGE}' {volume} / 2>&1"
    status, output = subprocess.getstatusoutput(f"PATH={SCRATCH}:/usr/bin:/bin {command}")
    return status, output.replace(f"{SCRATCH_BIN}:", "")


@pytest.mark.parametrize("status", [0, 3])
def test_the_bundle_that_was_put_beside_installs_itself(root, stage, status):
    root.put(
        INSTALL, b"#!/bin/sh\necho installs by $PATH; echo error >&2; exit %d\n" % status, 0o755
    )
    assert call("postinstall") == (status, "installs by /usr/bin:/bin:/usr/sbin:/sbin\nerror")
    assert not stage.exists()


def test_another_volume_is_rejected_and_what_an_interrupted_installation_left_removed(root, stage):
    root.put(INSTALL, b"")
    assert (call("preinstall", "/Volumes/Other"), stage.exists()) == (
        (1, "preinstall: '/Volumes/Other' is not the running system; install there"),
        True,
    )
    assert (call("preinstall"), stage.exists()) == ((0, ""), False)
    stage.symlink_to(root.put(f"{SCRATCH}/others/file", b"").parent)
    assert (call("preinstall"), os.path.lexists(stage)) == ((0, ""), False)
    assert os.listdir(f"{SCRATCH}/others") == ["file"]


@pytest.mark.parametrize("directory", ["/Library", PARENT])
@pytest.mark.parametrize(
    "change, undo",
    [
        ("chmod 775", "chmod 755"),
        ("chmod 757", "chmod 755"),
        ("chown 1", "chown 0"),
        (
            's() { mv "$1" "$1.real" && ln -s "$1.real" "$1"; }; s',
            's() { rm "$1" && mv "$1.real" "$1"; }; s',
        ),
    ],
    ids=["writable by a group", "writable by all", "of another owner", "a link"],
)
def test_nothing_is_put_where_others_may_write(root, stage, directory, change, undo):
    if "mv" in change:
        needs("system directories that can be renamed")
    if subprocess.run(["sh", "-c", change + ' "$0"', directory]).returncode:
        impossible("this namespace has one user, or a mount there")
    try:
        assert call("preinstall") == (
            1,
            f"preinstall: {directory} must be a directory where only root may "
            "write; chown root, chmod go-w",
        )
    finally:
        subprocess.run(["sh", "-c", undo + ' "$0"', directory], check=True)
    assert call("preinstall") == (0, "")


@pytest.mark.parametrize("directory", ["/", "/Library", PARENT])
def test_nothing_is_put_where_an_access_list_lets_others_write(root, stage, directory):
    root.put(INSTALL, b"")
    assert call("preinstall", listed=directory) == (
        1,
        f"preinstall: an access control list allows others to change {directory}; "
        f"chmod -N '{directory}'",
    )
    assert stage.exists()
