"""operator/install and operator/uninstall, called as an operator calls them, on a model of launchd."""

import plistlib
import re
import shutil
import stat
import subprocess

import pytest

from machine import ALICE, MAC, delete, put
from stand_ins import RM
from support import CONTENTS, ROOT, unavailable
from support.macos import needs
from support.root import Process

NOTHING = (None, None, None, set())
COPY = "Copying SOURCE.\n"
both = pytest.mark.parametrize("machine", ["system", "user"], indirect=True)
only_user = pytest.mark.parametrize("machine", ["user"], indirect=True)


@both
def test_each_call_says_what_it_does(machine):
    stop, start = f"Stopping {machine.label}, process PID.\n", f"Starting {machine.label}.\n"
    runs = f"{machine.label} runs, process PID.\n"
    assert machine.install("1", "crashes")[0] == 3
    assert (machine.seen(), machine.job.exists()) == (NOTHING, False)
    assert machine.install("1") == (
        0,
        f"{COPY}Installing version 1.\n{start}Version 1 is installed; {runs}",
    )
    assert machine.seen() == ("1", "1", None, set())
    assert machine.install("2") == (
        0,
        f"{COPY}{stop}Installing version 2 in place of 1.\n{start}Version 2 is installed; {runs}",
    )
    assert machine.seen() == ("2", "2", "1", set())
    status, text = machine.install("3", "crashes")
    assert (status, re.sub(r"(    no .*\n)+", "    LOG\n", text)) == (
        3,
        f"{COPY}{stop}Installing version 3 in place of 2.\n{start}install: version 3 failed to start: it "
        "ended: status 1; the end of LOG:\n    LOG\n"
        f"Stopping {machine.label}.\n{start}Version 2 is back; {runs}",
    )
    assert "\n    no ^[[31mvalid configuration\n" in text
    assert machine.seen() == ("2", "2", "1", set())
    assert machine.call(machine.app, "--rollback") == (
        0,
        f"Copying KEPT/former/Orvane.app.\n{stop}Installing version 1 in place of 2.\n{start}"
        f"Version 1 is installed; {runs}",
    )
    assert machine.seen() == ("1", "1", "2", set())
    assert machine.call(machine.app, name="uninstall") == (
        0,
        f"{stop}Removing JOB.\nRemoving KEPT/former.\nRemoving SOURCE.\nOrvane is not installed.\n",
    )
    assert (machine.seen(), machine.kept.exists()) == (NOTHING, False)


def test_a_service_may_exit_with_0_or_be_slow_to_end(machine):
    machine.model.faults["forgets at once"] = 1
    for version, program in ("1", "exits"), ("2", "ignores"), ("3", "lingers"), ("4", "stays"):
        assert machine.install(version, program)[0] == 0
        assert machine.seen()[0] == (None if program == "exits" else version)
    assert not machine.model.two_at_once


def test_another_s_process_of_the_same_name_is_not_waited_for(machine, users):
    machine.good("1")
    program = str(machine.service / "Contents/MacOS/OrvaneService")
    with Process(
        [program, "99"], executable="/bin/sleep", user=ALICE.pw_uid, start_new_session=True
    ) as other:
        machine.good("2")
        assert machine.call("2", name="uninstall")[0] == 0
        assert other.poll() is None


# What is wrong, and what is said before anything is stopped.
ARGS, FILE = "DATA/conf/jvm_args", "is not a regular file: remove it"
REFUSED = {
    "a copy fails": (
        "printf '#!/bin/sh\n/bin/cp \"$@\"; exit 1' >$MAC/bin/cp; chmod 755 $MAC/bin/cp",
        "cannot copy SOURCE",
    ),
    "no executable": (
        "rm $NEW/MacOS/OrvaneService",
        f"SOURCE lacks {CONTENTS[11:]}/MacOS/OrvaneService",
    ),
    "a FIFO": ("mkfifo $NEW/x", "SOURCE has something that is neither file, directory nor link"),
    "a file that the signature does not have": (
        "touch $NEW/x",
        "the signature of SOURCE is not valid: a sealed resource is missing or invalid?file added: x",
    ),
    "a line of the override file": (
        "mkdir -p $DATA/conf; printf '%s\n' -Xmx2g '' >$ARGS",
        f"line 2 of {ARGS} is not allowed: correct or delete it",
    ),
    "an override file that is none": ("mkdir -p $DATA/conf; mkfifo $ARGS", f"{ARGS} {FILE}"),
    "a log that is a link": ("rm -f $LOG; ln -s /etc/passwd $LOG", f"LOG {FILE}"),
    "a job that is a directory": ("rm $JOB; mkdir $JOB", f"JOB {FILE}"),
    "a locked bundle": (
        lambda machine: machine.at("exchange ready/Orvane.app app", before="exit 1"),
        "APP cannot be renamed: unlock it (chflags nouchg), or give the caller App Management",
    ),
    "a locked job": (
        lambda machine: machine.at("exchange ready/job job", before="exit 1"),
        "JOB cannot be renamed: unlock it (chflags nouchg), or give the caller App Management",
    ),
    "a disabled job that runs": (
        lambda machine: machine.model.disabled.add(machine.target),
        "TARGET is disabled and loaded: call launchctl enable or bootout first",
    ),
}


