"""Which languages' data the runtime has: --include-locales, as jlink takes it."""

import re

from .commands import require
from .errors import UserError

MODULE = "jdk.localedata"
RENAMED = {"iw": "he", "in": "id", "ji": "yi"}  # an older JDK prints the older code


def check_locales(tags, jdk):
    """Raises if a JDK has no data for one of these: jlink fails only if it has none for all of them."""
    if MODULE not in jdk.modules:
        raise UserError(
            f"--include-locales: '{jdk.jmods or jdk.home}' has no {MODULE}, and English alone",
            "leave it out",
        )
    printed = require(
        f"{jdk.option}: '{jdk.home}/bin/java -XshowSettings:locale' fails",
        [jdk.program("java"), "-XshowSettings:locale", "-version"],
    )
    listed = re.search(r"available locales = ((?:.*,\s*\n)*.*)", printed)[1]
    available = [subtags(name) for name in re.split(r",\s*", listed) if name]
    for tag in tags.split(","):
        # Java prints de_DE, but jlink takes only de-DE.
        if "_" in tag or not any(matches(subtags(tag), locale) for locale in available):
            raise UserError(
                f"--include-locales: the JDK has no data of '{tag}'",
                "give language tags, separated by commas, such as de,pt-BR,zh-Hans,*-CH",
            )


def subtags(name):
    """The parts of a name such as zh-Hans-CN or, as Java prints it, zh_CN_#Hans."""
    parts = re.split("[-_]", name.strip().lower().replace("#", ""))
    return [RENAMED.get(parts[0], parts[0]), *filter(None, parts[1:])]


def matches(wanted, locale):
    return wanted[0] in ("*", locale[0]) and set(wanted[1:]) <= {"*", *locale[1:]}
