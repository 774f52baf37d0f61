import os

import pytest

from support import expected
from support.launcher import ALICE, OVERRIDE_FILE, PER_USER, Run, finished

ANY_BYTES = bytes(set(range(1, 256)) - {10})


def rejected(line):
    return Run(1, expected.launching(lines=[]), expected.rejected_line(line), [])


def path_of_file(launcher):
    """Where the override file belongs, in an existing directory."""
    return launcher.root.directory(os.path.dirname(OVERRIDE_FILE)) / "jvm_args"


def test_each_allowed_prefix_is_accepted_with_any_value_or_none(system_wide):
    lines = [
        prefix + value
        for prefix in expected.PREFIXES
        for value in (b"", b"2g", b"true", b" any text at all", b"\xff")
    ]
    system_wide.put_override_file(b"\n".join(lines))
    assert system_wide.run() == finished(lines=lines)


@pytest.mark.parametrize(
    "content, lines",
    [
        pytest.param(b"", [], id="an empty file is announced and adds nothing"),
        pytest.param(b"-Xmx2g", [b"-Xmx2g"], id="the last line may end without a line feed"),
        pytest.param(b"-Xmx2g\n", [b"-Xmx2g"], id="a line feed at the end adds no line"),
        pytest.param(
            b"-Xmx2g\n-Dorv.security.mode=b\n-Xmx2g\n-Xmx1g\n-Xmx2g\n",
            [b"-Xmx2g", b"-Dorv.security.mode=b", b"-Xmx2g", b"-Xmx1g", b"-Xmx2g"],
            id="lines keep their order and their repetitions",
        ),
        pytest.param(
            b"-Xmx2g \n-Xmx2g\t\n-Xmx 2g\n",
            [b"-Xmx2g ", b"-Xmx2g\t", b"-Xmx 2g"],
            id="spaces after an option are kept",
        ),
        pytest.param(
            b"-Xmx2g\r\n-Xmx3g\r",
            [b"-Xmx2g\r", b"-Xmx3g\r"],
            id="a carriage return is kept in the option",
        ),
        pytest.param(
            b"-Xmx2g\r-bad\n", [b"-Xmx2g\r-bad"], id="a carriage return does not separate lines"
        ),
        pytest.param(
            b"-Xmx" + ANY_BYTES, [b"-Xmx" + ANY_BYTES], id="bytes that are not UTF-8 are passed on"
        ),
        pytest.param(
            b"-Xmx2g\0tail\n-Xmx\0\n",
            [b"-Xmx2g\0tail", b"-Xmx\0"],
            id="a NUL byte stays in the line and ends the option for the VM",
        ),
        pytest.param(
            b"-Xmx" + b"a" * 69996 + b"\n-Xmx" + b"b" * (3 << 20),
            [b"-Xmx" + b"a" * 69996, b"-Xmx" + b"b" * (3 << 20)],
            id="lines of 70 KB and 3 MiB are passed on whole",
        ),
        pytest.param(
            b"\n".join(b"-Xmx%d" % number for number in range(66000)),
            [b"-Xmx%d" % number for number in range(66000)],
            id="more lines than 16 bits count are passed on in order",
        ),
    ],
)
def test_accepted_lines_end_the_list_of_a_system_wide_run_byte_for_byte(
    system_wide, content, lines
):
    system_wide.put_override_file(content)
    assert system_wide.run() == finished(lines=lines)


