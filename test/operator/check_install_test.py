"""operator/check-install on installations that install has made, and that a test has then changed."""

import json
import os
import re
import shutil
import signal
import subprocess
import typing

import pytest
from support import CONTENTS, ROOT
from support.macos import needs

from machine import ALICE, MAC, put

USAGE = (
    re.search(r'(?ms)^usage="(.*?)"$', (ROOT / "operator/check-install").read_text()).group(1)
    + "\n"
)
VERSIONS = "Versions: product 1, launcher 1.0.0, runtime 17.0.9.\n"
NOT_FINISHED = "check-install: not finished\n"


@pytest.fixture
def installed(machine):
    """Version 1 as install has installed it, with an override file."""
    machine.good("1")
    put(machine.data / "conf/jvm_args", b"-Xmx2g\n")
    machine.give(machine.data)
    return machine


def command(machine, *arguments, directory=None):
    """A call of check-install of the bundle that was installed, or of a copy in that directory."""
    script = machine.script(MAC / "new/1/Orvane.app", "check-install")[0]
    if directory:
        script = directory / "check-install"
    account = ["--user", ALICE.pw_name] if machine.uid else []
    return [script, *account, *arguments]


def check(machine, *arguments, directory=None, **options):
    """Status, text with short names for the paths, errors."""
    done = subprocess.run(
        command(machine, *arguments, directory=directory),
        stderr=subprocess.PIPE,
        timeout=60,
        text=True,
        env={"PATH": "/usr/bin:/bin"},
        **{"stdout": subprocess.PIPE, **options},
    )
    return done.returncode, machine.short(done.stdout or ""), done.stderr


def crash(machine, number=signal.SIGKILL):
    """The service ends once, and runs again."""
    machine.loaded().process.send_signal(number)
    machine.wait(lambda job: job.runs == 2 and job.process)


def edit(name, old, new):
    """A change of a file: a byte string in it becomes another."""

    def change(machine):
        path = machine.names[name] if name != "INFO" else machine.service / "Contents/Info.plist"
        text = path.read_bytes()
        assert old in text
        path.write_bytes(text.replace(old, new))

    return change


class Fault(typing.NamedTuple):
    """What is broken, by sh or a function, and the lines that report it. Those with one number are broken at
    once, and checked in one run."""

    run: int
    name: str
    change: object
    lines: tuple = ()


AGAIN = "install the bundle again"
OPEN = "not OWNER's, or writable by others; chown OWNER, chmod go-w"
KIND = "neither file, directory nor link, or setuid or setgid; " + AGAIN
LIST = "an access control list allows changes; chmod -N, without -R, which follows links"
LINK = "a symbolic link; replace it with what it names"
LEFT = "left by an interrupted call; call install again, unless one is at work"
GONE = "missing, or no regular file; " + AGAIN
WRONG = "missing, or no regular file; remove it"
NO_DIRECTORY = "no directory; remove it"
OTHER_JOB = "JOB: not as the bundle has it; " + AGAIN
CHANGED = tuple(
    f"{path}: signature: a sealed resource is missing or invalid\\x{{a}}file added: x; {AGAIN}"
    for path in ("APP", "SERVICE")
)
OUTER, INNER = CHANGED
NOT_SIGNED = f"APP: signature: code object is not signed at all; {AGAIN}"
LINKERS = "code has no resources but signature indicates they must be present"
INNER_NOT_SIGNED = f"SERVICE: signature: {LINKERS}; {AGAIN}"
SILENT = "TARGET: launchctl does not answer; call again; if it stays so, restart this Mac"
NOT_ALLOWED = tuple(
    f"DATA/conf/jvm_args: line {number} is not allowed; the launcher will not start; "
    "correct or delete it"
    for number in (1, 2, 4, 5, 6, 7)
)

