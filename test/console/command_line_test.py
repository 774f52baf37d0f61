import unittest

from support import expected
from support.launcher import Launcher, Run, finished

USER = b"-Duser.install=1"
SYSTEM = b"-Duser.install=0"
ALICE = b"/Users/alice"


def refused(argument, home=b""):
    return Run(1, expected.launching(home), expected.refused_argument(argument), [])


class CommandLineTest(unittest.TestCase):
    maxDiff = None

    def system_wide(self):
        return Launcher(self)

    def per_user(self):
        return Launcher(self, "/Users/alice/Applications")

    def test_without_arguments_the_run_is_system_wide_and_the_service_gets_none(self):
        self.assertEqual(self.system_wide().run(), finished())

    def test_the_user_switch_alone_makes_a_per_user_run_without_arguments(self):
        self.assertEqual(self.per_user().run(USER), finished(home=ALICE))

    def test_the_system_switch_alone_changes_nothing(self):
        self.assertEqual(self.system_wide().run(SYSTEM), finished())

    def test_the_place_of_the_program_does_not_make_a_per_user_run(self):
        self.assertEqual(self.per_user().run(), finished())

    def test_of_both_switches_the_user_switch_wins_in_either_order(self):
        launcher = self.per_user()
        for switches in [USER, SYSTEM], [SYSTEM, USER], [SYSTEM, USER, SYSTEM]:
            with self.subTest(switches):
                self.assertEqual(launcher.run(*switches), finished(home=ALICE))

    def test_every_copy_of_a_switch_is_removed_wherever_it_stands(self):
        self.assertEqual(self.per_user().run(USER, b"a", USER, SYSTEM, b"b", SYSTEM, USER),
                         finished(home=ALICE, arguments=[b"a", b"b"]))
        self.assertEqual(self.system_wide().run(SYSTEM, b"a", SYSTEM, b"b", SYSTEM),
                         finished(arguments=[b"a", b"b"]))

    def test_what_merely_resembles_a_switch_is_refused(self):
        launcher = self.system_wide()
        for argument in (b"-Duser.install=2", b"-Duser.install", b"-Duser.install=",
                         b"-DUSER.INSTALL=1", b"-duser.install=1", USER + b" ", USER + b"0",
                         SYSTEM + b" ", SYSTEM + b"1", USER[:-1], b"-" + USER):
            with self.subTest(argument):
                self.assertEqual(launcher.run(argument), refused(argument))

    def test_a_switch_after_a_blank_is_an_argument_like_any_other(self):
        arguments = [b" " + USER, b"\t" + SYSTEM]
        self.assertEqual(self.system_wide().run(*arguments), finished(arguments=arguments))

    def test_whatever_else_begins_with_a_hyphen_is_refused(self):
        launcher = self.system_wide()
        for argument in (b"-", b"--", b"-x", b"-Xmx2g", b"-Da=b", b"--help", b"-\xff\n'"):
            with self.subTest(argument):
                self.assertEqual(launcher.run(argument), refused(argument))

    def test_a_hyphen_that_is_not_the_first_byte_is_passed_on(self):
        arguments = [b" -x", b"a-", b"\xe2\x80\x93x", b"'-x'"]
        self.assertEqual(self.system_wide().run(*arguments), finished(arguments=arguments))

    def test_an_empty_argument_is_passed_on_in_its_place(self):
        self.assertEqual(self.system_wide().run(b"alpha", b"", b"beta"),
                         finished(arguments=[b"alpha", b"", b"beta"]))

    def test_an_empty_argument_alone_is_listed_as_an_empty_line(self):
        self.assertEqual(self.system_wide().run(b""), finished(arguments=[b""]))

    def test_arguments_are_passed_on_byte_for_byte_in_order_duplicates_included(self):
        arguments = [b"b", b"a", b"b", b" two words ", b"line\nfeed", b"\xc3\xa9", b"\xff\x80\x01",
                     b"'\"\\$*", b"\r\t"]
        self.assertEqual(self.system_wide().run(*arguments), finished(arguments=arguments))

    def test_a_long_argument_and_many_are_passed_on(self):
        arguments = [b"x" * 70000] + [b"%d" % number for number in range(3000)]
        self.assertEqual(self.system_wide().run(*arguments), finished(arguments=arguments))

    def test_only_the_first_refused_argument_is_reported(self):
        self.assertEqual(self.system_wide().run(b"alpha", b"-x", b"-y"), refused(b"-x"))

    def test_the_install_mode_is_printed_before_an_argument_is_refused(self):
        launcher = self.per_user()
        for arguments in [b"-x", USER], [USER, b"-x"]:
            with self.subTest(arguments):
                self.assertEqual(launcher.run(*arguments), refused(b"-x", ALICE))

    def test_an_argument_is_refused_before_the_override_file_is_looked_at(self):
        launcher = self.system_wide()
        launcher.put_override_file(b"-refused\n")
        self.assertEqual(launcher.run(b"-x"), refused(b"-x"))

    def test_an_argument_is_refused_before_the_programs_place_matters(self):
        launcher = self.system_wide()
        launcher.root.put("/OrvaneService", launcher.root.path(launcher.program))
        self.assertEqual(launcher.run(USER, b"-x", program="/OrvaneService"),
                         refused(b"-x", ALICE))