def test_what_would_fail_is_refused_while_the_service_runs(machine):
    machine.good("1")
    process, job = machine.loaded().process, machine.job.read_bytes()
    for change, message in REFUSED.values():
        machine.bundle("2")
        change(machine) if callable(change) else machine.sh(change)
        assert machine.call("2") == (1, f"{COPY}install: {message}; nothing was changed\n")
        assert (machine.loaded().process, machine.seen()) == (process, ("1", "1", None, set()))
        for path in machine.data, machine.log, machine.job, MAC / "bin/cp", MAC / "at":
            delete(path)
        put(machine.job, job)


# A tool that never answers, and what is said once its limit is reached.
SILENT = {
    "codesign": "codesign does not end within 1 s",
    "plutil": "cannot write the job's property list: plutil does not end within 1 s",
    "launchctl": "launchctl does not answer",
    "cp": "SOURCE cannot be copied within 1 s",
}


def test_a_tool_that_never_answers_is_given_up_while_the_service_runs(machine):
    machine.good("1")
    process = machine.loaded().process
    machine.limits.update(
        codesign_limit=1, plutil_limit=1, launchctl_limit=1, copy_limit=1, sync_limit=1
    )
    machine.bundle("2")
    for tool, message in SILENT.items():
        own = MAC / "bin" / tool
        kept = own.rename(MAC / "own") if own.exists() else None
        machine.stand_in(tool, "exec sleep 1000")
        status, text = machine.call("2")
        assert (status, text.splitlines()[-1]) == (1, f"install: {message}; nothing was changed")
        assert (machine.loaded().process, machine.model.use("bootout")) == (process, False)
        own.unlink()
        if kept:
            kept.rename(own)
    assert machine.seen() == ("1", "1", None, set())
    machine.stand_in("sync", "exec sleep 1000")
    assert machine.call("2")[0] == 0


def test_what_launchd_refuses_once_is_repeated(machine):
    machine.good("1")
    machine.model.faults.update(bootout=1, bootstrap=4)
    machine.good("2")
    assert machine.seen() == ("2", "2", "1", set())


def test_who_recreates_the_bundle_again_and_again_stops_no_upgrade(machine):
    machine.good("1")
    link = "import os, sys\nwhile True:\n try: os.symlink('x', sys.argv[1])\n except OSError: pass"
    with Process(["python3", "-c", link, machine.app], start_new_session=True):
        statuses = [machine.install(version)[0] for version in "23"]
    assert (statuses, machine.seen()) == ([0, 0], ("3", "3", "2", set()))


