"""operator/check-install on installations that install has made, and that a test has then changed."""

import json
import os
import re
import subprocess

import pytest

from machine import ALICE, MAC, put
from support import ROOT

USAGE = (
    re.search(r'(?ms)^usage="(.*?)"$', (ROOT / "operator/check-install").read_text()).group(1)
    + "\n"
)
VERSIONS = "Versions: launcher 1, service 1, runtime 17.0.9.\n"


@pytest.fixture
def installed(machine):
    """Version 1 as install has installed it, with an override file."""
    machine.good("1")
    put(machine.data / "conf/jvm_args", b"-Xmx2g\n")
    machine.give(machine.data)
    return machine


def check(machine, *arguments):
    """Status, text with short names for the paths, errors."""
    account = ["--user", ALICE.pw_name] if machine.uid else []
    script = machine.script(MAC / "new/1/Orvane.app", "check-install")[0]
    done = subprocess.run(
        [script, *account, *arguments],
        capture_output=True,
        timeout=60,
        text=True,
        env={"PATH": "/usr/bin:/bin"},
    )
    return done.returncode, machine.short(done.stdout), done.stderr


def crash(machine, number=9):
    """The service ends once, and runs again."""
    machine.loaded().process.send_signal(number)
    machine.wait(lambda job: job.runs == 2 and job.process)