OF_THE_BUNDLE = [
    Fault(0, "no bundle", "rm -r $APP", ("APP: missing; install the bundle",)),
    Fault(
        1,
        "a link to the bundle",
        "mv $APP $MAC; ln -s $MAC/Orvane.app $APP",
        ("APP: a link; install the bundle",),
    ),
    Fault(2, "another file", "touch $SERVICE/Contents/Resources/conf/x", CHANGED),
    Fault(3, "a crash report", "touch $SERVICE/Contents/MacOS/hs_err_pid7.log", CHANGED),
    Fault(4, "another launcher", "echo x >$SERVICE/Contents/MacOS/OrvaneService", CHANGED),
    Fault(
        5,
        "another jar",
        "echo x >$SERVICE/Contents/Resources/lib/com.vaultory.desktop.jar",
        CHANGED,
    ),
    Fault(6, "a file missing", "rm $RELEASE", CHANGED),
    Fault(7, "a file outside the service", "touch $APP/Contents/x", (OUTER,)),
    Fault(8, "only the service is signed", "rm -r $APP/Contents/_CodeSignature", (NOT_SIGNED,)),
    Fault(
        9,
        "nothing is signed",
        "rm -r $APP/Contents/_CodeSignature $SERVICE/Contents/_CodeSignature",
        (NOT_SIGNED, INNER_NOT_SIGNED),
    ),
    Fault(
        10,
        "two versions",
        edit("INFO", b"<string>1</string>", b"<string>2</string>"),
        (*CHANGED, f"APP: not the version of the service in it; {AGAIN}"),
    ),
    Fault(2, "a quarantine", "touch $MAC/quarantine", (f"APP: quarantined; {AGAIN}",)),
    Fault(2, "a FIFO", "mkfifo $APP/Contents/x", (f"APP/Contents/x: {KIND}",)),
    Fault(3, "a setuid bit", "chmod 4755 $RELEASE", (f"RELEASE: {KIND}",)),
    Fault(
        4,
        "a group's directory",
        "chmod 775 $SERVICE/Contents/MacOS",
        (f"SERVICE/Contents/MacOS: {OPEN}",),
    ),
    Fault(5, "everybody's file", "chmod 646 $RELEASE", (f"RELEASE: {OPEN}",)),
    Fault(
        7,
        "an access list inside",
        lambda machine: machine.access_list(machine.service / "Contents"),
        (f"APP: {LIST}",),
    ),
]
OF_THE_PLACES = [
    Fault(2, "a group's Library", "chmod 775 $SUPPORT/..", (f"HOME/Library: {OPEN}",)),
    Fault(3, "everybody's Applications", "chmod 777 $APP/..", (f"HOME/Applications: {OPEN}",)),
    Fault(3, "everybody's Application Support", "chmod 757 $SUPPORT", (f"SUPPORT: {OPEN}",)),
    Fault(4, "everybody's jobs", "chmod 777 $JOBS", (f"JOBS: {OPEN}",)),
    Fault(
        5, "an access list", lambda machine: machine.access_list(machine.jobs), (f"JOBS: {LIST}",)
    ),
    Fault(
        6,
        "an access list of the configuration",
        lambda machine: machine.access_list(machine.data / "conf"),
        (f"DATA/conf: {LIST}",),
    ),
    Fault(8, "everybody's Logs", "chmod 777 ${LOG%/*}", (f"HOME/Library/Logs: {OPEN}",)),
    Fault(
        7,
        "no Logs",
        "mv ${LOG%/*} $MAC/logs",
        (f"HOME/Library/Logs: missing, or no directory; {AGAIN}",),
    ),
    Fault(9, "everybody's log", "chmod 666 $LOG", (f"LOG: {OPEN}",)),
    Fault(9, "everybody's configuration", "chmod 777 $DATA/conf", (f"DATA/conf: {OPEN}",)),
    Fault(5, "everybody's override file", "chmod 666 $ARGS", (f"DATA/conf/jvm_args: {OPEN}",)),
    Fault(
        10,
        "a link to the configuration",
        "mv $DATA/conf $MAC/conf; ln -s $MAC/conf $DATA/conf",
        (f"DATA/conf: {LINK}",),
    ),
    Fault(7, "a link to the data", "mv $DATA $MAC/data; ln -s $MAC/data $DATA", (f"DATA: {LINK}",)),
    Fault(
        11,
        "a file in the place of the data directory",
        "rm -r $DATA; touch $DATA",
        (f"DATA: {NO_DIRECTORY}",),
    ),
    Fault(
        11,
        "a file in the place of what install keeps",
        "rm -r $KEPT; touch $KEPT",
        (f"KEPT: {NO_DIRECTORY}",),
    ),
    Fault(
        12,
        "a FIFO in the place of what install keeps",
        "rm -r $KEPT; mkfifo $KEPT",
        (f"KEPT: {NO_DIRECTORY}",),
    ),
    Fault(
        6,
        "a name that could fool a terminal",
        lambda machine: put(machine.kept / "x\ny: fine; call \x1b[2J\u202e", b"", 0o666),
        (f"KEPT/x\\x{{a}}y: fine; call \\x{{1b}}[2J\\x{{202e}}: {OPEN}",),
    ),
]
OF_THE_JOB = [
    Fault(2, "a group's job", "chmod 664 $JOB", (f"JOB: {OPEN}",)),
    Fault(3, "no job", "rm $JOB", (f"JOB: {GONE}",)),
    Fault(
        4,
        "a link to another job",
        "mv $JOB $MAC/job; ln -s $MAC/job $JOB",
        (f"JOB: {LINK}", f"JOB: {GONE}", OTHER_JOB),
    ),
    Fault(5, "a FIFO in the place of the job", "rm $JOB; mkfifo $JOB", (f"JOB: {GONE}",)),
    Fault(6, "a job that is cut short", edit("JOB", b"</plist>", b""), (OTHER_JOB,)),
    Fault(7, "another program", edit("JOB", b"OrvaneService<", b"sh<"), (OTHER_JOB,)),
    Fault(8, "another key", edit("JOB", b"KeepAlive", b"KeepDead"), (OTHER_JOB,)),
    Fault(
        9,
        "one more key",
        edit("JOB", b"<key>RunAt", b"<key>EnvironmentVariables</key><dict/><key>RunAt"),
        (OTHER_JOB,),
    ),
    Fault(
        10,
        "the mark of an agent's template",
        edit("JOB", b"<string>/Applications", b"<string>@HOME@/Applications"),
        (OTHER_JOB,),
    ),
]
OF_LAUNCHD = [
    Fault(
        0,
        "a job that is not loaded",
        lambda machine: machine.model.jobs.clear(),
        ("TARGET: not loaded; launchctl bootstrap DOMAIN JOB",),
    ),
    Fault(
        2,
        "a job that is disabled",
        lambda machine: machine.model.disabled.add(machine.target),
        ("TARGET: disabled; launchctl enable TARGET, then launchctl bootstrap DOMAIN JOB",),
    ),
    Fault(
        3,
        "a crash a moment ago",
        crash,
        ("TARGET: restarted, 2 runs, the last ended: Killed: 9; see LOG",),
    ),
    Fault(
        4,
        "a job from elsewhere",
        lambda machine: setattr(machine.loaded(), "path", "/x"),
        (f"TARGET: loaded from /x; {AGAIN}",),
    ),
    Fault(
        11, "no answer", lambda machine: machine.stand_in("launchctl", "exec sleep 50"), (SILENT,)
    ),
]
OF_THE_OVERRIDE_FILE = [
    Fault(
        2,
        "lines that the launcher rejects",
        "printf '\\357\\273\\277-Xmx2g\\n-Xmx2g\\r\\n-Xmx1g\\n\\n#\\n-Xmx2g -Xmx1g\\n-Dx' >$ARGS",
        NOT_ALLOWED,
    ),
    Fault(3, "a FIFO", "rm $ARGS; mkfifo $ARGS", (f"DATA/conf/jvm_args: {WRONG}",)),
    Fault(
        4,
        "a link",
        "mv $ARGS $MAC/args; ln -s $MAC/args $ARGS",
        (f"DATA/conf/jvm_args: {LINK}", f"DATA/conf/jvm_args: {WRONG}"),
    ),
    Fault(5, "a FIFO in the place of the log", "rm $LOG; mkfifo $LOG", (f"LOG: {WRONG}",)),
]
LEFT_OVER = [
    Fault(run, name, f"mkdir $KEPT/{name}", (f"KEPT/{name}: {LEFT}",))
    for run, name in enumerate(
        [
            "new",
            "gone",
            "ready.x",
            "replacing.x",
            "replaced.former",
            "old",
            "gone.1",
        ],
        2,
    )
] + [
    Fault(
        9,
        "the package's bundle",
        "mkdir -p $SUPPORT/Orvane.installing/Orvane.app",
        (
            "KEPT.installing: left by an interrupted installation; "
            "install the package again, unless the Installer is at work",
        ),
    ),
]
BROKEN = [
    *OF_THE_BUNDLE,
    *OF_THE_PLACES,
    *OF_THE_JOB,
    *OF_LAUNCHD,
    *OF_THE_OVERRIDE_FILE,
    *LEFT_OVER,
]
ANOTHERS = [  # which need other accounts
    Fault(0, "another's bundle", "chown 1 $APP", (f"APP: {OPEN}",)),
    Fault(0, "another's Applications", "chown 1 $APP/..", (f"HOME/Applications: {OPEN}",)),
    Fault(0, "another's configuration", "chown 1 $DATA/conf", (f"DATA/conf: {OPEN}",)),
    Fault(0, "another's link", "ln -s y $KEPT/x; chown -h 1 $KEPT/x", (f"KEPT/x: {OPEN}",)),
]
CORRECT = [
    Fault(0, "as installed", "true"),
    Fault(1, "no override file", "rm $ARGS"),
    Fault(1, "a rotated log", "touch $LOG.0.bz2"),
    Fault(  # not in a namespace of one group
        1, "a Mac's own modes", "chmod 775 $APP/..; chgrp 80 $APP/.. || chmod 755 $APP/.."
    ),
    Fault(1, "a job that is written differently", edit("JOB", b"<dict>", b"<!-- x --> <dict >")),
    Fault(1, "ended once by hand", lambda machine: crash(machine, signal.SIGTERM)),
    Fault(
        1,
        "another job is disabled",
        lambda machine: machine.model.disabled.add(machine.target + "2"),
    ),
    Fault(1, "data that others cannot read", "chmod 700 $DATA"),
    Fault(2, "an upgrade", lambda machine: machine.good("2")),
    Fault(2, "no data yet", "rm -r $DATA"),
    Fault(2, "no log yet", "rm $LOG"),
    Fault(
        2,
        "a crash of two days ago",
        lambda machine: [crash(machine), machine.stand_in("ps", "echo '   02-03:04:05'")],
    ),
    Fault(3, "a rollback", lambda machine: [machine.good("2"), machine.call("1", "--rollback")]),
    Fault(3, "an empty override file", "true >$ARGS"),
    Fault(
        3,
        "a crash of a quarter of an hour ago",
        lambda machine: [crash(machine), machine.stand_in("ps", "echo '15:01'")],
    ),
    Fault(4, "an upgrade that failed", lambda machine: machine.install("2", "crashes")),
    Fault(
        4,
        "values that the launcher leaves to the VM",
        "printf -- '-Dorv.security.mode=a b \\n-Djava.net.preferIPv4Stack=\\377\\r\\n' >$ARGS",
    ),
    Fault(5, "a service that has ended", lambda machine: machine.install("1", "exits")),
    Fault(
        5,
        "no line feed at the end of the override file",
        "printf -- '-Xmx0x40000000\\n-Xmx1G\\n-Dorv.security.mode=' >$ARGS",
    ),
    Fault(
        6,
        "started again by hand after it has ended with 0",
        lambda machine: setattr(machine.loaded(), "ended", "last exit code = 0"),
    ),
]


