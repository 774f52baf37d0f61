import pytest

from support import expected
from support.launcher import ALICE, PER_USER, PROGRAM, SYSTEM_WIDE, Run, finished


def rejected(argument, home=b""):
    return Run(1, expected.launching(home), expected.rejected_argument(argument), [])


@pytest.mark.parametrize(
    "arguments",
    [
        pytest.param([], id="none"),
        pytest.param([b" " + PER_USER, b"\t" + SYSTEM_WIDE], id="a switch after a space or a tab"),
        pytest.param(
            [b" -x", b"a-", b"\xe2\x80\x93x", b"'-x'"], id="a hyphen that is not the first byte"
        ),
        pytest.param([b"alpha", b"", b"beta"], id="an empty argument at its position"),
        pytest.param([b""], id="an empty argument alone"),
        pytest.param(
            [
                b"b",
                b"a",
                b"b",
                b" two words ",
                b"line\nfeed",
                b"\xc3\xa9",
                b"\xff\x80\x01",
                b"'\"\\$*",
                b"\r\t",
            ],
            id="any bytes in order, duplicates included",
        ),
        pytest.param(
            [b"x" * 70000, *[b"a"] * 66000], id="a long argument and more than 16 bits count"
        ),
    ],
)
def test_the_service_gets_the_arguments_byte_for_byte(system_wide, arguments):
    assert system_wide.run(*arguments) == finished(arguments=arguments)


@pytest.mark.parametrize(
    "argument",
    [
        # similar to a switch
        b"-Duser.install=2",
        b"-Duser.install",
        b"-Duser.install=",
        b"-DUSER.INSTALL=1",
        b"-duser.install=1",
        b"-Duser.install=1 ",
        b"-Duser.install=10",
        b"-Duser.install=0 ",
        b"-Duser.install=01",
        b"--Duser.install=1",
        # anything else that begins with a hyphen
        b"-",
        b"--",
        b"-x",
        b"-Xmx2g",
        b"-Da=b",
        b"--help",
        b"-\xff\n'",
    ],
)
def test_any_other_argument_that_begins_with_a_hyphen_is_rejected(system_wide, argument):
    assert system_wide.run(argument) == rejected(argument)


@pytest.mark.parametrize(
    "command_line, home, arguments",
    [
        ([PER_USER], ALICE, []),
        ([SYSTEM_WIDE], b"", []),
        ([PER_USER, SYSTEM_WIDE], ALICE, []),
        ([SYSTEM_WIDE, PER_USER, SYSTEM_WIDE], ALICE, []),
        ([SYSTEM_WIDE, b"a", SYSTEM_WIDE, b"b"], b"", [b"a", b"b"]),
        ([PER_USER, b"a", PER_USER, SYSTEM_WIDE, b"b", SYSTEM_WIDE, PER_USER], ALICE, [b"a", b"b"]),
    ],
)
def test_every_switch_is_removed_and_a_user_switch_wins_in_any_order(
    per_user, command_line, home, arguments
):
    assert per_user.run(*command_line) == finished(home, arguments=arguments)


def test_the_first_rejected_argument_is_reported_after_the_install_mode(per_user):
    assert per_user.run(b"alpha", b"-x", b"-y", PER_USER) == rejected(b"-x", ALICE)


def test_an_argument_is_rejected_before_the_location_of_the_program_matters(system_wide):
    program = system_wide.root.put("/tmp/OrvaneService", PROGRAM)  # aborts without -x
    assert system_wide.run(PER_USER, b"-x", program=program) == rejected(b"-x", ALICE)
