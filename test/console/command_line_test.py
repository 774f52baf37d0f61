import unittest

from support import expected
from support.launcher import Launcher, Run, finished

USER = b"-Duser.install=1"
SYSTEM = b"-Duser.install=0"
ALICE = b"/Users/alice"

PASSED_ON = {
    "none": [],
    "a switch after a space or a tab": [b" " + USER, b"\t" + SYSTEM],
    "a hyphen that is not the first byte": [b" -x", b"a-", b"\xe2\x80\x93x", b"'-x'"],
    "an empty argument at its position": [b"alpha", b"", b"beta"],
    "an empty argument alone": [b""],
    "any bytes in order, duplicates included":
        [b"b", b"a", b"b", b" two words ", b"line\nfeed", b"\xc3\xa9", b"\xff\x80\x01", b"'\"\\$*",
         b"\r\t"],
    "a long argument and many": [b"x" * 70000, *(b"%d" % number for number in range(3000))],
}

REJECTED = {
    "what merely resembles a switch":
        [b"-Duser.install=2", b"-Duser.install", b"-Duser.install=", b"-DUSER.INSTALL=1",
         b"-duser.install=1", USER + b" ", USER + b"0", SYSTEM + b" ", SYSTEM + b"1", USER[:-1],
         b"-" + USER],
    "whatever else begins with a hyphen":
        [b"-", b"--", b"-x", b"-Xmx2g", b"-Da=b", b"--help", b"-\xff\n'"],
}


def rejected(argument, home=b""):
    return Run(1, expected.launching(home), expected.rejected_argument(argument), [])


class CommandLineTest(unittest.TestCase):
    maxDiff = None

    def system_wide(self):
        return Launcher(self)

    def per_user(self):
        return Launcher(self, "/Users/alice/Applications")

    def test_the_service_gets_the_arguments_byte_for_byte(self):
        launcher = self.system_wide()
        for sentence, arguments in PASSED_ON.items():
            with self.subTest(sentence):
                self.assertEqual(launcher.run(*arguments), finished(arguments=arguments))

    def test_any_other_argument_that_begins_with_a_hyphen_is_rejected(self):
        launcher = self.system_wide()
        for sentence, arguments in REJECTED.items():
            for argument in arguments:
                with self.subTest(sentence, argument=argument):
                    self.assertEqual(launcher.run(argument), rejected(argument))

    def test_the_user_switch_alone_makes_a_per_user_run_without_arguments(self):
        self.assertEqual(self.per_user().run(USER), finished(home=ALICE))

    def test_the_system_switch_alone_changes_nothing(self):
        self.assertEqual(self.system_wide().run(SYSTEM), finished())

    def test_the_location_of_the_program_does_not_make_a_per_user_run(self):
        self.assertEqual(self.per_user().run(), finished())

    def test_of_both_switches_the_user_switch_wins_in_any_order(self):
        launcher = self.per_user()
        for switches in [USER, SYSTEM], [SYSTEM, USER], [SYSTEM, USER, SYSTEM]:
            with self.subTest(switches):
                self.assertEqual(launcher.run(*switches), finished(home=ALICE))

    def test_every_copy_of_a_switch_is_removed_wherever_it_stands(self):
        self.assertEqual(self.per_user().run(USER, b"a", USER, SYSTEM, b"b", SYSTEM, USER),
                         finished(home=ALICE, arguments=[b"a", b"b"]))
        self.assertEqual(self.system_wide().run(SYSTEM, b"a", SYSTEM, b"b", SYSTEM),
                         finished(arguments=[b"a", b"b"]))

    def test_only_the_first_rejected_argument_is_reported(self):
        self.assertEqual(self.system_wide().run(b"alpha", b"-x", b"-y"), rejected(b"-x"))

    def test_the_install_mode_is_printed_before_an_argument_is_rejected(self):
        launcher = self.per_user()
        for arguments in [b"-x", USER], [USER, b"-x"]:
            with self.subTest(arguments):
                self.assertEqual(launcher.run(*arguments), rejected(b"-x", ALICE))

    def test_an_argument_is_rejected_before_the_override_file_is_opened(self):
        launcher = self.system_wide()
        launcher.put_override_file(b"-rejected\n")
        self.assertEqual(launcher.run(b"-x"), rejected(b"-x"))

    def test_an_argument_is_rejected_before_the_programs_location_matters(self):
        launcher = self.system_wide()
        launcher.root.put("/OrvaneService", launcher.root.path(launcher.program))
        self.assertEqual(launcher.run(USER, b"-x", program="/OrvaneService"),
                         rejected(b"-x", ALICE))