def reported(machine, table, number):
    """Breaks what the rows of that number say. Their lines by row, expected and reported; what belongs to no
    row is reported for none."""
    expected = {}
    for fault in [fault for fault in table if fault.run == number]:
        fault.change(machine) if callable(fault.change) else machine.sh(fault.change)
        lines = "\n".join(fault.lines)
        for name in ("home", "domain", "owner"):
            lines = lines.replace(name.upper(), getattr(machine, name))
        expected[fault.name] = lines.splitlines()
    status, text, errors = check(machine)
    for path in machine.shared:
        path.mkdir(exist_ok=True)
    found = {name: [] for name in expected}
    *lines, last = text.splitlines()[2:]
    for line in lines:
        names = [name for name in expected if line in expected[name]]
        found.setdefault(names[0] if names else "no row", []).append(line)
    count = sum(map(len, expected.values()))
    ending = f"Deviations found: {count}." if count else "No deviation found."
    assert found == expected
    assert (status, last, errors) == (1 if count else 0, ending, "")


@pytest.mark.parametrize("number", sorted({fault.run for fault in BROKEN}))
def test_what_is_broken_is_reported(machine, number):
    machine.limits["launchctl_limit"] = 1
    machine.good("1")
    put(machine.data / "conf/jvm_args", b"-Xmx2g\n")
    reported(machine, BROKEN, number)


