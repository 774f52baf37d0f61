"""script/release-macos over a made-up bundle, with stand-ins for the Mac's tools (mac_tools.sh).

What it prints is compared as a whole, with these abbreviations of long names:
  DIST     the directory of the bundle
  PROJECT  the directory "bundle" of this repository
  NAME     Orvane-2.1.0-arm64
  SERVICE  Contents/Library/LaunchServices/OrvaneService.app
"""

import io
import os
import pathlib
import plistlib
import re
import signal
import struct
import subprocess
import sys
import time
import uuid
import xml.etree.ElementTree
import zipfile

import pytest
from support import ROOT

TOOLS = "codesign ditto hdiutil install_name_tool pkgbuild pkgutil productbuild sleep spctl xcrun".split()
NAME = "Orvane-2.1.0-arm64"
SERVICE = "Contents/Library/LaunchServices/OrvaneService.app"
RESOURCES = SERVICE + "/Contents/Resources"
FRAMEWORKS = SERVICE + "/Contents/Frameworks"
LAUNCHER = SERVICE + "/Contents/MacOS/OrvaneService"
LIBJVM = RESOURCES + "/jre/lib/server/libjvm.dylib"
ARM64, X86_64, PROGRAM, LIBRARY = 0x0100000C, 0x01000007, 2, 6
JAVA_CLASS = bytes.fromhex("cafebabe00000034") + b"\3" * 32
INFO = {"CFBundleShortVersionString": "2.1.0", "CFBundleIdentifier": "com.example.backup"}
DEVELOPER = [
    "--sign",
    "Developer ID Application: A",
    "--sign-package",
    "Developer ID Installer: A",
    "--notarize",
    "a profile",
]


def macho(kind, *processors):
    """The headers of a Mach-O file, a universal one for several processors."""
    slices = [struct.pack("<4I16x", 0xFEEDFACF, processor, 0, kind) for processor in processors]
    if len(slices) == 1:
        return slices[0]
    header = struct.pack(">2I", 0xCAFEBABE, len(slices))
    first = len(header) + 20 * len(slices)
    for index, processor in enumerate(processors):
        header += struct.pack(">5I", processor, 0, first + 32 * index, 32, 0)
    return header + b"".join(slices)


UNIVERSAL = macho(PROGRAM, X86_64, ARM64)
BUNDLE = {
    "Contents/Info.plist": plistlib.dumps(INFO),
    SERVICE + "/Contents/Info.plist": plistlib.dumps({"LSMinimumSystemVersion": "11.0"}),
    LAUNCHER: UNIVERSAL,
    FRAMEWORKS + "/libnative.dylib": macho(LIBRARY, X86_64, ARM64),
    FRAMEWORKS + "/A.framework/Info.plist": b"",
    RESOURCES + "/bin/helper": macho(PROGRAM, ARM64),
    RESOURCES + "/bin/script": b"#!/bin/sh\n",
    RESOURCES + "/lang/Texts.class": JAVA_CLASS,
    RESOURCES + "/operator/install": b"#!/bin/sh\n",
    RESOURCES + "/operator/operator-tool": UNIVERSAL,
    RESOURCES + "/jre/bin/java": macho(PROGRAM, ARM64),
    LIBJVM: macho(LIBRARY, ARM64),
}


def abbreviated(text, dist):
    text = text.replace(str(dist), "DIST").replace(NAME, "NAME").replace(SERVICE, "SERVICE")
    # A checkout in a directory with a space is printed in quotes.
    return re.sub(rf"'?{re.escape(str(ROOT))}/bundle(/[\w./]+)'?", r"PROJECT\1", text)


