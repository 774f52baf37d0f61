"""What the documents and the scripts repeat of the product, which a reader would trust."""

import re

from support import ROOT

OPERATING = (ROOT / "docs/operating.md").read_text()
SERVICES = (ROOT / "docs/services.md").read_text()
SOURCES = "".join(file.read_text() for file in sorted((ROOT / "src").glob("*/*.cpp")))
ALLOWED = re.findall('"(.*)"', re.search(r"(?s)WHITE_LIST_FILE_ARGS = \{(.*?)\}", SOURCES).group(1))


def section(text, heading, end="## "):
    """What is between the line HEADING and the next line that begins with END."""
    return re.search(rf"(?ms)^{heading}\n(.*?)(?=^{end}|\Z)", text).group(1)


def first_column(table):
    """The cells of a table's first column that are code, without the backquotes."""
    cells = re.findall(r"^\| (`[^|]*) \|", table, re.MULTILINE)
    return [code for cell in cells for code in re.findall("`([^`]+)`", cell)]


def anchors(document):
    """What a link can have after its "#": the headings, as GitHub spells them."""
    headings = re.findall(r"^#+ (.*)$", document.read_text(), re.MULTILINE)
    return [re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-") for heading in headings]


def test_every_link_of_a_document_leads_to_a_file_and_to_a_heading():
    dead = []
    for document in [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *ROOT.glob("bench/*.md")]:
        for link in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
            name, _, anchor = link.partition("#")
            target = document.parent / name if name else document
            if ":" in name or target.exists() and (not anchor or anchor in anchors(target)):
                continue
            dead.append(f"{document.relative_to(ROOT)}: {link}")
    assert dead == []


def test_the_tests_and_the_operators_guide_list_the_prefixes_that_the_launcher_allows():
    assert (ROOT / "test/support/allowed_prefixes.txt").read_text().splitlines() == ALLOWED
    guide = section(OPERATING, "## Override file")
    assert re.findall(r"^    (-\S+)", guide, re.MULTILINE) == ALLOWED


def test_the_operators_scripts_allow_the_prefixes_that_the_launcher_allows():
    scripts = [file for file in sorted((ROOT / "operator").iterdir()) if file.is_file()]
    patterns = {
        file.name: line
        for file in scripts
        for line in file.read_text().splitlines()
        if line.startswith("allowed=")
    }
    assert patterns
    for script, pattern in patterns.items():
        prefixes = re.findall(r"-[XD][\w.]+=?", pattern.replace("\\", ""))
        assert prefixes == ALLOWED, script


def test_the_launchers_messages_are_documented_as_it_prints_them():
    messages = first_column(section(OPERATING, "## Messages", "Not from the launcher"))
    assert len(messages) > 10
    variable = r"'?\b[NX]\b|system$|'com/|'main'"
    assert [message for message in messages if re.split(variable, message)[0] not in SOURCES] == []


def test_the_properties_that_the_launcher_sets_are_documented():
    options = (ROOT / "test/support/default_options.txt").read_text().splitlines()
    names = {option[2:].partition("=")[0] for option in options if option.startswith("-D")}
    described = first_column(section(SERVICES, "## Properties"))
    assert sorted(described) == sorted(names | {"user.install"})
