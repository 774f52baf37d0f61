"""The hosted build: what it names exists, and in an order that can work."""

import os
import re
import unittest

from support import CONTENTS, ROOT

WORKFLOW = (ROOT / ".github/workflows/ci.yml").read_text()


class Workflow(unittest.TestCase):
    def test_the_commands_and_directories_are_there(self):
        named = set(re.findall(r" ((?:script|operator|\.ci)/[\w-]+)", WORKFLOW))
        self.assertGreater(len(named), 2)
        self.assertEqual([], [name for name in sorted(named) if not os.access(ROOT / name, os.X_OK)])
        self.assertEqual([f"/Applications/{CONTENTS}/Resources/operator"],
                         re.findall("tools=(.*)", WORKFLOW))
        self.assertEqual([f"build/release/Applications/{CONTENTS}/MacOS"],
                         re.findall("working-directory: (.*)", WORKFLOW))

    def test_no_image_is_retired(self):
        self.assertEqual([], re.findall(r"(?:ubuntu-(?:18|20)|macos-1[0-4])\b.*", WORKFLOW))

    def test_a_Mac_tests_before_it_signs_and_packs_last(self):
        found = [WORKFLOW.find(words) for words in (
            'THROW_AWAY_MACHINE: "yes"', "script/test", "script/sign-macos --hardened -",
            "./OrvaneService", '$tools/install"', '$tools/check-install"', "do cpack")]
        self.assertEqual(found, sorted(found))
        self.assertNotIn(-1, found)
