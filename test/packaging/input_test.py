"""Wrong input is one line that names the option and what to do, before anything is written."""

import errno
import os
import re
import subprocess
import zipfile

import pytest
from bundler import commands, inputs
from bundler.errors import UserError
from bundler.layout import SERVICE as SERVICE_BUNDLE
from bundling import (
    ARM64,
    EXECUTABLE,
    JDK,
    LISTING_JAR,
    MAIN,
    X86_64,
    bundle,
    elf,
    mach_o,
    script,
    this_platform,
    wrapped_jdk,
    write_jar,
)
from support import LINUX, ROOT


JRE = "Resources/jre"


def touch(path):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.touch()


@pytest.fixture(scope="session")
def wrong(tmp_path_factory, classes):
    """A directory of what a caller can give by mistake:

    file                        no directory, jar or executable
    app/Orvane.app              is a file
    empty directory/
    links/out                   leads out of its directory
    linked/lib                  leads to a directory of jars
    pipes/service.log.xml       is a pipe
    elsewhere/Orvane.app        has no runtime for this system
    damaged/Orvane.app          has one that does not tell what it is
    jmods/java.base.jmod        is for macOS on Intel
    apple-silicon, universal    executables for macOS, without operator-tool beside them
    service.jar, a service.jar  have the service's class
    other.jar, again/OTHER.jar  do not, and are the same on macOS
    com.vaultory.desktop.jar    has the name of the jar that lists the others
    """
    directory = tmp_path_factory.mktemp("wrong")
    for name in "app", "empty directory", "links", "linked", "pipes", "jmods":
        (directory / name).mkdir()
    for name in "file", "app/Orvane.app":
        (directory / name).write_bytes(b"neither")
    (directory / "links/out").symlink_to("../file")
    (directory / "linked/lib").symlink_to("../again")
    os.mkfifo(directory / "pipes/service.log.xml")
    programs = "MacOS/OrvaneService", f"{JRE}/bin/java"
    for app in "elsewhere/Orvane.app", "damaged/Orvane.app":
        for file in programs:
            touch(directory / app / SERVICE_BUNDLE / file)
        (directory / app / SERVICE_BUNDLE / JRE / "lib/server").mkdir(parents=True)
    release = directory / "elsewhere/Orvane.app" / SERVICE_BUNDLE / JRE / "release"
    release.write_text('JAVA_VERSION="17"\nMODULES="java.base"\n')
    with zipfile.ZipFile(directory / "jmods/java.base.jmod", "w") as jmod:
        jmod.writestr("lib/server/libjvm.dylib", mach_o(X86_64))
    (directory / "apple-silicon").write_bytes(mach_o(ARM64))
    (directory / "universal").write_bytes(mach_o(X86_64, ARM64))
    for name in "service.jar", "a service.jar":
        write_jar(directory / name, {MAIN: classes[MAIN]})
    for name in "other.jar", "again/OTHER.jar", LISTING_JAR:
        write_jar(directory / name, {})
    return directory


SERVICE = ["--main-jar", "service.jar"]
LONG = "a" * 300
NO_PLATFORM = "is not for macOS or Linux on amd64 or aarch64; name one that is"


