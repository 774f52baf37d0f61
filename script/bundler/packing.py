"""The bundle at its destination, and the tarball of it."""

import contextlib
import gzip
import logging
import os
import pathlib
import tarfile
import tempfile

from .commands import step
from .errors import UserError, copy_tree, file_errors, full_disk, nearest_existing
from .layout import is_signed
from .processes import signals_deferred

log = logging.getLogger(__name__)

NAME = "Orvane.app"
OTHER = "name another directory"
LEVEL = 6  # gzip's own default; 9, Python's, takes almost three times as long for 1 % of the size
MEGABYTES = 200  # of a bundle with all modules that a service usually has, and of its tarball


def check_destination(dest, force):
    """Raises if the bundle cannot be made there, before anything is done."""
    place = nearest_existing(dest)
    for path in place, dest / NAME:
        if os.path.exists(path) and not os.path.isdir(path):
            raise UserError(f"--dest: '{path}' is not a directory", f"remove it, or {OTHER}")
    if not os.access(place, os.W_OK):
        raise UserError(f"--dest: '{place}' is not writable", f"make it writable, or {OTHER}")
    if is_signed(dest / NAME) and not force:
        raise UserError(
            f"--dest: '{dest / NAME}' is signed", f"add --force to replace it, or {OTHER}"
        )


@contextlib.contextmanager
def staging_directory(dest):
    """A directory beside the bundle, for what is renamed into place when it is complete."""
    dest.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix=".Orvane.app-", dir=dest) as staging:
        yield pathlib.Path(staging)


@contextlib.contextmanager
def destination_errors(dest):
    with file_errors("--dest", OTHER), full_disk("--dest", dest, MEGABYTES, OTHER):
        yield


def put_in_place(app, dest):
    """Copies the bundle to its destination, in place of a former one."""
    target = dest / NAME
    with destination_errors(dest), staging_directory(dest) as staging:
        copy = staging / NAME
        copy_tree(app, copy)
        with signals_deferred():  # there is always one of the two
            if os.path.lexists(target):
                target.rename(staging / "former")
            copy.rename(target)
    log.info("Made %s", target)


def pack(dest, version, platform):
    """A tarball that does not tell who made it, nor when: its times are the files' own, as the archive
    requires. Its bytes depend on nothing else."""
    target = dest / f"Orvane-{version}-{platform}.tar.gz"
    with step(f"Packing {target}"), destination_errors(dest):
        with staging_directory(dest) as staging:
            write_tarball(staging / "tarball", dest / NAME)
            (staging / "tarball").rename(target)


def write_tarball(path, app):
    with path.open("wb") as file, gzip.GzipFile("", "wb", LEVEL, file, mtime=0) as zipped:
        with tarfile.open(fileobj=zipped, mode="w", format=tarfile.GNU_FORMAT) as tar:
            for member in [app, *sorted(app.rglob("*"), key=lambda member: member.parts)]:
                name = member.relative_to(app.parent)
                tar.add(member, name, recursive=False, filter=without_owner)


def without_owner(entry):
    entry.uid = entry.gid = 0
    entry.uname = entry.gname = "root"
    return entry
