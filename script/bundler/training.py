"""The run of the service with all modules of the JDK, which shows what it loads."""

import dataclasses
import filecmp
import os
import pathlib
import re
import urllib.parse
import zipfile
from typing import FrozenSet, Tuple

from .commands import require, step
from .errors import UserError
from .inputs import UNREADABLE

VM_SECONDS = 30  # a debugger's option can make it wait


@dataclasses.dataclass(frozen=True)
class Trained:
    """What the service loaded."""

    modules: FrozenSet[str]
    classes: FrozenSet[str]  # its own, not those of the modules
    class_list: pathlib.Path  # in the VM's format
    outside: Tuple[str, ...]  # files that are not in the bundle, from which classes come


def train(trial, runtime, modules, java_options):
    """Runs the service once with this runtime, which has these modules."""
    trial.use_runtime(runtime)
    trial.relocate_options(java_options)
    if java_options:
        check_java_options(trial, java_options)
    class_list = f"{trial.work}/names-%p"
    with step("Running the service once"):
        run = trial.run_service(
            "training",
            "give --training-argument with which the service ends well, or --no-archive",
            options=["-Xshare:off", f"-XX:DumpLoadedClassList={class_list}", *java_options],
        )
    loaded = run.loaded_classes()
    own = {name: source for name, source in loaded.items() if source.startswith("file:")}
    files = files_outside(trial, set(own.values()))
    check_class_paths(trial.contents / "Resources/lib", files)
    used = {source[len("jrt:/") :] for source in loaded.values() if source.startswith("jrt:/")}
    return Trained(
        frozenset(used & modules),
        frozenset(own),
        trial.work / f"names-pid{run.service.pid}",
        tuple(files),
    )


def check_java_options(trial, java_options):
    """Raises if the VM does not start with them, which is clearer before the service is run."""
    file = trial.work / "java-options"
    file.write_text(" ".join(java_options))
    require(
        "--java-options: the VM does not start with them",
        [trial.java, f"-XX:VMOptionsFile={file}", *trial.options, "-version"],
        cwd=trial.directory,
        env=trial.environment,
        timeout=VM_SECONDS,
    )


def files_outside(trial, sources):
    """The files outside the copy of the bundle, of sources such as file:../Resources/lib/a.jar. One that a
    jar of the bundle is a copy of is not meant: that jar takes its place where the file is missing.
    """
    lib = trial.contents / "Resources/lib"
    found = []
    for source in sorted(sources):
        path = urllib.parse.unquote(source[len("file:") :])
        file = os.path.realpath(trial.directory / path)
        inside = file.startswith(f"{trial.contents}/") or is_copied(file, lib)
        if os.path.exists(file) and not inside:
            found.append(file)
    return found


def is_copied(file, lib):
    copies = lib.rglob(os.path.basename(file))
    return os.path.isfile(file) and any(filecmp.cmp(file, copy, shallow=False) for copy in copies)


def check_class_paths(lib, outside):
    """Raises if a jar's Class-Path led to these files: they are missing where the bundle is installed."""
    named = {}  # file: the jar that names it
    jars = sorted(path for path in lib.rglob("*") if path.is_file())
    while jars:
        jar = jars.pop()
        for file in class_path_of(jar):
            if file not in named and os.path.exists(file):
                named[file] = jar
                jars.append(pathlib.Path(file))
    for file in outside:
        if file in named:
            raise UserError(
                f"--input: classes come from '{file}', which is not in the bundle; the Class-Path of "
                f"{named[file].name} names it",
                "name it in --input as well",
            )


def class_path_of(jar):
    """The files that the Class-Path of a jar names."""
    try:
        with zipfile.ZipFile(jar) as archive:
            manifest = archive.read("META-INF/MANIFEST.MF").decode(errors="replace")
    except (KeyError, *UNREADABLE):
        return []
    manifest = re.sub("\r?\n ", "", manifest)
    entries = re.search(r"^Class-Path: *(.*)$", manifest, re.M | re.I)
    paths = [
        urllib.parse.unquote(urllib.parse.urlsplit(entry).path)
        for entry in (entries[1].split() if entries else [])
    ]
    return [os.path.realpath(jar.parent / path) for path in paths]
