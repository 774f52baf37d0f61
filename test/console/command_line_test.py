import pytest

from support import expected
from support.launcher import ALICE, PER_USER, PROGRAM, SYSTEM_WIDE, Run, finished


def rejected(argument, home=b""):
    return Run(1, expected.launching(home), expected.rejected_argument(argument), [])


@pytest.mark.parametrize("arguments", [
    pytest.param([], id="none"),
    pytest.param([b" " + PER_USER, b"\t" + SYSTEM_WIDE], id="a switch after a space or a tab"),
    pytest.param([b" -x", b"a-", b"\xe2\x80\x93x", b"'-x'"], id="a hyphen that is not the first byte"),
    pytest.param([b"alpha", b"", b"beta"], id="an empty argument at its position"),
    pytest.param([b""], id="an empty argument alone"),
    pytest.param([b"b", b"a", b"b", b" two words ", b"line\nfeed", b"\xc3\xa9", b"\xff\x80\x01", b"'\"\\$*",
                  b"\r\t"], id="any bytes in order, duplicates included"),
    pytest.param([b"x" * 70000, *(b"%d" % number for number in range(33000))],
                 id="a long argument and more than 16 bits count"),
])
def test_the_service_gets_the_arguments_byte_for_byte(system_wide, arguments):
    assert system_wide.run(*arguments) == finished(arguments=arguments)


@pytest.mark.parametrize("argument", [
    # similar to a switch
    b"-Duser.install=2", b"-Duser.install", b"-Duser.install=", b"-DUSER.INSTALL=1",
    b"-duser.install=1", b"-Duser.install=1 ", b"-Duser.install=10", b"-Duser.install=0 ",
    b"-Duser.install=01", b"--Duser.install=1",
    # anything else that begins with a hyphen
    b"-", b"--", b"-x", b"-Xmx2g", b"-Da=b", b"--help", b"-\xff\n'",
])
def test_any_other_argument_that_begins_with_a_hyphen_is_rejected(system_wide, argument):
    assert system_wide.run(argument) == rejected(argument)


def test_the_user_switch_alone_makes_a_per_user_run_without_arguments(per_user):
    assert per_user.run(PER_USER) == finished(home=ALICE)


def test_the_system_switch_alone_changes_nothing(system_wide):
    assert system_wide.run(SYSTEM_WIDE) == finished()


@pytest.mark.parametrize("switches", [
    [PER_USER, SYSTEM_WIDE], [SYSTEM_WIDE, PER_USER], [SYSTEM_WIDE, PER_USER, SYSTEM_WIDE],
], ids=["user first", "system first", "user between"])
def test_of_both_switches_the_user_switch_wins_in_any_order(per_user, switches):
    assert per_user.run(*switches) == finished(home=ALICE)


def test_every_copy_of_a_switch_is_removed_at_any_position(per_user):
    assert (per_user.run(PER_USER, b"a", PER_USER, SYSTEM_WIDE, b"b", SYSTEM_WIDE, PER_USER) ==
            finished(home=ALICE, arguments=[b"a", b"b"]))
    assert (per_user.run(SYSTEM_WIDE, b"a", SYSTEM_WIDE, b"b", SYSTEM_WIDE) ==
            finished(arguments=[b"a", b"b"]))


def test_only_the_first_rejected_argument_is_reported(system_wide):
    assert system_wide.run(b"alpha", b"-x", b"-y") == rejected(b"-x")


@pytest.mark.parametrize("arguments", [[b"-x", PER_USER], [PER_USER, b"-x"]])
def test_the_install_mode_is_printed_before_an_argument_is_rejected(per_user, arguments):
    assert per_user.run(*arguments) == rejected(b"-x", ALICE)


def test_an_argument_is_rejected_before_the_override_file_is_opened(system_wide):
    system_wide.put_override_file(b"-rejected\n")
    assert system_wide.run(b"-x") == rejected(b"-x")


def test_an_argument_is_rejected_before_the_location_of_the_program_matters(system_wide):
    system_wide.root.put("/OrvaneService", PROGRAM)
    assert system_wide.run(PER_USER, b"-x", program="/OrvaneService") == rejected(b"-x", ALICE)
