"""The order of the steps."""

import contextlib
import logging
import os
import pathlib
import re
import shutil
import tempfile

from . import inputs, modules, options, packing, processes, sample
from .archive import check_archive, make_archive
from .commands import run
from .errors import UserError, copy_tree, file_errors, full_disk
from .jdk import check_java_options, check_modules, feature_version, find_jdk, modules_of
from .launcher import build_launcher, project_version
from .layout import SERVICE, Directories, Product
from .layout import is_signed, make_layout, normalize, operator_tool_beside
from .locales import check_locales
from .platforms import target_of
from .runtime import Wanted, link_runtime
from .service import Plan
from .training import train
from .trial import Trial

log = logging.getLogger(__package__)

ARCHIVE_MEGABYTES = 60
TMPDIR_MEGABYTES = 300  # of a bundle, of the runtime linked for it, and of what the runs write


def main(arguments):
    """Makes a bundle; the exit status."""
    processes.exit_on_signals()
    os.umask(0o022)
    handler = logging.StreamHandler()
    log.addHandler(handler)
    log.setLevel(logging.INFO)
    try:
        given = options.parse(arguments)
        if given.verbose:
            log.setLevel(logging.DEBUG)
        plan = Plan(
            tuple(given.training_argument), given.training_command, int(given.training_seconds)
        )
        if given.train:
            train_bundle(given.train, plan, given.force)
        else:
            make_bundle(given, plan, options.source_date_epoch(os.environ))
        return 0
    except UserError as error:
        for line in error.printed:
            log.error("  | %s", line)
        log.error("bundle: %s", error)
        return 1
    finally:
        log.removeHandler(handler)


@contextlib.contextmanager
def work_directory():
    """A directory that is removed at the end, in TMPDIR if its path suits the VM's options, which take no
    space and no colon."""
    directory = os.environ.get("TMPDIR", "/tmp")
    if not re.fullmatch("[A-Za-z0-9/._+-]+", directory):
        directory = "/tmp"
    other = "set TMPDIR to another directory"
    with file_errors("TMPDIR", other):
        flags = os.statvfs(directory).f_flag
    if flags & getattr(os, "ST_NOEXEC", 0):  # Linux alone has it
        raise UserError(
            f"TMPDIR: programs in '{directory}' cannot be executed, as it is mounted with noexec",
            other,
        )
    with full_disk("TMPDIR", directory, TMPDIR_MEGABYTES, other):
        with file_errors("TMPDIR", other):
            work = tempfile.TemporaryDirectory(prefix="bundle-", dir=directory)
        with work:
            yield pathlib.Path(work.name).resolve()


def make_bundle(given, plan, epoch):
    """Makes Orvane.app in a work directory, and puts it in its place when it is complete."""
    # Check the input.
    sources = {
        "--input": given.input,
        "--lang": [given.lang],
        "--conf": [given.conf],
        "--bin": [given.bin],
        "--frameworks": [given.frameworks],
    }
    inputs.check_destination_apart(given.dest / packing.NAME, sources)
    jars, directories = vendors_files(given)
    version = given.app_version or project_version()
    packing.check_destination(given.dest, given.force)
    jdk = find_jdk(given.jdk, given.jmods, os.environ)
    added = {name for names in given.add_modules for name in names.split(",")}
    check_modules(added, jdk)
    check_java_options(given.java_options, jdk)
    if given.include_locales:
        check_locales(given.include_locales, jdk)
    executable = given.executable or build_launcher(jdk)
    target = target_of(executable, None if given.no_runtime else jdk)
    operator_tool = operator_tool_beside(executable)

    # Lay out the bundle, add the runtime, and put it in its place.
    outside = ()
    with work_directory() as work:
        app = work / packing.NAME
        if not jars:
            jar = sample.compile_sample(jdk, version, work)
            jars = {jar.name: jar}
        product = Product(version, given.mac_package_identifier, given.copyright)
        contents = make_layout(
            app, executable, operator_tool, jars, product, directories, target.minimum_macos
        )
        normalize(app, epoch)
        if not given.no_runtime:
            wanted = Wanted(frozenset(added), tuple(given.java_options), given.include_locales)
            if given.no_archive or not target.runs_here:
                trial = None
            else:
                trial = Trial(contents, work, plan)
            outside = add_runtime(contents, work, jdk, wanted, target.runs_here, trial)
            if not given.no_archive and not target.runs_here:
                log.info(
                    "The runtime is for %s: call --train there, before signing, for the CDS archive",
                    target.platform,
                )
            normalize(app, epoch)
        packing.put_in_place(app, given.dest)
    if given.tarball:
        packing.pack(given.dest, version, target.platform)
    log_outside(outside)


