"""operator-tool as-user, which only root can try."""

import grp
import os
import pwd
import subprocess

import pytest
from support import BUILD_DIR
from support.macos import needs
from support.root import SCRATCH

TOOL = SCRATCH + "/operator-tool"  # where other users can execute it
USER = pwd.getpwnam("nobody")  # any ordinary account
ANOTHER = pwd.getpwnam("daemon")
SHOW = ["sh", "-c", 'id -ru; id -u; id -rg; id -g; id -G; echo "$HOME"; pwd']


@pytest.fixture(autouse=True)
def tool(root):
    root.put(TOOL, BUILD_DIR / "src/operator-tool")


def as_user(*arguments, before=None, prefix=()):
    """(status, standard output, standard error); before is called as root, in the process of the tool."""
    done = subprocess.run(
        [*prefix, TOOL, "as-user", *arguments],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        cwd="/",
        env={"PATH": os.environ["PATH"], "HOME": "/of/the/caller"},
        preexec_fn=before,
    )
    return done.returncode, done.stdout, done.stderr


def shown(account):
    groups = [account.pw_gid] + [
        group.gr_gid for group in grp.getgrall() if account.pw_name in group.gr_mem
    ]
    ids = [account.pw_uid, account.pw_uid, account.pw_gid, account.pw_gid]
    return ids, {*groups, *os.getgrouplist(account.pw_name, account.pw_gid)}


def test_all_ids_and_the_groups_become_the_users_and_nothing_else_changes(users):
    ids, groups = shown(USER)
    status, text, errors = as_user(USER.pw_name, *SHOW, before=lambda: os.setgroups([0, 4, 20]))
    lines = text.splitlines()
    assert (status, [int(line) for line in lines[:4]], lines[5:], errors) == (
        0,
        ids,
        ["/of/the/caller", "/"],
        "",
    )
    assert set(map(int, lines[4].split())) <= groups


def test_the_user_may_call_it_and_nobody_else(users):
    name = USER.pw_name

    def become(*ids):
        return lambda: (os.setgroups([]), os.setgid(USER.pw_gid), os.setreuid(*ids))

    assert as_user(name, "id", "-u", before=become(USER.pw_uid, USER.pw_uid)) == (
        0,
        f"{USER.pw_uid}\n",
        "",
    )
    for ids in (ANOTHER.pw_uid, ANOTHER.pw_uid), (ANOTHER.pw_uid, USER.pw_uid):
        assert as_user(name, "id", before=become(*ids)) == (
            125,
            "",
            f"operator-tool: cannot become {name}: the caller is neither root nor this user\n",
        )


@pytest.mark.parametrize("call", ["setgroups", "setgid", "setuid"])
def test_a_call_of_the_system_that_does_nothing_is_noticed(users, call, tmp_path):
    needs("strace")
    inject = ["strace", "-f", "-o", tmp_path / "trace", f"--inject={call}:retval=0"]
    before = (lambda: os.setgroups([0, 4, 20])) if call == "setgroups" else None
    status, text, errors = as_user(USER.pw_name, "id", before=before, prefix=inject)
    assert (status, text) == (125, "")
    assert errors.startswith(f"operator-tool: cannot become {USER.pw_name}: ")


def test_root_and_unknown_names_are_no_users_to_become():
    assert as_user("root", "id") == (
        125,
        "",
        "operator-tool: root: root is not a user to become\n",
    )
    assert as_user("no-such-user", "id") == (
        125,
        "",
        "operator-tool: no-such-user: no such user\n",
    )