@pytest.mark.parametrize(
    "arguments, line",
    [
        (["--jar", "x"], "--jar: no such option; --help lists all"),
        (["--main"], "--main: no such option; --help lists all"),
        (["--main-jar"], "--main-jar: give a value"),
        (["--force=1"], "--force: takes no value"),
        (["--lang", "file"], "--lang: 'file' is not a directory; name one"),
        (
            ["--conf", "empty directory"],
            "--conf: 'empty directory' has no service.log.xml; add it, or name another directory",
        ),
        (
            ["--bin", "links"],
            "--bin: 'links/out' is a link to '../file', outside; replace it with a copy",
        ),
        (
            ["--conf", "pipes"],
            "--conf: 'pipes/service.log.xml' is neither a file nor a directory; leave it out",
        ),
        (
            ["--main-jar", "file"],
            "--main-jar: 'file' is not a jar that can be read; name jars, or directories of them",
        ),
        (
            ["--main-jar", "other.jar"],
            "--main-jar: 'other.jar' has no com.vaultory.service.QRService, which the launcher "
            "calls; name the jar with it",
        ),
        (
            ["--main-jar", "a service.jar"],
            "--main-jar: the VM archives no class of 'a service.jar'; rename it in ASCII without "
            "spaces, or add --no-archive",
        ),
        (["--input", "other.jar"], "--input: the sample needs none; give --main-jar as well"),
        (
            [*SERVICE, "--input", "/none"],
            "--input: '/none' does not exist; name jars, or directories of them",
        ),
        (
            [*SERVICE, "--input", "pipes/service.log.xml"],
            "--input: 'pipes/service.log.xml' is not a jar that can be read; name jars, or "
            "directories of them",
        ),
        (
            [*SERVICE, "--input", "linked"],
            "--input: 'linked/lib' is a link to a directory of jars outside; replace it with a copy",
        ),
        (
            [*SERVICE, "--input", ".", "--dest", "again"],
            "--dest: 'again/Orvane.app' would be made in what --input names, and the next bundle "
            "would contain it; name another directory",
        ),
        (
            [*SERVICE, "--lang", "again", "--dest", "again"],
            "--dest: 'again/Orvane.app' would be made in what --lang names, and the next bundle "
            "would contain it; name another directory",
        ),
        (
            [*SERVICE, "--input", "empty directory"],
            "--input: 'empty directory' has no jar in it; name jars, or directories of them",
        ),
        (
            [*SERVICE, "--input", "again/OTHER.jar", "--input", "other.jar"],
            "--input: 'again/OTHER.jar' and 'other.jar' would both be installed as other.jar; "
            "leave out one",
        ),
        (
            [*SERVICE, "--input", LISTING_JAR],
            f"--input: '{LISTING_JAR}' has the name of the jar that lists the others; rename it",
        ),
        (
            ["--app-version", "1.0-beta"],
            "--app-version: '1.0-beta' is not a version; give one such as 2.1.0",
        ),
        (
            ["--mac-package-identifier", "orvane"],
            "--mac-package-identifier: 'orvane' is not a bundle identifier; give one such as "
            "com.example.backup",
        ),
        (
            ["--app-version", "\u0663.1"],
            "--app-version: '\u0663.1' is not a version; give one such as 2.1.0",
        ),
        (
            ["--copyright", "two\nlines"],
            "--copyright: 'two\nlines' is not one line of UTF-8; give one",
        ),
        (
            ["--copyright", "\udca9 latin 1"],
            "--copyright: '\\udca9 latin 1' is not one line of UTF-8; give one",
        ),
        (
            ["--java-options", "-Dname=\udce9"],
            "--java-options: '-Dname=\\udce9' is not UTF-8; give what is",
        ),
        (
            [*SERVICE, "--input", "latin\udce9.jar", "--no-archive"],
            "--input: 'latin\\udce9.jar' has a name that is not UTF-8, which no Mac has; rename it",
        ),
        (
            ["--training-seconds", "0"],
            "--training-seconds: '0' is not a time; give a whole number above 0",
        ),
        (
            ["--training-seconds", "9" * 10],
            f"--training-seconds: '{'9' * 10}' is not a time; give a whole number above 0",
        ),
        (["--executable", "file"], f"--executable: 'file' {NO_PLATFORM}"),
        (
            ["--executable", "apple-silicon", "--jmods", "jmods"],
            "--jmods: 'jmods' is for macos-amd64, the executable for macos-aarch64; "
            "name the jmods directory of a JDK for that in --jmods",
        ),
        (
            ["--executable", "universal", "--no-runtime"],
            "--executable: there is no operator-tool beside 'universal'; "
            "name the launcher where the build has put both",
        ),
        (
            ["--jdk", "empty directory"],
            "--jdk: 'empty directory' has no bin/java; name a JDK, 11 or later",
        ),
        (
            ["--add-modules", "java.sql,no.such"],
            f"--add-modules: 'no.such' is not a module of '{JDK}', which has MODULES",
        ),
        (
            ["--dest", "app"],
            "--dest: 'app/Orvane.app' is not a directory; remove it, or name another directory",
        ),
        (
            ["--train", "empty directory"],
            "--train: 'empty directory' is no bundle with a launcher and a runtime; "
            "name an Orvane.app",
        ),
        (
            ["--train", "elsewhere/Orvane.app"],
            "--train: the runtime of 'elsewhere/Orvane.app' is not for this system; "
            "call this on a machine that it is for",
        ),
        (
            ["--train", "damaged/Orvane.app"],
            f"--train: 'damaged/Orvane.app/{SERVICE_BUNDLE}/{JRE}/release': No such file or directory; "
            "name one that is complete",
        ),
        (
            ["--train", "empty directory", "--lang", "empty directory"],
            "--lang: has no meaning with --train; leave one out",
        ),
    ],
    ids=lambda value: ascii(" ".join(value)) if isinstance(value, list) else "",
)
def test_wrong_input_is_one_line_before_anything_is_written(wrong, arguments, line):
    before = sorted(wrong.rglob("*"))
    executable = [] if {"--executable", "--train"} & {*arguments} else ["--executable", EXECUTABLE]
    run = script(*executable, *arguments, cwd=wrong)
    printed = re.sub("which has java.*", "which has MODULES", "\n".join(run.lines))
    assert (run.status, printed) == (1, f"bundle: {line}")
    assert sorted(wrong.rglob("*")) == before


