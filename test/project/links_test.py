import re
import unittest

from support import ROOT


class Links(unittest.TestCase):
    def test_every_link_of_a_document_leads_to_a_file(self):
        documents = [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *ROOT.glob("bench/*.md")]
        broken = [f"{document.relative_to(ROOT)}: {link}"
                  for document in documents
                  for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", document.read_text())
                  if not (document.parent / link).exists()]
        self.assertEqual([], broken)