@pytest.mark.parametrize("machine", ["system", "user"], indirect=True)
def test_what_belongs_to_others_is_reported(installed, users):
    reported(installed, ANOTHERS, 0)


@pytest.mark.parametrize("number", sorted({fault.run for fault in CORRECT}))
def test_what_is_unusual_and_correct_is_not_reported(installed, number):
    reported(installed, CORRECT, number)


def test_a_service_that_crashes_at_each_start_is_reported(machine):
    machine.install("1", "dies")
    machine.die()
    assert re.fullmatch(
        r"(?s).*\nTARGET: (restarted, \d+ runs, the last|does not run,) ended: 3; see LOG\n"
        r"Deviations found: 1\.\n",
        check(machine)[1],
    )


@pytest.mark.parametrize(
    "tool, lines",
    [
        (
            "codesign",
            [
                f"{path}: signature: codesign does not end within 1 s; call again"
                for path in ("APP", "SERVICE")
            ],
        ),
        (
            "plutil",
            [
                f"APP: not the version of the service in it; {AGAIN}",
                "JOB: plutil does not end within 1 s; call again",
            ],
        ),
        ("launchctl", [SILENT]),
    ],
)
def test_a_tool_that_never_answers_is_reported(machine, tool, lines):
    machine.good("1")
    limits = {name: 1 for name in ("check_codesign_limit", "plutil_limit", "launchctl_limit")}
    machine.limits.update(limits)
    machine.bundle("1")
    machine.stand_in(tool, "trap '' TERM; sleep 50; sleep 50")
    status, text, errors = check(machine)
    assert (status, text.splitlines()[2:], errors) == (
        1,
        [*lines, f"Deviations found: {len(lines)}."],
        "",
    )