class Release:
    """A bundle, its directory DIST, and the script's calls there."""

    def __init__(self, directory):
        self.dist = directory / "a directory"
        self.app = self.dist / "Orvane.app"
        self.calls = directory / "calls"
        self.tools = directory / "tools"
        self.tools.mkdir()
        for name in TOOLS:
            (self.tools / name).symlink_to(pathlib.Path(__file__).with_name("mac_tools.sh"))
        for name, content in BUNDLE.items():
            self.put(name, content)
        (self.app / RESOURCES / "jre/lib/libjvm.dylib").symlink_to("server/libjvm.dylib")

    def put(self, name, content):
        file = self.app / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        file.chmod(0o755 if file.parent.name in ("MacOS", "bin", "operator") else 0o644)

    def start(self, command, umask=0o022, **environment):
        """The process of the command, with empty records of what it calls."""
        self.calls.write_text("")
        path = f"{self.tools}:{os.path.dirname(sys.executable)}:/usr/bin:/bin"
        return subprocess.Popen(
            command,
            umask=umask,
            text=True,
            env={"PATH": path, "CALLS": str(self.calls), **environment},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )

    def start_script(self, *arguments, **settings):
        return self.start([ROOT / "script/release-macos", *arguments, self.app], **settings)

    def run(self, *arguments, **settings):
        """(status, standard output, standard error without the times)"""
        with self.start_script(*arguments, **settings) as process:
            output, errors = process.communicate(timeout=60)
        errors = re.sub(r"(?m)^    \d+ s\n", "", errors)
        return process.returncode, abbreviated(output, self.dist), abbreviated(errors, self.dist)

    def called(self):
        """The command lines of the stand-ins, abbreviated."""
        return abbreviated(self.calls.read_text(), self.dist)

    def made(self):
        return sorted(path.name for path in self.dist.iterdir())

    def read(self, name):
        return (self.dist / name).read_text()


@pytest.fixture
def release(tmp_path):
    return Release(tmp_path)


# ------------------------------------------------------------------ what is printed and executed

COPIED = """\
cd 'DIST'
mkdir NAME.partial NAME.partial/root
ditto --norsrc --noextattr --noacl --noqtn Orvane.app NAME.partial/root/Orvane.app
ditto --norsrc --noextattr --noacl --noqtn PROJECT/package NAME.partial/scripts
chmod -R u=rwX,go=rX NAME.partial/root NAME.partial/scripts
install_name_tool -rpath ../Resources/jre/lib/server @executable_path/../Resources/jre/lib/server \
NAME.partial/root/Orvane.app/SERVICE/Contents/MacOS/OrvaneService
install_name_tool -rpath ../Resources/jre/lib/jli @executable_path/../Resources/jre/lib/jli \
NAME.partial/root/Orvane.app/SERVICE/Contents/MacOS/OrvaneService
"""

SIGNED = """\
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/jre/lib/server/libjvm.dylib
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
--entitlements PROJECT/java.entitlements \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/jre/bin/java
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/bin/helper
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/operator/operator-tool
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Frameworks/libnative.dylib
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
--entitlements PROJECT/OrvaneService.entitlements NAME.partial/root/Orvane.app/SERVICE
codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime \
NAME.partial/root/Orvane.app
"""

SIGNED_FOR_THIS_MACHINE = """\
codesign --force --sign - --timestamp=none --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/jre/lib/server/libjvm.dylib
codesign --force --sign - --timestamp=none --options runtime \
--entitlements PROJECT/OrvaneService.entitlements \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/jre/bin/java
codesign --force --sign - --timestamp=none --options runtime \
--entitlements PROJECT/OrvaneService.entitlements \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/bin/helper
codesign --force --sign - --timestamp=none --options runtime \
--entitlements PROJECT/OrvaneService.entitlements \
NAME.partial/root/Orvane.app/SERVICE/Contents/Resources/operator/operator-tool
codesign --force --sign - --timestamp=none --options runtime \
NAME.partial/root/Orvane.app/SERVICE/Contents/Frameworks/libnative.dylib
codesign --force --sign - --timestamp=none --options runtime \
--entitlements PROJECT/OrvaneService.entitlements NAME.partial/root/Orvane.app/SERVICE
codesign --force --sign - --timestamp=none --options runtime NAME.partial/root/Orvane.app
"""

VERIFIED = """\
codesign --verify --deep --strict --verbose=2 NAME.partial/root/Orvane.app/SERVICE
codesign --verify --deep --strict --verbose=2 NAME.partial/root/Orvane.app
"""

