"""Runs of random command lines, override files and program paths, compared whole with the expected
ones. The examples are the same in each run."""

import os
import re

from hypothesis import HealthCheck, example, given, settings, strategies as st

from support import expected
from support.launcher import PER_USER, PROGRAM, SYSTEM_WIDE, Launcher, Run, finished
from support.root import Root

texts = st.binary(max_size=20).map(lambda text: text.replace(b"\0", b""))
arguments = st.one_of(texts, st.sampled_from([PER_USER, SYSTEM_WIDE, b"", b" -x", b"-x", b"-"]))
command_lines = st.builds(
    list.__add__, st.sampled_from([[], [PER_USER]]), st.lists(arguments, max_size=5)
)
allowed = st.builds(bytes.__add__, st.sampled_from(expected.PREFIXES), st.binary(max_size=20))
files = st.one_of(
    st.none(),
    st.binary(max_size=40),
    st.builds(
        lambda lines, end: b"\n".join(lines) + end,
        st.lists(allowed, max_size=5),
        st.sampled_from([b"", b"\n", b"\n\n", b"\r\n", b"\n-Xms1g\n"]),
    ),
)
paths = st.builds(
    lambda top, names, last: "/".join([top, *names, last]),
    st.sampled_from(["/Users", "/Applications", "/Library", "/Volumes"]),
    st.lists(st.sampled_from(["Users", "alice", "a b", "Users\\b", "é", ".x"]), max_size=4),
    st.sampled_from(["OrvaneService", "dir\\service"]),
)


def home_of(program):
    directory = re.match(r"(.*)[/\\]", program)[1].encode()
    _, users, after = directory.partition(b"/Users/")
    return b"/Users/" + (after if users else directory[6:]).split(b"/")[0]


def expected_run(command_line, file, program):
    home = home_of(program) if PER_USER in command_line else b""
    arguments = [argument for argument in command_line if argument not in (PER_USER, SYSTEM_WIDE)]
    rejected = [argument for argument in arguments if argument.startswith(b"-")]
    if rejected:
        return Run(1, expected.launching(home), expected.rejected_argument(rejected[0]), [])
    lines = None if file is None else file.removesuffix(b"\n").split(b"\n") if file else []
    rejected = [line for line in lines or [] if not line.startswith(tuple(expected.PREFIXES))]
    if rejected:
        return Run(1, expected.launching(home, []), expected.rejected_line(rejected[0]), [])
    return finished(home, lines, arguments)


@settings(
    max_examples=200,
    derandomize=True,
    deadline=None,
    database=None,
    suppress_health_check=[HealthCheck.too_slow],
)
@given(command_lines, files, paths)
@example([PER_USER], b"\n", "/Users/OrvaneService")
def test_a_random_run_is_as_expected(module_root, command_line, file, program):
    with Root() as root:
        launcher = Launcher(root)
        root.put(program, PROGRAM)
        if file is not None:
            home = home_of(program) if PER_USER in command_line else b""
            launcher.put_override_file(file, os.fsdecode(home))
        assert launcher.run(*command_line, program=program) == expected_run(
            command_line, file, program
        )
