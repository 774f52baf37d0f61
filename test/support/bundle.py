"""The bundle with its real Java runtime: Orvane.app of BUILD_DIR/Applications, and one
with a second JDK if the build has made it. Fixtures are in end_to_end/conftest.py."""

import json
import pathlib
import re

import pytest

from . import BUILD_DIR, CONTENTS, LINUX, expected
from .launcher import OVERRIDE_FILE

APPLICATIONS = BUILD_DIR / "Applications"
SECOND_APPLICATIONS = BUILD_DIR / "second-jdk/Applications"
JAR = "lib/com.vaultory.desktop.jar"
CDS_ARCHIVE = "jre/lib/server/classes.jsa"

MODES = ["system-wide", "per-user"]
_SECOND = ["second JDK"] if SECOND_APPLICATIONS.exists() else []
JDKS = ["per-user", *_SECOND]
with_every_jdk = pytest.mark.parametrize("bundle", [*MODES, *_SECOND], indirect=True)


def java_version(applications):
    release = applications / CONTENTS / "Resources/jre/release"
    return re.search('JAVA_VERSION="(.*)"', release.read_text()).group(1)


class Bundle:
    """A bundle in the root, in a home directory for per-user runs."""

    def __init__(self, root, home=""):
        self.root = root
        self.home = home
        self.app = pathlib.Path(home or "/", "Applications/Orvane.app")
        self.contents = self.app.parent / CONTENTS
        self.override_file = home + OVERRIDE_FILE

    def copy(self, root, home):
        """Installs a copy to be changed, of hard links: what a test changes, it replaces."""
        copy = Bundle(root, home)
        root.directory(copy.app.parent)
        assert root.run(["cp", "-al" if LINUX else "-cRp", self.app, copy.app]) == (0, b"", b"")
        return copy

    def resource(self, name):
        return self.contents / "Resources" / name

    def replace(self, name, content):
        """Replaces a file of Resources, or removes it if content is None."""
        self.resource(name).unlink()
        if content is not None:
            self.root.put(self.resource(name), content)

    def truncate(self, name, size):
        """Truncates a file of Resources, or removes it if the size is 0."""
        self.replace(name, self.resource(name).read_bytes()[:size] or None)

    def start(self, *arguments, tool_options=None, prefix=()):
        """Starts the launcher, through a command such as prlimit if there is a prefix."""
        # A Mac's names of files are UTF-8 in any locale.
        env = {"LC_ALL": "C.UTF-8", **({"JAVA_TOOL_OPTIONS": tool_options} if tool_options else {})}
        command = ["./OrvaneService", *["-Duser.install=1"] * bool(self.home), *arguments]
        return self.root.start([*prefix, *command], cwd=self.contents / "MacOS", env=env)

    def run(self, *arguments, **options):
        with self.start(*arguments, **options) as process:
            return process.finish()

    def until_vm(self, *arguments, lines=None):
        """Standard output at the time the VM is created."""
        return expected.before_vm(self.home.encode(), lines, arguments)

    def until_main(self, *arguments, lines=None):
        """The same at the time main is called."""
        return self.until_vm(*arguments, lines=lines) + expected.STARTING

    def report(self, result, *arguments, lines=None, stderr=b""):
        """The sample's JSON out of a run's output, all else of which is compared."""
        head, tail = self.until_main(*arguments, lines=lines), expected.COMPLETE
        service = result.stdout[len(head) : -len(tail)]
        assert result == (0, head + service + tail, stderr)
        return json.loads(service)