def test_a_JDK_for_another_platform_than_the_executable_is_rejected(tmp_path):
    for name in "launcher", "operator-tool":
        (tmp_path / name).write_bytes(mach_o(X86_64, ARM64) if LINUX else elf(183))
    platforms = "macos-amd64 and macos-aarch64" if LINUX else "linux-aarch64"
    assert script("--executable", "launcher", cwd=tmp_path) == (
        1,
        [
            f"bundle: --jdk: '{JDK}' is for {this_platform()}, the executable for {platforms}; "
            "name the jmods directory of a JDK for that in --jmods"
        ],
    )


def test_a_JAVA_HOME_that_is_no_JDK_is_rejected(wrong):
    run = bundle(cwd=wrong, JAVA_HOME="empty directory")
    line = "bundle: JAVA_HOME: 'empty directory' has no bin/java; name a JDK, 11 or later"
    assert run == (1, [line])


def test_a_SOURCE_DATE_EPOCH_that_is_no_time_is_rejected(wrong):
    run = bundle(cwd=wrong, SOURCE_DATE_EPOCH="today")
    line = "bundle: SOURCE_DATE_EPOCH: 'today' is not a time; give seconds since 1970"
    assert run == (1, [line])


@pytest.mark.parametrize(
    "arguments, problem",
    [
        ([*SERVICE, "--input", LONG], f"--input: '{LONG}': File name too long"),
        (["--conf", LONG], f"--conf: '{LONG}': File name too long"),
        (["--jdk", LONG], f"--jdk: '{LONG}/bin/java': File name too long"),
    ],
    ids=["--input", "--conf", "--jdk"],
)
def test_what_the_system_says_of_a_file_is_repeated(wrong, arguments, problem):
    assert bundle(*arguments, cwd=wrong) == (
        1,
        [f"bundle: {problem}; correct that, or name another"],
    )


def test_a_directory_of_jars_that_cannot_be_read_is_named_and_not_passed_over(
    tmp_path, monkeypatch
):
    write_jar(tmp_path / "lib/a.jar", {})
    (tmp_path / "lib/locked").mkdir()
    scandir = os.scandir

    def refuse(path):
        if str(path).endswith("locked"):
            raise PermissionError(errno.EACCES, os.strerror(errno.EACCES), str(path))
        return scandir(path)

    monkeypatch.setattr(os, "scandir", refuse)
    with pytest.raises(UserError) as raised:
        inputs.named_by([tmp_path / "lib"])
    assert str(raised.value) == (
        f"--input: '{tmp_path}/lib/locked': Permission denied; correct that, or name another"
    )


def test_a_destination_below_a_file_is_rejected(wrong):
    run = bundle(*SERVICE, "--no-runtime", "--dest", "file/none", cwd=wrong)
    line = "bundle: --dest: 'file' is not a directory; remove it, or name another directory"
    assert run == (1, [line])


@pytest.mark.parametrize("release", [b'IMPLEMENTOR="none"\n', b"\xff\xfe"])
def test_a_JDK_that_does_not_tell_its_version_is_named(wrong, tmp_path, release):
    wrapped_jdk(tmp_path, "javac", "")
    (tmp_path / "jdk/release").unlink()
    (tmp_path / "jdk/release").write_bytes(release)
    run = bundle("--jdk", tmp_path / "jdk", cwd=wrong)
    line = f"bundle: --jdk: '{tmp_path}/jdk/release' has no JAVA_VERSION; name one that is complete"
    assert run == (1, [line])


@pytest.mark.parametrize(
    "printed",
    [
        "Invalid maximum heap size: -Xmx32x\nError: Could not create the Java Virtual Machine.\n"
        "Error: A fatal exception has occurred. Program will exit.\n",
        "Error occurred during initialization of VM\nInvalid maximum heap size: -Xmx32x\n",
    ],
)
def test_the_VM_s_reason_is_given_and_not_that_it_has_one(printed):
    with pytest.raises(UserError) as raised:
        commands.require("the VM does not start", ["sh", "-c", f"printf '{printed}'; exit 1"])
    assert str(raised.value) == "the VM does not start: Invalid maximum heap size: -Xmx32x"


def test_all_options_are_explained_on_one_screen():
    lines = subprocess.check_output([ROOT / "script/bundle", "--help"], text=True).splitlines()
    assert len(lines) <= 40 and max(map(len, lines)) <= 110
