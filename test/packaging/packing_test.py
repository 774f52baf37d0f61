"""The bundle at its destination, in place of a former one, and the tarball of it."""

import os
import tarfile

from bundling import EPOCH, EXECUTABLE, MAIN, bundle, call, this_platform, write_jar
from support import CONTENTS, ROOT, VERSION
from support.macos import needs


def test_a_bundle_is_made_of_what_is_there_now_in_place_of_the_former(tmp_path, classes):
    service = write_jar(tmp_path / "service.jar", {MAIN: classes[MAIN], "version": b"1"})
    arguments = ["--main-jar", service, "--no-runtime"]
    assert bundle(*arguments, cwd=tmp_path).status == 0
    (tmp_path / "dist/Orvane.app/former").mkdir()
    size = service.stat().st_size
    write_jar(service, {MAIN: classes[MAIN], "version": b"2"})
    os.utime(service, (0, 10**9))  # older than the former one
    assert service.stat().st_size == size
    assert bundle(*arguments, cwd=tmp_path).status == 0
    installed = tmp_path / "dist" / CONTENTS / "Resources/lib/service.jar"
    assert installed.read_bytes() == service.read_bytes()
    assert os.listdir(tmp_path / "dist") == ["Orvane.app"]
    assert os.listdir(tmp_path / "dist/Orvane.app") == ["Contents"]


def test_a_signed_bundle_is_replaced_with_force_alone(tmp_path, vendor):
    arguments = ["--main-jar", vendor / "mine/service.jar", "--no-runtime"]
    for place in "Contents", CONTENTS.partition("/")[2]:
        signature = tmp_path / "dist/Orvane.app" / place / "_CodeSignature"
        signature.mkdir(parents=True)
        line = (
            "bundle: --dest: 'dist/Orvane.app' is signed; "
            "add --force to replace it, or name another directory"
        )
        assert bundle(*arguments, cwd=tmp_path) == (1, [line])
        assert signature.exists()
        assert bundle(*arguments, "--force", cwd=tmp_path) == (0, ["Made dist/Orvane.app"])
        assert not signature.exists()


def test_a_signal_while_the_former_bundle_is_replaced_leaves_the_new_one(tmp_path, vendor):
    needs("strace")
    (tmp_path / "dist/Orvane.app/former").mkdir(parents=True)
    run = call(
        *("strace", "-qqq", "-o", "trace"),
        *("-e", "trace=rename", "-e", "inject=rename:signal=TERM:when=1"),
        *(ROOT / "script/bundle", "--executable", EXECUTABLE),
        *("--main-jar", vendor / "mine/service.jar", "--no-runtime"),
        cwd=tmp_path,
    )
    assert (run.status, os.listdir(tmp_path / "dist")) == (143, ["Orvane.app"])
    assert os.listdir(tmp_path / "dist/Orvane.app") == ["Contents"]


def test_two_makers_pack_the_same_bytes_of_the_sample(samples):
    tarballs = []
    for maker in samples:
        name, tarball = maker.dest.name, f"Orvane-{VERSION}-{this_platform()}.tar.gz"
        assert maker.result == (
            0,
            [
                "Compiling the sample service: N s",
                f"Made {name}/Orvane.app",
                f"Packing {name}/{tarball}: N s",
            ],
        )
        tarballs.append((maker.dest / tarball).read_bytes())
    assert tarballs[0] == tarballs[1]


def test_a_tarball_is_sorted_and_tells_neither_who_made_it_nor_when(trained):
    with tarfile.open(trained.dest / f"Orvane-2.1.0-{this_platform()}.tar.gz") as archive:
        members = archive.getmembers()
    names = [member.name for member in members]
    assert names == sorted(names, key=lambda name: name.split("/"))
    assert {(member.uid, member.gid) for member in members} == {(0, 0)}
    assert {(member.uname, member.gname) for member in members} == {("root", "root")}
    assert {oct(member.mode) for member in members} <= {"0o644", "0o755", "0o777"}
    assert max(member.mtime for member in members) <= EPOCH
