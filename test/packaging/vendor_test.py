"""A vendor's service takes the sample's place through the variables of the build alone; what is
wrong with one is said in one line. test/project/commands_test.py builds a whole product."""

import os
import pathlib
import plistlib
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
import zipfile

from support import CONTENTS, ROOT, VERSION
from support.private_root import BUILD_DIR, bwrap_arguments, require_namespaces

JDK = pathlib.Path(os.environ["JAVA_HOME"])
CLASS = "com/vaultory/service/QRService.class"
JAR = "com.vaultory.desktop.jar"
MANIFEST = "META-INF/MANIFEST.MF"
JMODS = unittest.skipUnless((JDK / "jmods").exists(), "a JDK without jmods")


class Vendor(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="vendor-", dir=BUILD_DIR))
        self.addCleanup(shutil.rmtree, self.directory)
        self.build, self.env = self.directory / "build", dict(os.environ)

    def put(self, name, content=b"", mode=0o644):
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        path.chmod(mode)
        return path

    def jar(self, name, class_path="", *entries):
        """A jar with the service's class, this Class-Path and further entries."""
        manifest = "Manifest-Version: 1.0\r\n" + f"Class-Path: {class_path}\r\n" * bool(class_path)
        with zipfile.ZipFile(self.put(name), "w") as archive:
            for entry in (CLASS, *entries):
                archive.writestr(entry, entry)
            archive.writestr(MANIFEST, manifest + "\r\n")
        os.utime(self.directory / name, (0, 10**9))
        return self.directory / name

    def jmods(self, platform, *modules):
        """These modules' jmods for another platform, with a libjvm.dylib for macOS 12.3 on; their
        hashes of each other are hidden."""
        build_version = struct.pack("<6I", 0x32, 24, 1, 12 << 16 | 3 << 8, 0, 0)
        library = struct.pack("<8I", 0xFEEDFACF, 0x01000007, 3, 6, 1, 24, 0, 0) + build_version
        for module in modules:
            file = self.put(f"{platform}/{module}.jmod")
            with zipfile.ZipFile(JDK / f"jmods/{module}.jmod") as old, open(file, "wb") as target:
                target.write(b"JM\1\0")
                with zipfile.ZipFile(target, "w") as new:
                    for entry in old.namelist():
                        data = old.read(entry)
                        if entry == "classes/module-info.class":
                            data = data.replace(b"linux-amd64", platform.encode()).replace(b"Hashes", b"-Hash-")
                        new.writestr(entry, data)
                    if module == "java.base":
                        new.writestr("lib/server/libjvm.dylib", library)
        return self.directory / platform

    def run_tool(self, *command, **how):
        return subprocess.run(command, capture_output=True, text=True, env=self.env, **how)

    def configure(self, *options, **variables):
        return self.run_tool("cmake", "-S", ROOT, "-B", self.build, "-DBUILD_TESTING=OFF", *options,
                             *(f"-D{name}={value}" for name, value in variables.items()))

    def installed(self, *options, umask=-1, **variables):
        """Configures, builds and installs; what configuring and installing said of note."""
        runs = [self.configure("-DCMAKE_BUILD_TYPE=Release", *options, **variables)]
        for command in (["--build", self.build, "-j2"],
                        ["--install", self.build, "--prefix", self.build / "Applications"]):
            runs.append(self.run_tool("cmake", *command, umask=umask))
        self.assertEqual([run.returncode for run in runs], [0, 0, 0], runs)
        return re.findall(r"^-- ((?:BUNDLE_|The runtime).*)$", runs[0].stdout + runs[2].stdout, re.M)

    def rejection(self, run):
        """The one line of a message, or all that was said if it is not one."""
        found = re.findall(r"^CMake Error at .*:\n +(.*)\n(?:Call Stack|\n)", run.stderr, re.M)
        return found[0] if len(found) == 1 and run.returncode else run.stdout + run.stderr

    def files(self, *directories):
        resources = self.build / "Applications" / CONTENTS / "Resources"
        return [f"{name}/{path.name}" for name in directories for path in sorted((resources / name).iterdir())]

    def test_a_wrong_value_is_rejected_in_one_line_that_names_the_variable(self):
        file, empty = self.put("file", b"no jar"), self.directory / "empty directory"
        empty.mkdir()
        service, one, again = self.jar("service.jar"), self.jar("one.jar"), self.jar("again/one.jar")
        signed = self.jar("signed.jar", "/usr/share/java/x.jar", "META-INF/A.SF")
        spaced = self.jar("a name.jar")
        java = self.put("jdk/bin/java", b"#!/bin/sh\necho 'no libjvm' >&2\nexit 1\n", 0o755)
        for name in "bin/jlink", "bin/jdeps", "bin/jmod", "release":
            self.put(f"jdk/{name}")
        bad = self.put("bad jmods/java.base.jmod", b"no jmod")
        directory = "is not a directory; name the one to install"
        tied = "is signed, so its Class-Path cannot be changed to '{}', the jars beside it; sign it with that"
        cases = [(name, path, f"'{path}' {directory}") for path in ("/nowhere", file)
                 for name in ("BUNDLE_LANG", "BUNDLE_CONF", "BUNDLE_BIN", "BUNDLE_FRAMEWORKS", "BUNDLE_JMODS")]
        cases += [("BUNDLE_JAR", path, f"'{path}' is not a jar with {CLASS}, which the launcher calls; name one")
                  for path in ("/nowhere", empty, file)]
        cases += [("BUNDLE_LIBRARIES", value, text, {"BUNDLE_JAR": service}) for value, text in (
            (empty, f"'{empty}' has no jar in it; name jars, or directories of them"),
            (file, f"'{file}' is not a jar that can be read; name jars, or directories of them"),
            (f"{one};{again}",
             f"'{one}' and '{again}' would both be installed as one.jar; rename or leave out one"),
            (spaced, f"'{spaced}' has a name that a Class-Path cannot hold; rename it to letters, digits "
             "and .-_, ending in .jar"),
            (signed, f"'{signed}' {tied.format('')}"))]
        cases += [("BUNDLE_TRAINING_SECONDS", value,
                   f"'{value}' is not a time; give a whole number of seconds above 0") for value in ("soon", "0")]
        cases += [
            ("BUNDLE_ARCHIVE", service, "is now called BUNDLE_JAR; set that instead"),
            ("BUNDLE_CONF", empty, f"'{empty}' has no service.log.xml, which the launcher names; add it"),
            ("BUNDLE_JAR", signed, f"'{signed}' {tied.format('one.jar')}", {"BUNDLE_LIBRARIES": one}),
            ("BUNDLE_LIBRARIES", one, "the sample needs none; set BUNDLE_JAR to the service's jar as well"),
            ("BUNDLE_VERSION", "1.0-beta",
             "'1.0-beta' is not a version; give one to three numbers with dots between them"),
            ("BUNDLE_IDENTIFIER", "backup", "'backup' is not a bundle identifier; give words of letters, "
             "digits and hyphens with dots between them"),
            ("BUNDLE_COPYRIGHT", "two\tcolumns", "'two\tcolumns' is not one line; give one"),
            ("BUNDLE_JDK", empty, f"'{empty}' has no bin/java; name a JDK, 11 or later"),
            ("BUNDLE_JDK", java.parents[1], f"'{java} --list-modules' fails: no libjvm; name one that works"),
            ("BUNDLE_JMODS", empty, f"'{empty}' has no java.base.jmod; name the jmods directory of a JDK"),
            ("BUNDLE_JMODS", bad.parent, f"'{JDK}/bin/jmod describe {bad}' fails: java.io.IOException: "
             f"Invalid JMOD file: {bad}; name one that works"),
            ("BUNDLE_MODULES", "java.sql;no.such.module", "'no.such.module' is not a module of "
             f"{JDK}; '{JDK}/bin/java --list-modules' prints them"),
            ("BUNDLE_VM_OPTIONS", "-Xss1m -Xfoo", f"'{JDK}/bin/java -Xss1m -Xfoo -version' fails: "
             "Unrecognized option: -Xfoo; name one that works"),
        ]
        for name, value, text, *more in cases:
            with self.subTest(name=name, value=value):
                run = self.configure("-UBUNDLE_*", **{name: value}, **dict(*more))
                self.assertEqual(self.rejection(run), f"{name}: {text}")

    @JMODS
    def test_a_module_that_cannot_be_read_ends_the_build_in_one_line(self):
        bad = self.put("jmods/jdk.unsupported.jmod", b"no jmod")
        for jmod in (JDK / "jmods").iterdir():
            if not (bad.parent / jmod.name).exists():
                (bad.parent / jmod.name).symlink_to(jmod)
        self.configure(BUNDLE_JMODS=bad.parent)
        self.assertEqual(
            self.rejection(self.run_tool("cmake", "--build", self.build, "--target", "runtime")),
            f"BUNDLE_JMODS: jlink cannot link '{bad.parent}'; name a complete JDK's: "
            f"Error: java.io.IOException: Invalid JMOD file: {bad}")

    def test_a_checkout_that_cannot_be_written_to_is_named(self):
        require_namespaces(self)
        (self.directory / "root/checkout").mkdir(parents=True)
        run = self.run_tool(*bwrap_arguments(self.directory / "root"), "--ro-bind", ROOT, "/checkout",
                            "--setenv", "PATH", os.environ["PATH"], "--", "/checkout/script/pack")
        self.assertEqual((run.returncode, run.stdout, run.stderr), (
            1, "", "pack: cannot write to /checkout/build; make it writable, or call from a copy "
            "of the checkout that is\n"))

    def test_the_parts_of_a_vendor_replace_those_of_the_sample(self):
        self.assertEqual(self.installed(
            BUNDLE_JAR=self.jar("service.jar"), BUNDLE_RUNTIME="OFF", BUNDLE_LANG=self.put("lang/texts").parent,
            BUNDLE_CONF=self.put("conf/service.log.xml").parent, BUNDLE_BIN=self.put("bin/tool").parent,
            BUNDLE_FRAMEWORKS=self.put("Frameworks/libnative.dylib").parent,
            BUNDLE_VERSION="2.13", BUNDLE_COPYRIGHT="© A & B <C>", BUNDLE_IDENTIFIER="com.a-b.backup"), [])
        self.assertEqual(self.files("bin", "conf", "lang", "lib", "../Frameworks"), [
            "bin/tool", "conf/service.log.xml", "lang/texts", f"lib/{JAR}", "../Frameworks/libnative.dylib"])
        keys = ("CFBundleShortVersionString", "CFBundleVersion", "NSHumanReadableCopyright",
                "CFBundleIdentifier", "AssociatedBundleIdentifiers")
        jobs = self.build / "Applications" / CONTENTS / "Resources/launchd"
        for file, identifiers in {
                self.build / "Applications/Orvane.app/Contents/Info.plist": ["com.a-b.backup", None],
                jobs.parents[1] / "Info.plist": ["com.a-b.backup.service", None],
                jobs / "com.vaultory.service.plist": [None, "com.a-b.backup"],
                jobs / "com.vaultory.service.agent.plist.in": [None, "com.a-b.backup"]}.items():
            common = ["2.13", "2.13", "© A & B <C>"] if file.name == "Info.plist" else [None] * 3
            self.assertEqual([plistlib.loads(file.read_bytes()).get(key) for key in keys], common + identifiers)

    def test_with_the_jar_alone_each_part_that_is_still_the_sample_s_is_named(self):
        self.assertEqual(self.installed(BUNDLE_JAR=self.jar("service.jar"), BUNDLE_RUNTIME="OFF"), [
            f"BUNDLE_{part} is not set: the bundle gets the sample's, {value}" for part, value in (
                ("CONF", ROOT / "service/conf"), ("VERSION", VERSION), ("COPYRIGHT", "© Vaultory"),
                ("IDENTIFIER", "com.vaultory.orvane"))])
        self.assertEqual(self.files("bin", "conf", "lang", "lib", "../Frameworks"),
                         ["conf/service.log.xml", f"lib/{JAR}"])

    def test_installed_jars_name_each_other_and_nothing_else(self):
        long = "a-name-that-alone-is-longer-than-a-line-of-a-manifest-of-72-bytes-may-be.jar"
        for name, before, library, its_path, after in (
                ("none", "", "b.jar", "", "a.jar b.jar"),
                ("all", "b.jar a.jar", "b.jar", "a.jar", "b.jar a.jar"),
                ("elsewhere", "lib/a.jar b.jar", "b.jar", "", "b.jar a.jar"),
                ("long", "", long, "/usr/share/java/a.jar", f"a.jar {long}")):
            with self.subTest(name=name):
                jar, target = self.jar(f"{name}/service.jar", before, "a/file"), self.directory / name / "jars"
                libraries = self.jar(f"{name}/a.jar"), self.jar(f"{name}/{library}", its_path)
                subprocess.run(["python3", "-B", ROOT / "cmake/jars.py", "install", target, jar, *libraries],
                               check=True)
                self.assertEqual([class_path(target / file) for file in (JAR, "a.jar", library)],
                                 [after, "", "a.jar" if name == "all" else ""])
                self.assertEqual((target / JAR).read_bytes() == jar.read_bytes(), before == after)
                self.assertEqual((target / JAR).stat().st_mtime, 10**9)
                with zipfile.ZipFile(target / JAR) as copy:
                    self.assertEqual(copy.read("a/file"), b"a/file")
                    self.assertLessEqual(max(map(len, copy.read(MANIFEST).split(b"\r\n"))), 72)

    def test_only_the_product_of_the_build_is_packed_and_never_with_a_broken_signature(self):
        self.installed(BUNDLE_JAR=self.jar("service.jar"), BUNDLE_RUNTIME="OFF")
        app = self.build / "Applications/Orvane.app"
        contents = self.build / "Applications" / CONTENTS
        jar, built = contents / "Resources/lib" / JAR, self.build / "jars" / JAR
        remedy = f"call cmake --install '{self.build}' --prefix '{app.parent}'"
        codesign = self.put("bin/codesign", mode=0o755)
        self.env["PATH"] = f"{codesign.parent}:{os.environ['PATH']}"
        tarball = self.build / f"Orvane-{VERSION}-{os.uname().sysname}.tar.gz"
        for text, change, undo, signature in (
                (f"'{app}' has no launcher: {remedy}",
                 lambda: (contents / "MacOS").rename(contents / "x"),
                 lambda: (contents / "x").rename(contents / "MacOS"), "true"),
                (f"'{app}' is not what was built last: {remedy}; diff says: Only in {jar.parent}: other.jar",
                 lambda: shutil.copy(jar, jar.parent / "other.jar"), (jar.parent / "other.jar").unlink, "true"),
                (f"'{app}' is not what was built last: {remedy}; diff says: Files {built} and {jar} differ",
                 lambda: jar.write_bytes(b"of another product"), lambda: shutil.copy(built, jar), "true"),
                (f"the signature of '{contents.parent}' is not valid, says codesign (1) {contents.parent}: "
                 "not valid: sign the bundle again, or pack it on a Mac",
                 (contents / "_CodeSignature").mkdir, lambda: None, "false"),
                ("", lambda: None, lambda: None, "true")):
            with self.subTest(text=text):
                change()
                codesign.write_text(f"#!/bin/sh\n{signature} || {{ echo \"$4: not valid\" >&2; exit 1; }}\n")
                run = self.run_tool("cpack", "--config", self.build / "CPackConfig.cmake")
                self.assertEqual((text and self.rejection(run), tarball.exists()), (text, not text))
                undo()

    def test_two_builds_give_the_same_tarball(self):
        self.env["SOURCE_DATE_EPOCH"] = "1700000000"
        tarballs = []
        for umask in 0o022, 0o077:
            self.build = self.directory / f"build {umask}"
            self.installed(BUNDLE_CDS_ARCHIVE="OFF", umask=umask)
            self.run_tool("cpack", "--config", self.build / "CPackConfig.cmake")
            tarballs += [file.read_bytes() for file in self.build.glob("Orvane-*")]
        self.assertEqual((len(tarballs), len(set(tarballs))), (2, 1))

    @JMODS
    def test_a_bundle_with_the_modules_of_a_JDK_for_macOS(self):
        mac = self.jmods("macos-amd64", "java.base", "java.logging", "java.management", "java.xml",
                         "jdk.crypto.ec", "jdk.unsupported")
        wrong = "; name the jmods directory of a JDK for that in BUNDLE_JMODS"
        self.assertEqual(self.rejection(self.configure(BUNDLE_JMODS=mac)), f"BUNDLE_JMODS: '{mac}' is for "
                         f"macos-amd64, the executable for linux-amd64{wrong}")
        if not (ROOT / "build/zig/fetched.json").exists():
            self.skipTest("script/cross-macos fetches the compiler for the rest")
        shutil.rmtree(self.build)
        self.assertEqual(self.rejection(self.configure("--preset", "macos-x86_64", BUNDLE_RUNTIME="ON")),
                         f"BUNDLE_JDK: '{JDK}' is for linux-amd64, the executable for macos-amd64{wrong}")
        for which in "GLOBAL", "LOCAL":
            self.env[f"ZIG_{which}_CACHE_DIR"] = str(ROOT / "build/zig/cache")
        self.assertEqual(self.installed("--preset", "macos-x86_64", BUNDLE_JMODS=mac), [
            "The runtime is not for this machine: call operator/update-cds-archive on a Mac, before signing"])
        info = self.build / "Applications" / CONTENTS / "Info.plist"
        self.assertEqual(plistlib.loads(info.read_bytes())["LSMinimumSystemVersion"], "12.3")
        self.assertEqual(self.files("jre/bin"), ["jre/bin/java"])
        self.assertIn("jre/lib/server/libjvm.dylib", self.files("jre/lib/server"))


def class_path(jar):
    with zipfile.ZipFile(jar) as archive:
        manifest = archive.read(MANIFEST).decode().replace("\r\n ", "")
    return "".join(re.findall("^Class-Path: (.*)\r$", manifest, re.M))
