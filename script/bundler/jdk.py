"""The JDK that makes the runtime: where it is, its version, its modules and its programs."""

import dataclasses
import pathlib
import re
import shutil
from typing import FrozenSet, Optional

from .commands import require
from .errors import UserError, file_errors
from .inputs import OTHER


COMPLETE = "name one that is complete"


@dataclasses.dataclass(frozen=True)
class Jdk:
    """A JDK; with jmods, the modules for another platform, its own are not used."""

    home: pathlib.Path
    option: str  # what named it
    feature: int  # 17 of 17.0.2
    modules: FrozenSet[str]
    jmods: Optional[pathlib.Path] = None

    def program(self, name):
        return self.home / "bin" / name

    def tool(self, name, *arguments):
        """The command for a program that is written in Java. Its run is short: the first compiler is
        enough. Only with this collector, whose objects the JDK's own archive has, does jlink always
        write the same bytes."""
        return [
            self.program(name),
            "-J-XX:TieredStopAtLevel=1",
            "-J-XX:+UseG1GC",
            *arguments,
        ]


def find_jdk(named, jmods, environment):
    """The JDK that --jdk names, or JAVA_HOME, or the javac on the path."""
    option, home = locate(named, environment)
    for file in "bin/java", "bin/javac", "bin/jlink", "bin/jdeps", "bin/jmod", "release":
        with file_errors(option, OTHER):
            present = (home / file).is_file()
        if not present:
            raise UserError(f"{option}: '{home}' has no {file}", "name a JDK, 11 or later")
    home = home.absolute()
    listed = require(
        f"{option}: '{home}/bin/java --list-modules' fails", [home / "bin/java", "--list-modules"]
    )
    if jmods:
        modules = {file.stem for file in jmods.glob("*.jmod")}
    else:
        modules = set(re.findall(r"^([\w.]+)@", listed, re.M))
    return Jdk(home, option, feature_version(option, home), frozenset(modules), jmods)


def locate(named, environment):
    if named:
        return "--jdk", named
    if environment.get("JAVA_HOME"):
        return "JAVA_HOME", pathlib.Path(environment["JAVA_HOME"])
    if shutil.which("javac"):
        settings = require(
            "--jdk: the javac on the path does not start; name a JDK",
            ["javac", "-J-XshowSettings:properties", "-version"],
        )
        return "--jdk", pathlib.Path(re.search(r"java\.home = (.*)", settings)[1])
    raise UserError(
        "--jdk: there is no javac on the path, and JAVA_HOME is not set",
        "name a JDK, 11 or later",
    )


def feature_version(option, home):
    """The first number of the version of a JDK or a linked runtime, 8 of 1.8."""
    return int(released(option, home, "JAVA_VERSION", r"(?:1\.)?([0-9]+)"))


def modules_of(option, jre):
    """The modules of a linked runtime."""
    return set(released(option, jre, "MODULES", '(.*)"$').split())


def released(option, home, field, pattern):
    """The value of a field of the file that tells what a JDK or a runtime is."""
    file = home / "release"
    with file_errors(option, COMPLETE):
        found = re.search(f'^{field}="{pattern}', file.read_text(errors="replace"), re.M)
    if not found:
        raise UserError(f"{option}: '{file}' has no {field}", COMPLETE)
    return found[1]


def check_modules(names, jdk):
    """Raises if --add-modules names one that the JDK, or --jmods, does not have."""
    for name in sorted(names - {"ALL-DEFAULT"} - jdk.modules):
        raise UserError(
            f"--add-modules: '{name}' is not a module of '{jdk.jmods or jdk.home}', which has "
            f"{' '.join(sorted(jdk.modules))}"
        )


def check_java_options(java_options, jdk):
    """Raises if the jlink of this JDK cannot store VM options."""
    if java_options and jdk.feature < 17:
        raise UserError(
            f"--java-options: the jlink of '{jdk.home}' cannot store them",
            "name a JDK, 17 or later, in --jdk",
        )
