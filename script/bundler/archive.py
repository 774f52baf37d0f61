"""The CDS archive of the classes that the service loads, in the runtime, where the VM finds it by itself."""

import contextlib
import logging
import re

from .commands import step
from .errors import UserError
from .inputs import LISTING_JAR

log = logging.getLogger(__name__)

CLASS_PATH = f"../Resources/lib/{LISTING_JAR}"
WITHOUT_ARCHIVE = "--no-archive makes the bundle without one"


def kinds_for(feature):
    """The kinds that a JDK of this version may have, the fastest first: docs/decisions/archive-kinds.md.
    The first is taken that the VM makes, and then uses."""
    if feature >= 24:
        return [("linked", dump_linked), ("cache", record_cache), ("plain", dump_plain)]
    return [("plain", dump_plain)]


def make_archive(trial, jre, feature, class_list):
    """Makes the archive in this runtime; its kind, and the file."""
    trial.use_runtime(jre)
    add_default_classes(class_list, jre)
    file = jre / "lib/server" / archive_name(trial)
    with step("Archiving the classes that it loaded"):
        for kind, make in kinds_for(feature):
            printed = make(trial, file, class_list)
            if printed is None:
                return kind, file
    raise UserError(
        "the VM makes no archive, see above", WITHOUT_ARCHIVE, printed.rstrip().splitlines()[-12:]
    )


def add_default_classes(class_list, jre):
    """Adds the classes that the runtime's own archive would have."""
    with class_list.open("ab") as names, contextlib.suppress(FileNotFoundError):
        names.write((jre / "lib/classlist").read_bytes())


def archive_name(trial):
    """The file that the VM looks for, which depends on the VM options stored in the runtime."""
    printed = trial.run_java("-Xlog:all=info", "-version").stdout
    mapped = re.findall(r"trying to map .*/(classes\S*\.jsa)$", printed, re.M)
    return mapped[-1] if mapped else "classes.jsa"


def collector(trial):
    """The collector that lays out an archive's objects best, unless a stored VM option names another."""
    option = "-XX:+UseG1GC"
    return [] if trial.run_java(option, "-version").returncode else [option]


def dump_plain(trial, file, class_list, *options):
    """Makes an archive of the list. What the VM prints if it does not, otherwise None."""
    ended = trial.run_java(
        *options,
        *collector(trial),
        "-Xshare:dump",
        f"-XX:SharedClassListFile={class_list}",
        f"-XX:SharedArchiveFile={file}",
        *["-cp", CLASS_PATH],
    )
    return ended.stdout if ended.returncode else None


def dump_linked(trial, file, class_list):
    """The same with classes that are linked already."""
    return dump_plain(trial, file, class_list, "-XX:+AOTClassLinking") or not_linked(trial)


def record_cache(trial, file, class_list):
    """Makes an AOT cache out of one more run of the service."""
    configuration = f"-XX:AOTConfiguration={trial.work}/aot"
    ended = trial.run_java("-XX:AOTMode=record", configuration, "-version")
    if ended.returncode:
        return ended.stdout
    trial.run_service(
        "the recording run",
        "add --no-archive",
        options=["-XX:AOTMode=record", configuration, *collector(trial)],
        last_options=[f"-Djava.class.path={CLASS_PATH}"],  # which may name no directory
    )
    ended = trial.run_java(
        "-XX:AOTMode=create",
        configuration,
        *collector(trial),
        f"-XX:AOTCache={file}",
        *["-cp", CLASS_PATH],
    )
    return ended.stdout if ended.returncode else not_linked(trial)


def not_linked(trial):
    """What the VM prints unless it uses linked classes of the archive, otherwise None."""
    ended = trial.run_java("-Xlog:all=info", "-cp", CLASS_PATH, "-version")
    if ended.returncode == 0 and "AOT-linked classes: true" in ended.stdout:
        return None
    return ended.stdout


def check_archive(trial, kind, classes):
    """Runs the service from its archive, and counts its classes, among them these, that come from there."""
    with step("Running it from the bundle"):
        run = trial.run_service("the last run", "give what it lacks to --add-modules")
    sources = [
        source
        for name, source in run.loaded_classes().items()
        if source.startswith("file:") or name in classes
    ]
    shared = sources.count("shared objects file")
    if not shared:
        printed = trial.run_java("-Xlog:cds", "-cp", CLASS_PATH, "-version").stdout
        raise UserError(
            f"none of the service's {len(sources)} classes comes from the archive, see above: does a "
            "VM option prevent it?",
            WITHOUT_ARCHIVE,
            printed.rstrip().splitlines()[-12:],
        )
    log.info(
        "Classes of the service in this run, from the archive (%s): %d of %d",
        kind,
        shared,
        len(sources),
    )
