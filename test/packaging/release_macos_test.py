"""script/release-macos over a made-up bundle, with stand-ins for the Mac's tools (mac_tools.sh)."""

import io
import os
import pathlib
import plistlib
import re
import shlex
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
    "Developer ID Application: A B",
    "--sign-package",
    "Developer ID Installer: A B",
    "--notarize",
    "a profile",
]


def macho(kind, *processors):
    """The headers of a Mach-O file, a universal one for several processors."""
    slices = [struct.pack("<4I16x", 0xFEEDFACF, processor, 0, kind) for processor in processors]
    headers = [
        struct.pack(">5I", processor, 0, 8 + 20 * len(slices) + 32 * index, 32, 0)
        for index, processor in enumerate(processors)
    ]
    return b"".join(
        slices
        if len(slices) == 1
        else [struct.pack(">2I", 0xCAFEBABE, len(slices)), *headers, *slices]
    )


BOTH = macho(PROGRAM, X86_64, ARM64)
BUNDLE = {
    "Contents/Info.plist": plistlib.dumps(INFO),
    SERVICE + "/Contents/Info.plist": plistlib.dumps({"LSMinimumSystemVersion": "11.0"}),
    LAUNCHER: BOTH,
    FRAMEWORKS + "/libnative.dylib": macho(LIBRARY, X86_64, ARM64),
    FRAMEWORKS + "/A.framework/Info.plist": b"",
    RESOURCES + "/bin/helper": macho(PROGRAM, ARM64),
    RESOURCES + "/bin/script": b"#!/bin/sh\n",
    RESOURCES + "/lang/Texts.class": JAVA_CLASS,
    RESOURCES + "/jre/bin/java": macho(PROGRAM, ARM64),
    LIBJVM: macho(LIBRARY, ARM64),
}


class Release:
    """A bundle, its directory DIST, and the script's calls there."""

    def __init__(self, directory):
        self.dist, self.calls, self.tools = (
            directory / name for name in ("a directory", "calls", "tools")
        )
        self.app = self.dist / "Orvane.app"
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
        file.chmod(0o755 if file.parent.name in ("MacOS", "bin") else 0o644)

    def start(self, *arguments, umask=0o022, **environment):
        self.calls.write_text("")
        path = f"{self.tools}:{os.path.dirname(sys.executable)}:/usr/bin:/bin"
        return subprocess.Popen(
            [ROOT / "script/release-macos", *arguments, self.app],
            umask=umask,
            text=True,
            env={"PATH": path, "CALLS": str(self.calls), **environment},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
        )  # a background job ignores it

    def run(self, *arguments, **options):
        """(status, standard output, standard error without the times)"""
        with self.start(*arguments, **options) as process:
            texts = process.communicate(timeout=60)
        output, errors = (text.replace(str(self.dist), "DIST") for text in texts)
        return process.returncode, output, re.sub(r"(?m)^    \d+ s\n", "", errors)

    def called(self):
        return self.calls.read_text().splitlines()

    def made(self):
        return sorted(path.name for path in self.dist.iterdir())


release = pytest.fixture(lambda tmp_path: Release(tmp_path), name="release")


COMMANDS = """\
cd 'DIST'
mkdir WORK WORK/root
ditto --norsrc --noextattr --noacl --noqtn Orvane.app COPY
ditto --norsrc --noextattr --noacl --noqtn BUNDLE/package WORK/scripts
chmod -R u=rwX,go=rX WORK/root WORK/scripts
install_name_tool -rpath ../Resources/jre/lib/server @executable_path/../Resources/jre/lib/server \
COPY/LAUNCHER
install_name_tool -rpath ../Resources/jre/lib/jli @executable_path/../Resources/jre/lib/jli COPY/LAUNCHER
SIGN COPY/RESOURCES/jre/lib/server/libjvm.dylib
SIGN --entitlements BUNDLE/java.entitlements COPY/RESOURCES/jre/bin/java
SIGN COPY/RESOURCES/bin/helper
SIGN COPY/SERVICE/Contents/Frameworks/libnative.dylib
SIGN --entitlements BUNDLE/OrvaneService.entitlements COPY/SERVICE
SIGN COPY
codesign --verify --deep --strict --verbose=2 COPY/SERVICE
codesign --verify --deep --strict --verbose=2 COPY
hdiutil create -ov -volname Orvane -fs APFS -srcfolder WORK/root WORK/NAME.dmg
codesign --force --sign 'Developer ID Application: A B' --timestamp WORK/NAME.dmg
pkgbuild --root WORK/root --component-plist BUNDLE/component.plist --scripts WORK/scripts \
--identifier com.example.backup --version 2.1.0 --ownership recommended \
--install-location '/Library/Application Support/Orvane.installing' WORK/component.pkg
cat >WORK/distribution.xml <<'END'
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
END
productbuild --distribution WORK/distribution.xml --package-path WORK --sign 'Developer ID Installer: A B' \
--timestamp WORK/NAME.pkg
xcrun notarytool submit WORK/NAME.dmg --keychain-profile 'a profile' --wait --output-format json
xcrun stapler staple WORK/NAME.dmg
xcrun notarytool submit WORK/NAME.pkg --keychain-profile 'a profile' --wait --output-format json
xcrun stapler staple WORK/NAME.pkg
spctl --assess --verbose --type open --context context:primary-signature WORK/NAME.dmg
spctl --assess --verbose --type install WORK/NAME.pkg
pkgutil --check-signature WORK/NAME.pkg
mv -f WORK/NAME.dmg WORK/NAME.pkg .
rm -rf WORK
""".replace(
    "\\\n", ""
)
NAME = "Orvane-2.1.0-arm64"
for word, words in {
    "SIGN": "codesign --force --sign 'Developer ID Application: A B' --timestamp --options runtime",
    "COPY": "WORK/root/Orvane.app",
    "WORK": "NAME.partial",
    "NAME": NAME,
    "LAUNCHER": LAUNCHER,
    "RESOURCES": RESOURCES,
    "SERVICE": SERVICE,
}.items():
    COMMANDS = re.sub(rf"\b{word}\b", words, COMMANDS)