AGAIN = "install the bundle again"
OPEN = "not OWNER's, or writable by others; chown OWNER, chmod go-w"
KIND = "neither file, directory nor link, or setuid or setgid; " + AGAIN
LIST = "an access control list allows changes; chmod -RN"
LINK = "a symbolic link; replace it with what it names"
LEFT = "left by an interrupted call; call install again, unless one is at work"
GONE, WRONG = "missing, or no regular file; " + AGAIN, "missing, or no regular file; remove it"
OTHER_JOB = "JOB: not as the bundle has it; " + AGAIN
OUTER, INNER = (
    f"{path}: signature: a sealed resource is missing or invalid\\x{{a}}file added: x; {AGAIN}"
    for path in ("APP", "SERVICE")
)
UNSIGNED, INNER_UNSIGNED = (
    f"{path}: signature: code object is not signed at all; {AGAIN}" for path in ("APP", "SERVICE")
)
LINES = [
    f"DATA/conf/jvm_args: line {number} is not allowed; the launcher will not start; correct or delete "
    "it"
    for number in (1, 2, 4, 5, 6, 7)
]
# What is done to a correct installation, by sh or here, and the lines that report it: one fault per row.
# The rows with one number are checked in one run.
BROKEN = [
    (0, "rm -r $APP", "APP: missing; install the bundle"),
    (1, "mv $APP $MAC; ln -s $MAC/Orvane.app $APP", "APP: a link; install the bundle"),
    (2, "touch $SERVICE/Contents/Resources/conf/x", OUTER, INNER),
    (3, "touch $SERVICE/Contents/MacOS/hs_err_pid7.log", OUTER, INNER),
    (4, "echo x >$SERVICE/Contents/MacOS/OrvaneService", OUTER, INNER),
    (5, "echo x >$SERVICE/Contents/Resources/lib/com.vaultory.desktop.jar", OUTER, INNER),
    (6, "rm $RELEASE", OUTER, INNER),
    (7, "touch $APP/Contents/x", OUTER),
    (8, "rm -r $APP/Contents/_CodeSignature", UNSIGNED),
    (
        9,
        "rm -r $APP/Contents/_CodeSignature $SERVICE/Contents/_CodeSignature",
        UNSIGNED,
        INNER_UNSIGNED,
    ),
    (
        10,
        "perl -pi -e s/.1./.2./ $SERVICE/Contents/Info.plist",
        OUTER,
        INNER,
        f"APP: not the version of the service in it; {AGAIN}",
    ),
    (2, "touch $MAC/quarantine", f"APP: quarantined; {AGAIN}"),
    (2, "mkfifo $APP/Contents/x", f"APP/Contents/x: {KIND}"),
    (3, "chmod 4755 $RELEASE", f"RELEASE: {KIND}"),
    (4, "chmod 775 $SERVICE/Contents/MacOS", f"SERVICE/Contents/MacOS: {OPEN}"),
    (5, "chmod 646 $RELEASE", f"RELEASE: {OPEN}"),
    (2, "chmod 775 $SUPPORT/..", f"HOME/Library: {OPEN}"),
    (3, "chmod 777 $APP/..", f"HOME/Applications: {OPEN}"),
    (3, "chmod 757 $SUPPORT", f"SUPPORT: {OPEN}"),
    (4, "chmod 777 $JOBS", f"JOBS: {OPEN}"),
    (5, lambda m: m.access_list(m.jobs), f"JOBS: {LIST}"),
    (6, lambda m: m.access_list(m.data / "conf"), f"DATA/conf: {LIST}"),
    (7, lambda m: m.access_list(m.service / "Contents"), f"APP: {LIST}"),
    (2, "chmod 664 $JOB", f"JOB: {OPEN}"),
    (3, "rm $JOB", f"JOB: {GONE}"),
    (4, "mv $JOB $MAC/job; ln -s $MAC/job $JOB", f"JOB: {LINK}", f"JOB: {GONE}", OTHER_JOB),
    (5, "rm $JOB; mkfifo $JOB", f"JOB: {GONE}"),
    (6, "perl -0pi -e 's/.{20}$//s' $JOB", OTHER_JOB),
    (7, "perl -pi -e s/OrvaneService./sh/ $JOB", OTHER_JOB),
    (8, "perl -pi -e s/KeepAlive/KeepDead/ $JOB", OTHER_JOB),
    (9, "perl -pi -e 's/(<key>)RunAt/$1EnvironmentVariables<\\/key><dict\\/>$&/' $JOB", OTHER_JOB),
    (0, lambda m: m.model.jobs.clear(), "TARGET: not loaded; launchctl bootstrap DOMAIN JOB"),
    (
        2,
        lambda m: m.model.disabled.add(m.target),
        "TARGET: disabled; launchctl enable TARGET, then launchctl bootstrap DOMAIN JOB",
    ),
    (3, crash, "TARGET: restarted, 2 runs, the last ended: Killed: 9; see LOG"),
    (4, lambda m: setattr(m.loaded(), "path", "/x"), f"TARGET: loaded from /x; {AGAIN}"),
    (
        2,
        "printf '\\357\\273\\277-Xmx2g\\n-Xmx2g\\r\\n-Xmx1g\\n\\n#\\n-Xmx2g -Xmx1g\\n-Dx' >$ARGS",
        *LINES,
    ),
    (3, "rm $ARGS; mkfifo $ARGS", f"DATA/conf/jvm_args: {WRONG}"),
    (
        4,
        "mv $ARGS $MAC/args; ln -s $MAC/args $ARGS",
        f"DATA/conf/jvm_args: {LINK}",
        f"DATA/conf/jvm_args: {WRONG}",
    ),
    (8, "chmod 777 ${LOG%/*}", f"HOME/Library/Logs: {OPEN}"),
    (9, "chmod 666 $LOG", f"LOG: {OPEN}"),
    (9, "chmod 777 $DATA/conf", f"DATA/conf: {OPEN}"),
    (10, "mv $DATA/conf $MAC/conf; ln -s $MAC/conf $DATA/conf", f"DATA/conf: {LINK}"),
    (5, "chmod 666 $ARGS", f"DATA/conf/jvm_args: {OPEN}"),
    (7, "mv $DATA $MAC/data; ln -s $MAC/data $DATA", f"DATA: {LINK}"),
    (5, "rm $LOG; mkfifo $LOG", f"LOG: {WRONG}"),
    (6, "mkdir $KEPT/old", f"KEPT/old: {LEFT}"),
    (7, "mkdir $KEPT/gone.1", f"KEPT/gone.1: {LEFT}"),
    (
        6,
        lambda m: put(m.kept / "x\ny: fine; call \x1b[2J\u202e", b"", 0o666),
        f"KEPT/x\\x{{a}}y: fine; call \\x{{1b}}[2J\\x{{202e}}: {OPEN}",
    ),
    ("users", "chown 1 $APP", f"APP: {OPEN}"),
    ("users", "chown 1 $APP/..", f"HOME/Applications: {OPEN}"),
    ("users", "chown 1 $DATA/conf", f"DATA/conf: {OPEN}"),
    ("users", "ln -s y $KEPT/x; chown -h 1 $KEPT/x", f"KEPT/x: {OPEN}"),
]
CORRECT = [  # likewise
    (0, "true"),
    (1, "rm $ARGS"),
    (1, "touch $LOG.0.bz2"),
    (
        1,
        "chmod 775 $APP/..; chgrp 80 $APP/.. || chmod 755 $APP/..",
    ),  # not in a namespace of one group
    (1, "perl -pi -e 's/<dict>/<!-- x --> <dict >/' $JOB"),
    (1, lambda m: crash(m, 15)),  # ended once by hand, and restarted
    (1, lambda m: m.model.disabled.add(m.target + "2")),
    (1, "chmod 700 $DATA"),
    (2, lambda m: m.good("2")),
    (2, "rm -r $DATA"),
    (2, "rm $LOG"),
    (2, lambda m: [crash(m), m.stand_in("ps", "echo '   02-03:04:05'")]),  # crashed once, long ago
    (3, lambda m: [m.good("2"), m.call("1", "--rollback")]),
    (3, "true >$ARGS"),
    (3, lambda m: [crash(m), m.stand_in("ps", "echo '15:01'")]),  # a quarter of an hour ago
    (4, lambda m: m.install("2", "crashes")),
    (4, "printf -- '-Dorv.security.mode=a b \\n-Djava.net.preferIPv4Stack=\\377\\r\\n' >$ARGS"),
    (5, lambda m: m.install("1", "exits")),
    (
        5,
        "printf -- '-Xmx0x40000000\\n-Xmx1G\\n-Dorv.security.mode=' >$ARGS",
    ),  # no line feed at its end
]