IMAGE_MADE = """\
hdiutil create -ov -volname Orvane -fs APFS -srcfolder NAME.partial/root NAME.partial/NAME.dmg
"""

IMAGE_SIGNED = """\
codesign --force --sign 'Developer ID Application: A' --timestamp NAME.partial/NAME.dmg
"""

IMAGE_SIGNED_FOR_THIS_MACHINE = """\
codesign --force --sign - --timestamp=none NAME.partial/NAME.dmg
"""

COMPONENT_MADE = """\
pkgbuild --root NAME.partial/root --component-plist PROJECT/component.plist \
--scripts NAME.partial/scripts --identifier com.example.backup --version 2.1.0 \
--ownership recommended --install-location '/Library/Application Support/Orvane.installing' \
NAME.partial/component.pkg
"""

DISTRIBUTION = """\
<?xml version="1.0" encoding="utf-8"?>
<installer-gui-script minSpecVersion="2">
    <title>Orvane</title>
    <options customize="never" require-scripts="false" hostArchitectures="arm64"/>
    <domains enable_anywhere="false" enable_currentUserHome="false" enable_localSystem="true"/>
    <volume-check><allowed-os-versions><os-version min="11.0"/></allowed-os-versions></volume-check>
    <choices-outline><line choice="default"/></choices-outline>
    <choice id="default" title="Orvane"><pkg-ref id="com.example.backup"/></choice>
    <pkg-ref id="com.example.backup" version="2.1.0" onConclusion="none">component.pkg</pkg-ref>
</installer-gui-script>
"""

DISTRIBUTION_WRITTEN = f"""\
cat >NAME.partial/distribution.xml <<'END'
{DISTRIBUTION}END
"""

PACKAGE_MADE = """\
productbuild --distribution NAME.partial/distribution.xml --package-path NAME.partial \
--sign 'Developer ID Installer: A' --timestamp NAME.partial/NAME.pkg
"""

UNSIGNED_PACKAGE_MADE = """\
productbuild --distribution NAME.partial/distribution.xml --package-path NAME.partial \
NAME.partial/NAME.pkg
"""

NOTARIZED = """\
xcrun notarytool submit NAME.partial/NAME.dmg --keychain-profile 'a profile' --wait \
--output-format json
xcrun stapler staple NAME.partial/NAME.dmg
xcrun notarytool submit NAME.partial/NAME.pkg --keychain-profile 'a profile' --wait \
--output-format json
xcrun stapler staple NAME.partial/NAME.pkg
spctl --assess --verbose --type open --context context:primary-signature NAME.partial/NAME.dmg
spctl --assess --verbose --type install NAME.partial/NAME.pkg
pkgutil --check-signature NAME.partial/NAME.pkg
"""

MOVED = """\
mv -f NAME.partial/NAME.dmg NAME.partial/NAME.pkg .
"""

WORK_REMOVED = """\
rm -rf NAME.partial
"""


ANSWER = '{"id": "12-ab", "status": "Accepted"}\n'
RELEASED = "".join(
    [
        *(COPIED, SIGNED, VERIFIED, IMAGE_MADE, IMAGE_SIGNED, COMPONENT_MADE, PACKAGE_MADE),
        *(NOTARIZED, MOVED),
    ]
)


def calls_in(printed):
    """The commands of a transcript that stand-ins record, in the form of their records."""
    return "".join(line for line in printed.splitlines(True) if line.split()[0] in TOOLS)


def test_a_release_prints_and_executes_its_commands(release):
    made = "Made NAME.dmg and NAME.pkg in DIST\n"
    assert release.run(*DEVELOPER) == (0, RELEASED, ANSWER + ANSWER + made)
    assert release.called() == calls_in(RELEASED)
    assert release.made() == [NAME + ".dmg", NAME + ".pkg", "Orvane.app"]


def test_a_dry_run_prints_the_commands_and_executes_none(release):
    commands = "".join(
        [
            *(COPIED, SIGNED, VERIFIED, IMAGE_MADE, IMAGE_SIGNED, COMPONENT_MADE),
            *(DISTRIBUTION_WRITTEN, PACKAGE_MADE, NOTARIZED, MOVED, WORK_REMOVED),
        ]
    )
    made = "Would make NAME.dmg and NAME.pkg in DIST\n"
    assert release.run("--dry-run", *DEVELOPER) == (0, commands, made)
    assert (release.called(), release.made()) == ("", ["Orvane.app"])


