"""Which modules the runtime has: those that the jars refer to, by the JDK's jdeps, and a few more."""

import logging
import re
import zipfile

from .commands import run, step
from .inputs import UNREADABLE

log = logging.getLogger(__name__)

# No class file refers to these: TLS over elliptic curves is a provider that is found by its name, and
# sun.misc.Unsafe is reached by reflection.
ALWAYS = {"jdk.crypto.ec", "jdk.unsupported"}


def modules_by_jdeps(lib, jdk, work):
    """The modules that the classes of the jars in this directory refer to."""
    with step("Looking up the modules that the jars refer to"):
        copies = []
        for jar in sorted(path for path in lib.rglob("*") if path.is_file()):
            copy = (work / jar.relative_to(lib)).with_suffix(".jar")
            try:
                if copy_classes(jar, copy, jdk.feature):
                    copies.append(copy)
            except UNREADABLE:
                log.warning("Passed over, its classes cannot be read: %s", jar.name)
        return modules_referred_to(copies, jdk) if copies else set()


def copy_classes(jar, copy, feature):
    """Writes a jar with the classes alone, each as a JDK of this version sees it, and without a module
    descriptor, which jdeps would resolve. Whether there are any."""
    classes = {}
    copy.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(jar) as archive, zipfile.ZipFile(copy, "w") as target:
        for entry in archive.infolist():
            version, name = re.fullmatch(
                r"(?:META-INF/versions/(\d+)/)?(.*)", entry.filename, re.S
            ).groups()
            version = int(version or 0)
            if not name.endswith(".class") or re.match("META-INF/|module-info", name):
                continue
            present, _ = classes.get(name, (0, None))
            if present <= version <= feature:
                classes[name] = version, entry
        for name, (_, entry) in classes.items():
            target.writestr(name, archive.read(entry))
    return bool(classes)


def modules_referred_to(jars, jdk):
    """What jdeps finds, among its warnings. Of jars among which one cannot be analysed it finds nothing:
    the list is bisected until that one is alone, which is passed over."""
    ended = run(jdk.tool("jdeps", "-s", *jars))
    if ended.returncode == 0:
        return jdk.modules & set(re.findall(r" -> (\S+)$", ended.stdout, re.M))
    if len(jars) == 1:
        log.warning("Passed over, jdeps cannot analyse it: %s", jars[0].name)
        return set()
    half = len(jars) // 2
    return modules_referred_to(jars[:half], jdk) | modules_referred_to(jars[half:], jdk)


def expand(names, jdk):
    """The names, with the modules that ALL-DEFAULT stands for."""
    if "ALL-DEFAULT" not in names:
        return names
    printed = run([jdk.program("java"), "--show-module-resolution", "-cp", ".", "None"]).stdout
    default = set(re.findall(r"^root ([\w.]+)", printed, re.M)) & jdk.modules
    return names - {"ALL-DEFAULT"} | default


def log_modules(found):
    """One line for each origin of {origin: names}."""
    for origin, names in found.items():
        log.info("Modules, %s: %s (%d)", origin, " ".join(sorted(names)) or "none", len(names))