def test_only_the_owner_may_write_what_is_installed_whatever_the_caller_has_set(machine):
    evil = MAC / "evil"
    for name in "operator-tool", "cp", "sed", "launchctl", "ls", "chmod", "find":
        put(evil / name, f"#!/bin/sh\ntouch {evil}/called\n".encode(), 0o755)
    put(evil / "env", f"touch {evil}/called\n".encode())
    app = machine.bundle("1")
    for path in app.rglob("*"):
        if not path.is_symlink():
            path.chmod(0o777 if path.is_dir() or path.stat().st_mode & 0o100 else 0o666)
    (app / "Contents/Info.plist").chmod(0o6666)
    if not any(machine.jobs.iterdir()):
        machine.jobs.rmdir()
    environment = {
        "PATH": f"{evil}:/usr/bin:/bin",
        "BASH_ENV": f"{evil}/env",
        "ENV": f"{evil}/env",
        "BASH_FUNC_cp%%": f"() {{ touch {evil}/called; }}",
        "STAGE": "clean 1",
        "JAVA_TOOL_OPTIONS": "-Dx",
        "CDPATH": "/",
        "POSIXLY_CORRECT": "1",
        "IFS": "/",
    }
    (MAC / "bin/launchctl").rename(MAC / "launchctl")
    machine.stand_in("launchctl", f'env >>{MAC}/environment; exec {MAC}/launchctl "$@"')
    for start, lines in ([], 4), (["/bin/sh"], 5):
        with machine.start([*start, *machine.script(app)], env=environment, umask=0o077) as call:
            assert (call.communicate()[0].decode().count("\n"), call.returncode) == (lines, 0)
        assert not (evil / "called").exists()
        paths = [machine.app, *machine.app.rglob("*"), machine.job]
        assert {
            (stat.S_IMODE(path.lstat().st_mode), path.lstat().st_uid)
            for path in paths
            if not path.is_symlink()
        } == {(0o755, 0), (0o644, 0)}
        assert [stat.S_IMODE(path.stat().st_mode) for path in (machine.kept, machine.jobs)] == [
            0o700,
            0o755,
        ]
    assert "JAVA" not in (MAC / "environment").read_text()


# Which a directory inherits from the one above it, and passes on to the job's file.
def test_no_access_list_gives_others_the_directory_in_which_root_works(machine):
    machine.good("1")
    assert (MAC / "lists").read_text().splitlines()[0] == str(machine.kept)


# Who may write there could put another directory in the place of the one in which root works.
@pytest.mark.parametrize("change", ["chmod 775", "chmod 757", "an access list"])
def test_root_works_in_no_directory_that_others_may_replace(machine, change):
    app = machine.bundle("1")
    if change == "an access list":
        machine.access_list(machine.support)
    else:
        machine.sh(f"{change} $SUPPORT")
    for name in "install", "uninstall":
        assert machine.call(app, name=name) == (
            1,
            f"{name}: others may write to SUPPORT: chown root, chmod go-w, chmod -N; nothing was changed\n",
        )
    assert (machine.seen(), machine.kept.exists()) == (NOTHING, False)


def test_access_lists_and_modes_of_what_a_link_leads_to_stay(machine):
    app = machine.bundle("1", team="")
    outside = put(MAC / "outside", b"", 0o666)
    (app / "Contents/link").symlink_to(outside)
    assert machine.call("1")[0] == 0
    cleared = (MAC / "lists").read_text().splitlines()
    elsewhere = {path for path in cleared if "/Orvane/new/Orvane.app" not in path}
    assert elsewhere == {str(machine.kept)}
    assert f"{machine.kept}/new/Orvane.app/Contents/Info.plist" in cleared
    assert not any(path.endswith("/link") for path in cleared)
    assert stat.S_IMODE(outside.stat().st_mode) == 0o666


def test_a_quarantine_is_removed_once_the_signature_is_verified(machine):
    machine.good("1")
    assert (MAC / "calls").read_text() == "codesign --verify\ncodesign --verify\nxattr -d\n"


# What codesign says of both bundles of version 2, where the installed ones are signed.
UNSIGNED = "code object is not signed at all"
BY_LINKER = "code has no resources but signature indicates they must be present"
INVALID = {
    f"{UNSIGNED}\nIn subcomponent: /x": f"{UNSIGNED}?In subcomponent: /x",
    f"changed\nfile added: {UNSIGNED}": f"changed?file added: {UNSIGNED}",
    UNSIGNED: UNSIGNED,  # of what has a signature
    BY_LINKER: BY_LINKER,
}


@pytest.mark.parametrize("says", INVALID)
def test_a_bundle_whose_signature_is_damaged_is_not_taken_for_an_unsigned_one(machine, says):
    machine.good("1")
    machine.bundle("2")
    machine.stand_in("codesign", f'for path; do :; done; printf "%s: {says}\n" "$path" >&2; exit 1')
    assert machine.call("2") == (
        1,
        f"{COPY}install: the signature of SOURCE is not valid: {INVALID[says]}; nothing was changed\n",
    )