def test_a_shell_that_executes_the_commands_of_a_dry_run_makes_the_same(release):
    assert release.run(*DEVELOPER)[0] == 0
    called, made = release.called(), release.made()
    image, package = release.read(NAME + ".dmg"), release.read(NAME + ".pkg")
    for name in NAME + ".dmg", NAME + ".pkg":
        (release.dist / name).unlink()
    with release.start_script("--dry-run", *DEVELOPER) as process:
        commands, _ = process.communicate(timeout=60)
    with release.start(["/bin/sh", "-e"]) as process:
        process.communicate(commands, timeout=60)
    assert (process.returncode, release.called(), release.made()) == (0, called, made)
    assert (release.read(NAME + ".dmg"), release.read(NAME + ".pkg")) == (image, package)


def test_signed_for_this_machine_each_program_accepts_any_library(release):
    commands = "".join(
        [
            *(COPIED, SIGNED_FOR_THIS_MACHINE, VERIFIED, IMAGE_MADE, IMAGE_SIGNED_FOR_THIS_MACHINE),
            *(COMPONENT_MADE, UNSIGNED_PACKAGE_MADE, MOVED),
        ]
    )
    made = (
        "Made NAME.dmg and NAME.pkg in DIST, not notarized: "
        "a Mac that downloads them would refuse them\n"
    )
    assert release.run("--sign", "-") == (0, commands, made)
    assert release.called() == calls_in(commands)


def test_a_dry_run_ends_quietly_when_its_output_is_not_read(release):
    with release.start_script("--dry-run", *DEVELOPER) as process:
        process.stdout.close()  # as head does
        assert (process.stderr.read(), process.wait()) == ("", -signal.SIGPIPE)


FILES = """\
drwxr-xr-x .
drwxr-xr-x ./Orvane.app
drwxr-xr-x ./Orvane.app/Contents
-rw-r--r-- ./Orvane.app/Contents/Info.plist
drwxr-xr-x ./Orvane.app/Contents/Library
drwxr-xr-x ./Orvane.app/Contents/Library/LaunchServices
drwxr-xr-x ./Orvane.app/SERVICE
drwxr-xr-x ./Orvane.app/SERVICE/Contents
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Frameworks
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Frameworks/A.framework
-rw-r--r-- ./Orvane.app/SERVICE/Contents/Frameworks/A.framework/Info.plist
-rw-r--r-- ./Orvane.app/SERVICE/Contents/Frameworks/libnative.dylib
-rw-r--r-- ./Orvane.app/SERVICE/Contents/Info.plist
drwxr-xr-x ./Orvane.app/SERVICE/Contents/MacOS
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/MacOS/OrvaneService
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/bin
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/bin/helper
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/bin/script
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/jre
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/jre/bin
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/jre/bin/java
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/jre/lib
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/jre/lib/server
-rw-r--r-- ./Orvane.app/SERVICE/Contents/Resources/jre/lib/server/libjvm.dylib
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/lang
-rw-r--r-- ./Orvane.app/SERVICE/Contents/Resources/lang/Texts.class
drwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/operator
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/operator/install
-rwxr-xr-x ./Orvane.app/SERVICE/Contents/Resources/operator/operator-tool
"""
SCRIPTS = """\
drwxr-xr-x .
-rwxr-xr-x ./postinstall
-rwxr-xr-x ./preinstall
"""


def test_modes_are_right_whatever_the_umask_and_the_bundle_s_modes(release):
    for name, mode in (LIBJVM, 0o600), (LAUNCHER, 0o4710), (RESOURCES, 0o700):
        (release.app / name).chmod(mode)
    assert release.run("--sign", "-", umask=0o077)[0] == 0
    image = abbreviated(release.read(NAME + ".dmg"), release.dist)
    package = abbreviated(release.read(NAME + ".pkg"), release.dist)
    assert image == FILES
    assert package == f"{DISTRIBUTION}payload\n{FILES}scripts\n{SCRIPTS}"


