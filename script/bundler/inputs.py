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
    for jar in jars:
        check_encoding(jar)
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
        with file_errors("--input", OTHER):
            inside = jars_in(path) if path.is_dir() else []
            check_linked_directories(path)
        if path.is_dir() and not inside:
            raise UserError(
                f"--input: '{path}' has no jar in it", "name jars, or directories of them"
            )
        if inside:
            found += [Jar(file.relative_to(path).as_posix(), file, "--input") for file in inside]
        else:
            found.append(Jar(path.name, path, "--input"))
    return found


def jars_in(directory):
    """The jars of a directory and of those in it. A directory that cannot be read is an error."""

    def fail(error):
        raise error

    return sorted(
        pathlib.Path(place, name)
        for place, _, names in os.walk(directory, onerror=fail)
        for name in names
        if name.lower().endswith(".jar")
    )


def check_linked_directories(directory):
    """Raises if a link leads to jars that are not in the directory: links to directories are not followed."""
    inside = os.path.realpath(directory) + os.sep
    for path in sorted(path for path in directory.rglob("*") if path.is_symlink()):
        target = pathlib.Path(os.path.realpath(path))
        if str(target).startswith(inside) or not target.is_dir():
            continue
        if any(target.rglob("*.[Jj][Aa][Rr]")):
            raise UserError(
                f"--input: '{path}' is a link to a directory of jars outside",
                "replace it with a copy",
            )


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


def check_encoding(jar):
    """Raises if the name is not UTF-8: Python has surrogates in place of such bytes."""
    if re.search("[\ud800-\udfff]", jar.name):
        raise UserError(
            f"{jar.option}: '{jar.file}' has a name that is not UTF-8, which no Mac has",
            "rename it",
        )


def read_jar(jar):
    """The names of the jar's entries, and its manifest."""
    try:
        if jar.file.exists() and not jar.file.is_file():
            raise OSError("not a file")  # opening a pipe would wait for its other end
        with zipfile.ZipFile(jar.file) as archive:
            entries = archive.namelist()
            if "META-INF/MANIFEST.MF" in entries:
                return entries, archive.read("META-INF/MANIFEST.MF")
            return entries, b""
    except UNREADABLE as error:
        exists = os.path.lexists(jar.file) or isinstance(error, PermissionError)
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


def check_destination_apart(app, sources):
    """Raises if the bundle would be made in a directory of {option: paths}."""
    place = os.path.realpath(app)
    for option, paths in sources.items():
        for path in paths:
            if path and place.startswith(os.path.realpath(path) + os.sep):
                raise UserError(
                    f"--dest: '{app}' would be made in what {option} names, and the next bundle would "
                    "contain it",
                    "name another directory",
                )


def check_directory(option, directory, file=""):
    """Raises unless it is a directory with this file, whose links all lead to something in it, and which
    has nothing but files, directories and links."""
    if not directory.is_dir():
        raise UserError(f"{option}: '{directory}' is not a directory", "name one")
    if not (directory / file).exists():
        raise UserError(
            f"{option}: '{directory}' has no {file}", "add it, or name another directory"
        )
    inside = os.path.realpath(directory) + os.sep
    for path in sorted(directory.rglob("*")):
        if not path.is_symlink():
            if not path.is_file() and not path.is_dir():
                raise UserError(
                    f"{option}: '{path}' is neither a file nor a directory", "leave it out"
                )
            continue
        target = os.readlink(path)
        stays = os.path.realpath(path).startswith(inside)
        if os.path.isabs(target) or not path.exists() or not stays:
            raise UserError(
                f"{option}: '{path}' is a link to '{target}', outside", "replace it with a copy"
            )