def test_a_bundle_without_any_signature_replaces_none_that_has_one(machine):
    machine.bundle("1", team="")
    status, text = machine.call("1")
    assert (status, text.splitlines()[1:3]) == (
        0,
        ["Warning: Orvane.app is not signed.", "Warning: OrvaneService.app is not signed."],
    )
    machine.good("2")
    assert machine.call("1") == (
        1,
        f"{COPY}install: Orvane.app is not signed, but the installed one is; nothing was changed\n",
    )
    assert machine.call(machine.app, "--rollback")[0] == 0
    assert machine.seen() == ("1", "1", "2", set())


def test_versions_may_have_any_characters(machine):
    machine.good("1_a", "1_b")
    assert machine.seen() == ("1_b", "1_b", "1_a", set())


def test_what_an_administrator_has_disabled_stays_so_and_is_said(machine):
    machine.model.disabled.add(machine.target)
    for word, place in ("disabled", ""), ("true", " in place of 1"):
        machine.model.faults["disabled"] = word
        assert machine.install("1") == (
            0,
            f"{COPY}Installing version 1{place}.\nVersion 1 is installed; {machine.label} is disabled and "
            "stays so: launchctl enable TARGET, then launchctl bootstrap system JOB.\n",
        )
    assert (machine.seen(), machine.model.disabled) == ((None, "1", None, set()), {machine.target})


@only_user
def test_an_agent_waits_for_its_user_and_a_home_may_have_any_name(machine):
    machine.model.faults["logged out"] = 1
    for name in "a b", "a&b", "<a>", "a|b", "a\\1b", "\N{LATIN SMALL LETTER E WITH ACUTE}":
        home = machine.root.path(f"/Users/{name}")
        home.mkdir()
        machine.give(home)
        status, text = machine.call(machine.bundle("1"), env={"HOME": str(home)})
        assert (status, text.splitlines()[-1]) == (
            0,
            f"Version 1 is installed; {machine.label} starts when the user logs in.",
        )
        job = plistlib.loads((home / "Library/LaunchAgents" / machine.job.name).read_bytes())
        assert job["WorkingDirectory"] == f"{home}/Applications/{CONTENTS}/MacOS"
        assert job["StandardOutPath"] == f"{home}/Library/Logs/OrvaneService.log"
    assert machine.call("1", env={"HOME": "/Users/bob"}) == (
        1,
        "install: HOME is '/Users/bob', not the caller's directory in /Users; with sudo, add -H\n",
    )


def test_uninstall_removes_all_and_keeps_the_data_by_default(machine):
    machine.good("1", "2")
    put(MAC / "receipts/com.vaultory.orvane", b"")
    put(machine.data / "file", b"")
    stage = machine.root.path(machine.support / "Orvane.installing")
    put(stage / "Orvane.app/Contents/Info.plist", b"")  # of a killed postinstall
    outside = put(MAC / "outside", b"kept")
    machine.log.unlink()
    machine.log.symlink_to(outside)
    put(machine.log.with_name("OrvaneService.log.0.bz2"), b"")
    assert machine.call("2", name="uninstall")[0] == 0
    assert machine.seen() == NOTHING
    assert (stage.exists(), machine.data.exists(), machine.log.is_symlink()) == (False, True, True)
    assert not (MAC / "receipts/com.vaultory.orvane").exists()
    assert machine.call("2", "--data", name="uninstall")[0] == 0
    assert (machine.data.exists(), list(machine.log.parent.glob("Orvane*"))) == (False, [])
    assert outside.read_bytes() == b"kept"


def test_an_uninstall_of_which_the_receipt_is_not_known_is_not_done(machine):
    machine.limits["pkgutil_limit"] = 1
    machine.good("1")
    machine.stand_in("pkgutil", "exec sleep 1000")
    status, text = machine.call(machine.app, name="uninstall")
    message = "uninstall: pkgutil does not end within 1 s; call again"
    assert (status, text.splitlines()[-1], machine.app.exists()) == (1, message, True)


# Whatever cannot be removed, the installed script is still there, to be called again.
@pytest.mark.parametrize("step", ["job", "former", "Quillrest", "app"])
def test_an_uninstall_that_fails_can_be_called_again(machine, step):
    machine.good("1", "2")
    put(machine.data / "file", b"")
    machine.at(f"rename {step} gone", before="exit 1")
    status, text = machine.call(machine.app, "--data", name="uninstall")
    assert (status, text.splitlines()[-1].endswith("; call again")) == (1, True), text
    machine.steps()
    assert machine.call(machine.app, "--data", name="uninstall")[0] == 0
    assert (machine.seen(), machine.data.exists()) == (NOTHING, False)


