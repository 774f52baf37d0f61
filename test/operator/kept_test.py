"""Which version is kept beside the present one: the last that has come up, until another has."""

import pytest

from machine import MAC, version


def kept(machine):
    """{name: version} of what is kept."""
    found = {name: version(machine.kept / name / "Orvane.app") for name in ("former", "last-good")}
    return {name: number for name, number in found.items() if number}


def stop(machine):
    """As on call, by hand."""
    machine.model.bootout(machine.target)
    machine.wait(lambda job: job is None)


def disable(machine):
    stop(machine)
    machine.model.disabled.add(machine.target)


def enable(machine):
    machine.model.disabled.clear()
    machine.model.bootstrap(machine.domain, str(machine.job))
    machine.wait(lambda job: job.process)


def crash(machine):
    """The service ends once, and runs again."""
    machine.loaded().process.kill()
    machine.wait(lambda job: job.runs == 2 and job.process)


def test_a_version_that_was_stopped_before_the_upgrade_is_kept(machine):
    machine.good("1", "2")
    stop(machine)
    machine.good("3")
    assert kept(machine) == {"former": "2"}


def test_a_version_that_crashed_before_the_upgrade_is_kept(machine):
    machine.good("1", "2")
    crash(machine)
    machine.good("3")
    assert kept(machine) == {"former": "2"}


def test_a_version_that_came_up_and_died_later_is_kept_and_what_it_replaced_is_not(machine):
    machine.good("1")
    machine.install("2", "dies")
    machine.die()
    machine.good("3")
    assert kept(machine) == {"former": "2"}


def test_a_version_that_is_installed_again_displaces_none(machine):
    machine.good("1", "2")
    (machine.service / "Contents/MacOS/OrvaneService").write_bytes(b"damaged")
    machine.good("2")
    assert machine.call(machine.app)[0] == 0
    assert machine.seen() == ("2", "2", "1", set())


def test_the_last_good_version_is_kept_until_another_one_comes_up(machine):
    machine.good("1", "2")
    disable(machine)
    for number in "3", "4":  # which may not start
        machine.good(number)
        assert (version(machine.app), kept(machine)) == (number, {"last-good": "2"})
    machine.model.disabled.clear()
    assert machine.install("5", "crashes")[0] == 3
    assert (version(machine.app), kept(machine)) == ("4", {"last-good": "2"})
    disable(machine)
    machine.good("4")
    assert (version(machine.app), kept(machine)) == ("4", {"last-good": "2"})
    machine.model.disabled.clear()
    machine.good("6")
    assert (version(machine.app), kept(machine)) == ("6", {"former": "2"})


def test_a_version_that_comes_up_later_is_the_last_good_one_then(machine):
    machine.good("1")
    disable(machine)
    machine.good("2")
    enable(machine)
    machine.good("3")
    assert (version(machine.app), kept(machine)) == ("3", {"former": "2"})


def test_a_version_that_runs_for_an_hour_is_the_last_good_one(machine):
    machine.good("1")
    disable(machine)
    machine.good("2")
    enable(machine)
    crash(machine)
    machine.good("3")
    assert kept(machine) == {"former": "1"}
    disable(machine)
    machine.good("4")
    enable(machine)
    crash(machine)
    machine.stand_in("ps", 'case $2 in etime=) echo "   01:00:00" ;; *) exec /bin/ps "$@" ;; esac')
    machine.good("5")
    assert kept(machine) == {"former": "4"}


@pytest.mark.parametrize("machine", ["user"], indirect=True)
def test_the_last_good_version_is_kept_where_nobody_is_logged_in(machine):
    machine.good("1")
    machine.model.faults["logged out"] = 1
    stop(machine)
    for number in "2", "3":
        machine.good(number)
    assert (version(machine.app), kept(machine)) == ("3", {"last-good": "1"})
    del machine.model.faults["logged out"]
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert machine.seen()[:3] == ("1", "1", "3")


def test_a_rollback_that_may_not_start_keeps_the_last_good_version(machine):
    machine.good("1", "2")
    disable(machine)
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert (version(machine.app), kept(machine)) == ("1", {"last-good": "2"})
    machine.good("3")
    assert (version(machine.app), kept(machine)) == ("3", {"last-good": "2"})
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert (version(machine.app), kept(machine)) == ("2", {"former": "3"})


def test_what_comes_up_by_itself_while_it_is_installed_is_started_again(machine):
    machine.good("1")
    machine.bundle("2")
    (MAC / "bin/launchctl").rename(MAC / "launchctl")
    # Between the stop and the start somebody loads the job, as a log-in does an agent's.
    load = f'{MAC}/launchctl bootstrap {machine.domain} "{machine.job}"'
    machine.stand_in(
        "launchctl",
        f'if [ $1 = print-disabled ] && [ -e "{MAC}/load" ]; then rm {MAC}/load; {load}; sleep 0.1; fi\n'
        f'exec {MAC}/launchctl "$@"',
    )
    machine.at("exchange replacing/job job", after=f"touch {MAC}/load")
    assert machine.call("2")[0] == 0
    machine.steps()
    assert machine.seen() == ("2", "2", "1", set())
