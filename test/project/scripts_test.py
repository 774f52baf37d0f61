import os
import re

import pytest

from support import ROOT

SCRIPTS = [
    file
    for place in ("script", "operator", ".ci")
    for file in sorted((ROOT / place).iterdir())
    if file.is_file() and file.read_bytes().startswith(b"#!")
]


@pytest.mark.parametrize("script", SCRIPTS, ids=lambda script: script.name)
def test_a_script_can_be_called_and_runs_with_the_tools_of_a_mac(script):
    text = script.read_text()
    assert os.access(script, os.X_OK)
    assert not re.search(r"grep -\w*[ZP]", text)
    # Its bash 3.2 takes an empty array for unset: the script has to look at the number of elements first.
    for name in re.findall(r"\b(\w+)=\(\)", text):
        expanded = re.search(rf'(?<!\+)"\${{{name}\[@\]}}"', text)
        assert not expanded or f"[ ${{#{name}[@]}} " in text[: expanded.start()]
