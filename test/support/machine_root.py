"""The machine's own directories instead of a private root's, for a machine that is thrown away."""

import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

from .private_root import Finishing, PrivateRoot

PRODUCT = ("/Applications/Orvane.app", "/Library/Application Support/Quillrest", "/Users/alice",
           "/Users/bob", "/Users/user2", "/tmp/calls")
# A directory that is not created here is one of these.
SHARED = ("/", "/Applications", "/Library", "/Library/Application Support", "/Users", "/tmp")
# The ordinary user, who called sudo or on Linux need not be known to the machine.
UID, GID = (int(os.environ.get(name, "1000")) for name in ("SUDO_UID", "SUDO_GID"))
CANNOT_EXIST = "cannot exist on a Mac: "


class MachineRoot:
    """As PrivateRoot, over the machine itself: run as root where THROW_AWAY_MACHINE is set;
    commands run as an ordinary user. What did not exist and was asked for is written down
    before it can be created, and removed, the last first, at the end of the test or when it
    makes another; nothing else is deleted. Only one test at a time gets a machine."""

    _journal = []
    _lock = None

    def __init__(self, test):
        if os.environ.get("THROW_AWAY_MACHINE") != "yes" or os.geteuid() != 0:
            raise AssertionError("needs root and THROW_AWAY_MACHINE=yes, said by its owner")
        self._test = test
        self.undo()
        if MachineRoot._lock is None:
            MachineRoot._lock = open(pathlib.Path(tempfile.gettempdir(), "orvane.lock"), "w")
            fcntl.flock(MachineRoot._lock, fcntl.LOCK_EX)
        found = [place for place in PRODUCT if os.path.lexists(place)]
        if found:
            raise AssertionError(f"not a machine to throw away: it has {found}")
        test.addCleanup(self.undo)

    @classmethod
    def undo(cls):
        while cls._journal:
            path = cls._journal[-1]
            if path.is_dir() and not path.is_symlink():
                shutil.rmtree(path)
            else:
                path.unlink(missing_ok=True)
            cls._journal.pop()

    def path(self, inside):
        """The path itself; skips the test if a Mac cannot have it."""
        path = pathlib.Path(os.fsdecode(inside))
        if re.search("[\ud800-\udfff]", str(path)):
            self._test.skipTest(CANNOT_EXIST + "a name that is not UTF-8")
        if len(os.fsencode(path)) > 1023:
            self._test.skipTest(CANNOT_EXIST + "a path of more than 1,023 bytes")
        if len(path.parts) > 1 and "/" + path.parts[1] not in (*SHARED, "/Volumes"):
            self._test.skipTest(CANNOT_EXIST + "a file in the root directory")
        places = [*reversed(path.parents), path]
        if str(path) not in SHARED and not set(places) & set(self._journal):
            missing = [place for place in places if not os.path.lexists(place)]
            if not missing:
                raise AssertionError(f"not a machine to throw away: it has {path}")
            self._journal.append(missing[0])
        return path

    def put(self, inside, content, mode=0o644):
        """As a PrivateRoot does; a program that is written over would not start on a Mac."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.unlink(missing_ok=True)
        if isinstance(content, pathlib.Path):
            shutil.copy(content, path)
        else:
            path.write_bytes(content)
            path.chmod(mode)
        os.chown(path, UID, GID)

    def bind(self, outside, inside):
        """A copy: a machine shows nothing in two places."""
        for entry in pathlib.Path(outside).iterdir():
            shutil.copytree(entry, self.path(f"{inside}/{entry.name}"), symlinks=True)

    run = PrivateRoot.run

    def start(self, command, cwd="/", env=None, stdout=subprocess.PIPE,
              stderr=subprocess.PIPE, stdin=subprocess.DEVNULL):
        return MachineProcess(command, cwd=cwd, env=env or {}, stdin=stdin, stdout=stdout,
                              stderr=stderr, user=UID, group=GID,
                              extra_groups=[], start_new_session=True, umask=0o022)


class MachineProcess(Finishing):
    command_pid = property(lambda self: self.pid)


Root = MachineRoot if os.environ.get("THROW_AWAY_MACHINE") else PrivateRoot
