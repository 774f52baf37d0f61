"""Runs test files over the directories of the machine itself: python3 throw_away_machine.py FILE...

On Linux inside a namespace whose machine is thrown away with it; elsewhere, as root, only if
THROW_AWAY_MACHINE=yes says that the machine is one. Names what is skipped and why, and fails
if that is for another reason than that a Mac cannot have it."""

import os
import pathlib
import shutil
import subprocess
import sys
import unittest

LINUX = os.uname().sysname == "Linux"


def namespace():
    """What runs a command on a machine of its own: everything of this one, the files of / and
    the directories of a Mac aside, which are empty."""
    arguments = ["bwrap", "--tmpfs", "/", "--cap-add", "ALL", "--unshare-pid",
                 "--die-with-parent"]
    for entry in sorted(pathlib.Path("/").iterdir()):
        if entry.is_symlink():
            arguments += ["--symlink", os.readlink(entry), str(entry)]
        elif entry.is_dir() and entry.name not in ("Applications", "Library", "Users", "tmp",
                                                   "dev", "proc"):
            arguments += ["--bind", str(entry), str(entry)]
    for name in "Applications", "Library", "Users":
        arguments += ["--dir", "/" + name]
    arguments += ["--dev", "/dev", "--proc", "/proc", "--perms", "1777", "--tmpfs", "/tmp"]
    for needed in str(pathlib.Path(__file__).resolve().parents[2]), os.environ["BUILD_DIR"]:
        arguments += ["--bind", needed, needed]  # which may be below /tmp
    return [*arguments, "--setenv", "THROW_AWAY_MACHINE", "yes", "--"]


def passwordless():
    return shutil.which("sudo") and subprocess.run(["sudo", "-n", "true"]).returncode == 0


def main(files):
    ready = os.environ.get("THROW_AWAY_MACHINE") == "yes"
    if not ready or os.geteuid() != 0:
        missing = (os.geteuid() != 0 and not passwordless() and "root without a password" or
                   LINUX and not ready and not shutil.which("bwrap") and "bubblewrap" or
                   not LINUX and not ready and "THROW_AWAY_MACHINE=yes")
        if missing:
            print(f"skipped: a throw-away machine needs {missing}")
            return 0
        command = [sys.executable, "-B", __file__, *files]
        if os.geteuid() != 0:
            command = ["sudo", "-n", "env", *(f"{name}={os.environ[name]}" for name in os.environ
                       if name in ("APPLICATIONS", "BUILD_DIR", "PYTHONPATH",
                                                  "THROW_AWAY_MACHINE")), *command]
        elif LINUX:
            command = [*namespace(), *command]
        os.execvp(command[0], command)
    from support.machine_root import CANNOT_EXIST
    suite = unittest.TestSuite()
    for file in files:
        directory, name = os.path.split(file)
        sys.path.insert(0, directory)
        suite.addTest(unittest.defaultTestLoader.loadTestsFromName(name[:-len(".py")]))
        sys.modules[f"{directory}/{name}"] = sys.modules.pop(name[:-len(".py")])
        sys.path.remove(directory)
    result = unittest.TextTestRunner(sys.stdout).run(suite)
    for test, reason in result.skipped:
        print(f"left out: {test.id().split('.', 1)[1]}: {reason}")
    skipped = {str(getattr(test, "test_case", test)) for test, _ in result.skipped}
    print(f"{result.testsRun - len(skipped)} of {result.testsRun} tests executed whole, "
          f"{len(skipped)} with something that cannot exist on a Mac")
    foreseen = all(reason.startswith(CANNOT_EXIST) for _, reason in result.skipped)
    return 0 if result.wasSuccessful() and result.testsRun and foreseen else 1


sys.exit(main(sys.argv[1:]))
