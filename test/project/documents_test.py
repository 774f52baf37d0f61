"""What the documents repeat of the product and of each other, which a reader would trust."""

import re

import pytest

from support import ROOT

OPERATING = (ROOT / "docs/operating.md").read_text()
SOURCES = "".join(file.read_text() for file in sorted((ROOT / "src").glob("*/*.cpp")))


def section(text, head, end):
    return re.search(rf"^{head}\n(.*?)(?=^{end})", text, re.MULTILINE | re.DOTALL).group(1)


def test_every_link_of_a_document_leads_to_a_file():
    documents = [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *ROOT.glob("bench/*.md")]
    assert [
        f"{document.relative_to(ROOT)}: {link}"
        for document in documents
        for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", document.read_text())
        if not (document.parent / link).exists()
    ] == []


@pytest.mark.parametrize(
    "file, text, prefix",
    [
        ("test/support/allowed_prefixes.txt", r"(?s)(.*)", r"(.+)"),
        ("operator/common.sh", r"\nallowed='(.*)'\n", r"(-[XD][\w.]+=?)"),
        ("docs/operating.md", r"(?s)\n## Override file\n(.*?)\n## ", r"^    (-\S+)"),
    ],
)
def test_every_place_lists_the_prefixes_that_the_launcher_allows(file, text, prefix):
    allowed = re.search(r"(?s)WHITE_LIST_FILE_ARGS = \{(.*?)\}", SOURCES).group(1)
    listed = re.search(text, (ROOT / file).read_text()).group(1).replace("\\", "")
    assert re.findall(prefix, listed, re.MULTILINE) == re.findall('"(.*)"', allowed)


def test_the_launchers_messages_are_documented_as_it_prints_them():
    table = section(OPERATING, "## Messages", "Not from the launcher")
    messages = re.findall(r"^\| `([^`]+)`", table, re.MULTILINE)
    assert len(messages) > 10
    variable = r"'?\b[NX]\b|system$|'com/|'main'"
    assert [message for message in messages if re.split(variable, message)[0] not in SOURCES] == []
