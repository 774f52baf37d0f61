"""A vendor's service takes the sample's place through the variables of the build alone; what is
wrong with one is said in one line. test/project/commands_test.py builds a whole product."""

import hashlib
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


class Vendor(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vendor-", dir=BUILD_DIR))
        self.addCleanup(shutil.rmtree, self.folder)
        self.build = self.folder / "build"

    def put(self, name, content=b"", mode=0o644):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        path.chmod(mode)
        return path

    def jar(self, name, class_path=None, **entries):
        """A jar whose manifest has that Class-Path, and with these entries, "_" for "/"."""
        manifest = "Manifest-Version: 1.0\r\n"
        if class_path is not None:
            manifest += f"Class-Path: {class_path}\r\n"
        with zipfile.ZipFile(self.put(name), "w") as archive:
            archive.writestr("META-INF/MANIFEST.MF", manifest + "\r\n")
            for entry, content in entries.items():
                archive.writestr(entry.replace("__", ".").replace("_", "/"), content)
        return self.folder / name

    def service(self, name, class_path=None, **entries):
        return self.jar(name, class_path, **{"com_vaultory_service_QRService__class": b""}, **entries)

    def jmods(self, platform, *modules):
        """The modules' jmods for another platform, with a libjvm.dylib for macOS 12.3 on; if none
        is named, a java.base.jmod with nothing else in it. Their hashes of each other are hidden."""
        build_version = struct.pack("<6I", 0x32, 24, 1, 12 << 16 | 3 << 8, 0, 0)
        library = struct.pack("<8I", 0xFEEDFACF, 0x01000007, 3, 6, 1, 24, 0, 0) + build_version
        for module in modules or ["java.base"]:
            file = self.put(f"jmods for {platform}/{module}.jmod")
            with zipfile.ZipFile(JDK / f"jmods/{module}.jmod") as old, open(file, "wb") as target:
                target.write(b"JM\1\0")
                with zipfile.ZipFile(target, "w") as new:
                    for entry in old.namelist():
                        if entry == "classes/module-info.class":
                            new.writestr(entry, old.read(entry).replace(
                                b"linux-amd64", platform.encode()).replace(b"Hashes", b"-Hash-"))
                        elif modules:
                            new.writestr(entry, old.read(entry))
                    if module == "java.base":
                        new.writestr("lib/server/libjvm.dylib", library)
        return file.parent

    def cmake(self, *arguments, **how):
        return subprocess.run(["cmake", *arguments], capture_output=True, text=True, **how)

    def configure(self, *options, **variables):
        return self.cmake("-S", ROOT, "-B", self.build, "-DBUILD_TESTING=OFF", *options,
                          *(f"-D{name}={value}" for name, value in variables.items()))

    def built(self, **variables):
        """Configures, builds, and installs; what configuring said of variables."""
        said = self.configure(CMAKE_BUILD_TYPE="Release", **variables)
        self.assertEqual((said.returncode, said.stderr), (0, ""))
        for command in (["--build", self.build, "-j2"],
                        ["--install", self.build, "--prefix", self.build / "Applications"]):
            run = self.cmake(*command)
            self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        return re.findall(r"^-- (BUNDLE_.*)$", said.stdout, re.M)

    @staticmethod
    def refusal(said):
        """The one line of a message, or all that was said if it is not one."""
        found = re.findall(r"^CMake Error at .*:\n +(.*)\n(?:Call Stack|\n)", said.stderr, re.M)
        return found[0] if len(found) == 1 and said.returncode else said.stdout + said.stderr

    def test_a_wrong_value_is_rejected_in_one_line_that_names_the_variable(self):
        file, empty = self.put("file", b"no jar"), self.folder / "empty directory"
        empty.mkdir()
        service, one = self.service("service.jar"), self.jar("one.jar")
        signed = self.service("signed.jar", "other.jar", **{"META-INF_A__SF": b""})
        spaced, again = self.jar("a name.jar"), self.jar("again/one.jar")
        tied = self.jar("tied.jar", "/usr/share/java/x.jar", **{"META-INF_A__SF": b""})
        broken = self.put("jdk/bin/java", b"#!/bin/sh\necho 'no libjvm' >&2\nexit 1\n", 0o755)
        for tool in "jlink", "jdeps", "jmod":
            self.put(f"jdk/bin/{tool}")
        bad_jmods = self.put("bad jmods/java.base.jmod", b"no jmod").parent
        mac = self.jmods("macos-amd64") if (JDK / "jmods").exists() else None
        cases = [
            ("BUNDLE_ARCHIVE", service, "is now called BUNDLE_JAR; set that instead"),
            ("BUNDLE_CONF", "/nowhere", "'/nowhere' is not a directory; name the one to install"),
            ("BUNDLE_CONF", empty,
             f"'{empty}' has no service.log.xml, which the launcher names; add it"),
            ("BUNDLE_JAR", "/nowhere", "'/nowhere' is not a file; name the service's jar"),
            ("BUNDLE_JAR", empty, f"'{empty}' is not a file; name the service's jar"),
            *(("BUNDLE_JAR", jar, f"'{jar}' is not a jar with {CLASS}, which the launcher calls")
              for jar in (file, one)),
            ("BUNDLE_JAR", signed, f"'{signed}' is signed, so its Class-Path cannot be changed to "
             "'one.jar', the jars beside it; sign it with that", {"BUNDLE_LIBRARIES": one}),
            ("BUNDLE_LIBRARIES", one,
             "the sample needs none; set BUNDLE_JAR to the service's jar as well"),
            ("BUNDLE_LIBRARIES", empty,
             f"'{empty}' has no jar in it; name jars, or directories of them"),
            *(("BUNDLE_LIBRARIES", jar, text, {"BUNDLE_JAR": service}) for jar, text in (
                (file, f"'{file}' is not a jar that can be read; name jars, or directories of them"),
                (f"{one};{again}", f"'{one}' and '{again}' would both be installed as one.jar; "
                 "rename or leave out one"),
                (spaced, f"'{spaced}' has a name that a Class-Path cannot hold; rename it to "
                 "letters, digits and .-_, ending in .jar"),
                (tied, f"'{tied}' is signed, so its Class-Path cannot be changed to '', "
                 "the jars beside it; sign it with that"))),
            ("BUNDLE_VERSION", "1.0-beta",
             "'1.0-beta' is not a version; give one to three numbers with dots between them"),
            ("BUNDLE_IDENTIFIER", "backup", "'backup' is not a bundle identifier; give words of "
             "letters, digits and hyphens with dots between them"),
            ("BUNDLE_JDK", empty, f"'{empty}' has no bin/java; name a JDK, 11 or later"),
            ("BUNDLE_JDK", broken.parents[1],
             f"'{broken} --list-modules' fails: no libjvm; name one that works"),
            ("BUNDLE_JMODS", empty, f"'{empty}' has no java.base.jmod; name the jmods directory of a JDK"),
            ("BUNDLE_JMODS", bad_jmods, f"'{JDK}/bin/jmod describe {bad_jmods}/java.base.jmod' fails: "
             f"java.io.IOException: Invalid JMOD file: {bad_jmods}/java.base.jmod; name one that works"),
            *([("BUNDLE_JMODS", mac, f"'{mac}' is for macos-amd64, the executable for linux-amd64; "
                "name the jmods directory of a JDK for that in BUNDLE_JMODS")] if mac else []),
            ("BUNDLE_MODULES", "java.sql;no.such.module", f"'no.such.module' is not a module of "
             f"{JDK}; '{JDK}/bin/java --list-modules' prints them"),
            ("BUNDLE_VM_OPTIONS", "-Xss1m -Xfoo", f"'{JDK}/bin/java -Xss1m -Xfoo -version' fails: "
             "Unrecognized option: -Xfoo; name one that works"),
            *(("BUNDLE_TRAINING_SECONDS", value, f"'{value}' is not a time; give a whole number of "
               "seconds above 0") for value in ("soon", "0")),
        ]
        for name in "BUNDLE_LANG", "BUNDLE_BIN", "BUNDLE_FRAMEWORKS":
            cases += [(name, path, f"'{path}' is not a directory; name the one to install")
                      for path in ("/nowhere", file)]
        for name, value, text, *more in cases:
            with self.subTest(name=name, value=value):
                said = self.configure(**{name: value}, **dict(*more))
                (self.build / "CMakeCache.txt").unlink()
                self.assertEqual(self.refusal(said), f"{name}: {text}")

    @unittest.skipUnless((JDK / "jmods").exists(), "a JDK without jmods")
    def test_a_module_that_cannot_be_read_ends_the_build_in_one_line(self):
        jmods = self.folder / "jmods"
        jmods.mkdir()
        for jmod in (JDK / "jmods").iterdir():
            (jmods / jmod.name).symlink_to(jmod)
        (jmods / "jdk.unsupported.jmod").unlink()
        self.put("jmods/jdk.unsupported.jmod", b"no jmod")
        self.assertEqual(self.configure(BUNDLE_JMODS=jmods).returncode, 0)
        said = self.cmake("--build", self.build, "--target", "runtime")
        self.assertEqual(self.refusal(said), f"BUNDLE_JMODS: jlink cannot link '{jmods}'; name a complete "
                         f"JDK's: Error: java.io.IOException: Invalid JMOD file: {jmods}/jdk.unsupported.jmod")

    def test_a_checkout_that_cannot_be_written_to_is_named(self):
        require_namespaces(self)
        root = self.folder / "root"
        (root / "checkout").mkdir(parents=True)
        run = subprocess.run([*bwrap_arguments(root), "--ro-bind", ROOT, "/checkout", "--tmpfs",
                              "/checkout/build", "--remount-ro", "/checkout/build", "--setenv", "PATH",
                              os.environ["PATH"], "--", "/checkout/script/pack"],
                             capture_output=True, text=True)
        self.assertEqual((run.returncode, run.stdout, run.stderr), (
            1, "", "pack: cannot write to /checkout/build; make it writable, or call from a copy "
            "of the checkout that is\n"))

    def test_what_is_the_vendor_s_takes_the_sample_s_place(self):
        jar = self.service("service.jar")
        said = self.built(
            BUNDLE_JAR=jar, BUNDLE_RUNTIME="OFF", BUNDLE_LANG=self.put("lang/texts").parent,
            BUNDLE_CONF=self.put("conf/service.log.xml").parent,
            BUNDLE_BIN=self.put("bin/tool", mode=0o700).parent,
            BUNDLE_FRAMEWORKS=self.put("Frameworks/libnative.dylib").parent,
            BUNDLE_VERSION="2.13", BUNDLE_COPYRIGHT="© A & B <C>", BUNDLE_IDENTIFIER="com.a-b.backup")
        self.assertEqual(said, [])
        self.assertEqual(self.installed(), ["bin/tool", "conf/service.log.xml", "lang/texts",
                                            f"lib/{JAR}", "../Frameworks/libnative.dylib"])
        contents = self.build / "Applications" / CONTENTS
        self.assertEqual((contents / "Resources/lib" / JAR).read_bytes(), jar.read_bytes())
        described = [plistlib.loads((contents / path).read_bytes()) for path in (
            "../../../../Info.plist", "Info.plist", "Resources/launchd/com.vaultory.service.plist",
            "Resources/launchd/com.vaultory.service.agent.plist.in")]
        self.assertEqual([
            [plist.get(key) for key in ("CFBundleShortVersionString", "CFBundleVersion",
                                        "NSHumanReadableCopyright", "CFBundleIdentifier",
                                        "AssociatedBundleIdentifiers")] for plist in described
        ], [["2.13", "2.13", "© A & B <C>", "com.a-b.backup", None],
            ["2.13", "2.13", "© A & B <C>", "com.a-b.backup.service", None],
            *[[None, None, None, None, "com.a-b.backup"]] * 2])

    def test_with_the_jar_alone_each_part_that_is_still_the_sample_s_is_named(self):
        self.assertEqual(self.built(BUNDLE_JAR=self.service("service.jar"), BUNDLE_RUNTIME="OFF"), [
            f"BUNDLE_{part} is not set: the bundle gets the sample's, {value}" for part, value in (
                ("CONF", ROOT / "service/conf"), ("VERSION", VERSION), ("COPYRIGHT", "© Vaultory"),
                ("IDENTIFIER", "com.vaultory.orvane"))])
        self.assertEqual(self.installed(), ["conf/service.log.xml", f"lib/{JAR}"])

    def installed(self):
        resources = self.build / "Applications" / CONTENTS / "Resources"
        return [f"{name}/{path.name}" for name in ("bin", "conf", "lang", "lib", "../Frameworks")
                for path in sorted((resources / name).iterdir())]

    def test_installed_jars_name_each_other_and_nothing_else(self):
        """The Class-Path in jars, in the copies, and whether a copy has the jar's bytes."""
        long = "a-name-that-alone-is-longer-than-a-line-of-a-manifest-of-72-bytes-may-be.jar"
        cases = [
            ("none", None, {"one.jar": None, "two.jar": None}, "one.jar two.jar", False),
            ("all", "two.jar one.jar", {"one.jar": None, "two.jar": None}, "two.jar one.jar", True),
            ("elsewhere", "lib/one.jar two.jar", {"one.jar": None, "two.jar": None},
             "two.jar one.jar", False),
            ("long", None, {"one.jar": None, long: None}, f"{long} one.jar", False),
            ("tied", "one.jar", {"one.jar": "/usr/share/java/two.jar"}, "one.jar", True),
        ]
        for name, before, libraries, after, same in cases:
            with self.subTest(name=name):
                jar = self.service(f"{name}/service.jar", before, a_file=b"content")
                paths = [self.jar(f"{name}/{library}", path) for library, path in
                         sorted(libraries.items())]
                target = self.folder / name / "jars"
                subprocess.run(["python3", "-B", ROOT / "cmake/jars.py", "install", target, jar,
                                *paths], check=True)
                copy = target / JAR
                self.assertEqual((class_path(copy), copy.read_bytes() == jar.read_bytes()),
                                 (after, same))
                self.assertEqual(int(copy.stat().st_mtime), int(jar.stat().st_mtime))
                self.assertEqual([class_path(target / path.name) for path in paths],
                                 [""] * len(paths))
                with zipfile.ZipFile(copy) as archive:
                    self.assertEqual(archive.read("a/file"), b"content")
                    lines = archive.read("META-INF/MANIFEST.MF").split(b"\r\n")
                self.assertLessEqual(max(map(len, lines)), 72)

    def test_only_the_product_of_the_build_is_packed_and_never_with_a_broken_signature(self):
        self.built(BUNDLE_JAR=self.service("service.jar"), BUNDLE_RUNTIME="OFF")
        apps = self.build / "Applications"
        app, contents = apps / "Orvane.app", apps / CONTENTS
        jar, service = contents / "Resources/lib" / JAR, app / "Contents/Library/LaunchServices/OrvaneService.app"
        remedy = f"call cmake --install '{self.build}' --prefix '{apps}'"
        codesign = self.put("bin/codesign", mode=0o755)

        def pack(valid="false"):
            codesign.write_text(f"#!/bin/sh\n{valid} || {{ echo \"$4: not valid\" >&2; exit 1; }}\n")
            shutil.rmtree(self.folder / "out", ignore_errors=True)
            run = subprocess.run(
                ["cpack", "--config", self.build / "CPackConfig.cmake", "-B", self.folder / "out"],
                capture_output=True, text=True,
                env={**os.environ, "PATH": f"{codesign.parent}:{os.environ['PATH']}"})
            packed = [path.name for path in self.folder.glob("out/Orvane-*")]
            return packed[0] if run.returncode == 0 else self.refusal(run)

        (contents / "MacOS/OrvaneService").rename(self.folder / "launcher")
        self.assertEqual(pack(), f"'{app}' has no launcher: {remedy}")
        (self.folder / "launcher").rename(contents / "MacOS/OrvaneService")
        self.jar(jar.parent / "other.jar")
        self.assertEqual(pack(), f"'{app}' has the jars '{JAR};other.jar', and the build '{JAR}': "
                                 f"remove the bundle and {remedy}")
        (jar.parent / "other.jar").unlink()
        before = jar.read_bytes()
        jar.write_bytes(b"of another product")
        self.assertEqual(pack(), f"'{jar}' is not what was built last: {remedy}")
        jar.write_bytes(before)
        (contents / "_CodeSignature").mkdir()
        self.assertEqual(pack(), f"the signature of '{service}' is not valid, says codesign (1) "
                         f"{service}: not valid: sign the bundle again, or pack it on a Mac")
        self.assertEqual(pack(valid="true"), f"Orvane-{VERSION}-{os.uname().sysname}.tar.gz")

    def test_two_builds_give_the_same_tarball(self):
        tarballs = set()
        for umask in 0o022, 0o077:
            self.build = self.folder / f"build {umask}"
            how = {"umask": umask, "env": {**os.environ, "SOURCE_DATE_EPOCH": "1700000000"}}
            for command in (["-S", ROOT, "-B", self.build, "-DBUILD_TESTING=OFF",
                             "-DCMAKE_BUILD_TYPE=Release", "-DBUNDLE_CDS_ARCHIVE=OFF"],
                            ["--build", self.build, "-j2"],
                            ["--install", self.build, "--prefix", self.build / "Applications"]):
                run = self.cmake(*command, **how)
                self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
            subprocess.run(["cpack", "--config", self.build / "CPackConfig.cmake"], check=True,
                           capture_output=True, **how)
            tarball, = self.build.glob("Orvane-*")
            tarballs.add(hashlib.sha256(tarball.read_bytes()).hexdigest())
        self.assertEqual(len(tarballs), 1, tarballs)

    def test_a_bundle_with_the_modules_of_a_JDK_for_macOS(self):
        if not (ROOT / "build/zig/fetched.json").exists() or not (JDK / "jmods").exists():
            self.skipTest("needs the compiler that script/cross-macos fetches, and a JDK with jmods")
        cross = ["--preset", "macos-x86_64"]
        said = self.configure(*cross, BUNDLE_RUNTIME="ON")
        self.assertEqual(self.refusal(said), f"BUNDLE_JDK: '{JDK}' is for linux-amd64, the executable "
                         "for macos-amd64; name the jmods directory of a JDK for that in BUNDLE_JMODS")
        jmods = self.jmods("macos-amd64", "java.base", "java.logging", "java.management", "java.xml",
                           "jdk.crypto.ec", "jdk.unsupported")
        self.assertEqual(self.configure(*cross, BUNDLE_JMODS=jmods, BUNDLE_RUNTIME="ON").returncode, 0)
        env = {**os.environ, **{f"ZIG_{which}_CACHE_DIR": str(ROOT / "build/zig/cache")
                                for which in ("GLOBAL", "LOCAL")}}
        run = self.cmake("--build", self.build, env=env)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        run = self.cmake("--install", self.build, "--prefix", self.build / "Applications")
        self.assertIn("-- The runtime is not for this machine: call operator/update-cds-archive on a "
                      "Mac, before signing\n", run.stdout)
        contents = self.build / "Applications" / CONTENTS
        self.assertEqual(plistlib.loads((contents / "Info.plist").read_bytes())
                         ["LSMinimumSystemVersion"], "12.3")
        self.assertEqual(sorted(path.name for path in (contents / "Resources/jre/bin").iterdir()),
                         ["java"])
        self.assertTrue((contents / "Resources/jre/lib/server/libjvm.dylib").is_file())


def class_path(jar):
    with zipfile.ZipFile(jar) as archive:
        manifest = archive.read("META-INF/MANIFEST.MF").decode().replace("\r\n ", "")
    return "".join(re.findall("^Class-Path: (.*)\r$", manifest, re.M))
