"""Run by throw_away_machine.py alone."""

import pathlib
import unittest

from support.machine_root import MachineRoot

CAROL = pathlib.Path("/Users/carol")
DATA = pathlib.Path("/Library/Application Support/Quillrest")


class MachineRootTest(unittest.TestCase):
    def test_what_was_created_is_removed_and_nothing_else(self):
        CAROL.mkdir()
        self.addCleanup(CAROL.rmdir)
        (CAROL / "kept").touch()
        self.addCleanup((CAROL / "kept").unlink)
        root = MachineRoot(self)
        root.put(f"{DATA}/conf/jvm_args", b"")
        root.put("/Users/carol/ours/file", b"")
        root.path("/Users/link").symlink_to(CAROL)
        self.assertRaisesRegex(AssertionError, "it has /Users/carol/kept", root.put,
                               "/Users/carol/kept", b"")
        self.assertTrue(DATA.exists())
        MachineRoot.undo()
        self.assertEqual([CAROL / "kept"], list(CAROL.iterdir()))
        self.assertFalse(DATA.exists() or pathlib.Path("/Users/link").exists())

    def test_a_machine_that_has_the_product_is_left_alone(self):
        DATA.mkdir(parents=True)
        self.addCleanup(DATA.rmdir)
        self.assertRaisesRegex(AssertionError, "it has .*Quillrest", MachineRoot, self)
        self.assertTrue(DATA.exists())

    def test_a_program_is_not_written_over_but_replaced(self):
        root = MachineRoot(self)
        root.put("/Users/alice/program", b"one")
        with open("/Users/alice/program", "rb") as first:
            root.put("/Users/alice/program", b"two")
            self.assertEqual(b"one", first.read())

    def test_commands_run_as_an_ordinary_user_without_an_environment(self):
        root = MachineRoot(self)
        self.assertEqual((0, b"A=b\n", b""), root.run(["/usr/bin/env"], env={"A": "b"}))
        self.assertNotIn(root.run(["/usr/bin/id", "-u"]).stdout, (b"", b"0\n"))
        self.assertEqual(143, root.run(["/bin/sh", "-c", "kill $$"]).status)