def vendors_files(given):
    """The vendor's jars, none for the sample, and directories, or the sample's."""
    for option, directory, file in (
        ("--lang", given.lang, ""),
        ("--conf", given.conf, "service.log.xml"),
        ("--bin", given.bin, ""),
        ("--frameworks", given.frameworks, ""),
        ("--jmods", given.jmods, "java.base.jmod"),
    ):
        if directory:
            with file_errors(option, inputs.OTHER):
                inputs.check_directory(option, directory, file)
    conf = given.conf or sample.DIRECTORY / "conf"
    if given.main_jar:
        archived = not given.no_archive and not given.no_runtime
        jars = inputs.find_jars(given.main_jar, given.input, archived)
        return jars, Directories(conf, given.lang, given.bin, given.frameworks)
    return {}, Directories(
        conf,
        given.lang or sample.DIRECTORY / "lang",
        given.bin or sample.DIRECTORY / "bin",
        given.frameworks,
    )


def add_runtime(contents, work, jdk, wanted, runs_here, trial):
    """Adds the runtime with the modules that are found and, if there is a trial, with its archive. The
    files outside the bundle that classes came from."""
    jre, trained = work / "jre", None
    found = {
        "always": modules.ALWAYS & jdk.modules,
        "--add-modules": wanted.modules,
        "jdeps": modules.modules_by_jdeps(contents / "Resources/lib", jdk, work / "classes"),
    }
    if trial:
        trained = train(trial, jdk.home, jdk.modules, wanted.java_options)
        found["training"] = trained.modules
    modules.log_modules(found)
    names = modules.expand(set().union(*found.values()), jdk)
    link_runtime(jre, names, jdk, wanted, starts_in=contents / "MacOS" if runs_here else None)
    log.info(
        "Modules of the runtime, with those that these require: %d", len(modules_of("--jdk", jre))
    )
    if trained:
        kind, _ = make_archive(trial, jre, jdk.feature, trained.class_list)
        check_archive(trial, kind, trained.classes)
    jre.rename(contents / "Resources/jre")
    return trained.outside if trained else ()


def log_outside(files):
    """The last lines: an agent or a loader of the service's own found these, and will miss them."""
    for file in files:
        log.warning("Not in the bundle, though classes come from there: %s", file)


def check_starts_here(app, runtime):
    """Raises if the system cannot execute the runtime's java. A java that fails has its say later."""
    try:
        run([runtime / "bin/java", "-version"])
    except UserError as error:
        raise UserError(
            f"--train: the runtime of '{app}' is not for this system",
            "call this on a machine that it is for",
        ) from error


def train_bundle(app, plan, force):
    """Makes the archive of a bundle in a copy of it, with its own runtime in place of the JDK."""
    contents = app / SERVICE
    server = contents / "Resources/jre/lib/server"
    for file in "MacOS/OrvaneService", "Resources/jre/bin/java":
        if not (contents / file).is_file():
            raise UserError(
                f"--train: '{app}' is no bundle with a launcher and a runtime",
                "name an Orvane.app",
            )
    if is_signed(app) and not force:
        raise UserError(
            f"--train: '{app}' is signed, which an archive breaks",
            "add --force, and sign it again",
        )
    if not os.access(server, os.W_OK):
        raise UserError(f"--train: '{server}' is not writable", "call this as its owner")
    installed = contents / "Resources/jre"
    feature, names = feature_version("--train", installed), modules_of("--train", installed)
    check_starts_here(app, installed)
    with work_directory() as work:
        copy = work / "Contents"
        with file_errors("--train"):
            copy_tree(contents, copy)
        jre = (copy / "Resources/jre").rename(work / "jre")
        trial = Trial(copy, work, plan)
        trained = train(trial, jre, names, ())
        kind, archive = make_archive(trial, jre, feature, trained.class_list)
        check_archive(trial, kind, trained.classes)
        archive.chmod(0o644)
        other = "make the bundle elsewhere"
        with full_disk("--train", server, ARCHIVE_MEGABYTES, other), file_errors("--train"):
            with tempfile.TemporaryDirectory(prefix=".archive-", dir=server) as staging:
                os.rename(shutil.copy2(archive, staging), server / archive.name)
    log_outside(trained.outside)
