"""What the build and the signing ask of jars and libraries: jars.py COMMAND ARGUMENT...

check JAR [LIBRARY...]              says why these cannot be installed together, with status 1
install DIRECTORY JAR [LIBRARY...]  copies them there, the first under the launcher's name for it
native JAR...                       prints each Mach-O file in them, "JAR: ENTRY"
minimum-system FILE                 prints the oldest macOS a library, or a jmod's libjvm, runs on

An installed copy's Class-Path names jars beside it only, and the service's names them all;
where it does so already, the copy has the same bytes. Where SOURCE_DATE_EPOCH is set, neither a
copy nor an entry of an unsigned one has a later time."""

import io
import os
import pathlib
import re
import shutil
import struct
import sys
import time
import zipfile

SERVICE = "com.vaultory.desktop.jar"
MANIFEST = "META-INF/MANIFEST.MF"
EPOCH = int(os.environ.get("SOURCE_DATE_EPOCH") or 0)


class Refusal(Exception):
    pass


class Jar:
    def __init__(self, path, variable, name=None):
        self.path, self.variable, self.name = pathlib.Path(path), variable, name or path.name
        try:
            with zipfile.ZipFile(path) as archive:
                self.entries = archive.infolist()
                manifest = archive.read(MANIFEST).decode() if MANIFEST in archive.namelist() else ""
        except (OSError, zipfile.BadZipFile) as error:
            raise Refusal(f"{variable}: '{path}' is not a jar that can be read; name jars, "
                          "or directories of them") from error
        self.manifest = re.sub(r"\r?\n ", "", manifest)
        found = re.search(r"^Class-Path: *(.*?)\r?$", self.manifest, re.M | re.I)
        self.class_path = found.group(1).split() if found else []
        self.signed = any(re.fullmatch(r"META-INF/[^/]+\.SF", entry.filename, re.I)
                          for entry in self.entries)

    def with_class_path(self, names):
        """The manifest's bytes with this Class-Path, in lines of 72 bytes at most."""
        lines = [line for line in self.manifest.splitlines()
                 if not line.lower().startswith("class-path:")] or ["Manifest-Version: 1.0"]
        if names:
            lines.insert(1, "Class-Path: " + " ".join(names))
        text = b""
        for line in (line.encode() for line in lines):
            text += line[:72] + b"".join(b"\r\n " + line[at:at + 71]
                                         for at in range(72, len(line), 71)) + b"\r\n"
        return text if text.endswith(b"\r\n\r\n") else text + b"\r\n"


def plan(service, *libraries):
    """[(jar, the Class-Path its installed copy gets or None to leave it)], or a Refusal."""
    jars = [Jar(pathlib.Path(service), "BUNDLE_JAR", SERVICE)]
    jars += [Jar(pathlib.Path(path), "BUNDLE_LIBRARIES") for path in libraries]
    names = {}
    for jar in jars:
        if not re.fullmatch(r"[A-Za-z0-9._+~@,=-]+\.jar", jar.name):
            raise Refusal(f"BUNDLE_LIBRARIES: '{jar.path}' has a name that a Class-Path cannot "
                          "hold; rename it to letters, digits and .-_, ending in .jar")
        if jar.name in names:
            raise Refusal(f"BUNDLE_LIBRARIES: '{names[jar.name]}' and '{jar.path}' would both be "
                          f"installed as {jar.name}; rename or leave out one")
        names[jar.name] = jar.path
    planned = []
    for jar in jars:
        wanted = [name for name in jar.class_path if name in names]
        if jar.name == SERVICE:
            wanted += [name for name in names if name not in [SERVICE, *wanted]]
        if wanted == jar.class_path:
            planned.append((jar, None))
        elif jar.signed:
            raise Refusal(f"{jar.variable}: '{jar.path}' is signed, so its Class-Path cannot be "
                          f"changed to '{' '.join(wanted)}', the jars beside it; sign it with that")
        else:
            planned.append((jar, wanted))
    return planned


def copy(jar, names, target):
    """Copies a jar, rewritten if it gets another Class-Path or is newer than the epoch."""
    latest = time.gmtime(max(EPOCH, 315532800))[:6]
    newer = EPOCH and not jar.signed and any(entry.date_time > latest for entry in jar.entries)
    if names is None and not newer:
        shutil.copyfile(jar.path, target)
    else:
        with zipfile.ZipFile(jar.path) as old, zipfile.ZipFile(target, "w") as new:
            content = {entry.filename: (entry, old.read(entry)) for entry in jar.entries}
            if names is not None:
                entry = content.get(MANIFEST, [zipfile.ZipInfo(MANIFEST)])[0]
                content[MANIFEST] = entry, jar.with_class_path(names)
            for name in sorted(content, key=lambda name: (name != "META-INF/", name != MANIFEST, name)):
                entry, data = content[name]
                date = min(entry.date_time, latest) if EPOCH else entry.date_time
                made = zipfile.ZipInfo(name, date)
                made.compress_type, made.external_attr = entry.compress_type, entry.external_attr
                new.writestr(made, data)
    modified = int(jar.path.stat().st_mtime)
    os.utime(target, (0, min(modified, EPOCH or modified)))


def install(directory, *jars):
    planned = plan(*jars)
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    for jar, names in planned:
        copy(jar, names, pathlib.Path(directory, jar.name))


def is_macho(data):
    """A thin or a universal file; a Java class begins like the latter, with a version of 45 on."""
    return data[:4] in (b"\xcf\xfa\xed\xfe", b"\xce\xfa\xed\xfe") or \
        data[:4] == b"\xca\xfe\xba\xbe" and struct.unpack(">I", data[4:8])[0] < 45


def native(*jars):
    def look(name, content):
        with zipfile.ZipFile(content) as archive:
            for entry in archive.infolist():
                data = archive.read(entry)
                if data[:4] == b"PK\3\4" and entry.filename.endswith(".jar"):
                    look(f"{name}: {entry.filename}", io.BytesIO(data))
                elif len(data) >= 8 and is_macho(data):
                    print(f"{name}: {entry.filename}")
    for jar in jars:
        look(jar, jar)


def minimum_system(file):
    if file.endswith(".jmod"):
        with zipfile.ZipFile(file) as jmod:
            data = jmod.read("lib/server/libjvm.dylib")
    else:
        data = pathlib.Path(file).read_bytes()
    at = 32
    for _ in range(struct.unpack_from("<I", data, 16)[0]):
        command, size, first, second = struct.unpack_from("<4I", data, at)
        if command in (0x24, 0x32):  # LC_VERSION_MIN_MACOSX, LC_BUILD_VERSION
            version = first if command == 0x24 else second
            print(f"{version >> 16}.{version >> 8 & 255}")
            return
        at += size


if __name__ == "__main__":
    try:
        {"check": plan, "install": install, "native": native,
         "minimum-system": minimum_system}[sys.argv[1]](*sys.argv[2:])
    except Refusal as refusal:
        sys.exit(str(refusal))