COMMANDS = re.sub(r"\bBUNDLE(/\S+)", lambda path: shlex.quote(f"{ROOT}/bundle{path[1]}"), COMMANDS)
# What a release prints while it executes: no generated files, no removal of its directory.
EXECUTED = re.sub(r"cat >.*?\nEND\n|rm -rf .*\n", "", COMMANDS, flags=re.DOTALL)
CALLS = [line for line in EXECUTED.splitlines() if line.split()[0] in TOOLS]


def test_a_dry_run_prints_the_commands_that_a_release_executes_and_repeats(release):
    assert release.run("--dry-run", *DEVELOPER) == (
        0,
        COMMANDS,
        f"Would make {NAME}.dmg and {NAME}.pkg in DIST\n",
    )
    assert (release.made(), release.called()) == (["Orvane.app"], [])
    at = next(number for number, line in enumerate(CALLS) if line.startswith("hdiutil"))
    answer = '{"id": "12-ab", "status": "Accepted"}\n'
    errors = (
        "    status 7; again in 20 s\n" * 2
        + answer * 2
        + f"Made {NAME}.dmg and {NAME}.pkg in DIST\n"
    )
    assert release.run(*DEVELOPER, FAIL=CALLS[at], FAIL_TIMES="2") == (0, EXECUTED, errors)
    assert release.called() == CALLS[:at] + [CALLS[at], "sleep 20"] * 2 + CALLS[at:]
    assert release.made() == [NAME + ".dmg", NAME + ".pkg", "Orvane.app"]
    with release.start("--dry-run", *DEVELOPER) as process:
        process.stdout.close()  # as head does
        assert (process.stderr.read(), process.wait()) == ("", -signal.SIGPIPE)


def test_modes_are_right_whatever_the_umask_and_the_bundle_s_modes(release):
    for name, mode in (LIBJVM, 0o600), (LAUNCHER, 0o4710), (RESOURCES, 0o700):
        (release.app / name).chmod(mode)
    assert release.run("--sign", "-", umask=0o077)[0] == 0
    image = (release.dist / (NAME + ".dmg")).read_text()
    assert set(re.findall("-rw-r--r-- .*/(.*)", image)) == {
        "Info.plist",
        "Texts.class",
        "libjvm.dylib",
        "libnative.dylib",
    }
    assert set(re.findall(r"(?m)^[-d]\S+", image)) == {"drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--"}
    scripts = "drwxr-xr-x .\n-rwxr-xr-x ./postinstall\n-rwxr-xr-x ./preinstall\n"
    assert (
        (release.dist / (NAME + ".pkg")).read_text().endswith(f"payload\n{image}scripts\n{scripts}")
    )


def test_signed_for_this_machine_each_program_accepts_any_library(release):
    expected = EXECUTED.replace(" --sign 'Developer ID Installer: A B' --timestamp", "")
    expected = expected.replace("'Developer ID Application: A B' --timestamp", "- --timestamp=none")
    expected = re.sub(r"xcrun .*?(?=mv )", "", expected, flags=re.DOTALL)
    launcher = shlex.quote(f"{ROOT}/bundle/OrvaneService.entitlements")
    expected = re.sub(
        r"runtime( --entitlements ('[^']*'|\S+))? (\S+/(java|helper)\n)",
        lambda line: f"runtime --entitlements {launcher} {line[3]}",
        expected,
    )
    assert release.run("--sign", "-") == (
        0,
        expected,
        f"Made {NAME}.dmg and {NAME}.pkg in DIST, not notarized: "
        "a Mac that downloads them would refuse them\n",
    )