# ----------------------------------------------------------------------------- what goes wrong

AGAIN = "    status 7; again in 20 s\n"


@pytest.mark.parametrize(
    "command",
    [
        "codesign --force --sign 'Developer ID Application: A' --timestamp --options runtime",
        "codesign --force --sign 'Developer ID Application: A' --timestamp " + NAME,
        "hdiutil create",
        "productbuild",
        "xcrun stapler staple",
    ],
)
def test_what_can_fail_for_a_moment_is_tried_again(release, command):
    status, _, errors = release.run(*DEVELOPER, FAIL=command, FAIL_TIMES="2")
    assert (status, errors.count(AGAIN)) == (0, 2)
    calls = calls_in(RELEASED).splitlines()
    command = abbreviated(command, release.dist)
    first = next(number for number, line in enumerate(calls) if line.startswith(command))
    attempts = [calls[first], "sleep 20"] * 2
    assert release.called().splitlines() == calls[:first] + attempts + calls[first:]
    assert release.made() == [NAME + ".dmg", NAME + ".pkg", "Orvane.app"]


@pytest.mark.parametrize(
    "command, attempts, printed_before",
    [
        ("ditto", 1, ""),
        ("install_name_tool", 1, ""),
        ("codesign --force", 5, ""),
        ("codesign --verify", 1, ""),
        ("hdiutil create", 5, ""),
        ("pkgbuild", 1, ""),
        ("productbuild", 5, ""),
        ("xcrun notarytool submit", 1, ""),
        ("xcrun stapler staple", 6, ANSWER),
        ("spctl --assess --verbose --type open", 1, ANSWER + ANSWER),
        ("spctl --assess --verbose --type install", 1, ANSWER + ANSWER),
        ("pkgutil", 1, ANSWER + ANSWER),
    ],
)
def test_a_step_that_fails_ends_the_release_with_its_status_and_leaves_nothing(
    release, command, attempts, printed_before
):
    (release.dist / (NAME + ".pkg")).write_text("a former release")
    program = command.split()[0]
    failure = f"{program}: not now\n"
    status, _, errors = release.run(*DEVELOPER, FAIL=command)
    assert (status, errors) == (
        7,
        printed_before
        + (failure + AGAIN) * (attempts - 1)
        + failure
        + f"release-macos: {program} failed with status 7; nothing was released\n",
    )
    calls = release.called().splitlines()
    failed = [line for line in calls if line.startswith(command)]
    assert (len(failed), calls[-1]) == (attempts, failed[0])
    assert release.made() == [NAME + ".pkg", "Orvane.app"]
    assert release.read(NAME + ".pkg") == "a former release"


@pytest.mark.parametrize("command", ["codesign --force", "productbuild"])
def test_a_signature_without_a_timestamp_is_tried_once(release, command):
    status, _, errors = release.run("--sign", "-", FAIL=command)
    program = command.split()[0]
    assert (status, errors) == (
        7,
        f"{program}: not now\n"
        f"release-macos: {program} failed with status 7; nothing was released\n",
    )


def test_a_machine_without_the_tools_is_told_what_a_release_needs(release):
    (release.tools / "ditto").unlink()
    # A Mac has ditto in /usr/bin.
    path = f"{release.tools}:{os.path.dirname(sys.executable)}:/bin"
    status, _, errors = release.run(*DEVELOPER, PATH=path)
    assert (status, errors) == (
        1,
        "release-macos: no ditto: a release needs macOS and xcode-select --install; "
        "elsewhere --dry-run prints the commands\n",
    )


SUBMITTED = "xcrun notarytool submit NAME.partial/NAME.dmg --keychain-profile 'a profile' --wait \
--output-format json\n"
ASKED_WHY = "xcrun notarytool log 12-ab --keychain-profile 'a profile'\n"


