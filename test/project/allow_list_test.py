import re
import unittest

from support import ROOT

# Where the allow-list of the override file is written for another reader, and how.
PLACES = {
    "test/support/allowed_prefixes.txt": ("(.*)", r"(.+)"),
    "operator/check-install": (r"allowed=\((.*?)\)", r"(\S+)"),
    "docs/operating.md": (r"\n## Override file\n(.*?)\n## ", r"^    (-\S+)"),
    "bundle/OrvaneService.8": (r"\n\.Ss The override file\n(.*?)\n\.S", r"^\.Ql (-\S+)"),
}


def prefixes(file, section, word):
    text = re.search(section, (ROOT / file).read_text(), re.DOTALL).group(1)
    return re.findall(word, text, re.MULTILINE)


class AllowList(unittest.TestCase):
    def test_each_place_lists_the_prefixes_that_the_launcher_allows(self):
        allowed = prefixes("src/launcher/main.cpp", r"WHITE_LIST_FILE_ARGS = \{(.*?)\}", '"(.*)"')
        self.assertGreater(len(allowed), 0)
        for file, where in PLACES.items():
            with self.subTest(file):
                self.assertEqual(prefixes(file, *where), allowed)
