"""The bundle without its runtime: which file goes where.

Tests make bundles of a few files with it, whose names and property lists are the product's:

    sys.path.insert(0, f"{ROOT}/script")
    from bundler.layout import Product, make_layout
    make_layout(
        directory / "Orvane.app",
        executable=launcher,
        operator_tool=tool,
        jars={"com.vaultory.desktop.jar": jar},
        product=Product(version="2.1.0", identifier="com.example.backup"),
    )"""

import dataclasses
import os
import pathlib
import shutil
import urllib.parse
from typing import Optional

from .errors import UserError, copy_tree, file_errors
from .inputs import LISTING_JAR
from .jars import write_jar
from .launcher import ROOT
from .platforms import OLDEST_MACOS, platforms_of
from .property_lists import write_property_lists

SERVICE = "Contents/Library/LaunchServices/OrvaneService.app/Contents"  # below Orvane.app
OPERATOR_TOOL = "operator-tool"


@dataclasses.dataclass(frozen=True)
class Product:
    """What the property lists say."""

    version: str
    identifier: str = "com.vaultory.orvane"
    copyright: str = "© Vaultory"


@dataclasses.dataclass(frozen=True)
class Directories:
    """The vendor's directories; the bundle has an empty one in place of None."""

    conf: pathlib.Path = ROOT / "service/conf"
    lang: Optional[pathlib.Path] = None
    bin: Optional[pathlib.Path] = None
    frameworks: Optional[pathlib.Path] = None


def operator_tool_beside(executable):
    """The program that root's scripts use, which the build puts beside the launcher."""
    tool = executable.with_name(OPERATOR_TOOL)
    if not tool.is_file():
        raise UserError(
            f"--executable: there is no {OPERATOR_TOOL} beside '{executable}'",
            "name the launcher where the build has put both",
        )
    if platforms_of("--executable", tool) != platforms_of("--executable", executable):
        raise UserError(
            f"--executable: '{tool}' is not for the same platforms as '{executable}'",
            "build both again",
        )
    return tool


def make_layout(
    app,
    executable,
    operator_tool,
    jars,
    product,
    directories=Directories(),
    minimum_macos=OLDEST_MACOS,
):
    """Makes the bundle at this path, which must not exist; the contents of its service bundle. The jars
    are {name below Resources/lib: file}, in the order of the class path."""
    service = app / SERVICE
    resources = service / "Resources"
    for option, source, target in (
        ("--lang", directories.lang, resources / "lang"),
        ("--conf", directories.conf, resources / "conf"),
        ("--bin", directories.bin, resources / "bin"),
        ("--frameworks", directories.frameworks, service / "Frameworks"),
        ("operator", ROOT / "operator", resources / "operator"),
    ):
        if source:
            with file_errors(option):
                copy_tree(source, target)
        else:
            target.mkdir(parents=True)
    for source, target in (
        (executable, service / "MacOS/OrvaneService"),
        (operator_tool, resources / "operator" / OPERATOR_TOOL),
    ):
        with file_errors("--executable"):
            copy_file(source, target)
        target.chmod(0o755)
    for name, file in jars.items():
        with file_errors("--input"):
            copy_file(file, resources / "lib" / name)
    if LISTING_JAR not in jars:
        class_path = " ".join(urllib.parse.quote(name, "/+") for name in jars)
        write_jar(resources / "lib" / LISTING_JAR, {"Class-Path": class_path})
    write_property_lists(app, service, product, minimum_macos)
    return service


def copy_file(source, target):
    """A copy with the same time, which the CDS archive records of a jar."""
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy2(source, target)


def normalize(app, epoch):
    """Everybody may read, and no time is later than the epoch, if there is one."""
    for path in [app, *app.rglob("*")]:
        status = path.lstat()
        if not path.is_symlink():
            executable = path.is_dir() or status.st_mode & 0o100
            path.chmod(0o755 if executable else 0o644)
        if epoch is not None and status.st_mtime > epoch:
            os.utime(path, (epoch, epoch), follow_symlinks=False)


def is_signed(app):
    return any((app / contents / "_CodeSignature").exists() for contents in ("Contents", SERVICE))
