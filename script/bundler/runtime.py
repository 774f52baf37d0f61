"""The Java runtime of the bundle, linked by the JDK's jlink."""

import dataclasses
import logging
from typing import FrozenSet, Optional, Tuple

from .commands import require, step
from .locales import MODULE

log = logging.getLogger(__name__)


@dataclasses.dataclass(frozen=True)
class Wanted:
    """What the caller says about the runtime."""

    modules: FrozenSet[str] = frozenset()  # besides those that are found
    java_options: Tuple[str, ...] = ()  # stored in it
    locales: Optional[str] = None  # jlink's list of languages whose data it has; all if None


def link_runtime(jre, names, jdk, wanted, starts_in):
    """Makes a runtime with these modules, whose only program is java. If it can be executed here, it is
    started once, in the directory STARTS_IN, which is None otherwise."""
    options = ["--add-modules", ",".join(sorted(names)), "--output", jre]
    if jdk.jmods:
        options += ["--module-path", jdk.jmods]
    if wanted.java_options:
        # After a space: jlink itself would take a first one that begins with "--".
        options.append("--add-options= " + " ".join(wanted.java_options))
    if wanted.locales and MODULE in names:  # jlink rejects the option without the module
        options += ["--include-locales", wanted.locales]
    if jdk.jmods:
        problem = f"--jmods: jlink cannot link '{jdk.jmods}'; name a complete JDK's"
    else:
        problem = "--jdk: jlink fails"
    with step("Linking the runtime"):
        require(
            problem,
            jdk.tool("jlink", "--strip-debug", "--no-header-files", "--no-man-pages", *options),
        )
        for program in list((jre / "bin").iterdir()):
            if program.name != "java":
                program.unlink()
    log_locales(names, wanted.locales)
    if starts_in:
        option = "--java-options" if wanted.java_options else "--jdk"
        require(
            f"{option}: the linked runtime does not start",
            [jre / "bin/java", "-version"],
            cwd=starts_in,
        )


def log_locales(names, locales):
    if MODULE in names and not locales:
        log.info("Locale data: all languages; --include-locales keeps a choice")
    elif MODULE in names:
        log.info("Locale data: en,%s", locales)
    elif locales:
        log.info("Locale data: English alone; %s is not among the modules", MODULE)
