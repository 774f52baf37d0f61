"""The installed bundle on its real Java runtime."""

import json
import os
import pathlib
import shutil

from . import CONTENTS, expected
from .machine_root import Root
from .private_root import BUILD_DIR

APPLICATIONS = pathlib.Path(os.environ.get("APPLICATIONS", BUILD_DIR / "Applications"))
RESOURCES = APPLICATIONS / CONTENTS / "Resources"
JAR = "lib/com.vaultory.desktop.jar"
CDS_ARCHIVE = "jre/lib/server/classes.jsa"


class Bundle:
    """A private root with the bundle where a system-wide installation has it, or that of the
    home: the installed one itself, read-only, or a copy of it for the test to change."""

    def __init__(self, test, home="", copied=False, applications=APPLICATIONS):
        self.root = Root(test)
        self.home = home
        self.contents = f"{home}/Applications/{CONTENTS}"
        if copied:
            for app in applications.iterdir():
                shutil.copytree(app, self.root.path(f"{home}/Applications/{app.name}"),
                                symlinks=True, copy_function=linked)
        else:
            self.root.path(home + "/Applications").mkdir(parents=True, exist_ok=True)
            self.root.bind(applications, home + "/Applications")

    def resource(self, name):
        """Where the test finds a file of the copied Resources."""
        return self.root.path(f"{self.contents}/Resources/{name}")

    def replace(self, name, content):
        """Puts other bytes into the place of a copied resource, or takes it away."""
        self.resource(name).unlink()
        if content is not None:
            self.resource(name).write_bytes(content)

    def command(self, *arguments):
        marker = ["-Duser.install=1"] if self.home else []
        return ["./OrvaneService", *marker, *arguments]

    def how(self, tool_options=None):
        env = {"LC_ALL": "C.UTF-8"}  # a Mac's names of files are UTF-8 in any locale
        if tool_options:
            env["JAVA_TOOL_OPTIONS"] = tool_options
        return {"cwd": self.contents + "/MacOS", "env": env}

    def run(self, *arguments, tool_options=None):
        return self.root.run(self.command(*arguments), **self.how(tool_options))

    def start(self, *arguments):
        return self.root.start(self.command(*arguments), **self.how())

    def override(self, *lines):
        path = self.home + "/Library/Application Support/Quillrest/conf/jvm_args"
        self.root.put(path, b"".join(line + b"\n" for line in lines))

    def stdout(self, *arguments, lines=None, service=b""):
        """Standard output of a run whose main wrote service and returned."""
        return expected.stdout(self.home.encode(), lines, arguments, service)

    def until_main(self, *arguments, lines=None):
        """Standard output up to the first that main writes."""
        return expected.before_vm(self.home.encode(), lines, arguments) + expected.STARTING

    def report(self, stdout, *arguments, lines=None):
        """The sample's JSON out of a run's standard output; None if the rest is not right."""
        head, tail = self.until_main(*arguments, lines=lines), expected.COMPLETE
        if not (stdout.startswith(head) and stdout.endswith(tail)):
            return None
        return json.loads(stdout[len(head):-len(tail)])


def in_each_mode(test, **how):
    """A system-wide bundle and then a per-user one."""
    return (Bundle(test, home, **how) for home in ("", "/Users/alice"))


def linked(source, target):
    """Copies a file without its bytes where it can: what a test changes, it replaces."""
    try:
        os.link(source, target)
    except OSError:
        shutil.copy2(source, target)
