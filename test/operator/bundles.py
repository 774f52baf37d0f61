"""Bundles of a few files, laid out by the bundler: names and property lists are the product's. So are their
scripts, but for the directory of the stand-ins at the front of PATH, and shorter waits."""

import os
import re
import shutil
import sys

from support import BUILD_DIR, CONTENTS, ROOT

sys.path.insert(0, str(ROOT / "script"))
from bundler.layout import Product, make_layout  # noqa: E402

from stand_ins import OPERATOR_TOOL  # noqa: E402

# It is copied into the tests' directory, where any account can execute it.
TOOL = BUILD_DIR / "src/operator-tool"
# What the service does. Its command line tells the version as long as it runs. "dies" ends when a test says
# so, later than install looks.
PROGRAMS = {
    "stays": "exec -a version-VERSION sleep 100000",
    "crashes": "printf 'no \\033[31mvalid configuration\\n' >&2; exit 1",
    "exits": "exit 0",
    "dies": "exec bash -c 'until [ -e DIRECTORY/die ]; do sleep 0.02; done; exit 3' version-VERSION",
    "ignores": "trap '' TERM; exec -a version-VERSION sleep 100000",
    "lingers": "exec bash -c 'trap \"sleep 0.2; exit 143\" TERM; while :; do sleep 0.05; done' "
    "version-VERSION",
}
SERVICE = """#!/bin/bash
# @(#)OrvaneService 1.0.0
PROGRAM
"""


def make_bundle(directory, app, version, program, team, limits, interposed):
    """Makes the bundle with this program as its service, signed if there is a team. Its operator-tool is
    the product's, or a stand-in that runs it."""
    work = directory / "making"
    shutil.rmtree(work, ignore_errors=True)
    service = SERVICE.replace("PROGRAM", PROGRAMS[program]).replace("DIRECTORY", str(directory))
    service = service.replace("VERSION", version)
    put(work / "OrvaneService", service.encode(), 0o755)
    put(work / "service.jar", b"")
    put(work / "operator-tool", stand_in(OPERATOR_TOOL, directory), 0o755)
    make_layout(
        app,
        executable=work / "OrvaneService",
        operator_tool=(work if interposed else directory) / "operator-tool",
        jars={"service.jar": work / "service.jar"},
        product=Product(version=version),
    )
    resources = app.parent / CONTENTS / "Resources"
    put(resources / "jre/release", b'IMPLEMENTOR="x"\nJAVA_VERSION="17.0.9"\n')
    for script in (ROOT / "operator").iterdir():
        put(resources / "operator" / script.name, script_text(script, directory, limits), 0o755)
    for contents in (app.parent / CONTENTS, app / "Contents") if team else ():
        put(contents / "_CodeSignature/CodeResources", team.encode())
    shutil.rmtree(work)


def stand_in(text, directory):
    """A stand-in's script."""
    text = text.replace("DIRECTORY", str(directory))
    return f"#!/bin/sh\n{text}\n".encode()


def script_text(script, directory, limits):
    """A script of the product as the tests run it; the limits are {name: seconds}."""
    text = script.read_text()
    text, paths = re.subn(
        r"(?m)^export PATH=(?=/usr/bin:/bin:/usr/sbin:/sbin$)", rf"\g<0>{directory}/bin:", text
    )
    if script.name == "common.sh":
        assert paths == 1
        for name, seconds in limits.items():
            text, found = re.subn(rf"(?m)^{name}=[0-9]+\b", f"{name}={seconds}", text)
            assert found == 1, name
    return text.encode()


def put(path, content, mode=0o644):
    """Writes a file, and returns its path."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    path.write_bytes(content)
    path.chmod(mode)
    return path


def delete(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    elif os.path.lexists(path):
        path.unlink()