def test_a_step_that_fails_ends_the_release_with_its_status_and_leaves_nothing(release):
    (release.dist / (NAME + ".pkg")).write_text("a former release")
    for line in {
        tuple(line.split()[:2]): line for line in reversed(CALLS)
    }.values():  # one of each kind
        tool, what = line.split()[:2]
        tries = {"create": 5, "stapler": 6}.get(what, 1)
        status, _, errors = release.run(*DEVELOPER, FAIL=line)
        called = [call for call in release.called() if call != "sleep 20"]
        assert (status, called) == (7, CALLS[: CALLS.index(line)] + [line] * tries)
        assert release.made() == [NAME + ".pkg", "Orvane.app"]
        assert errors.endswith(
            f"release-macos: {tool} failed with status 7; nothing was released\n"
        )
    assert (release.dist / (NAME + ".pkg")).read_text() == "a former release"
    if not os.access("/usr/bin/ditto", os.X_OK):
        (release.tools / "ditto").unlink()
        assert release.run(*DEVELOPER)[::2] == (
            1,
            "release-macos: no ditto: a release needs macOS and xcode-select --install; "
            "elsewhere --dry-run prints the commands\n",
        )


@pytest.mark.parametrize(
    "answer, asked",
    [
        ('{"id": "12-ab", "status": "Invalid", "message": "Accepted"}', True),
        ("status: Accepted", False),
        ('{"id": "12-ab", "message": "Accepted"}', True),
        ('["Accepted"]', False),
    ],
)
def test_any_other_answer_of_the_notary_service_than_acceptance_ends_the_release(
    release, answer, asked
):
    status, output, errors = release.run(*DEVELOPER, ANSWER=answer)
    assert re.findall(
        "xcrun .*tool (.*) --keychain-profile 'a profile'", "\n".join(release.called())
    ) == [f"submit {NAME}.partial/{NAME}.dmg", *["log 12-ab"] * asked]
    assert (status, output.endswith("the reasons of 12-ab\n"), release.made()) == (
        1,
        asked,
        ["Orvane.app"],
    )
    assert errors == (
        f"{answer}\nrelease-macos: the notary service did not accept {NAME}.dmg, see above; "
        "nothing was released\n"
    )


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_release_that_is_interrupted_leaves_nothing(release, number):
    line = next(line for line in CALLS if line.startswith("pkgbuild"))
    with release.start(*DEVELOPER, HANG=line) as process:
        while line not in release.called():
            assert process.poll() is None
            time.sleep(0.01)
        process.send_signal(number)
        _, errors = process.communicate(timeout=30)
    assert "Traceback" not in errors
    assert (process.returncode, release.made()) == (128 + number, ["Orvane.app"])


@pytest.mark.parametrize(
    "launcher, library, name, hosts",
    [
        ([X86_64, ARM64], [X86_64], "x86_64", "x86_64"),
        ([ARM64], [ARM64, X86_64], "arm64", "arm64"),
        ([X86_64, ARM64], [ARM64, X86_64], "universal", "arm64,x86_64"),
    ],
)
def test_a_package_is_for_the_processors_of_launcher_and_runtime(
    release, launcher, library, name, hosts
):
    release.put(LAUNCHER, macho(PROGRAM, *launcher))
    release.put(LIBJVM, macho(LIBRARY, *library))
    _, output, errors = release.run("--dry-run", *DEVELOPER)
    assert re.findall('hostArchitectures="(.*)"', output) == [hosts]
    assert errors == "Would make {0}.dmg and {0}.pkg in DIST\n".format("Orvane-2.1.0-" + name)


def test_name_and_version_and_oldest_system_are_the_bundle_s(release):
    release.put(
        "Contents/Info.plist",
        plistlib.dumps(
            {"CFBundleShortVersionString": "3.0-rc.1+7", "CFBundleIdentifier": 'com."<&>'}
        ),
    )
    release.put(
        SERVICE + "/Contents/Info.plist", plistlib.dumps({"LSMinimumSystemVersion": "13.5"})
    )
    release.app = release.app.rename(release.dist / "Other name.app")
    assert release.run("--sign", "-")[0] == 0
    package, content = (release.dist / "Orvane-3.0-rc.1+7-arm64.pkg").read_text().split("payload\n")
    distribution = xml.etree.ElementTree.fromstring(package.encode())
    assert [found.attrib for found in distribution.iter("pkg-ref")] == [
        {"id": 'com."<&>'},
        {"id": 'com."<&>', "version": "3.0-rc.1+7", "onConclusion": "none"},
    ]
    assert distribution.find(".//os-version").get("min") == "13.5"
    assert "drwxr-xr-x ./Orvane.app\n" in content