@pytest.mark.parametrize(
    "answer, asked",
    [
        ('{"id": "12-ab", "status": "Invalid", "message": "Accepted"}', ASKED_WHY),
        ('{"id": "12-ab", "message": "Accepted"}', ASKED_WHY),
        ("status: Accepted", ""),
        ('["Accepted"]', ""),
    ],
)
def test_any_other_answer_of_the_notary_service_than_acceptance_ends_the_release(
    release, answer, asked
):
    commands = "".join(
        [
            *(COPIED, SIGNED, VERIFIED, IMAGE_MADE, IMAGE_SIGNED, COMPONENT_MADE, PACKAGE_MADE),
            *(SUBMITTED, asked),
        ]
    )
    errors = (
        f"{answer}\nrelease-macos: the notary service did not accept NAME.dmg, see above; "
        "nothing was released\n"
    )
    reasons = "the reasons of 12-ab\n" if asked else ""
    assert release.run(*DEVELOPER, ANSWER=answer) == (1, commands + reasons, errors)
    assert (release.called(), release.made()) == (calls_in(commands), ["Orvane.app"])


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_release_that_is_interrupted_leaves_nothing(release, number):
    with release.start_script(*DEVELOPER, HANG="pkgbuild") as process:
        while "\npkgbuild" not in release.called():
            assert process.poll() is None
            time.sleep(0.01)
        process.send_signal(number)
        _, errors = process.communicate(timeout=30)
    assert "Traceback" not in errors
    assert (process.returncode, release.made()) == (128 + number, ["Orvane.app"])


def test_a_release_that_is_interrupted_while_it_reads_the_bundle_ends_without_a_traceback(release):
    properties = release.app / "Contents/Info.plist"
    properties.unlink()
    os.mkfifo(properties)
    with release.start_script(*DEVELOPER) as process:
        with properties.open("wb"):  # waits until the script reads it
            process.send_signal(signal.SIGINT)
            _, errors = process.communicate(timeout=30)
    assert (process.returncode, errors) == (128 + signal.SIGINT, "")


# ----------------------------------------------------------------------- what is read of a bundle


@pytest.mark.parametrize(
    "launcher, library, name, hosts",
    [
        ([X86_64, ARM64], [X86_64], "Orvane-2.1.0-x86_64", "x86_64"),
        ([ARM64], [ARM64, X86_64], "Orvane-2.1.0-arm64", "arm64"),
        ([X86_64, ARM64], [ARM64, X86_64], "Orvane-2.1.0-universal", "arm64,x86_64"),
    ],
)
def test_a_package_is_for_the_processors_of_launcher_and_runtime(
    release, launcher, library, name, hosts
):
    release.put(LAUNCHER, macho(PROGRAM, *launcher))
    release.put(LIBJVM, macho(LIBRARY, *library))
    assert release.run("--sign", "-")[0] == 0
    assert release.made() == [name + ".dmg", name + ".pkg", "Orvane.app"]
    assert re.findall('hostArchitectures="(.*)"', release.read(name + ".pkg")) == [hosts]


def test_name_and_version_and_oldest_system_are_the_bundle_s(release):
    info = {"CFBundleShortVersionString": "3.0-rc.1+7", "CFBundleIdentifier": 'com."<&>'}
    release.put("Contents/Info.plist", plistlib.dumps(info))
    system = {"LSMinimumSystemVersion": "13.5"}
    release.put(SERVICE + "/Contents/Info.plist", plistlib.dumps(system))
    release.app = release.app.rename(release.dist / "Other name.app")
    assert release.run("--sign", "-")[0] == 0
    distribution, content = release.read("Orvane-3.0-rc.1+7-arm64.pkg").split("payload\n")
    distribution = xml.etree.ElementTree.fromstring(distribution.encode())
    assert [found.attrib for found in distribution.iter("pkg-ref")] == [
        {"id": 'com."<&>'},
        {"id": 'com."<&>', "version": "3.0-rc.1+7", "onConclusion": "none"},
    ]
    assert distribution.find(".//os-version").get("min") == "13.5"
    assert "drwxr-xr-x ./Orvane.app\n" in content


def test_run_paths_that_are_relative_to_the_executable_already_are_accepted(release):
    path = b"\0@executable_path/../Resources/jre/lib/"
    release.put(LAUNCHER, UNIVERSAL + path + b"server" + path + b"jli")
    assert release.run("--sign", "-")[0] == 0
    assert "install_name_tool" not in release.called()


