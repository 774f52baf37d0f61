import os
import unittest

from support import expected
from support.launcher import Launcher, Run, finished

USER = b"-Duser.install=1"
ALICE = b"/Users/alice"

# What the lines of an accepted file become.
ACCEPTED = {
    "an empty file is announced and adds nothing": (b"", []),
    "the last line may end without a line feed": (b"-Xmx2g", [b"-Xmx2g"]),
    "a line feed at the end adds no line": (b"-Xmx2g\n", [b"-Xmx2g"]),
    "lines keep their order and their repetitions":
        (b"-Xmx2g\n-Dorv.security.mode=b\n-Xmx2g\n-Xmx1g\n-Xmx2g\n",
         [b"-Xmx2g", b"-Dorv.security.mode=b", b"-Xmx2g", b"-Xmx1g", b"-Xmx2g"]),
    "spaces after an option are kept":
        (b"-Xmx2g \n-Xmx2g\t\n-Xmx 2g\n", [b"-Xmx2g ", b"-Xmx2g\t", b"-Xmx 2g"]),
    "a carriage return is kept in the option":
        (b"-Xmx2g\r\n-Xmx3g\r", [b"-Xmx2g\r", b"-Xmx3g\r"]),
    "a carriage return does not separate lines": (b"-Xmx2g\r-bad\n", [b"-Xmx2g\r-bad"]),
    "bytes that are not UTF-8 are passed on":
        (b"-Xmx" + bytes(set(range(1, 256)) - {10}), [b"-Xmx" + bytes(set(range(1, 256)) - {10})]),
    "a NUL byte stays in the line and ends the option for the VM":
        (b"-Xmx2g\0tail\n-Xmx\0\n", [b"-Xmx2g\0tail", b"-Xmx\0"]),
    "lines of 70000 bytes are passed on whole":
        (b"-Xmx" + b"a" * 69996 + b"\n-Xmx" + b"b" * 69996, [b"-Xmx" + b"a" * 69996,
                                                            b"-Xmx" + b"b" * 69996]),
    "12,000 lines, more than a megabyte, are passed on in order":
        (b"\n".join(b"-Xmx%096d" % number for number in range(12000)),
         [b"-Xmx%096d" % number for number in range(12000)]),
}

# Lines that are rejected where they stand alone.
REJECTED_LINES = {
    "an incomplete prefix": [b"-Djava.net.preferIPv4Stack", b"-Dorv.security.mode", b"-Xm", b"-X",
                             b"-", b"-Djava.net.preferIPv4Stac=", b"-Dorv.security.mod"],
    "the install marker": [b"-Duser.install=1", b"-Duser.install=0"],
    "other options": [b"-Xms2g", b"-Xss1m", b"-cp", b"-Djava.net.preferIPv6Addresses=true",
                      b"-Dorv.security.modes=", b"-Dorv.security="],
    "another case": [b"-xmx2g", b"-XMX2g", b"-Djava.net.preferipv4stack=true"],
    "something before the option": [b" -Xmx2g", b"\t-Xmx2g", b"# -Xmx2g", b"#-Xmx2g", b"--Xmx2g",
                                    b"\"-Xmx2g\"", b"\xef\xbb\xbf-Xmx2g", b"\0-Xmx2g"],
    "no option at all": [b"#", b"Xmx2g", b"\xff\xfe'\x01", b"-Xm\0x2g", b"x" * 70000, b"\r", b""],
}

# Files of which one line is rejected, and that line.
REJECTED_FILES = {
    "without a line feed at its end": (b"-Xmx2g\n-Xms1g", b"-Xms1g"),
    "after accepted lines, which it drops, and before a worse one":
        (b"-Xmx2g\n-Xmx3g\n-bad\n-worse\n-Xmx4g\n", b"-bad"),
    "the last of 3000": (b"-Xmx1g\n" * 2999 + b"-x\n", b"-x"),
    "a carriage return alone": (b"-Xmx2g\r\n\r\n-Xmx3g\r\n", b"\r"),
    "an empty line first": (b"\n-Xmx2g\n", b""),
    "an empty line in the middle": (b"-Xmx2g\n\n-Xmx3g\n", b""),
    "an empty line last": (b"-Xmx2g\n\n", b""),
    "two empty lines last": (b"-Xmx2g\n\n\n", b""),
    "a file in UTF-16": ("-Xmx2g".encode("utf-16"), "-Xmx2g".encode("utf-16")),
}