def test_what_a_vendor_changed_by_hand_is_accepted(release):
    """Run paths that are relative to the executable already, and a program of the outer bundle."""
    path = b"\0@executable_path/../Resources/jre/lib/"
    release.put(LAUNCHER, BOTH + path + b"server" + path + b"jli")
    release.put("Contents/Info.plist", plistlib.dumps({"CFBundleExecutable": "Orvane", **INFO}))
    for name in "Orvane", "tool":
        release.put("Contents/MacOS/" + name, macho(PROGRAM, ARM64))
    output = release.run("--dry-run", "--sign", "-")[1]
    assert "install_name_tool" not in output
    assert re.findall(
        "/OrvaneService.entitlements'? .*Orvane.app(/Contents/MacOS.*|)\n", output
    ) == ["/Contents/MacOS/tool", ""]


def test_native_code_inside_jars_is_named_before_anything_is_signed(release):
    file, entries = io.BytesIO(), {
        "Service.class": JAVA_CLASS,
        "a.so": b"\x7fELF" + bytes(28),
        "both": BOTH,
    }
    for _ in range(2):
        with zipfile.ZipFile(file, "w") as archive:
            for name, content in entries.items():
                archive.writestr(name, content)
        inner, file = file, io.BytesIO()
        entries = {"lib/nested.jar": inner.getvalue(), "a.dylib": macho(LIBRARY, ARM64)}
    release.put(RESOURCES + "/lib/a.JAR", inner.getvalue())
    jar = f"DIST/Orvane.app/{RESOURCES}/lib/a.JAR"
    message = (
        "the notary service would reject native code inside jars; take it out of them, give it to "
        f"script/bundle --frameworks, and build again: {jar}: lib/nested.jar: both, {jar}: a.dylib\n"
    )
    assert release.run("--dry-run", *DEVELOPER) == (1, "", f"release-macos: {message}")
    status, _, errors = release.run("--dry-run", "--sign", "-")
    assert (status, errors.splitlines(True)[0]) == (0, f"release-macos: warning: {message}")


LACKS = "name an Orvane.app that script/bundle has made; DIST/Orvane.app lacks "
PLATFORM = (
    "DIST/Orvane.app lacks launcher or runtime for macOS, or they have no processor in common; "
    "see script/bundle --jmods"
)


@pytest.mark.parametrize(
    "name, content, message",
    [
        (LAUNCHER, b"\x7fELF", PLATFORM),
        (LAUNCHER, macho(PROGRAM, X86_64), PLATFORM),
        (LIBJVM, None, PLATFORM),
        (LAUNCHER, BOTH[:30], PLATFORM),
        ("Contents/Info.plist", None, LACKS + "DIST/Orvane.app/Contents/Info.plist"),
        (SERVICE + "/Contents/Info.plist", plistlib.dumps({}), LACKS + "'LSMinimumSystemVersion'"),
        (
            "Contents/Info.plist",
            plistlib.dumps({**INFO, "CFBundleShortVersionString": "1/2"}),
            "the version is '1/2'; it can have letters, digits and .+- only",
        ),
        (
            FRAMEWORKS + "/a.txt",
            b"",
            "codesign would reject what is not code in Contents/Frameworks; leave it "
            f"out of script/bundle --frameworks, and build again: DIST/Orvane.app/{FRAMEWORKS}/a.txt",
        ),
        (
            f"../{NAME}.partial/a",
            b"",
            f"DIST/{NAME}.partial is what a killed release left, unless one is running; remove it",
        ),
    ],
)
def test_a_bundle_that_cannot_be_released_is_rejected(release, name, content, message):
    release.put(name, content or b"")
    if content is None:
        (release.app / name).unlink()
    before = release.made()
    assert (release.run(*DEVELOPER), release.made()) == (
        (1, "", f"release-macos: {message}\n"),
        before,
    )


@pytest.mark.parametrize(
    "arguments",
    [
        ["--sign", "-", "more"],
        ["--sign", "A", "--notarize", "P"],
        ["--sign", "-", "--sign-package", "B", "--notarize", "P"],
    ],
)
def test_a_wrong_call_prints_the_usage(release, arguments):
    status, output, errors = release.run(*arguments)
    assert (status, output, errors.startswith("usage: release-macos ")) == (2, "", True)


def test_what_a_release_takes_from_the_repository_is_as_apple_s_tools_need_it():
    names = ["allow-jit", "allow-unsigned-executable-memory", "disable-library-validation"]
    for file, expected in ("OrvaneService", names), ("java", names[:2]):
        text = (ROOT / f"bundle/{file}.entitlements").read_bytes()
        assert plistlib.loads(text) == {f"com.apple.security.cs.{name}": True for name in expected}
        assert text.startswith(b"<?xml ") and b"\r" not in text and b"<!--" not in text
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
