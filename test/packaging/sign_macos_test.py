"""script/sign-macos --dry-run over a made-up bundle:

    a directory/Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents
        MacOS/OrvaneService, Frameworks/libnative.dylib, Resources/bin/helper: code
        Resources/jre/bin/java, Resources/jre/lib/jspawnhelper: the runtime's programs
        Resources/jre/lib/{libjava.dylib,server/libjvm.dylib}: its libraries
        Resources/bin/script, Resources/lang/Texts.class, Resources/jre/lib/modules: no code
"""

import io
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest
import zipfile

from support import ROOT

SCRIPT = ROOT / "script/sign-macos"
SERVICE = "Contents/Library/LaunchServices/OrvaneService.app"
HARDENED = (
    "The hardened runtime rejects run paths relative to the working directory: the launcher's "
    "become relative to the executable. The class path does not: the service must still be "
    "started in the executable's directory.\n")
THIN = bytes.fromhex("cffaedfe")
UNIVERSAL = bytes.fromhex("cafebabe")


def quoted(text):
    return str(text).replace(" ", "\\ ")


class SignMacos(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory(dir=os.environ["BUILD_DIR"], suffix="a directory")
        self.addCleanup(directory.cleanup)
        self.app = pathlib.Path(directory.name) / "Orvane.app"
        self.resources = f"{SERVICE}/Contents/Resources"
        for name, content in {
                f"{SERVICE}/Contents/MacOS/OrvaneService": UNIVERSAL,
                f"{SERVICE}/Contents/Frameworks/libnative.dylib": UNIVERSAL,
                f"{self.resources}/bin/helper": THIN,
                f"{self.resources}/bin/script": b"#!/bin/sh\n",
                f"{self.resources}/lang/Texts.class": UNIVERSAL,
                f"{self.resources}/jre/bin/java": THIN,
                f"{self.resources}/jre/lib/jspawnhelper": THIN,
                f"{self.resources}/jre/lib/libjava.dylib": THIN,
                f"{self.resources}/jre/lib/modules": b"\xda\xda\xfe\xca",
                f"{self.resources}/jre/lib/server/libjvm.dylib": THIN,
        }.items():
            file = self.app / name
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(content)
        (self.app / self.resources / "jre/lib/libjvm.dylib").symlink_to("server/libjvm.dylib")

    def sign(self, *arguments, cwd="/"):
        """(status, standard output, standard error)"""
        run = subprocess.run([SCRIPT, *arguments], cwd=cwd, check=False, encoding="utf-8",
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return run.returncode, run.stdout, run.stderr

    def signing(self, options):
        """The commands that sign the made-up bundle, with these options of codesign."""
        app = quoted(self.app)
        entitled = f"{options} --entitlements {quoted(ROOT)}/bundle"
        return [
            f"codesign {options} {app}/{SERVICE}/Contents/Frameworks/libnative.dylib",
            f"codesign {options} {app}/{self.resources}/bin/helper",
            f"codesign {entitled}/java.entitlements {app}/{self.resources}/jre/bin/java",
            f"codesign {options} {app}/{self.resources}/jre/lib/jspawnhelper",
            f"codesign {options} {app}/{self.resources}/jre/lib/libjava.dylib",
            f"codesign {options} {app}/{self.resources}/jre/lib/server/libjvm.dylib",
            f"codesign {entitled}/OrvaneService.entitlements {app}/{SERVICE}",
            f"codesign {options} {app}",
            f"codesign -vvv --deep --strict {app}/{SERVICE}",
            f"codesign -vvv --deep --strict {app}",
        ]

    @staticmethod
    def lines(commands):
        return "".join(command + "\n" for command in commands)

    def test_a_bundle_is_signed_inside_out(self):
        expected = self.signing("--force --sign Developer\\ ID --timestamp")
        self.assertEqual((0, self.lines(expected), ""),
                         self.sign("--dry-run", "Developer ID", self.app))

    def test_a_signature_for_this_machine_alone_has_no_time_stamp(self):
        expected = self.signing("--force --sign - --timestamp=none")
        self.assertEqual((0, self.lines(expected), ""), self.sign("--dry-run", "-", self.app))

    def test_a_bundle_without_a_runtime_is_signed_too(self):
        for file in sorted((self.app / self.resources / "jre").rglob("*"), reverse=True):
            file.rmdir() if file.is_dir() and not file.is_symlink() else file.unlink()
        expected = [command for command in self.signing("--force --sign - --timestamp=none")
                    if "/jre/" not in command]
        self.assertEqual((0, self.lines(expected), ""), self.sign("--dry-run", "-", self.app))

    def test_the_bundle_may_be_named_from_where_the_caller_is(self):
        expected = self.signing("--force --sign - --timestamp=none")
        self.assertEqual((0, self.lines(expected), ""),
                         self.sign("--dry-run", "-", "Orvane.app/", cwd=self.app.parent))

    def test_the_hardened_runtime_and_notarization_are_asked_for(self):
        app = quoted(self.app)
        archive = "build/notarize.zip"
        launcher = f"{app}/{SERVICE}/Contents/MacOS/OrvaneService"
        expected = [
            "install_name_tool -rpath ../Resources/jre/lib/server "
            f"@executable_path/../Resources/jre/lib/server {launcher}",
            "install_name_tool -rpath ../Resources/jre/lib/jli "
            f"@executable_path/../Resources/jre/lib/jli {launcher}",
            *self.signing("--force --sign Developer\\ ID --timestamp --options runtime"),
            "mkdir -p build",
            f"ditto -c -k --keepParent {app} {archive}",
            f"xcrun notarytool submit {archive} --keychain-profile a\\ profile --wait",
            f"xcrun stapler staple {app}",
        ]
        self.assertEqual(
            (0, self.lines(expected), HARDENED),
            self.sign("--dry-run", "--hardened", "--notarize", "a profile", "Developer ID",
                      self.app))

    def test_run_paths_that_were_rewritten_are_not_rewritten_again(self):
        with open(self.app / SERVICE / "Contents/MacOS/OrvaneService", "ab") as launcher:
            launcher.write(b"\0@executable_path/../Resources/jre/lib/server\0"
                           b"@executable_path/../Resources/jre/lib/jli\0")
        expected = self.signing("--force --sign - --timestamp=none --options runtime")
        self.assertEqual((0, self.lines(expected), HARDENED),
                         self.sign("--dry-run", "--hardened", "-", self.app))

    def test_notarization_without_the_hardened_runtime_is_rejected(self):
        self.assertEqual(
            (1, "", "sign-macos: notarization requires the hardened runtime: add --hardened\n"),
            self.sign("--dry-run", "--notarize", "profile", "-", self.app))

    def test_a_bundle_without_the_launcher_is_rejected(self):
        launcher = self.app / SERVICE / "Contents/MacOS/OrvaneService"
        launcher.unlink()
        self.assertEqual((1, "", f"sign-macos: no {launcher}: install the bundle, or name its "
                                 "Orvane.app\n"), self.sign("--dry-run", "-", self.app))

    def test_a_wrong_call_prints_the_usage(self):
        status, usage, errors = self.sign("--help")
        self.assertEqual((0, "Usage: sign-macos [--dry-run] [--hardened [--notarize PROFILE]] IDENTITY "
                             "[ORVANE_APP]", ""), (status, usage.splitlines()[0], errors))
        for arguments in ([], ["--dry-run"], ["--deep", "-"], ["-", self.app, "more"],
                          ["--hardened", "--notarize"]):
            with self.subTest(arguments=arguments):
                self.assertEqual((2, "", usage), self.sign(*arguments))

    def test_native_code_inside_jars_is_named_before_anything_is_signed(self):
        jar = self.app / self.resources / "lib/a.jar"
        jar.parent.mkdir()
        entries = {"mac/libnative.dylib": THIN + bytes(28), "Service.class": UNIVERSAL + b"\0\0\0\x34",
                   "linux/libnative.so": b"\x7fELF" + bytes(28)}
        nested = io.BytesIO()
        for file in nested, jar:
            with zipfile.ZipFile(file, "w") as archive:
                for name, content in entries.items():
                    archive.writestr(name, content)
            entries["lib/nested.jar"] = nested.getvalue()
        self.assertEqual(
            (1, "", "sign-macos: the notary service would reject native code inside jars; take it "
             f"out of them, install it by BUNDLE_FRAMEWORKS, and build again: {jar}: "
             f"lib/nested.jar: mac/libnative.dylib, {jar}: mac/libnative.dylib\n"),
            self.sign("--dry-run", "--hardened", "--notarize", "profile", "ID", self.app))

    def test_a_failed_notarization_leaves_its_log_and_no_zip(self):
        """In a copy of the checkout's scripts, with stand-ins for macOS's programs."""
        checkout = self.app.parent / "checkout"
        for name in "script/sign-macos", "script/lib.sh", "cmake/jars.py":
            (checkout / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, checkout / name)
        for name, text in {
                "uname": "echo Darwin", "codesign": "", "install_name_tool": "",
                "ditto": 'touch "$5"',
                "xcrun": 'case $2 in submit) echo "  id: 12-ab"; echo "  status: Invalid" ;;\n'
                         'log) echo "reasons of $3" ;; staple) exit 1 ;; esac',
        }.items():
            tool = checkout / "bin" / name
            tool.parent.mkdir(exist_ok=True)
            tool.write_text(f"#!/bin/sh\n{text}\n")
            tool.chmod(0o755)
        run = subprocess.run(
            [checkout / "script/sign-macos", "--hardened", "--notarize", "profile", "ID", self.app],
            env={**os.environ, "PATH": f"{tool.parent}:{os.environ['PATH']}"}, check=False,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8")
        log = checkout / "build/notarize.log"
        self.assertEqual(
            (1, "  id: 12-ab\n  status: Invalid\n",
             HARDENED + f"sign-macos: not notarized; the reasons are in {log}\n"),
            (run.returncode, run.stdout, run.stderr))
        self.assertEqual(["notarize.log"], [path.name for path in log.parent.iterdir()])
        self.assertEqual("  id: 12-ab\n  status: Invalid\nreasons of 12-ab\n", log.read_text())

    @unittest.skipIf(os.uname().sysname == "Darwin", "here it would sign")
    def test_nothing_is_signed_where_macOS_is_not(self):
        self.assertEqual((1, "", "sign-macos: only macOS signs: add --dry-run to see the "
                                 "commands\n"), self.sign("-", self.app))
