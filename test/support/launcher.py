"""The launcher over the recording stand-in for the Java runtime: the installed one, or the slice of
the macOS executable that SLICE names, a directory of build/macho (see script/cross-macos)."""

import os
import pathlib
import typing

from . import CONTENTS, expected
from .machine_root import Root
from .private_root import BUILD_DIR

LIBRARY = "libjvm.so" if os.uname().sysname == "Linux" else "libjvm.dylib"
_DIRECTORY = pathlib.Path(os.environ.get("SLICE", "."))
SLICE = _DIRECTORY.name  # x86_64, arm64 or nothing
if SLICE:
    PROGRAM = _DIRECTORY / "OrvaneService"
    RUNTIME = _DIRECTORY / LIBRARY
else:
    PROGRAM = BUILD_DIR / "Applications" / CONTENTS / "MacOS/OrvaneService"
    RUNTIME = BUILD_DIR / "test/runtime" / LIBRARY
EMULATOR = ["qemu-aarch64-static", "-L", "/usr/aarch64-linux-gnu"] if SLICE == "arm64" else []
ABORTED = 128 + 6


class Run(typing.NamedTuple):
    """A run of the launcher: its output, its calls of the runtime and its end, which is
    normal if it went through the exit routine."""
    status: int
    stdout: bytes
    stderr: bytes
    calls: list
    normal_end: bool = True


def finished(home=b"", lines=None, arguments=(), service=b""):
    """A run whose Java main returned; arguments as for expected.stdout."""
    return Run(0, expected.stdout(home, lines, arguments, service), b"",
               expected.calls(home, lines, arguments))


class Launcher:
    """A bundle with the launcher and the stand-in, in an Applications directory of a private
    root; the working directory is the launcher's directory unless a run says otherwise."""

    def __init__(self, test, applications="/Applications"):
        self.root = Root(test)
        self.directory = f"{applications}/{CONTENTS}/MacOS"
        self.program = self.directory + "/OrvaneService"
        self.root.put(self.program, PROGRAM)
        self.put_runtime(f"{applications}/{CONTENTS}")

    def put_runtime(self, contents, directory="server"):
        self.root.put(f"{contents}/Resources/jre/lib/{directory}/{LIBRARY}", RUNTIME)

    def put_override_file(self, content, home=""):
        """Writes the override file of an installation and returns where it lies."""
        path = home + "/Library/Application Support/Quillrest/conf/jvm_args"
        self.root.put(path, content)
        return self.root.path(path)

    def start(self, *arguments, program=None, cwd=None, record="/tmp/calls", streams=None,
              by=(), env=None, **behaviour):
        """Starts the launcher, by way of a command such as strace if need be, and returns a
        Process. A behaviour such as create_status=-1 is the stand-in's (see
        runtime/runtime.h); streams are as for PrivateRoot.start."""
        told = {"RUNTIME_" + name.upper(): str(value) for name, value in behaviour.items()}
        return self.root.start([*by, *EMULATOR, program or self.program, *arguments],
                               cwd=cwd or self.directory,
                               env={"RUNTIME_RECORD": record, **told, **(env or {})},
                               **(streams or {}))

    def run(self, *arguments, **how):
        """Runs the launcher to its end; arguments as for start."""
        record = self.root.path("/tmp/calls")
        self.root.put("/tmp/calls", b"")
        with self.start(*arguments, **how) as process:
            result = process.finish()
        lines = record.read_text().splitlines()
        normal_end = lines[-1:] == ["exit"]
        return Run(*result, lines[:-1] if normal_end else lines, normal_end)