@pytest.mark.parametrize(
    "line",
    [
        # an incomplete prefix
        b"-Djava.net.preferIPv4Stack",
        b"-Dorv.security.mode",
        b"-Xm",
        b"-X",
        b"-",
        b"-Djava.net.preferIPv4Stac=",
        b"-Dorv.security.mod",
        # other options, the install switches among them
        b"-Duser.install=1",
        b"-Duser.install=0",
        b"-Xms2g",
        b"-Xss1m",
        b"-cp",
        b"-Djava.net.preferIPv6Addresses=true",
        b"-Dorv.security.modes=",
        b"-Dorv.security=",
        # another case
        b"-xmx2g",
        b"-XMX2g",
        b"-Djava.net.preferipv4stack=true",
        # something before the option
        b" -Xmx2g",
        b"\t-Xmx2g",
        b"# -Xmx2g",
        b"#-Xmx2g",
        b"--Xmx2g",
        b'"-Xmx2g"',
        b"\xef\xbb\xbf-Xmx2g",
        b"\0-Xmx2g",
        # no option at all
        b"#",
        b"Xmx2g",
        b"\xff\xfe'\x01",
        b"-Xm\0x2g",
        b"\r",
        b"",
        pytest.param(b"x" * 70000, id="70 KB"),
    ],
)
def test_a_line_that_does_not_begin_with_an_allowed_prefix_is_rejected_and_printed_whole(
    system_wide, line
):
    system_wide.put_override_file(line + b"\n")
    assert system_wide.run() == rejected(line)


@pytest.mark.parametrize(
    "content, line",
    [
        pytest.param(b"-Xmx2g\n-Xms1g", b"-Xms1g", id="without a line feed at its end"),
        pytest.param(
            b"-Xmx2g\n-Xmx3g\n-bad\n-worse\n-Xmx4g\n",
            b"-bad",
            id="after accepted lines, which it drops, and before a worse one",
        ),
        pytest.param(b"\n-Xmx2g\n", b"", id="an empty line first"),
        pytest.param(b"-Xmx2g\n\n-Xmx3g\n", b"", id="an empty line in the middle"),
        pytest.param(b"-Xmx2g\n\n", b"", id="an empty line last"),
        pytest.param("-Xmx2g".encode("utf-16"), "-Xmx2g".encode("utf-16"), id="a file in UTF-16"),
    ],
)
def test_a_line_is_rejected_wherever_it_is_in_the_file(system_wide, content, line):
    system_wide.put_override_file(content)
    assert system_wide.run() == rejected(line)


def test_each_run_reads_the_file_of_its_own_installation_alone(per_user):
    per_user.put_override_file(b"-Xmx2g\n")
    per_user.put_override_file(b"-Xmx3g\n", "/Users/bob")
    assert per_user.run(PER_USER) == finished(home=ALICE)
    per_user.put_override_file(b"-Xmx1g", "/Users/alice")
    assert per_user.run(PER_USER) == finished(home=ALICE, lines=[b"-Xmx1g"])
    assert per_user.run() == finished(lines=[b"-Xmx2g"])


def test_a_file_that_may_not_be_read_counts_as_none(system_wide):
    system_wide.put_override_file(b"-Xmx2g\n").chmod(0)
    assert system_wide.run() == finished()


def test_a_directory_instead_of_the_file_counts_as_an_empty_file(system_wide):
    path_of_file(system_wide).mkdir()
    assert system_wide.run() == finished(lines=[])


def test_a_link_to_a_file_is_followed_and_one_to_nothing_counts_as_none(system_wide):
    path_of_file(system_wide).symlink_to("/Users/args")
    assert system_wide.run() == finished()
    system_wide.root.put("/Users/args", b"-Xmx2g\n")
    assert system_wide.run() == finished(lines=[b"-Xmx2g"])


def test_a_named_pipe_is_read_like_a_file(system_wide):
    path = path_of_file(system_wide)
    assert system_wide.root.run(["mkfifo", path]) == (0, b"", b"")
    with system_wide.root.start(["sh", "-c", 'printf "%s\\n" -Xmx2g -Xmx3g >"$0"', path]):
        assert system_wide.run() == finished(lines=[b"-Xmx2g", b"-Xmx3g"])


def test_a_line_is_rejected_without_reading_the_file_to_its_end(system_wide):
    path = path_of_file(system_wide)
    assert system_wide.root.run(["mkfifo", path]) == (0, b"", b"")
    # More than the C++ library reads at once; after that the pipe stays open.
    content = b"-bad\n" + b"-Xmx2g\n" * 2000
    writer = ["sh", "-c", '{ printf %s "$1"; exec sleep 1000; } >"$0"', path, content]
    with system_wide.root.start(writer):
        assert system_wide.run() == rejected(b"-bad")
