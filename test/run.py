"""Runs one suite of tests, a directory beside this file: run.py SUITE [PYTEST-ARGUMENT...].
BUILD_DIR names the build directory. The tests use /Applications, /Library and /Users themselves:

  in a namespace, if one can be made: the three are empty there, /tmp and the network are private
  on this machine, as root on Linux if it has none of the three, as in a container, or on a Mac whose
      owner says THROW_AWAY_MACHINE=yes, through sudo; one suite at a time
  nowhere otherwise: tests that need them are skipped with the reason, or fail if CI is set"""

import fcntl
import os
import pathlib
import shutil
import signal
import subprocess
import sys

TEST = pathlib.Path(__file__).resolve().parent
ROOT = TEST.parent
BUILD_DIR = pathlib.Path(os.environ.get("BUILD_DIR", ROOT / "build/release")).resolve()
JOURNAL = ROOT / "build/test-root.journal"
LINUX = sys.platform == "linux"
DIRECTORIES = [pathlib.Path("/", name) for name in ("Applications", "Library", "Users")]
AS_ROOT = ["operator"]  # suites whose tests are root, if only of a namespace


def python():
    """The interpreter that has pytest: the one of build/venv, this one, or the system's."""
    for program in ROOT / "build/venv/bin/python3", sys.executable, "/usr/bin/python3":
        if (
            os.access(program, os.X_OK)
            and subprocess.run(
                [program, "-c", "import pytest"], stderr=subprocess.DEVNULL
            ).returncode
            == 0
        ):
            return str(program)
    sys.exit(f"run.py: no pytest for {sys.executable}; call script/test, which installs it")


def bwrap(*how):
    """The command that starts another in a namespace made in this manner."""
    command = ["bwrap", *how, "--unshare-pid", "--unshare-net", "--die-with-parent", "--tmpfs", "/"]
    for entry in sorted(pathlib.Path("/").iterdir()):
        if entry.is_symlink():
            command += ["--symlink", os.readlink(entry), str(entry)]
        elif entry.is_dir() and os.access(entry, os.X_OK) and entry not in DIRECTORIES:
            command += ["--bind", str(entry), str(entry)]
    for directory in DIRECTORIES:
        command += ["--dir", str(directory)]
    command += ["--dev", "/dev", "--proc", "/proc", "--perms", "1777", "--tmpfs", "/tmp"]
    for needed in ROOT, BUILD_DIR:  # which may be below /tmp
        command += ["--bind", str(needed), str(needed)]
    return [*command, "--"]


def namespace(suite):
    """bwrap's command if it works here, otherwise what it says."""
    if not shutil.which("bwrap"):
        return None, "there is no bwrap; install bubblewrap"
    uid = "0" if suite in AS_ROOT else "1000"
    mapped = [
        "--unshare-user",
        "--uid",
        uid,
        "--gid",
        uid,
        *(["--cap-add", "ALL"] if uid == "0" else []),
    ]
    for how in [["--cap-add", "ALL"]] * (os.geteuid() == 0) + [mapped]:
        command = bwrap(*how)
        probe = subprocess.run(
            [*command, "true"],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
        )
        if probe.returncode == 0:
            return command, None
    return None, probe.stderr.strip()


def decide(suite):
    """Where the suite runs, in words; what starts a command there; why tests have no directories."""
    inside, reason = namespace(suite) if LINUX else (None, "macOS has no namespaces")
    if inside:
        return "in a namespace", inside, None
    if LINUX:
        found = [str(path) for path in DIRECTORIES if path.exists()]
        if os.geteuid() == 0 and (not found or JOURNAL.exists()):
            return "on this machine, which has no namespaces", [], None
        reason += (
            f"; and there is {found[0]}, perhaps left by a killed run of a deleted checkout"
            if os.geteuid() == 0
            else "; and not root"
        )
    elif os.environ.get("THROW_AWAY_MACHINE") == "yes":
        sudo = ["sudo", "-n", "env", *[f"{name}={value}" for name, value in os.environ.items()]]
        return "on this machine, which may be thrown away", sudo if os.geteuid() != 0 else [], None
    else:
        reason = "not allowed by THROW_AWAY_MACHINE=yes, the owner's word"
    return "without /Applications, /Library and /Users", [], reason


def main(suite, *arguments):
    os.umask(0o022)
    for number in (
        signal.SIGHUP,
        signal.SIGINT,
    ):  # a caller in the background has them ignored, also in a VM
        signal.signal(number, signal.SIG_DFL)
    scratch = BUILD_DIR / "pytest" / suite
    scratch.parent.mkdir(parents=True, exist_ok=True)
    os.environ["BUILD_DIR"] = str(BUILD_DIR)
    if not os.environ.get("JAVA_HOME"):  # which ctest sets
        jdk = pathlib.Path(shutil.which("javac") or "/").resolve().parent.parent
        if (jdk / "release").is_file():  # macOS has a javac that belongs to none
            os.environ["JAVA_HOME"] = str(jdk)
    place, start, reason = decide(suite)
    os.environ["TEST_JOURNAL"] = "/tmp/journal" if start[:1] == ["bwrap"] else str(JOURNAL)
    if reason:
        os.environ["NO_ROOT"] = reason
        place += ": " + reason
    elif start[:1] != ["bwrap"]:
        fcntl.flock(os.open("/", os.O_RDONLY), fcntl.LOCK_EX)
    print(f"{suite}: {place}", flush=True)
    return subprocess.call(
        [
            *start,
            python(),
            "-B",
            "-m",
            "pytest",
            "-p",
            "no:cacheprovider",
            "-q",
            "-rfE",
            "--tb=short",
            f"--rootdir={TEST}",
            f"--basetemp={scratch}",
            f"--junitxml={BUILD_DIR}/{suite}.xml",
            "-o",
            f"junit_suite_name={suite}, {place}",
            *arguments,
            str(TEST / suite),
        ],
        stdin=subprocess.DEVNULL,
        cwd=TEST,
    )


if __name__ == "__main__":
    if len(sys.argv) < 2 or not (TEST / sys.argv[1]).is_dir():
        sys.exit(
            f"usage: run.py SUITE [PYTEST-ARGUMENT...]; '{' '.join(sys.argv[1:2])}' is not a suite"
        )
    sys.exit(main(*sys.argv[1:]))