def test_a_program_that_a_vendor_added_to_the_outer_bundle_is_signed_with_it(release):
    info = {"CFBundleExecutable": "Orvane", **INFO}
    release.put("Contents/Info.plist", plistlib.dumps(info))
    for name in "Orvane", "tool":
        release.put("Contents/MacOS/" + name, macho(PROGRAM, ARM64))
    assert release.run("--sign", "-")[0] == 0
    outer = [
        line.partition(" runtime ")[2]
        for line in release.called().splitlines()
        if line.startswith("codesign") and "SERVICE" not in line and " runtime " in line
    ]
    entitlements = "--entitlements PROJECT/OrvaneService.entitlements"
    assert outer == [
        f"{entitlements} NAME.partial/root/Orvane.app/Contents/MacOS/tool",
        f"{entitlements} NAME.partial/root/Orvane.app",
    ]


def jar(**entries):
    file = io.BytesIO()
    with zipfile.ZipFile(file, "w") as archive:
        for name, content in entries.items():
            archive.writestr(name, content)
    return file.getvalue()


NATIVE = (
    "the notary service would reject native code inside jars; take it out of them, give it to "
    "script/bundle --frameworks, and build again: "
    "DIST/Orvane.app/SERVICE/Contents/Resources/lib/a.JAR: nested.jar: both, "
    "DIST/Orvane.app/SERVICE/Contents/Resources/lib/a.JAR: a.dylib\n"
)


def test_native_code_inside_jars_is_named_before_anything_is_signed(release):
    nested = jar(**{"Service.class": JAVA_CLASS, "a.so": b"\x7fELF" + bytes(28), "both": UNIVERSAL})
    outer = jar(**{"nested.jar": nested, "a.dylib": macho(LIBRARY, ARM64)})
    release.put(RESOURCES + "/lib/a.JAR", outer)
    assert release.run(*DEVELOPER) == (1, "", f"release-macos: {NATIVE}")
    status, _, errors = release.run("--sign", "-")
    assert (status, errors.splitlines(True)[0]) == (0, f"release-macos: warning: {NATIVE}")


def test_an_archive_in_a_jar_that_cannot_be_read_is_named_and_passed_over(release):
    encrypted = bytearray(jar(secret=b"x"))
    for signature, flags_at in (b"PK\3\4", 6), (b"PK\1\2", 8):
        encrypted[encrypted.index(signature) + flags_at] |= 1
    damaged = jar(data=b"what has another checksum").replace(b"another", b"ANOTHER")
    release.put(RESOURCES + "/lib/a.jar", jar(**{"b.jar": bytes(encrypted), "c.zip": damaged}))
    status, _, errors = release.run("--dry-run", *DEVELOPER)
    warning = "release-macos: warning: cannot be read, and may have native code:"
    assert (status, errors.splitlines()[:2]) == (
        0,
        [
            f"{warning} DIST/Orvane.app/SERVICE/Contents/Resources/lib/a.jar: b.jar: secret",
            f"{warning} DIST/Orvane.app/SERVICE/Contents/Resources/lib/a.jar: c.zip: data",
        ],
    )


NOT_A_BUNDLE = "name an Orvane.app that script/bundle has made; DIST/Orvane.app"
NO_PLATFORM = (
    "DIST/Orvane.app lacks launcher or runtime for macOS, or they have no processor in common; "
    "see script/bundle --jmods"
)