@pytest.mark.parametrize("machine", ["system", "user"], indirect=True)
def test_a_check_that_takes_too_long_is_ended_with_all_that_it_has_started(machine):
    machine.limits["check_limit"] = 2
    machine.good("1")
    machine.stand_in("codesign", f"echo $$ >>{MAC}/started; exec sleep 50")
    (MAC / "started").touch()
    (MAC / "started").chmod(0o666)
    status, text, errors = check(machine)
    assert (status, text) == (1, "")
    assert errors == "operator-tool: /bin/bash: no end within 2 s; it was killed\n" + NOT_FINISHED
    for number in (MAC / "started").read_text().split():
        machine.wait(lambda _: "sleep" not in arguments_of(number))


def arguments_of(process):
    listed = subprocess.run(["ps", "-o", "args=", "-p", process], stdout=subprocess.PIPE, text=True)
    return listed.stdout


@pytest.mark.parametrize("machine", ["user"], indirect=True)
def test_state_is_said_and_a_user_s_installation_is_checked_with_that_user_s_rights(installed):
    installed.stand_in("codesign", f"id -u >>{MAC}/ids; id -G >>{MAC}/ids")
    assert check(installed) == (
        0,
        VERSIONS + "State: runs, process PID.\nNo deviation found.\n",
        "",
    )
    installed.install("1", "exits")
    assert check(installed) == (0, VERSIONS + "State: exited with 0.\nNo deviation found.\n", "")
    installed.model.faults["logged out"] = 1
    assert check(installed) == (0, VERSIONS + "State: not logged in.\nNo deviation found.\n", "")
    own = {ALICE.pw_uid, *os.getgrouplist(ALICE.pw_name, ALICE.pw_gid)}
    assert {*map(int, (MAC / "ids").read_text().split())} <= own


