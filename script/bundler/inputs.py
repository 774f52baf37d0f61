"""What the vendor gives: the jars and the directories, checked before anything is written."""

import dataclasses
import logging
import os
import pathlib
import re
import zipfile
import zlib

from .errors import UserError, file_errors

log = logging.getLogger(__name__)

OTHER = "correct that, or name another"

MAIN_CLASS = "com.vaultory.service.QRService"
LISTING_JAR = "com.vaultory.desktop.jar"  # the jar that the launcher's class path names
# What a damaged or encrypted jar raises.
UNREADABLE = OSError, EOFError, RuntimeError, ValueError, zipfile.BadZipFile, zlib.error
ARCHIVABLE = "[A-Za-z0-9/._~+-]+"  # names of jars that a CDS archive can have


@dataclasses.dataclass(frozen=True)
class Jar:
    """A jar, and the option that named it."""

    name: str  # below Resources/lib
    file: pathlib.Path
    option: str


def find_jars(main_jar, inputs, archived):
    """{name below Resources/lib: file}, in the order of the class path: the service's jar first."""
    jars = without_links([Jar(main_jar.name, main_jar, "--main-jar"), *named_by(inputs)])
    contents = [read_jar(jar) for jar in jars]
    check_main_class(jars[0], contents[0][0])
    if archived:
        for jar in jars:
            check_name_for_archive(jar)
    check_names(jars)
    # Jars that name others come last: those may lie elsewhere on this machine.
    naming = [
        jar for jar, (_, manifest) in zip(jars[1:], contents[1:]) if names_other_jars(manifest)
    ]
    ordered = [jar for jar in jars if jar not in naming] + naming
    return {jar.name: jar.file for jar in ordered}


def named_by(inputs):
    """The jars that --input names, and those in the directories that it names."""
    found = []
    for path in inputs:
        inside = sorted(file for file in path.rglob("*.[Jj][Aa][Rr]") if not file.is_dir())
        if path.is_dir() and not inside:
            raise UserError(
                f"--input: '{path}' has no jar in it", "name jars, or directories of them"
            )
        if inside:
            found += [Jar(file.relative_to(path).as_posix(), file, "--input") for file in inside]
        else:
            found.append(Jar(path.name, path, "--input"))
    return found


def without_links(jars):
    """The jars without those given twice, and without links to a jar that is given by itself."""
    kept, taken = [], set()
    given = {os.path.realpath(jar.file) for jar in jars[1:] if not jar.file.is_symlink()}
    for jar in jars:
        target = os.path.realpath(jar.file)
        if target in taken:
            continue
        if kept and jar.file.is_symlink() and target in given:
            continue
        taken.add(target)
        kept.append(jar)
    return kept


def read_jar(jar):
    """The names of the jar's entries, and its manifest."""
    try:
        with zipfile.ZipFile(jar.file) as archive:
            entries = archive.namelist()
            if "META-INF/MANIFEST.MF" in entries:
                return entries, archive.read("META-INF/MANIFEST.MF")
            return entries, b""
    except UNREADABLE as error:
        exists = os.path.lexists(jar.file)
        problem = "is not a jar that can be read" if exists else "does not exist"
        raise UserError(
            f"{jar.option}: '{jar.file}' {problem}", "name jars, or directories of them"
        ) from error


def names_other_jars(manifest):
    return b"\nclass-path:" in manifest.lower()


def check_main_class(jar, entries):
    if MAIN_CLASS.replace(".", "/") + ".class" not in entries:
        raise UserError(
            f"--main-jar: '{jar.file}' has no {MAIN_CLASS}, which the launcher calls",
            "name the jar with it",
        )


def check_name_for_archive(jar):
    """The service's jar needs a name that the VM archives; of another one only the archive is lost."""
    if re.fullmatch(ARCHIVABLE, jar.name):
        return
    problem = f"{jar.option}: the VM archives no class of '{jar.name}'"
    remedy = "rename it in ASCII without spaces"
    if jar.option == "--main-jar":
        raise UserError(problem, f"{remedy}, or add --no-archive")
    log.warning("%s; %s", problem, remedy)


def check_names(jars):
    """No two jars are one file on macOS, and none takes the place of the jar that lists them."""
    taken = {}
    for jar in jars:
        other = taken.setdefault(jar.name.lower(), jar)
        if other is not jar:
            raise UserError(
                f"{jar.option}: '{other.file}' and '{jar.file}' would both be installed as {jar.name}",
                "leave out one",
            )
        if jar.name == LISTING_JAR and len(jars) > 1:
            raise UserError(
                f"{jar.option}: '{jar.file}' has the name of the jar that lists the others",
                "rename it",
            )


def check_directory(option, directory, file=""):
    """Raises unless it is a directory with this file, whose links all lead to something in it."""
    if not directory.is_dir():
        raise UserError(f"{option}: '{directory}' is not a directory", "name one")
    if not (directory / file).exists():
        raise UserError(
            f"{option}: '{directory}' has no {file}", "add it, or name another directory"
        )
    inside = os.path.realpath(directory) + os.sep
    for path in sorted(path for path in directory.rglob("*") if path.is_symlink()):
        target = os.readlink(path)
        stays = os.path.realpath(path).startswith(inside)
        if os.path.isabs(target) or not path.exists() or not stays:
            raise UserError(
                f"{option}: '{path}' is a link to '{target}', outside", "replace it with a copy"
            )
