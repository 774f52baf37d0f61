"""The CDS archive in the runtime: the bundle starts from it wherever it is, and without it as well."""

import pathlib
import re
import shutil

import pytest
from bundling import JAVA, script, write_script
from support import CONTENTS
from support.root import SCRATCH

PRINTED = b"below upper descriptor versioned\nMontag\n"
TRACE = f"-Xlog:class+load:file={SCRATCH}/loaded:none"
ARCHIVE = "jre/lib/server/classes.jsa"
JAR = "lib/service.jar"


def sources(names=r"\S+"):
    """Where the classes with these names came from in the last run."""
    trace = pathlib.Path(SCRATCH, "loaded").read_text()
    return re.findall(rf"^{names} source: (.*)$", trace, re.M)


def test_a_per_user_and_a_system_wide_copy_start_from_the_archive_after_tar(root, unpacked):
    for home, marker in ("", []), ("/Users/two words", ["-Duser.install=1"]):
        applications = f"{home}/Applications"
        root.copy(unpacked / "Orvane.app", f"{applications}/Orvane.app")
        run = root.run(
            ["./OrvaneService", *marker],
            cwd=f"{applications}/{CONTENTS}/MacOS",
            env={"JAVA_TOOL_OPTIONS": f"{TRACE} -XX:+PrintFlagsFinal", "LC_ALL": "C.UTF-8"},
        )
        assert (run.status, PRINTED in run.stdout) == (0, True), run
        assert re.search(rb"\bErrorFile += /Library/Logs/OrvaneService-%p.log ", run.stdout)
        assert sources().count("shared objects file") / len(sources()) >= 0.95


def run_copy(root, source, change=lambda resources: None):
    """Runs a changed copy of a bundle from /Applications; where its service's class came from."""
    contents = root.copy(source / "Orvane.app", "/Applications/Orvane.app").parent / CONTENTS
    change(contents / "Resources")
    run = root.run(
        ["./OrvaneService"],
        cwd=contents / "MacOS",
        env={"JAVA_TOOL_OPTIONS": f"-Xlog:disable {TRACE}"},
    )
    assert (run.status, PRINTED in run.stdout) == (0, True), run
    return sources("com.vaultory[.]service[.]QRService")


def remove_the_archive(resources):
    (resources / ARCHIVE).unlink()


def replace_the_jar(resources):
    (resources / JAR).write_bytes((resources / JAR).read_bytes())


@pytest.mark.parametrize("change", [replace_the_jar, remove_the_archive])
def test_without_what_the_archive_was_made_for_the_bundle_starts(root, trained, change):
    (place,) = run_copy(root, trained.dest, change)
    assert place.startswith("file:") and place.endswith(f"/Resources/{JAR}")


@pytest.fixture
def elsewhere(tmp_path, trained):
    """The directory of a copy of the bundle without its archive."""
    directory = tmp_path / "else where"
    shutil.copytree(trained.dest / "Orvane.app", directory / "Orvane.app", symlinks=True)
    remove_the_archive(directory / CONTENTS / "Resources")
    return directory


def test_a_bundle_made_elsewhere_gets_an_archive_of_a_kind_that_its_VM_makes(root, elsewhere):
    # A VM as JDK 26 and later have it, which archives no linked classes.
    java = elsewhere / CONTENTS / "Resources/jre/bin/java"
    java.rename(java.with_name("java.real"))
    refuse = 'case "$*" in *AOTClassLinking*) exit 1 ;; esac'
    write_script(java, f'#!/bin/sh\n{refuse}\nexec "$0.real" "$@"\n')
    kind = "cache" if JAVA >= 25 else "plain"
    assert script("--train", "Orvane.app", cwd=elsewhere) == (
        0,
        [
            "Running the service once: N s",
            "Archiving the classes that it loaded: N s",
            "Running it from the bundle: N s",
            f"Classes of the service in this run, from the archive ({kind}): 5 of 5",
        ],
    )
    assert run_copy(root, elsewhere) == ["shared objects file"]


def test_a_service_that_fails_with_its_own_runtime_leaves_the_former_archive(elsewhere):
    archive = elsewhere / CONTENTS / "Resources" / ARCHIVE
    archive.write_bytes(b"the former archive")
    run = script(
        *("--train", "Orvane.app", "--training-argument", "throw-from-archive"), cwd=elsewhere
    )
    assert (run.status, [re.sub(r"java:\d+", "java:N", line) for line in run.lines]) == (
        1,
        [
            "Running the service once: N s",
            "Archiving the classes that it loaded: N s",
            '  | Exception in thread "main" java.lang.IllegalStateException: a module is missing',
            "  | \tat com.vaultory.service.QRService.throwUnlessItIsToBeArchived(QRService.java:N)",
            "  | Service is complete.",
            "bundle: the last run ended with an exception from main after N s, see above; "
            "give what it lacks to --add-modules",
        ],
    )
    assert archive.read_bytes() == b"the former archive"