@only_user
def test_files_that_an_agent_s_user_has_locked_are_removed_all_the_same(machine):
    machine.good("1")
    put(machine.app / "Contents/of the user", b"")
    machine.good("2")
    machine.stand_in("rm", RM)
    put(MAC / "locked", b"of the user", 0o666)
    machine.good("3")
    assert machine.seen() == ("3", "3", "2", set())
    put(machine.app / "Contents/of the user", b"")
    put(MAC / "locked", b"of the user", 0o666)
    assert machine.call(machine.app, name="uninstall")[0] == 0
    assert (machine.seen(), machine.kept.exists()) == (NOTHING, False)


def usage(script, machine):
    text = (ROOT / "operator" / script).read_text()
    return re.search(r'(?ms)^usage="(.*?)"$', text).group(1).replace("$steady", "3") + "\n"


def test_wrong_calls_change_nothing_and_the_usage_is_said(machine):
    machine.good("1")
    for name in "install", "uninstall":
        for arguments, status in ("--dry-run", 2), ("--help", 0), ("--help x", 0), ("--data x", 2):
            expected = status, usage(name, machine)
            assert machine.call("1", *arguments.split(), name=name) == expected
    assert machine.call("1", "--user") == (
        1,
        "install: an agent is its user's: call launchctl asuser UID sudo -H -u NAME "
        f"SOURCE{CONTENTS[10:]}/Resources/operator/install --user\n",
    )
    link = MAC / "link/install"
    put(link.with_name("common.sh"), b"echo sourced\n")
    link.symlink_to(machine.script(MAC / "new/1/Orvane.app")[0])
    with machine.start([link]) as call:
        assert call.communicate()[0].decode() == (
            f"install: {link.parent} is not in an Orvane.app; call the script where the bundle has it\n"
        )
    assert machine.seen() == ("1", "1", None, set())


# As on a volume without the right to execute, and as macOS kills what it does not trust.
@pytest.mark.parametrize("mode, status", [(0o644, 126), (0o755, 137)])
def test_a_tool_that_cannot_be_executed_is_named(machine, mode, status):
    app = machine.bundle("1")
    tool = app.parent / CONTENTS / "Resources/operator/operator-tool"
    put(tool, b"#!/bin/sh\nkill -9 $$\n", mode)
    text = machine.call("1")[1].replace(str(tool), "TOOL").splitlines()[-1]
    assert text == (
        f"install: SOURCE/{tool.relative_to(app)} cannot be executed, status {status}: if it is "
        "quarantined or not signed, macOS kills it; nothing was changed"
    )


@pytest.mark.parametrize("kind", ["touch", "mkfifo", "ln -s /tmp"])
def test_what_is_in_the_place_of_its_directory_is_named(machine, kind):
    machine.bundle("1")
    machine.sh(f"IFS=' '; {kind} \"$KEPT\"")
    message = "KEPT must be a directory that the caller owns: remove it"
    assert machine.call("1")[0] == 1
    assert machine.call("1")[1].endswith(f"install: {message}; nothing was changed\n")
    delete(machine.kept)


def test_the_system_wide_service_is_root_s(machine, users):
    machine.bundle("1")
    assert machine.call("1", user=ALICE.pw_uid) == (
        1,
        "install: the system-wide service is root's: call with sudo, or --user\n",
    )


def test_of_a_bundle_root_executes_only_the_script_that_was_called_and_operator_tool(machine):
    needs("strace")
    if not shutil.which("strace"):
        unavailable("there is no strace")
    machine.good("1")
    app = machine.bundle("2", interposed=False)
    for name in "install", "uninstall":
        trace = MAC / "trace"
        command = ["strace", "-f", "-s", "4096", "-e", "trace=execve", "-o", trace]
        script = machine.script(app, name)[0]
        assert subprocess.run([*command, script], env={}, capture_output=True).returncode == 0
        called = re.findall(r'execve\("([^"]*)"', trace.read_text(errors="replace"))
        ours = {path for path in called if "Orvane.app" in path or not path.startswith("/")}
        assert ours == {script, script.replace(name, "operator-tool"), "./operator-tool"}