@pytest.mark.parametrize(
    "name, content, message",
    [
        (LAUNCHER, b"\x7fELF", NO_PLATFORM),
        (LAUNCHER, macho(PROGRAM, X86_64), NO_PLATFORM),
        (LAUNCHER, UNIVERSAL[:30], NO_PLATFORM),
        (LIBJVM, None, NO_PLATFORM),
        (
            "Contents/Info.plist",
            None,
            f"{NOT_A_BUNDLE} lacks DIST/Orvane.app/Contents/Info.plist",
        ),
        (
            "Contents/Info.plist",
            b"<plist>",
            f"{NOT_A_BUNDLE}/Contents/Info.plist is not a property list",
        ),
        (
            SERVICE + "/Contents/Info.plist",
            plistlib.dumps({}),
            f"{NOT_A_BUNDLE} lacks 'LSMinimumSystemVersion'",
        ),
        (
            "Contents/Info.plist",
            plistlib.dumps({**INFO, "CFBundleShortVersionString": "1/2"}),
            "the version is '1/2'; it can have letters, digits and .+- only",
        ),
        (
            FRAMEWORKS + "/a.txt",
            b"",
            "codesign would reject what is not code in Contents/Frameworks; leave it out of "
            "script/bundle --frameworks, and build again: "
            "DIST/Orvane.app/SERVICE/Contents/Frameworks/a.txt",
        ),
        (
            f"../{NAME}.partial/a",
            b"",
            "DIST/NAME.partial is what a killed release left, unless one is running; remove it",
        ),
    ],
)
def test_a_bundle_that_cannot_be_released_is_rejected(release, name, content, message):
    if content is None:
        (release.app / name).unlink()
    else:
        release.put(name, content)
    before = release.made()
    assert release.run(*DEVELOPER) == (1, "", f"release-macos: {message}\n")
    assert release.made() == before


@pytest.mark.parametrize(
    "arguments, problem",
    [
        (["--sign", "-", "more"], "unrecognized arguments: DIST/Orvane.app"),
        (
            ["--sign", "A", "--notarize", "P"],
            "--notarize requires a Developer ID in --sign and in --sign-package",
        ),
        (
            ["--sign", "-", "--sign-package", "B", "--notarize", "P"],
            "--notarize requires a Developer ID in --sign and in --sign-package",
        ),
    ],
)
def test_a_wrong_call_prints_the_usage(release, arguments, problem):
    status, output, errors = release.run(*arguments)
    assert (status, output) == (2, "")
    assert errors.startswith("usage: release-macos ")
    assert errors.endswith(f"\nrelease-macos: error: {problem}\n")


# --------------------------------------------------- what a release takes from the repository

JIT = "com.apple.security.cs.allow-jit"
MEMORY = "com.apple.security.cs.allow-unsigned-executable-memory"
LIBRARIES = "com.apple.security.cs.disable-library-validation"


@pytest.mark.parametrize(
    "program, expected",
    [
        ("OrvaneService", {JIT: True, MEMORY: True, LIBRARIES: True}),
        ("java", {JIT: True, MEMORY: True}),
    ],
)
def test_entitlements_are_as_codesign_needs_them(program, expected):
    text = (ROOT / f"bundle/{program}.entitlements").read_bytes()
    assert plistlib.loads(text) == expected
    assert text.startswith(b"<?xml ") and b"\r" not in text and b"<!--" not in text


def test_the_installer_replaces_the_bundle_at_its_position():
    assert plistlib.loads((ROOT / "bundle/component.plist").read_bytes()) == [
        {
            "RootRelativeBundlePath": "Orvane.app",
            "BundleIsRelocatable": False,
            "BundleIsVersionChecked": False,
            "BundleOverwriteAction": "upgrade",
        }
    ]


@pytest.mark.parametrize(
    "name, kind",
    [
        ("full-disk-access", "com.apple.TCC.configuration-profile-policy"),
        ("login-items", "com.apple.servicemanagement"),
    ],
)
def test_the_documented_sed_makes_a_profile_for_device_management_the_vendor_s(name, kind):
    sed = re.search("sed ('.*') ", (ROOT / "docs/packaging.md").read_text()).group(1)
    text = subprocess.check_output(
        f"sed {sed} '{ROOT}/bundle/management/{name}.mobileconfig'", shell=True
    )
    profile = plistlib.loads(text)
    assert [payload["PayloadType"] for payload in profile["PayloadContent"]] == [kind]
    for level in profile, *profile["PayloadContent"]:
        assert uuid.UUID(level["PayloadUUID"]) and level["PayloadVersion"] == 1
        assert level["PayloadIdentifier"].startswith("com.example.backup." + name)
    assert b"ABCDE12345" in text and b"TEAM_ID" not in text and b"vaultory.orvane" not in text