def arrange(machine, table, number):
    """Does what the rows of that number say, and returns their lines."""
    rows = [row for row in table if row[0] == number]
    for _, change, *_ in rows:
        change(machine) if callable(change) else machine.sh(change)
    return [line for row in rows for line in row[2:]]


@pytest.mark.parametrize(
    "machine, number",
    [*(("system", number) for number in [*range(11), "users"]), ("user", "users")],
    indirect=["machine"],
)
def test_what_is_broken_is_reported(installed, number, request):
    if number == "users":
        request.getfixturevalue("users")
    lines = arrange(installed, BROKEN, number)
    expected = "\n".join(sorted([*lines, f"Deviations found: {len(lines)}."]))
    for name, value in (
        ("HOME", installed.home),
        ("DOMAIN", installed.domain),
        ("OWNER", installed.owner),
    ):
        expected = expected.replace(name, value)
    status, text, errors = check(installed)
    assert (status, sorted(text.splitlines()[2:]), errors) == (1, sorted(expected.splitlines()), "")


@pytest.mark.parametrize("number", range(6))
def test_what_is_unusual_and_correct_is_not_reported(installed, number):
    arrange(installed, CORRECT, number)
    assert check(installed)[1].splitlines()[2:] == ["No deviation found."]


def test_a_service_that_crashes_at_each_start_is_reported(machine):
    machine.install("1", "dies")
    machine.die()
    assert re.fullmatch(
        r"(?s).*\nTARGET: (restarted, \d+ runs, the last|does not run,) ended: 3; see LOG\n"
        r"Deviations found: 1\.\n",
        check(machine)[1],
    )


@pytest.mark.parametrize("machine", ["user"], indirect=True)
def test_state_is_said_and_a_user_s_installation_is_checked_with_that_user_s_rights(installed):
    installed.stand_in("codesign", f"id -u >>{MAC}/ids")
    assert check(installed) == (
        0,
        VERSIONS + "State: runs, process PID.\nNo deviation found.\n",
        "",
    )
    installed.install("1", "exits")
    assert check(installed) == (0, VERSIONS + "State: exited with 0.\nNo deviation found.\n", "")
    installed.model.faults["logged out"] = 1
    assert check(installed) == (0, VERSIONS + "State: not logged in.\nNo deviation found.\n", "")
    assert {*(MAC / "ids").read_text().split()} == {str(ALICE.pw_uid)}


def test_json_is_valid_whatever_the_names_are(installed):
    names = [
        *(bytes([byte]) for byte in range(1, 256) if byte != 47),
        b"\xed\xa0\x80",
        b"\xf4\x90\x80\x80",
        b'a\\"\n\t',
    ]
    for name in names:
        os.mkdir(os.fsencode(installed.kept) + b"/x" + name)
        os.chmod(os.fsencode(installed.kept) + b"/x" + name, 0o777)
    status, text, errors = check(installed, "--json")
    result = json.loads(text)
    assert (status, errors, " ".join(result)) == (
        1,
        "",
        "launcher service runtime state deviations",
    )
    assert len({entry["path"] for entry in result["deviations"]}) == len(names)
    assert not re.search(r"[\x00-\x1f\x7f-\x9f]", text[:-1])


def test_the_team_of_the_signature_may_be_required(installed):
    assert check(installed, "--team", "A1B2C3D4E5")[0] == 0
    status, text, _ = check(installed, "--team", "Z")
    assert (status, text.count("test-requirement: code failed to satisfy")) == (1, 2)


def test_wrong_calls_say_what_is_right(machine):
    machine.bundle("1")
    assert check(machine, "--help") == (0, USAGE, "")
    for wrong in ["--now"], ["--json", "x"], ["--team"]:
        assert check(machine, *wrong) == (2, "", USAGE)
    wrong = "check-install: NAME must be an account here, the caller root or that user; ID only A-Z and 0-9\n"
    assert check(machine, "--user", "nobody-at-all") == (2, "", wrong)
    assert check(machine, "--team", 'Z" or "') == (2, "", wrong)
