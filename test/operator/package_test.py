"""The scripts that the Installer runs as root for the installer package, in bundle/package."""

import os
import subprocess

import pytest
from support import CONTENTS, LINUX, ROOT, impossible

PARENT = "/Library/Application Support"
STAGE = PARENT + "/Orvane.installing"
INSTALL = f"{STAGE}/{CONTENTS}/Resources/operator/install"


@pytest.fixture
def stage(root):
    if LINUX:
        root.directory(PARENT + "/another's")
        os.chown("/Library", 0, 0)  # as on a Mac
        os.chown(PARENT, 0, 0)
    for tool in "find", "rm":
        root.put(f"/tmp/orvane/{tool}", b"#!/bin/sh\necho the caller's $0\n", 0o755)
    return root.path(STAGE)


def call(script, volume="/"):
    """(status, output)"""
    done = subprocess.run([ROOT / "bundle/package" / script, "/Orvane.pkg", STAGE, volume, "/"], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env={"PATH": "/tmp/orvane:/bin"})
    return done.returncode, done.stdout


@pytest.mark.parametrize("status", [0, 3])
def test_the_bundle_that_was_put_beside_installs_itself(root, stage, status):
    root.put(INSTALL, b"#!/bin/sh\necho installs by $PATH; echo error >&2; exit %d\n" % status, 0o755)
    assert call("postinstall") == (status, "installs by /usr/bin:/bin:/usr/sbin:/sbin\nerror\n")
    assert not stage.exists()


def test_what_an_interrupted_installation_left_is_removed_first(root, stage):
    root.put(INSTALL, b"")
    assert (call("preinstall"), stage.exists()) == ((0, ""), False)
    stage.symlink_to(root.put("/tmp/orvane/others/file", b"").parent)
    assert (call("preinstall"), os.path.lexists(stage)) == ((0, ""), False)
    assert os.listdir("/tmp/orvane/others") == ["file"]


def test_another_volume_is_rejected(root, stage):
    root.put(INSTALL, b"")
    assert call("preinstall", "/Volumes/Other") == (
        1, "preinstall: '/Volumes/Other' is not the running system; install there\n")
    assert stage.exists()


@pytest.mark.parametrize("directory", ["/Library", PARENT])
def test_nothing_is_put_where_others_may_write(root, stage, directory):
    if not LINUX:
        impossible("a Mac needs these directories as they are")
    real = directory + ".real"
    for change in (lambda: os.chmod(directory, 0o775), lambda: os.chmod(directory, 0o757), lambda: os.chown(
            directory, 1, -1), lambda: [os.rename(directory, real), os.symlink(real, directory)]):
        try:
            change()
        except OSError:  # a namespace with one user, or /Library is a mount
            continue
        assert call("preinstall") == (1, f"preinstall: {directory} must be a directory where only root may "
                                         "write; chown root, chmod go-w\n")
        if os.path.islink(directory):
            os.unlink(directory)
            os.rename(real, directory)
        os.chmod(directory, 0o755)
        os.chown(directory, 0, -1)
    assert call("preinstall") == (0, "")
