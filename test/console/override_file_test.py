import os
import unittest

from support import expected
from support.launcher import Launcher, Run, finished

USER = b"-Duser.install=1"
ALICE = b"/Users/alice"


def refused(line, home=b""):
    return Run(1, expected.launching(home, []), expected.refused_line(line), [])


class OverrideFileTest(unittest.TestCase):
    maxDiff = None

    def system_wide(self, content=None):
        launcher = Launcher(self)
        if content is not None:
            launcher.put_override_file(content)
        return launcher

    def per_user(self, content=None):
        launcher = Launcher(self, "/Users/alice/Applications")
        if content is not None:
            launcher.put_override_file(content, "/Users/alice")
        return launcher

    def assert_accepted(self, content, lines):
        self.assertEqual(self.system_wide(content).run(), finished(lines=lines))

    def assert_refused(self, content, line):
        self.assertEqual(self.system_wide(content).run(), refused(line))

    def test_without_a_file_nothing_is_said_and_the_defaults_stand(self):
        self.assertEqual(self.system_wide().run(), finished())

    def test_without_a_file_a_per_user_run_has_the_defaults_and_the_marker(self):
        self.assertEqual(self.per_user().run(USER), finished(home=ALICE))

    def test_a_line_stands_between_the_defaults_and_the_marker_of_a_per_user_run(self):
        for content in b"-Xmx2g\n", b"-Xmx2g":
            with self.subTest(content):
                self.assertEqual(self.per_user(content).run(USER),
                                 finished(home=ALICE, lines=[b"-Xmx2g"]))

    def test_a_line_ends_the_list_of_a_system_wide_run(self):
        for content in b"-Xmx2g\n", b"-Xmx2g":
            with self.subTest(content):
                self.assert_accepted(content, [b"-Xmx2g"])

    def test_the_system_switch_does_not_put_a_marker_after_the_lines(self):
        self.assertEqual(self.system_wide(b"-Xmx2g\n").run(b"-Duser.install=0"),
                         finished(lines=[b"-Xmx2g"]))

    def test_a_per_user_run_does_not_read_the_system_wide_file(self):
        launcher = self.per_user()
        launcher.put_override_file(b"-refused\n")
        self.assertEqual(launcher.run(USER), finished(home=ALICE))

    def test_a_system_wide_run_does_not_read_a_users_file(self):
        self.assertEqual(self.per_user(b"-refused\n").run(), finished())

    def test_a_per_user_run_reads_the_file_of_the_home_it_lies_in(self):
        launcher = self.per_user(b"-Xmx2g\n")
        launcher.put_override_file(b"-Xmx3g\n", "/Users/bob")
        self.assertEqual(launcher.run(USER), finished(home=ALICE, lines=[b"-Xmx2g"]))

    def test_an_empty_file_is_announced_and_adds_nothing(self):
        self.assert_accepted(b"", [])

    def test_each_of_the_three_prefixes_is_accepted_with_any_value_or_none(self):
        lines = [b"-Xmx", b"-Xmx2g", b"-Xmx any text at all", b"-Djava.net.preferIPv4Stack=",
                 b"-Djava.net.preferIPv4Stack=true", b"-Dorv.security.mode=",
                 b"-Dorv.security.mode=\xff"]
        self.assert_accepted(b"\n".join(lines), lines)

    def test_lines_keep_their_order_and_their_repetitions(self):
        lines = [b"-Xmx2g", b"-Dorv.security.mode=b", b"-Xmx2g", b"-Xmx1g", b"-Xmx2g"]
        self.assert_accepted(b"\n".join(lines) + b"\n", lines)

    def test_a_prefix_that_is_not_complete_is_refused(self):
        for line in (b"-Djava.net.preferIPv4Stack", b"-Dorv.security.mode", b"-Xm", b"-X", b"-",
                     b"-Djava.net.preferIPv4Stac=", b"-Dorv.security.mod"):
            with self.subTest(line):
                self.assert_refused(line + b"\n", line)

    def test_a_line_outside_the_white_list_is_refused(self):
        for line in (b"-xmx2g", b"-XMX2g", b" -Xmx2g", b"\t-Xmx2g", b"#", b"# -Xmx2g", b"#-Xmx2g",
                     b"-Xms2g", b"-Xss1m", b"Xmx2g", b"--Xmx2g", b"\"-Xmx2g\"",
                     b"-Djava.net.preferipv4stack=true", b"-Djava.net.preferIPv6Addresses=true",
                     b"-Dorv.security.modes=", b"-Dorv.security=", b"-cp", b"\xff\xfe'\x01"):
            with self.subTest(line):
                self.assert_refused(line + b"\n", line)

    def test_the_file_cannot_set_the_install_marker(self):
        for line in b"-Duser.install=1", b"-Duser.install=0":
            with self.subTest(line):
                self.assert_refused(line + b"\n", line)

    def test_a_refused_line_without_a_line_feed_is_refused(self):
        self.assert_refused(b"-Xmx2g\n-Xms1g", b"-Xms1g")

    def test_a_line_is_refused_in_a_per_user_run_too(self):
        self.assertEqual(self.per_user(b"-Xms1g\n").run(USER, b"a"), refused(b"-Xms1g", ALICE))

    def test_a_refused_line_after_accepted_ones_drops_them_all(self):
        self.assert_refused(b"-Xmx2g\n-Xmx3g\n-bad\n-worse\n-Xmx4g\n", b"-bad")

    def test_blanks_after_an_option_are_kept(self):
        self.assert_accepted(b"-Xmx2g \n-Xmx2g\t\n-Xmx 2g\n", [b"-Xmx2g ", b"-Xmx2g\t", b"-Xmx 2g"])

    def test_a_carriage_return_is_kept_in_the_option(self):
        self.assert_accepted(b"-Xmx2g\r\n-Xmx3g\r", [b"-Xmx2g\r", b"-Xmx3g\r"])

    def test_a_carriage_return_does_not_separate_lines(self):
        self.assert_accepted(b"-Xmx2g\r-bad\n", [b"-Xmx2g\r-bad"])

    def test_a_line_of_a_carriage_return_alone_is_refused(self):
        self.assert_refused(b"-Xmx2g\r\n\r\n-Xmx3g\r\n", b"\r")

    def test_an_empty_line_is_refused_wherever_it_stands(self):
        for content in (b"\n", b"\n-Xmx2g\n", b"-Xmx2g\n\n-Xmx3g\n", b"-Xmx2g\n\n",
                        b"-Xmx2g\n\n\n"):
            with self.subTest(content):
                self.assert_refused(content, b"")

    def test_a_file_that_begins_with_a_byte_order_mark_is_refused(self):
        self.assert_refused(b"\xef\xbb\xbf-Xmx2g\n", b"\xef\xbb\xbf-Xmx2g")
        utf_16 = "-Xmx2g".encode("utf-16")
        self.assert_refused(utf_16, utf_16)

    def test_bytes_that_are_not_utf_8_are_handed_on(self):
        line = b"-Xmx" + bytes(set(range(1, 256)) - {10})
        self.assert_accepted(line + b"\n", [line])

    def test_a_nul_byte_stays_in_the_line_and_ends_the_option_for_the_vm(self):
        self.assert_accepted(b"-Xmx2g\0tail\n-Xmx\0\n", [b"-Xmx2g\0tail", b"-Xmx\0"])

    def test_a_line_that_begins_with_a_nul_byte_is_refused_and_quoted_whole(self):
        self.assert_refused(b"\0-Xmx2g\n", b"\0-Xmx2g")
        self.assert_refused(b"-Xm\0x2g\n", b"-Xm\0x2g")

    def test_lines_of_70000_bytes_are_handed_on_or_refused_whole(self):
        lines = [b"-Xmx" + letter * 69996 for letter in (b"a", b"b")]
        self.assert_accepted(b"\n".join(lines), lines)
        self.assert_refused(b"x" * 70000 + b"\n", b"x" * 70000)

    def test_3000_lines_are_handed_on_in_order(self):
        lines = [b"-Xmx%d" % number for number in range(3000)]
        self.assert_accepted(b"\n".join(lines), lines)

    def test_the_last_of_3000_lines_can_be_refused(self):
        self.assert_refused(b"-Xmx1g\n" * 2999 + b"-x\n", b"-x")

    def test_a_file_that_may_not_be_read_counts_as_none(self):
        launcher = self.system_wide()
        launcher.put_override_file(b"-Xmx2g\n").chmod(0)
        self.assertEqual(launcher.run(), finished())

    def test_a_file_in_a_folder_that_may_not_be_searched_counts_as_none(self):
        launcher = self.system_wide()
        folder = launcher.put_override_file(b"-Xmx2g\n").parent
        folder.chmod(0)
        self.assertEqual(launcher.run(), finished())
        folder.chmod(0o755)

    def test_a_folder_in_the_files_place_counts_as_an_empty_file(self):
        launcher = self.system_wide()
        file = launcher.put_override_file(b"")
        file.unlink()
        file.mkdir()
        self.assertEqual(launcher.run(), finished(lines=[]))

    def test_a_file_in_a_folders_place_counts_as_none(self):
        launcher = self.system_wide()
        launcher.root.put("/Library/Application Support/Quillrest/conf", b"-Xmx2g\n")
        self.assertEqual(launcher.run(), finished())

    def test_a_link_to_a_file_is_followed_and_one_to_nothing_counts_as_none(self):
        launcher = self.system_wide()
        file = launcher.put_override_file(b"")
        file.unlink()
        file.symlink_to("/Users/args")
        self.assertEqual(launcher.run(), finished())
        launcher.root.put("/Users/args", b"-Xmx2g\n")
        self.assertEqual(launcher.run(), finished(lines=[b"-Xmx2g"]))

    def test_the_file_is_left_as_it_was(self):
        launcher = self.system_wide()
        file = launcher.put_override_file(b"-Xmx2g\n")
        before = os.stat(file)
        self.assertEqual(launcher.run(), finished(lines=[b"-Xmx2g"]))
        after = os.stat(file)
        self.assertEqual((after.st_mtime_ns, after.st_mode, after.st_ino),
                         (before.st_mtime_ns, before.st_mode, before.st_ino))
        self.assertEqual(file.read_bytes(), b"-Xmx2g\n")
