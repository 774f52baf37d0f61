"""A failure anywhere in a run of the tests is the run's."""

import os
import shutil
import subprocess

import pytest

from support import ROOT, macos

PASSED = '<testsuite><testcase name="Unit.test" status="run"/>{}</testsuite>'
SUITE = '<testcase name="console" status="run"/>'


@pytest.fixture
def checkout(tmp_path):
    """A copy of the scripts, with commands in bin that are found first."""
    for name in "script", ".ci":
        shutil.copytree(ROOT / name, tmp_path / "a b" / name)
    (tmp_path / "a b/test/console").mkdir(parents=True)
    shutil.copy(ROOT / "test/summary.py", tmp_path / "a b/test")
    # On a Mac script/test looks for pytest there.
    command(tmp_path / "a b/build/venv/bin/python3", "exit 0\n")
    return tmp_path / "a b"


def command(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(0o755)


def run(checkout, *command, **variables):
    env = {
        **os.environ,
        "PATH": f"{checkout.parent}/bin:{os.environ['PATH']}",
        "JAVA_HOME": "/",
        **variables,
    }
    env = {name: value for name, value in env.items() if name != "CI" or "CI" in variables}
    return subprocess.run(
        command, cwd="/", env=env, capture_output=True, text=True, stdin=subprocess.DEVNULL
    )


@pytest.mark.parametrize(
    "results, status, last_line",
    [
        (PASSED.format(""), 0, "1 of 1 tests executed"),
        (PASSED.format(""), 8, "1 of 1 tests executed"),
        (PASSED.format(SUITE), 0, "1 of 1 tests executed"),  # of a suite that wrote no results
        ("<testsuite/>", 0, "0 of 0 tests executed"),
    ],
)
def test_script_test_fails_if_ctest_or_a_suite_does(checkout, results, status, last_line):
    command(checkout.parent / "bin/cmake", "exit 0\n")
    command(
        checkout.parent / "bin/ctest",
        f"mkdir -p '{checkout}/build/release'\n"
        f"echo '{results}' >'{checkout}/build/release/tests.xml'\nexit {status}\n",
    )
    result = run(checkout, checkout / "script/test")
    assert result.stdout.splitlines()[-1:] == [last_line], result
    assert (result.returncode == 0) == (results == PASSED.format("") and status == 0)


def test_a_step_fails_with_the_first_command_of_its_function_that_does(checkout):
    result = run(
        checkout,
        "bash",
        "-c",
        f". '{checkout}/script/lib.sh'\n"
        "build_all() { echo one; (exit 7); echo two; }\nstep Building build_all\necho after",
    )
    assert (result.returncode, result.stdout) == (7, "")
    assert result.stderr.splitlines()[0] == "one"
    assert result.stderr.splitlines()[1].startswith("Building: failed with status 7 after ")


def test_a_build_directory_is_configured_again_as_its_preset_may_have_changed(checkout):
    command(checkout.parent / "bin/cmake", f'echo "$*" >>"{checkout}/calls"\n')
    command(checkout / "build/release/Makefile", "")
    (checkout / "build/release/CMakeCache.txt").write_text(
        f"CMAKE_CACHEFILE_DIR:INTERNAL={checkout}/build/release\n"
    )
    result = run(checkout, "bash", "-c", f". '{checkout}/script/lib.sh'; build release")
    assert (result.returncode, result.stdout) == (0, ""), result
    assert (checkout / "calls").read_text().splitlines() == [
        "--preset release",
        "--build --preset release",
    ]


@pytest.mark.parametrize(
    "failing",
    [
        None,
        "check",
        "cross-macos",
        "test clang",
        "test sanitize",
        "test sanitize-clang",
        "test release",
    ],
)
def test_CI_ends_with_the_first_script_that_fails(checkout, failing):
    for name in "check", "cross-macos", "test":
        command(
            checkout / "script" / name,
            f'set -- {name} "$@"; echo "$CI $*"; [ "$*" != "{failing}" ]\n',
        )
    command(checkout.parent / "bin/uname", "echo Linux\n")
    names = [
        "check",
        "cross-macos",
        "test clang",
        "test sanitize",
        "test sanitize-clang",
        "test release",
    ]
    expected = names[: names.index(failing) + 1] if failing else names
    result = run(checkout, checkout / ".ci/run")
    assert result.stdout.splitlines() == ["true " + name for name in expected]
    assert result.returncode == (1 if failing else 0)


def test_CI_says_on_a_Mac_that_it_runs_on_Debian_alone(checkout):
    command(checkout.parent / "bin/uname", "echo Darwin\n")
    result = run(checkout, checkout / ".ci/run")
    assert (result.returncode, result.stdout, result.stderr) == (
        1,
        "",
        f"{checkout}/.ci/run runs on Debian alone: here call script/test\n",
    )


def test_a_test_is_skipped_on_macOS_only_if_it_is_listed_and_needs_what_macOS_lacks(
    request, tmp_path, monkeypatch
):
    listed = tmp_path / "list"
    listed.write_text("")
    with monkeypatch.context() as replaced:
        replaced.setattr(macos, "LIST", listed)
        replaced.setattr(macos, "LINUX", False)
        with pytest.raises(pytest.fail.Exception, match="macOS has no strace: do without, or list"):
            macos.needs("strace")
        listed.write_text(f"strace\n    {request.node.nodeid}\n")
        with pytest.raises(pytest.skip.Exception, match="macOS has no strace"):
            macos.needs("strace")
        with pytest.raises(pytest.fail.Exception, match="no need of strace: remove "):
            macos.check(request.node.nodeid)


@pytest.mark.parametrize("place, option", [("{}", []), ("/another/place", ["--fresh"])])
def test_a_checkout_that_was_copied_with_its_build_is_configured_afresh(checkout, place, option):
    build = checkout / "build/release"
    build.mkdir(parents=True)
    line = f"CMAKE_CACHEFILE_DIR:INTERNAL={place.format(build)}\n"
    (build / "CMakeCache.txt").write_text(line)
    command(checkout.parent / "bin/cmake", 'echo "$*" >>"$CALLS"\nexit 1\n')
    calls = checkout / "calls"
    run(checkout, checkout / "script/test", CALLS=str(calls))
    assert calls.read_text().splitlines() == [" ".join(["--preset release", *option])]


@pytest.mark.parametrize("name", ["bench", "check", "cross-macos", "run", "test"])
def test_a_script_explains_itself_and_does_nothing_else(checkout, name):
    script = checkout / "script" / name
    head = script.read_text().partition("\n")[2].partition("\n.")[0]
    result = run(checkout, script, "--help", PATH="/usr/bin:/bin")
    assert (result.returncode, result.stdout, result.stderr) == (
        0,
        "".join(line[2:] + "\n" for line in head.splitlines()),
        "",
    )
    assert f"script/{name}" in result.stdout
