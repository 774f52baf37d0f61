"""Which layer may include which: jvm and jvmargs nothing of the project but themselves,
launcher both, and nothing launcher."""

import re
import unittest

from support import ROOT

SRC = ROOT / "src"


def included_layers(layer):
    """The layers, by directory, whose headers the layer's files include."""
    included = set()
    for file in (SRC / layer).iterdir():
        for header in re.findall(r'^#include "(.*)"', file.read_text(), re.MULTILINE):
            included.add(header.partition("/")[0])
    return included


class Layers(unittest.TestCase):
    def test_the_layers_are_these_three(self):
        self.assertEqual({"launcher", "jvmargs", "jvm"},
                         {path.name for path in SRC.iterdir() if path.is_dir()})

    def test_the_embedded_vm_knows_only_itself(self):
        self.assertEqual({"jvm"}, included_layers("jvm"))

    def test_the_option_list_knows_only_itself(self):
        self.assertEqual({"jvmargs"}, included_layers("jvmargs"))

    def test_the_launcher_knows_both_and_has_no_header(self):
        self.assertEqual({"jvm", "jvmargs"}, included_layers("launcher"))
        self.assertEqual([], list((SRC / "launcher").glob("*.h")))

    def test_no_function_is_cut_by_a_platform_condition(self):
        conditions = [file.name for file in SRC.rglob("*.*")
                      if re.search(r"^\s*#\s*if", file.read_text(), re.MULTILINE)]
        self.assertEqual([], conditions)
