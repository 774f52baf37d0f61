"""The property lists of the installed bundle, parsed and compared whole."""

import os
import pathlib
import plistlib
import re
import unittest

from support import ROOT, VERSION

OUTER = pathlib.Path(os.environ["BUILD_DIR"]) / "Applications/Orvane.app/Contents"
SERVICE = "Library/LaunchServices/OrvaneService.app/Contents"
LAUNCHD = OUTER / SERVICE / "Resources/launchd"
ENTITLEMENTS = ["allow-jit", "allow-unsigned-executable-memory", "disable-library-validation"]


def info(**more):
    return {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundlePackageType": "APPL",
        "CFBundleShortVersionString": VERSION,
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "CFBundleVersion": VERSION,
        "LSMinimumSystemVersion": "11.0",
        "NSHumanReadableCopyright": "© Vaultory",
        **more,
    }


def job(label, home, *arguments):
    directory = f"{home}/Applications/Orvane.app/Contents/{SERVICE}/MacOS"
    return {
        "AssociatedBundleIdentifiers": "com.vaultory.orvane",
        "Label": label,
        "ProgramArguments": [directory + "/OrvaneService", *arguments],
        "WorkingDirectory": directory,
        "RunAtLoad": True,
        "KeepAlive": {"SuccessfulExit": False},
        "ThrottleInterval": 30,
        "ExitTimeOut": 60,
        "ProcessType": "Standard",
        "StandardOutPath": home + "/Library/Logs/OrvaneService.log",
        "StandardErrorPath": home + "/Library/Logs/OrvaneService.log",
    }


class PropertyLists(unittest.TestCase):
    def test_the_service_bundle_is_described_as_a_background_program(self):
        self.assertEqual(
            info(CFBundleName="OrvaneService", CFBundleIdentifier="com.vaultory.orvane.service",
                 CFBundleExecutable="OrvaneService", LSBackgroundOnly=True),
            plistlib.loads((OUTER / SERVICE / "Info.plist").read_bytes()))

    def test_the_outer_bundle_is_described_without_an_executable(self):
        self.assertEqual(info(CFBundleName="Orvane", CFBundleIdentifier="com.vaultory.orvane"),
                         plistlib.loads((OUTER / "Info.plist").read_bytes()))

    def test_the_entitlements_are_the_launcher_s_three_and_java_s_two_and_plain_text(self):
        for name, expected in (("OrvaneService", ENTITLEMENTS), ("java", ENTITLEMENTS[:2])):
            text = (ROOT / f"bundle/{name}.entitlements").read_bytes()
            self.assertEqual({f"com.apple.security.cs.{what}": True for what in expected},
                             plistlib.loads(text))
            self.assertTrue(text.startswith(b"<?xml "))
            self.assertEqual([], [mark for mark in (b"\r", b"<!--") if mark in text])

    def test_the_daemon_runs_the_system_wide_installation(self):
        self.assertEqual(job("com.vaultory.service", ""),
                         plistlib.loads((LAUNCHD / "com.vaultory.service.plist").read_bytes()))

    def test_an_agent_runs_the_installation_in_a_home_to_be_filled_in(self):
        text = (LAUNCHD / "com.vaultory.service.agent.plist.in").read_bytes()
        self.assertEqual(job("com.vaultory.service.agent", "@HOME@", "-Duser.install=1"),
                         plistlib.loads(text))
