"""Which file goes where in a bundle, and what its property lists say."""

import plistlib
import re
import stat
import zipfile

import pytest
from bundling import LISTING_JAR, MANIFEST, bundle
from support import CONTENTS, VERSION

NAMES = [
    "service.jar",
    "Upper.JAR",
    "below/one.jar",
    "descriptor-1.0+5.jar",
    "versioned.jar",
    "xml-apis.jar",
    "broken.jar",
]


@pytest.fixture(scope="session")
def product(tmp_path_factory, vendor):
    """The destination of a bundle of all the vendor's jars and of programs, without a runtime."""
    directory = tmp_path_factory.mktemp("product")
    mine = vendor / "mine"
    programs = directory / "programs"
    programs.mkdir(0o700)
    for name, mode in ("backup-tool", 0o700), ("settings", 0o660):
        (programs / name).write_text("")
        (programs / name).chmod(mode)
    run = bundle(
        *("--main-jar", mine / "service.jar"),
        *("--input", mine / "lib"),
        *("--input", mine / "broken.jar"),
        *("--bin", programs),
        *("--app-version", "2.13"),
        *("--copyright", "© A & B <C>"),
        *("--mac-package-identifier", "com.a-b.backup"),
        "--no-runtime",
        cwd=directory,
    )
    assert run == (0, ["Made dist/Orvane.app"])
    return directory / "dist"


def test_the_jars_are_installed_as_they_are_and_listed_in_the_order_of_the_class_path(
    vendor, product
):
    mine = vendor / "mine"
    lib = product / CONTENTS / "Resources/lib"
    files = {path.relative_to(lib).as_posix() for path in lib.rglob("*") if path.is_file()}
    assert files == {LISTING_JAR, *NAMES}
    for name in NAMES:
        source = mine / name if name in ("service.jar", "broken.jar") else mine / "lib" / name
        assert (lib / name).read_bytes() == source.read_bytes()
        assert (lib / name).stat().st_mtime == source.stat().st_mtime
    with zipfile.ZipFile(lib / LISTING_JAR) as jar:
        assert jar.namelist() == [MANIFEST]
        assert jar.read(MANIFEST) == (
            b"Manifest-Version: 1.0\r\n"
            b"Class-Path: service.jar Upper.JAR below/one.jar descriptor-1.0+5.jar ver\r\n"
            b" sioned.jar xml-apis.jar broken.jar\r\n"
            b"\r\n"
        )


SAMPLE = """\
755 Contents/
644 Contents/Info.plist
755 Contents/Library/
755 Contents/Library/LaunchServices/
755 Contents/Library/LaunchServices/OrvaneService.app/
755 SERVICE/
755 SERVICE/Frameworks/
644 SERVICE/Info.plist
755 SERVICE/MacOS/
755 SERVICE/MacOS/OrvaneService
755 SERVICE/Resources/
755 SERVICE/Resources/bin/
755 SERVICE/Resources/bin/service-version
755 SERVICE/Resources/conf/
644 SERVICE/Resources/conf/service.log.xml
755 SERVICE/Resources/lang/
644 SERVICE/Resources/lang/messages.properties
755 SERVICE/Resources/launchd/
644 SERVICE/Resources/launchd/com.vaultory.service.agent.plist.in
644 SERVICE/Resources/launchd/com.vaultory.service.plist
755 SERVICE/Resources/lib/
644 SERVICE/Resources/lib/com.vaultory.desktop.jar
755 SERVICE/Resources/operator/
755 SERVICE/Resources/operator/check-install
644 SERVICE/Resources/operator/common.sh
755 SERVICE/Resources/operator/install
755 SERVICE/Resources/operator/operator-tool
755 SERVICE/Resources/operator/uninstall
"""


def test_the_files_of_the_sample_have_modes_that_do_not_depend_on_the_umask(samples):
    for maker in samples:
        assert listing(maker.dest / "Orvane.app") == SAMPLE
        resources = maker.dest / CONTENTS / "Resources"
        with zipfile.ZipFile(resources / "lib" / LISTING_JAR) as jar:
            assert f"\r\nImplementation-Version: {VERSION}\r\n".encode() in jar.read(MANIFEST)


def test_the_vendor_s_files_are_readable_for_everybody(product):
    programs = product / CONTENTS / "Resources/bin"
    assert listing(programs) == "755 backup-tool\n644 settings\n"
    assert stat.S_IMODE(programs.stat().st_mode) == 0o755


def listing(directory):
    """A line for each file and directory below: permissions and path."""
    lines = []
    for path in sorted(directory.rglob("*")):
        mode = f"{stat.S_IMODE(path.stat().st_mode):o}"
        lines.append(f"{mode} {path.relative_to(directory)}{'/' * path.is_dir()}\n")
    return "".join(lines).replace(CONTENTS.partition("/")[2], "SERVICE")


def property_list(file):
    """The keys and their values; no key is there twice."""
    keys = re.findall("<key>(.*)</key>", file.read_text())
    assert sorted(keys) == sorted(set(keys))
    return plistlib.loads(file.read_bytes())


def test_the_property_lists_of_the_bundles_name_the_product(product):
    common = {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundlePackageType": "APPL",
        "CFBundleShortVersionString": "2.13",
        "CFBundleVersion": "2.13",
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "LSMinimumSystemVersion": "11.0",
        "NSHumanReadableCopyright": "© A & B <C>",
    }
    assert property_list(product / "Orvane.app/Contents/Info.plist") == {
        **common,
        "CFBundleIdentifier": "com.a-b.backup",
        "CFBundleName": "Orvane",
    }
    assert property_list(product / CONTENTS / "Info.plist") == {
        **common,
        "CFBundleIdentifier": "com.a-b.backup.service",
        "CFBundleName": "OrvaneService",
        "CFBundleExecutable": "OrvaneService",
        "LSBackgroundOnly": True,
        "NSLocalNetworkUsageDescription": "The service connects to devices in your local network.",
    }


def test_the_property_lists_of_the_jobs_name_the_installed_launcher(product):
    directory = f"/Applications/{CONTENTS}/MacOS"
    common = {
        "AssociatedBundleIdentifiers": "com.a-b.backup",
        "RunAtLoad": True,
        "KeepAlive": {"SuccessfulExit": False},
        "ThrottleInterval": 30,
        "ExitTimeOut": 60,
        "ProcessType": "Standard",
    }
    launchd = product / CONTENTS / "Resources/launchd"
    assert property_list(launchd / "com.vaultory.service.plist") == {
        **common,
        "Label": "com.vaultory.service",
        "ProgramArguments": [f"{directory}/OrvaneService"],
        "WorkingDirectory": directory,
        "StandardOutPath": "/Library/Logs/OrvaneService.log",
        "StandardErrorPath": "/Library/Logs/OrvaneService.log",
    }
    assert property_list(launchd / "com.vaultory.service.agent.plist.in") == {
        **common,
        "Label": "com.vaultory.service.agent",
        "ProgramArguments": [f"@HOME@{directory}/OrvaneService", "-Duser.install=1"],
        "WorkingDirectory": f"@HOME@{directory}",
        "StandardOutPath": "@HOME@/Library/Logs/OrvaneService.log",
        "StandardErrorPath": "@HOME@/Library/Logs/OrvaneService.log",
    }
