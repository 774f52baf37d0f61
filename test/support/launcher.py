"""The launcher over the recording stand-in for the Java runtime: the one that was built, or the slice
of the macOS executable in SLICE, a directory of build/macho (see script/cross-macos)."""

import os
import pathlib
import typing

from . import BUILD_DIR, CONTENTS, LINUX, expected
from .root import SCRATCH

LIBRARY = "libjvm.so" if LINUX else "libjvm.dylib"
_DIRECTORY = pathlib.Path(os.environ.get("SLICE", "."))
SLICE = _DIRECTORY.name  # x86_64, arm64 or nothing
if SLICE:
    PROGRAM = _DIRECTORY / "OrvaneService"
    RUNTIME = _DIRECTORY / LIBRARY
else:
    PROGRAM = BUILD_DIR / "src/OrvaneService"
    RUNTIME = BUILD_DIR / "test/runtime" / LIBRARY
_MACHINE = SLICE.replace("arm64", "aarch64")
EMULATOR = (
    [f"qemu-{_MACHINE}", "-L", f"/usr/{_MACHINE}-linux-gnu"]
    if SLICE and _MACHINE != os.uname().machine
    else []
)
ABORTED = 128 + 6

PER_USER = b"-Duser.install=1"
SYSTEM_WIDE = b"-Duser.install=0"
ALICE = b"/Users/alice"
OVERRIDE_FILE = "/Library/Application Support/Quillrest/conf/jvm_args"


class Run(typing.NamedTuple):
    """A run of the launcher: its output, its calls of the runtime and its end, which is
    normal if it went through the exit routine."""

    status: int
    stdout: bytes
    stderr: bytes
    calls: list
    normal_end: bool = True


def finished(home=b"", lines=None, arguments=()):
    """A run whose Java main returned; arguments as for expected.stdout."""
    return Run(
        0, expected.stdout(home, lines, arguments), b"", expected.calls(home, lines, arguments)
    )


class Launcher:
    """A bundle with the launcher and the stand-in in an Applications directory of the root; the
    working directory is the launcher's directory by default."""

    def __init__(self, root, applications="/Applications"):
        self.root = root
        self.contents = f"{applications}/{CONTENTS}"
        self.directory = self.contents + "/MacOS"
        self.program = self.directory + "/OrvaneService"
        root.put(self.program, PROGRAM)
        self.put_runtime(self.contents)

    def put_runtime(self, contents, directory="server"):
        self.root.put(f"{contents}/Resources/jre/lib/{directory}/{LIBRARY}", RUNTIME)

    def put_override_file(self, content, home=""):
        """Writes the override file of an installation and returns its path."""
        return self.root.put(home + OVERRIDE_FILE, content)

    def start(
        self,
        *arguments,
        program=None,
        cwd=None,
        record=SCRATCH + "/calls",
        streams=None,
        prefix=(),
        env=None,
        **behaviour,
    ):
        """Starts the launcher, through a command such as strace if there is a prefix, and returns a
        Process. A behaviour such as create_status=-1 is the stand-in's (see runtime/runtime.h);
        streams are as for Root.start."""
        variables = {"RUNTIME_" + name.upper(): str(value) for name, value in behaviour.items()}
        return self.root.start(
            [*prefix, *EMULATOR, program or self.program, *arguments],
            cwd=cwd or self.directory,
            env={"RUNTIME_RECORD": record, **variables, **(env or {})},
            **(streams or {}),
        )

    def run(self, *arguments, **options):
        """Runs the launcher to its end; arguments as for start."""
        record = self.root.put(SCRATCH + "/calls", b"")
        with self.start(*arguments, **options) as process:
            result = process.finish()
        # Older versions of libc++ say "with".
        stderr = result.stderr.replace(b"terminating with unc", b"terminating due to unc")
        result = result._replace(stderr=stderr)
        lines = record.read_text().splitlines()
        normal_end = lines[-1:] == ["exit"]
        return Run(*result, lines[:-1] if normal_end else lines, normal_end)