def rejected(line, home=b""):
    return Run(1, expected.launching(home, []), expected.rejected_line(line), [])


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

    def test_each_allowed_prefix_is_accepted_with_any_value_or_none(self):
        lines = [prefix + value for prefix in expected.PREFIXES
                 for value in (b"", b"2g", b"true", b" any text at all", b"\xff")]
        self.assertEqual(self.system_wide(b"\n".join(lines)).run(), finished(lines=lines))

    def test_accepted_lines_end_the_list_of_a_system_wide_run_byte_for_byte(self):
        for sentence, (content, lines) in ACCEPTED.items():
            with self.subTest(sentence):
                self.assertEqual(self.system_wide(content).run(), finished(lines=lines))

    def test_a_line_that_does_not_begin_with_an_allowed_prefix_is_rejected_and_quoted_whole(self):
        for sentence, lines in REJECTED_LINES.items():
            for line in lines:
                with self.subTest(sentence, line=line):
                    self.assertEqual(self.system_wide(line + b"\n").run(), rejected(line))

    def test_a_line_is_rejected_wherever_it_stands_in_the_file(self):
        for sentence, (content, line) in REJECTED_FILES.items():
            with self.subTest(sentence):
                self.assertEqual(self.system_wide(content).run(), rejected(line))

    def test_a_line_stands_between_the_defaults_and_the_marker_of_a_per_user_run(self):
        for content in b"-Xmx2g\n", b"-Xmx2g":
            with self.subTest(content):
                self.assertEqual(self.per_user(content).run(USER),
                                 finished(home=ALICE, lines=[b"-Xmx2g"]))

    def test_a_line_is_rejected_in_a_per_user_run_too(self):
        self.assertEqual(self.per_user(b"-Xms1g\n").run(USER, b"a"), rejected(b"-Xms1g", ALICE))

    def test_the_system_switch_does_not_put_a_marker_after_the_lines(self):
        self.assertEqual(self.system_wide(b"-Xmx2g\n").run(b"-Duser.install=0"),
                         finished(lines=[b"-Xmx2g"]))

    def test_a_per_user_run_does_not_read_the_system_wide_file(self):
        launcher = self.per_user()
        launcher.put_override_file(b"-rejected\n")
        self.assertEqual(launcher.run(USER), finished(home=ALICE))

    def test_a_system_wide_run_does_not_read_a_users_file(self):
        self.assertEqual(self.per_user(b"-rejected\n").run(), finished())

    def test_a_per_user_run_reads_the_file_of_the_home_it_lies_in(self):
        launcher = self.per_user(b"-Xmx2g\n")
        launcher.put_override_file(b"-Xmx3g\n", "/Users/bob")
        self.assertEqual(launcher.run(USER), finished(home=ALICE, lines=[b"-Xmx2g"]))

    def test_a_file_that_may_not_be_read_counts_as_none(self):
        launcher = self.system_wide()
        launcher.put_override_file(b"-Xmx2g\n").chmod(0)
        self.assertEqual(launcher.run(), finished())

    def test_a_file_in_a_directory_that_may_not_be_searched_counts_as_none(self):
        launcher = self.system_wide()
        directory = launcher.put_override_file(b"-Xmx2g\n").parent
        directory.chmod(0)
        self.assertEqual(launcher.run(), finished())
        directory.chmod(0o755)

    def test_a_directory_instead_of_the_file_counts_as_an_empty_file(self):
        launcher = self.system_wide()
        file = launcher.put_override_file(b"")
        file.unlink()
        file.mkdir()
        self.assertEqual(launcher.run(), finished(lines=[]))

    def test_a_file_instead_of_its_directory_counts_as_none(self):
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
