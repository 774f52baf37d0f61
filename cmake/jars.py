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


class Jar:
    def __init__(self, path, variable, name=None):
        self.path, self.variable, self.name = pathlib.Path(path), variable, name or os.path.basename(path)
        try:
            with zipfile.ZipFile(path) as archive:
                self.entries = {entry.filename: (entry, archive.read(entry)) for entry in archive.infolist()}
        except (OSError, zipfile.BadZipFile):
            sys.exit(f"{variable}: '{path}' is not a jar that can be read; name jars, or directories of them")
        text = self.entries.get(MANIFEST, [None, b"Manifest-Version: 1.0\r\n\r\n"])[1].decode()
        self.manifest = re.sub(r"\r?\n ", "", text).splitlines()
        self.class_path = [name for line in self.manifest if line.lower().startswith("class-path:")
                           for name in line[11:].split()]
        self.signed = any(re.fullmatch(r"META-INF/[^/]+\.SF", name, re.I) for name in self.entries)

    def with_class_path(self, names):
        """The manifest's bytes with this Class-Path, in lines of 72 bytes at most."""
        lines = [line.encode() for line in self.manifest if not line.lower().startswith("class-path:")]
        if names:
            lines.insert(1, b"Class-Path: " + " ".join(names).encode())
        return b"\r\n".join(b"\r\n ".join([line[:72], *(line[at:at + 71] for at in range(72, len(line), 71))])
                            for line in lines).rstrip() + b"\r\n\r\n"


def plan(service, *libraries):
    """[(jar, the Class-Path its installed copy gets, None to leave it)]"""
    jars = [Jar(service, "BUNDLE_JAR", SERVICE), *(Jar(path, "BUNDLE_LIBRARIES") for path in libraries)]
    names, planned = {}, []
    for jar in jars:
        if not re.fullmatch(r"[A-Za-z0-9._+~@,=-]+\.jar", jar.name):
            sys.exit(f"{jar.variable}: '{jar.path}' has a name that a Class-Path cannot hold; "
                     "rename it to letters, digits and .-_, ending in .jar")
        if names.setdefault(jar.name, jar) != jar:
            sys.exit(f"{jar.variable}: '{names[jar.name].path}' and '{jar.path}' would both be "
                     f"installed as {jar.name}; rename or leave out one")
    for jar in jars:
        wanted = [name for name in jar.class_path if name in names]
        wanted += [name for name in names if jar.name == SERVICE and name not in [SERVICE, *wanted]]
        if jar.signed and wanted != jar.class_path:
            sys.exit(f"{jar.variable}: '{jar.path}' is signed, so its Class-Path cannot be changed "
                     f"to '{' '.join(wanted)}', the jars beside it; sign it with that")
        planned.append((jar, None if wanted == jar.class_path else wanted))
    return planned


def install(directory, *jars):
    latest = time.gmtime(max(EPOCH, 315532800))[:6]  # a zip knows no time before 1980
    planned = plan(*jars)
    shutil.rmtree(directory, ignore_errors=True)
    os.makedirs(directory)
    for jar, names in planned:
        target = pathlib.Path(directory, jar.name)
        newer = EPOCH and any(entry.date_time > latest for entry, _ in jar.entries.values())
        if names is None and (jar.signed or not newer):
            shutil.copyfile(jar.path, target)
        else:
            if names is not None:
                entry = jar.entries.get(MANIFEST, [zipfile.ZipInfo(MANIFEST)])[0]
                jar.entries[MANIFEST] = entry, jar.with_class_path(names)
            with zipfile.ZipFile(target, "w") as new:
                for name in sorted(jar.entries, key=lambda name: (name not in ("META-INF/", MANIFEST), name)):
                    entry, data = jar.entries[name]
                    made = zipfile.ZipInfo(name, min(entry.date_time, latest) if EPOCH else entry.date_time)
                    made.compress_type, made.external_attr = entry.compress_type, entry.external_attr
                    new.writestr(made, data)
        modified = int(jar.path.stat().st_mtime)
        os.utime(target, (0, min(modified, EPOCH or modified)))


def native(*jars, within=""):
    for jar in jars:
        with zipfile.ZipFile(jar) as archive:
            for name in archive.namelist():
                data = archive.read(name)
                if name.endswith(".jar"):
                    native(io.BytesIO(data), within=f"{within or jar}: {name}")
                # A Java class begins like a universal file, with a version of 45 on for a count.
                elif data[:4] in (b"\xcf\xfa\xed\xfe", b"\xce\xfa\xed\xfe") or \
                        data[:4] == b"\xca\xfe\xba\xbe" and data[4:8] < b"\0\0\0\x2d":
                    print(f"{within or jar}: {name}")


def minimum_system(file):
    if file.endswith(".jmod"):
        with zipfile.ZipFile(file) as jmod:
            data = jmod.read("lib/server/libjvm.dylib")
    else:
        data = pathlib.Path(file).read_bytes()
    at = 32
    for _ in range(struct.unpack_from("<I", data, 16)[0]):
        command, size, *words = struct.unpack_from("<4I", data, at)
        if command in (0x24, 0x32):  # LC_VERSION_MIN_MACOSX, LC_BUILD_VERSION
            version = words[command == 0x32]
            print(f"{version >> 16}.{version >> 8 & 255}")
        at += size


if __name__ == "__main__":
    {"check": plan, "install": install, "native": native,
     "minimum-system": minimum_system}[sys.argv[1]](*sys.argv[2:])