def test_the_versions_are_the_product_s_the_launcher_s_and_the_runtime_s(installed):
    launcher = installed.service / "Contents/MacOS/OrvaneService"
    for content, version in [
        (b"\xcf\xfa\xed\xfe\0@(#)OrvaneService 3.14.1-rc+7\0@(#)another 9\0", "3.14.1-rc+7"),
        (b"x@(#)OrvaneService 1.0\n" * 2, "1.0"),  # one for each processor
        (b"\0" * 100000 + b"\x80@(#)OrvaneService 2\0", "2"),
        (b"", "unknown"),
    ]:
        put(launcher, content, 0o755)
        text = check(installed)[1]
        assert text.startswith(f"Versions: product 1, launcher {version}, runtime 17.0.9.\n"), text
    shutil.rmtree(installed.app)
    text = check(installed)[1]
    assert text.startswith("Versions: product unknown, launcher unknown, runtime unknown.\n"), text


@pytest.mark.parametrize("machine", ["system", "user"], indirect=True)
def test_a_copy_of_the_directory_checks_as_well(installed):
    copy = MAC / "monitor"
    shutil.copytree(command(installed)[0].rpartition("/")[0], copy)
    shutil.rmtree(MAC / "new")
    correct = 0, VERSIONS + "State: runs, process PID.\nNo deviation found.\n", ""
    assert check(installed, directory=copy) == correct
    if installed.uid:
        copy.chmod(0o700)  # the user cannot read it
        status, text, errors = check(installed, directory=copy)
        assert (status, text, errors.splitlines()[1:]) == (1, "", [NOT_FINISHED.strip()])
        copy.chmod(0o755)


def check_names(machine, names):
    """Something of each name is reported, and the result is JSON that is safe to show."""
    for name in names:
        os.mkdir(os.fsencode(machine.kept) + b"/x" + name)
        os.chmod(os.fsencode(machine.kept) + b"/x" + name, 0o777)
    status, text, errors = check(machine, "--json")
    result = json.loads(text)
    assert (status, errors) == (1, "")
    assert list(result) == ["product", "launcher", "runtime", "state", "deviations"]
    assert len({entry["path"] for entry in result["deviations"]}) == len(names)
    assert not re.search(r"[\x00-\x1f\x7f-\x9f]", text[:-1])


def test_json_is_valid_whatever_the_names_are(installed):
    names = [*(chr(number).encode() for number in range(1, 256) if chr(number) != "/")]
    check_names(installed, [*names, b'a\\"\n\t', "\u202e\U0001f600".encode()])


def test_json_is_valid_also_for_names_that_are_not_UTF_8(installed):
    needs("file names that are not UTF-8")
    names = [*(bytes([byte]) for byte in range(128, 256)), b"\xed\xa0\x80", b"\xf4\x90\x80\x80"]
    check_names(installed, names)


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
    for name in "nobody-at-all", "-u", "../root", "root":
        assert check(machine, "--user", name) == (2, "", wrong)
    assert check(machine, "--team", 'Z" or "') == (2, "", wrong)


def test_a_check_without_its_tool_finds_no_correct_installation(installed):
    directory = MAC / "new/1" / CONTENTS / "Resources/operator"
    (directory / "operator-tool").unlink()
    status, text, errors = check(installed)
    assert (status, text, errors.splitlines()[-1]) == (1, "", NOT_FINISHED.strip())


def test_a_check_that_cannot_print_finds_no_correct_installation(installed):
    assert check(installed, preexec_fn=lambda: os.close(1))[0] == 1


def test_a_check_whose_output_is_lost_finds_no_correct_installation(installed):
    needs("/dev/full")
    with open("/dev/full", "w") as full:
        assert check(installed, stdout=full)[0] == 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGALRM])
def test_an_interrupted_check_says_so_and_ends_what_it_has_started(installed, number):
    installed.stand_in("codesign", f"echo $$ >{MAC}/begun; exec sleep 50")
    begun = MAC / "begun"
    streams = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
    with subprocess.Popen(command(installed), **streams) as process:
        installed.wait(lambda _: begun.exists() and begun.read_text())
        process.send_signal(number)
        assert process.communicate() == ("", NOT_FINISHED)
    assert process.returncode == 1
    installed.wait(lambda _: "sleep" not in arguments_of(begun.read_text().strip()))
