import os

import pytest

from support import CONTENTS, expected, platform
from support.launcher import ABORTED, LIBRARY, PER_USER, PROGRAM, Run, finished


def assert_home(launcher, program, home, cwd=None):
    """A per-user run of the program, from /Applications by default, has this home."""
    launcher.put_override_file(b"-Xmx2g\n", os.fsdecode(home))
    assert launcher.run(PER_USER, program=program, cwd=cwd) == finished(
        home=home, lines=[b"-Xmx2g"]
    )


def assert_out_of_range(launcher, program, directory_size, cwd=None):
    assert launcher.run(PER_USER, b"a", program=program, cwd=cwd) == Run(
        ABORTED,
        expected.launching(b"/Users/"),
        platform.out_of_range(directory_size),
        [],
        normal_end=False,
    )


def long_path(size):
    """A path of the program below alice's home, of this many bytes."""
    path = "/Users/alice/"
    while size - len(path) > 256 + len("/OrvaneService"):
        path += "d" * 200 + "/"
    return path + "d" * (size - len(path) - len("/OrvaneService")) + "/OrvaneService"


@pytest.mark.parametrize(
    "program",
    [
        "/OrvaneService",
        "/Users/alice/OrvaneService",
        pytest.param(long_path(1025), id="1025 bytes"),
    ],
)
def test_the_paths_of_a_system_wide_run_do_not_depend_on_the_programs_location(
    system_wide, program
):
    system_wide.root.put(program, PROGRAM)
    assert system_wide.run(program=program) == finished()


@pytest.mark.parametrize(
    "program, home",
    [
        pytest.param(b"/Users/alice/OrvaneService", b"/Users/alice", id="in the home itself"),
        pytest.param(
            b"/Users/al ice\xff\\/bin/OrvaneService",
            b"/Users/al ice\xff\\",
            id="with bytes that are not UTF-8",
        ),
        pytest.param(
            b"/Volumes/Data/Users/user2/App/OrvaneService",
            b"/Users/user2",
            id="what precedes Users is dropped",
        ),
        pytest.param(
            b"/Users/first/Users/second/OrvaneService", b"/Users/first", id="the first Users counts"
        ),
        pytest.param(b"/Users/OrvaneService", b"/Users/", id="among the homes it has no name"),
        pytest.param(
            b"/Applications/OrvaneService",
            b"/Users/cations",
            id="outside any home it is cut from the path",
        ),
        pytest.param(
            b"/sixth/service", b"/Users/", id="in a directory of six bytes it has no name"
        ),
    ],
)
def test_the_programs_path_names_the_home(system_wide, program, home):
    system_wide.root.put(program, PROGRAM)
    assert_home(system_wide, program, home)


@pytest.mark.parametrize(
    "program, size",
    [("/service", 0), ("/tmp/service", 4), ("/five/service", 5), ("/a\\service", 2)],
)
def test_a_program_in_a_directory_of_fewer_than_six_bytes_aborts_per_user(
    system_wide, program, size
):
    system_wide.root.put(program, PROGRAM)
    assert_out_of_range(system_wide, program, size)


@pytest.mark.parametrize("size", [1022, 1023])
def test_a_program_path_of_up_to_1023_bytes_is_known(system_wide, size):
    assert_home(system_wide, system_wide.root.put(long_path(size), PROGRAM), b"/Users/alice")


@pytest.mark.parametrize("size", [1024, 1025])
def test_a_longer_program_path_aborts_per_user(system_wide, size):
    assert_out_of_range(
        system_wide, system_wide.root.put(long_path(size), PROGRAM), directory_size=0
    )


@pytest.mark.parametrize(
    "program, cwd",
    [
        ("./OrvaneService", "MacOS"),
        ("../MacOS/OrvaneService", "MacOS"),
        ("../MacOS/OrvaneService", "Resources"),
        (".//OrvaneService", "MacOS"),
    ],
)
def test_a_relative_start_takes_the_working_directory(per_user, program, cwd):
    assert_home(per_user, program, b"/Users/alice", f"{per_user.contents}/{cwd}")


@pytest.mark.parametrize("name", ["alice", ".alice", "..alice"])
def test_a_relative_start_from_among_the_home_directories_names_the_home_whole(system_wide, name):
    system_wide.put_runtime("")
    system_wide.root.put(f"/Users/{name}/bin/OrvaneService", PROGRAM)
    assert_home(system_wide, name + "/bin/OrvaneService", b"/Users/" + name.encode(), "/Users")


def test_only_a_leading_dot_slash_is_taken_off_a_relative_start(system_wide):
    directory, _, name = str(system_wide.root.put(long_path(1023), PROGRAM)).rpartition("/")
    parent, _, last = directory.rpartition("/")
    for cwd in directory, parent:
        system_wide.put_runtime(cwd.rpartition("/")[0])
    assert_home(system_wide, "./" + name, b"/Users/alice", directory)
    assert_home(system_wide, f"./{last}/{name}", b"/Users/alice", parent)
    for program in "././" + name, ".//" + name, f"../{last}/{name}":  # longer than 1,023 bytes
        if platform.LONG_PATH_IS_CUT:
            assert_home(system_wide, program, b"/Users/alice", directory)
        else:
            assert_out_of_range(system_wide, program, 0, directory)


def test_links_and_dots_in_the_programs_path_are_not_resolved(system_wide):
    system_wide.root.put("/Users/alice/bin/OrvaneService", PROGRAM)
    system_wide.root.path("/Users/bob").symlink_to("alice")
    system_wide.root.directory("/Users/dave").joinpath("start").symlink_to(system_wide.program)
    for program, home in (
        ("/Users/bob/bin/OrvaneService", b"/Users/bob"),
        ("/Users/dave/start", b"/Users/dave"),
        ("/Users/dave/../alice/./bin/OrvaneService", b"/Users/dave"),
    ):
        assert_home(system_wide, program, home)


def test_the_runtime_is_searched_from_the_working_directory_alone(system_wide):
    cwd = system_wide.root.directory("/Users/alice/bin")
    run = system_wide.run(cwd=cwd)
    assert run == Run(platform.NO_RUNTIME, b"", run.stderr, [], normal_end=False)
    system_wide.put_runtime("/Users/alice")
    assert system_wide.run(cwd=cwd) == finished()


def test_the_runtime_is_found_in_the_server_directory_and_then_in_the_jli_directory(system_wide):
    lib = f"/Applications/{CONTENTS}/Resources/jre/lib"
    system_wide.root.put(f"{lib}/jli/{LIBRARY}", b"not a library")
    assert system_wide.run() == finished()
    system_wide.put_runtime(f"/Applications/{CONTENTS}", "jli")
    system_wide.root.path(f"{lib}/server/{LIBRARY}").unlink()
    assert system_wide.run() == finished()
