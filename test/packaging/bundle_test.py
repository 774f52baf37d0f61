"""script/bundle makes the right bundle out of what a vendor has, or prints in one line what is wrong."""

import filecmp
import os
import pathlib
import plistlib
import re
import shutil
import signal
import stat
import struct
import subprocess
import tarfile
import tempfile
import time
import types
import zipfile

import pytest

from support import BUILD_DIR, CONTENTS, LINUX, ROOT, VERSION, unavailable
from support.macos import needs
from support.root import SCRATCH

JDK = pathlib.Path(os.environ["JAVA_HOME"])
JAVA = int(re.search(r'^JAVA_VERSION="(\d+)', (JDK / "release").read_text(), re.M)[1])
KIND = "linked" if JAVA in (24, 25) else "plain"
EXECUTABLE = BUILD_DIR / "src/OrvaneService"
MAIN = "com/vaultory/service/QRService.class"
JAR = "com.vaultory.desktop.jar"
MANIFEST = "META-INF/MANIFEST.MF"
LAUNCHD = [f"Resources/launchd/com.vaultory.service{end}" for end in (".plist", ".agent.plist.in")]
EPOCH = 1_700_000_000

SOURCES = {
    # What it does at the end shows what only a run sees: providers, files and a child left behind.
    "com.vaultory.service.QRService": """import java.util.*; public class QRService {
        public static void main(String[] args) throws Exception {
            String word = args.length > 0 ? args[0] : "";
            if (word.equals("exit")) System.exit(3);
            if (word.equals("throw")) throw new IllegalStateException("no database");
            if (word.equals("client")) Thread.sleep(600000);
            String options = String.valueOf(System.getenv("JAVA_TOOL_OPTIONS"));
            if (word.equals("archived") && !options.matches(".*(-Xshare:off|AOTMode).*")) throw new Error();
            System.out.println(below.Below.TEXT + upper.Upper.TEXT + vendor.Descriptor.TEXT +
                versioned.Versioned.TEXT);
            System.out.println(String.format(Locale.GERMANY, "%tA", new GregorianCalendar(2024, 0, 1)));
            if (!word.equals("stay")) return;
            new java.io.File("service.db").createNewFile();
            new ProcessBuilder("sleep", "987").start();
            new java.io.File(System.getProperty("java.io.tmpdir"), "ready").createNewFile();
            Thread.sleep(600000);
        }}""",
    **{
        name: f'public class {name.split(".")[1]} {{'
        f' public static final String TEXT = new String("{text}"); }}'
        for name, text in (
            ("below.Below", "below "),
            ("upper.Upper", "upper "),
            ("vendor.Descriptor", "descriptor "),
            ("versioned.Versioned", "versioned"),
        )
    },
    "javax.xml.transform.Shared": "public class Shared { }",
    "agent.Agent": """public class Agent {
        public static void premain(String text, java.lang.instrument.Instrumentation all) { } }""",
}
VERSIONED = """package versioned; public class Versioned {
    public static final String TEXT = new String("versioned");
    Object never() { return new java.sql.Timestamp(0); } }"""
PRINTED = b"below upper descriptor versioned\nMontag\n"
CLIENT = """#!/bin/sh
until [ -e "$TMPDIR/ready" ]; do sleep 0.1; done
sleep 987 &
pwd >client-ran
"""


def call(*arguments, cwd=BUILD_DIR, program=ROOT / "script/bundle", umask=-1, **environment):
    """The finished program, its seconds replaced with N, and lines of standard error as a list."""
    run = subprocess.run(
        [program, *arguments],
        cwd=cwd,
        capture_output=True,
        text=True,
        umask=umask,
        env={**os.environ, **environment},
        stdin=subprocess.DEVNULL,
    )
    assert run.stdout == ""
    lines = re.sub(r"\d+(\.\d)? s\b", "N s", run.stderr).splitlines()
    return types.SimpleNamespace(status=run.returncode, lines=lines)


def bundle(*arguments, **settings):
    return call("--executable", EXECUTABLE, *arguments, **settings)


def write(path, text):
    path.write_text(text)
    path.chmod(0o755)


def write_jar(path, entries, manifest=""):
    path.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(path, "w") as jar:
        jar.writestr(MANIFEST, f"Manifest-Version: 1.0\r\n{manifest}\r\n".encode("latin-1"))
        for name, data in entries.items():
            jar.writestr(name, data)
    return path


@pytest.fixture(scope="module")
def classes(tmp_path_factory):
    """{entry of a jar: class file}"""
    directory = tmp_path_factory.mktemp("classes")

    def compile(release, out, *sources):
        files = [directory / out / f"{name.rpartition('.')[2]}.java" for name, _ in sources]
        (directory / out).mkdir()
        for file, (name, text) in zip(files, sources):
            file.write_text(text)
        subprocess.run(
            [
                JDK / "bin/javac",
                "-nowarn",
                "-Xlint:-options",
                "--release",
                release,
                "-d",
                directory / out,
                *files,
            ],
            check=True,
        )
        return {
            file.relative_to(directory / out).as_posix(): file.read_bytes()
            for file in (directory / out).rglob("*.class")
        }

    found = compile(
        "8",
        "classes",
        *((name, f"package {name.rpartition('.')[0]}; {text}") for name, text in SOURCES.items()),
    )
    ((name, data),) = compile("11", "versioned", ("Versioned", VERSIONED)).items()
    found["META-INF/versions/11/" + name] = data
    # A descriptor that requires what is not there does not compile: its name takes the place of java.base's.
    descriptor = compile("11", "descriptor", ("module-info", "module vendor { }"))
    found["module-info.class"] = descriptor["module-info.class"].replace(b"java.base", b"java.none")
    return found


@pytest.fixture(scope="module")
def mine(tmp_path_factory, classes):
    """A vendor's directory: mine/service.jar and mine/lib, with everything that a class path can hold."""
    mine = tmp_path_factory.mktemp("a vendor") / "mine"
    pick = lambda *names: {name: classes[name] for name in names}  # noqa: E731
    write_jar(
        mine / "service.jar",
        {**pick(MAIN), "META-INF/A.SF": b"signed"},
        "Class-Path: /usr/share/java/gone.jar lib/other.jar\r\nBuilt-By: J\xfcrgen\r\n",
    )
    write_jar(mine / "lib/below/one.jar", pick("below/Below.class"))
    write_jar(mine / "lib/Upper.JAR", pick("upper/Upper.class"))
    write_jar(
        mine / "lib/descriptor-1.0+5.jar", pick("vendor/Descriptor.class", "module-info.class")
    )
    versioned = "versioned/Versioned.class"
    write_jar(
        mine / "lib/versioned.jar",
        pick(versioned, "META-INF/versions/11/" + versioned),
        "Multi-Release: true\r\n",
    )
    write_jar(mine / "lib/xml-apis.jar", pick("javax/xml/transform/Shared.class"))
    write_jar(mine / "broken.jar", {"a/Broken.class": b"\xca\xfe\xba\xbe\0\0\0\x99" + bytes(40)})
    (mine / "lib/descriptor.jar").symlink_to("descriptor-1.0+5.jar")
    (mine / "lib/README").write_text("not a jar")
    raw = bytearray(
        (mine / "lib/xml-apis.jar").read_bytes().replace(b"Shared.class", b"Sh\xffred.class")
    )
    (mine / "lib/xml-apis.jar").write_bytes(raw)  # an entry's name is in no encoding that is known
    write(mine.parent / "client", CLIENT)
    return mine


@pytest.fixture(scope="module")
def made(mine):
    """The bundle of that directory, made with relative paths: the files and what was printed."""
    result = bundle(
        "--main-jar",
        "mine/service.jar",
        "--input",
        "mine/lib",
        "--input",
        "mine/broken.jar",
        "--app-version",
        "2.1.0",
        "--dest",
        "a dist",
        "--tarball",
        "--training-argument",
        "stay",
        "--training-command",
        "./client",
        "--training-seconds",
        "600",
        "--java-options=--add-opens=java.base/java.lang=ALL-UNNAMED",
        "--java-options",
        "'-Dtwo=two words'",
        "--java-options",
        "-XX:ErrorFile=/Library/Logs/OrvaneService-%p.log",
        cwd=mine.parent,
        SOURCE_DATE_EPOCH=str(EPOCH),
        umask=0o077,
    )
    result.dest = mine.parent / "a dist"
    return result


def test_a_bundle_is_made_of_whatever_a_class_path_can_hold(mine, made):
    removed = "Written by the service or its client, removed: "
    left = ["Left running by the service or its client, ended: sleep 987"] * 2 + [
        removed + "tmp/ready",
        removed + "training/Contents/MacOS/service.db",
    ]
    modules = {
        line.partition(":")[0]: line.split()[2:-1] for line in made.lines if line[:9] == "Modules, "
    }
    assert (made.status, [line for line in made.lines if not line.startswith("Modules")]) == (
        0,
        [
            *["Passed over, jdeps cannot analyse it: broken.jar"] * (JAVA < 24),
            "Looking up the modules that the jars refer to: N s",
            "Linking the runtime: N s",
            *left,
            "Running the service once: N s",
            "Linking the runtime: N s",
            "Archiving the classes that it loaded: N s",
            *left,
            "Running it from the bundle: N s",
            f"Classes of the service in this run, from the archive ({KIND}): 5 of 5",
            "Made a dist/Orvane.app",
            f"Packing a dist/Orvane-2.1.0-{this_platform()}.tar.gz: N s",
        ],
    ), made
    assert (mine.parent / "client-ran").read_text() == f"{mine.parent}\n"
    # Only the class for Java 11 refers to SQL, only the run shows the German names of the days.
    assert (
        "java.sql" in modules["Modules, jdeps"] and "jdk.localedata" in modules["Modules, training"]
    )


def test_the_jars_are_installed_as_they_are(mine, made):
    lib = made.dest / CONTENTS / "Resources/lib"
    installed = {
        file.relative_to(lib).as_posix(): file for file in lib.rglob("*") if file.is_file()
    }
    names = [
        "service.jar",
        "Upper.JAR",
        "below/one.jar",
        "descriptor-1.0+5.jar",
        "versioned.jar",
        "xml-apis.jar",
        "broken.jar",
    ]
    assert sorted(installed) == sorted([JAR, *names])
    for name in names:
        source = mine / name if name in ("service.jar", "broken.jar") else mine / "lib" / name
        assert installed[name].read_bytes() == source.read_bytes()
    with zipfile.ZipFile(installed[JAR]) as jar:
        assert jar.namelist() == [MANIFEST]
        assert jar.read(MANIFEST).replace(b"\r\n ", b"") == (
            f"Manifest-Version: 1.0\r\nClass-Path: {' '.join(names)}\r\n\r\n".encode()
        )
        assert max(map(len, jar.read(MANIFEST).split(b"\r\n"))) <= 72


@pytest.fixture(scope="module")
def applications(tmp_path_factory, made):
    """What was packed, unpacked elsewhere."""
    directory = tmp_path_factory.mktemp("unpacked")
    with tarfile.open(made.dest / f"Orvane-2.1.0-{this_platform()}.tar.gz") as archive:
        members = archive.getmembers()
        archive.extractall(directory)
    assert [member.name for member in members] == sorted(
        (member.name for member in members), key=lambda name: name.split("/")
    )
    assert {(each.uid, each.gid, each.uname, each.gname) for each in members} == {
        (0, 0, "root", "root")
    }
    assert {oct(member.mode) for member in members} <= {"0o644", "0o755", "0o777"}
    assert max(member.mtime for member in members) <= EPOCH
    return directory


def test_the_bundle_starts_from_its_archive_after_tar_in_each_mode(root, applications):
    for home, marker in ("", []), ("/Users/two words", ["-Duser.install=1"]):
        options = f"-Xlog:class+load:file={SCRATCH}/loaded:none -XX:+PrintFlagsFinal"
        place = f"{home}/Applications"
        root.copy(applications / "Orvane.app", f"{place}/Orvane.app")
        run = root.run(
            ["./OrvaneService", *marker],
            cwd=f"{place}/{CONTENTS}/MacOS",
            env={"JAVA_TOOL_OPTIONS": options, "LC_ALL": "C.UTF-8"},
        )
        assert (run.status, PRINTED in run.stdout) == (0, True), run
        assert re.search(rb"\bErrorFile += /Library/Logs/OrvaneService-%p.log ", run.stdout)
        sources = loaded(SCRATCH + "/loaded")
        assert sources.count("shared objects file") / len(sources) >= 0.95


def loaded(trace, names=r"\S+"):
    return re.findall(rf"^{names} source: (.*)$", pathlib.Path(trace).read_text(), re.M)


def run_copy(root, source, change=lambda resources: None):
    """A changed copy of a bundle, run from /Applications; where its service's class came from."""
    contents = root.copy(source / "Orvane.app", "/Applications/Orvane.app").parent / CONTENTS
    change(contents / "Resources")
    run = root.run(
        ["./OrvaneService"],
        cwd=contents / "MacOS",
        env={"JAVA_TOOL_OPTIONS": f"-Xlog:disable -Xlog:class+load:file={SCRATCH}/loaded:none"},
    )
    assert (run.status, PRINTED in run.stdout) == (0, True), run
    return loaded(SCRATCH + "/loaded", "com.vaultory[.]service[.]QRService")


def remove_the_archive(resources):
    (resources / "jre/lib/server/classes.jsa").unlink()


def replace_the_jar(resources):
    (resources / "lib/service.jar").write_bytes((resources / "lib/service.jar").read_bytes())


@pytest.mark.parametrize("change", [replace_the_jar, remove_the_archive])
def test_without_what_the_archive_was_made_for_the_bundle_starts(root, made, change):
    (place,) = run_copy(root, made.dest, change)
    assert place.startswith("file:") and place.endswith("/Resources/lib/service.jar")


def test_the_archive_of_a_bundle_made_elsewhere(root, tmp_path, made):
    shutil.copytree(made.dest / "Orvane.app", tmp_path / "else where/Orvane.app", symlinks=True)
    resources = tmp_path / "else where" / CONTENTS / "Resources"
    remove_the_archive(resources)
    java = resources / "jre/bin/java"
    java.rename(
        java.with_name("java.real")
    )  # a VM as JDK 26 and later have it, which links no archive
    write(java, '#!/bin/sh\ncase "$*" in *AOTClassLinking*) exit 1 ;; esac\nexec "$0.real" "$@"\n')
    run = call("--train", "Orvane.app", cwd=tmp_path / "else where")
    assert (run.status, run.lines) == (
        0,
        [
            "Running the service once: N s",
            "Archiving the classes that it loaded: N s",
            "Running it from the bundle: N s",
            "Classes of the service in this run, from the archive "
            f"({'cache' if JAVA >= 25 else 'plain'}): 5 of 5",
        ],
    )
    assert run_copy(root, tmp_path / "else where") == ["shared objects file"]
    # A service that only its own runtime fails, such as by a module that it misses.
    archive = (resources / "jre/lib/server/classes.jsa").read_bytes()
    run = call(
        "--train", "Orvane.app", "--training-argument", "archived", cwd=tmp_path / "else where"
    )
    assert (
        run.lines[-1] == "bundle: the last run ended with an exception from main "
        "after N s, see above; give what it lacks to --add-modules"
    )
    assert (resources / "jre/lib/server/classes.jsa").read_bytes() == archive


ARGUMENT = "give --training-argument with which the service ends well, or --no-archive"


@pytest.mark.parametrize(
    "arguments, shown, wrong",
    [
        (["exit"], [], f"training ended with status 3 after N s, see above; {ARGUMENT}"),
        (
            ["throw"],
            [
                '  | Exception in thread "main" java.lang.IllegalStateException: no database',
                "  | \tat com.vaultory.service.QRService.main(QRService.java:5)",
                "  | Service is complete.",
            ],
            f"training ended with an exception from main after N s, see above; {ARGUMENT}",
        ),
        (
            ["-x"],
            ["  | Launching as system", "  | Illegal argument encountered: '-x'."],
            "--training-argument: the launcher rejects these, see above; give others",
        ),
        (
            ["client", "--training-command", "exit 5"],
            None,  # whatever it has printed by then
            "training's client ended with status 5 after N s, see above; give another --training-command",
        ),
    ],
    ids=lambda value: value[0] if value and isinstance(value, list) else "",
)
def test_training_that_fails_prints_why_and_leaves_the_former_bundle(
    tmp_path, mine, arguments, shown, wrong
):
    former = tmp_path / "dist/Orvane.app/former"
    former.mkdir(parents=True)
    run = bundle(
        "--main-jar", mine / "service.jar", "--training-argument", *arguments, cwd=tmp_path
    )
    assert (run.status, run.lines[-1]) == (1, f"bundle: {wrong}")
    assert shown in (None, run.lines[1:-1])
    assert sorted(tmp_path.rglob("*")) == [former.parents[1], former.parent, former]


def wrapped_jdk(directory, program, line):
    """The JDK, with a line of shell before one of its programs."""
    jdk = directory / "jdk"
    (jdk / "bin").mkdir(parents=True)
    for path in [*JDK.iterdir(), *(JDK / "bin").iterdir()]:
        if path != JDK / "bin" and path != JDK / "bin" / program:
            (jdk / path.relative_to(JDK)).symlink_to(path)
    write(jdk / "bin" / program, f'#!/bin/sh\n{line}\nexec "{JDK}/bin/{program}" "$@"\n')
    return jdk


def test_VM_options_that_the_runtime_rejects_are_found_before_the_service_runs(tmp_path, mine):
    # The whole JDK accepts them: its debugger is not in the runtime.
    run = bundle(
        "--main-jar",
        mine / "service.jar",
        "--java-options",
        "-Xss1m",
        "--java-options",
        "-agentlib:jdwp=server=y",
        cwd=tmp_path,
    )
    assert run.lines == [
        "Looking up the modules that the jars refer to: N s",
        "Linking the runtime: N s",
        "bundle: "
        "--java-options: the linked runtime does not start: Error occurred during initialization of VM",
    ]


def test_an_agent_starts_from_its_jar_and_a_class_from_outside_the_bundle_is_named(
    tmp_path, classes
):
    outside = write_jar(
        tmp_path / "outside.jar", {"below/Below.class": classes["below/Below.class"]}
    )
    inside = {
        name: data for name, data in classes.items() if re.match("com|upper|vendor|versioned", name)
    }
    service = write_jar(tmp_path / "service.jar", inside, f"Class-Path: {outside.as_uri()}\r\n")
    agent = write_jar(
        tmp_path / "agent.jar",
        {"agent/Agent.class": classes["agent/Agent.class"]},
        "Premain-Class: agent.Agent\r\n",
    )
    run = bundle(
        "--main-jar",
        service,
        "--input",
        agent,
        "--java-options",
        "-javaagent:../Resources/lib/agent.jar",
        cwd=tmp_path,
    )
    assert f"Not in the bundle, though classes come from there: {outside}" in run.lines
    if JAVA < 25:  # the VM's own words, and what to do
        assert "AllowArchivingWithJavaAgent" in run.lines[-3] + run.lines[-2], run
        assert (
            run.lines[-1]
            == "bundle: the VM makes no archive, see above; --no-archive makes the bundle without one"
        )
    else:
        assert run.lines[-2:] == [
            "Classes of the service in this run, from the archive (cache): 5 of 6",
            "Made dist/Orvane.app",
        ]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_an_interrupted_run_takes_the_service_with_it_and_leaves_nothing(tmp_path, mine, number):
    work = pathlib.Path(tempfile.mkdtemp(dir="/tmp"))  # the VM's options take no path with a space
    command = [
        ROOT / "script/bundle",
        "--executable",
        EXECUTABLE,
        "--main-jar",
        mine / "service.jar",
        "--input",
        mine / "lib",
        "--training-argument",
        "stay",
        "--training-argument",
        work.name,
        "--training-command",
        f"while sleep 0.1; do : {work.name}; done",
    ]
    with subprocess.Popen(
        command, cwd=tmp_path, stderr=subprocess.DEVNULL, env={**os.environ, "TMPDIR": str(work)}
    ) as script:
        deadline = time.monotonic() + 100
        while not list(work.glob("bundle-*/tmp/ready")):
            assert script.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)
        service, client = commands_with(work.name)
        assert (service, client[:10]) == (f"./OrvaneService stay {work.name}", "/bin/sh -c")
        script.send_signal(number)
        assert script.wait(60) == 128 + number
    left = [*commands_with(work.name), *tmp_path.iterdir(), *work.iterdir()]
    assert left == []
    work.rmdir()


def commands_with(word):
    """The commands of the bundler's children that have this word."""
    listed = subprocess.check_output(["ps", "-axo", "command="], text=True).splitlines()
    found = [line for line in listed if word in line and "script/bundle" not in line]
    return sorted(found)


def test_every_bundle_is_made_of_what_is_there_now_in_the_place_of_the_former(tmp_path, classes):
    jdk = wrapped_jdk(tmp_path, "jlink", "")
    service = write_jar(tmp_path / "service.jar", {MAIN: classes[MAIN], "version": b"1"})
    arguments = ["--main-jar", service, "--jdk", "jdk", "--no-archive"]
    assert bundle(*arguments, cwd=tmp_path).status == 0
    first = (tmp_path / "dist/Orvane.app").rename(tmp_path / "first") / CONTENTS.partition("/")[2]
    (tmp_path / "dist/Orvane.app/former").mkdir(parents=True)
    write_jar(service, {MAIN: classes[MAIN], "version": b"2"})
    os.utime(service, (0, 10**9))  # older than the former
    write(
        jdk / "bin/jlink",  # an update behind the same path
        f'#!/bin/sh\n"{JDK}/bin/jlink" "$@" && touch "$(dirname "$0")/updated"\n',
    )
    assert bundle(*arguments, cwd=tmp_path).status == 0
    resources = tmp_path / "dist" / CONTENTS / "Resources"
    assert (resources / "lib/service.jar").read_bytes() == service.read_bytes()
    assert (jdk / "bin/updated").exists() and os.listdir(tmp_path / "dist") == ["Orvane.app"]
    # The rest has the same bytes: a runtime is reproducible.
    names = [path.relative_to(first) for path in first.rglob("*") if path.is_file()]
    assert filecmp.cmpfiles(first, resources.parent, names, shallow=False)[1:] == (
        [pathlib.Path("Resources/lib/service.jar")],
        [],
    )


def test_a_signed_bundle_is_replaced_with_force_alone(tmp_path, mine):
    arguments = ["--main-jar", mine / "service.jar", "--no-runtime"]
    for place in "Contents", CONTENTS.partition("/")[2]:
        signature = tmp_path / "dist/Orvane.app" / place / "_CodeSignature"
        signature.mkdir(parents=True)
        assert bundle(*arguments, cwd=tmp_path).lines == [
            "bundle: --dest: 'dist/Orvane.app' is "
            "signed; add --force to replace it, or name another directory"
        ]
        assert bundle(*arguments, "--force", cwd=tmp_path).status == 0 and not signature.exists()


def test_a_signal_while_the_former_bundle_is_replaced_leaves_the_new_one(tmp_path, mine):
    needs("strace")
    (tmp_path / "dist/Orvane.app/former").mkdir(parents=True)
    run = call(
        "-qqq",
        "-e",
        "trace=rename",
        "-e",
        "inject=rename:signal=TERM:when=1",
        "-o",
        "trace",
        ROOT / "script/bundle",
        "--executable",
        EXECUTABLE,
        "--main-jar",
        mine / "service.jar",
        "--no-runtime",
        cwd=tmp_path,
        program="strace",
    )
    assert (run.status, os.listdir(tmp_path / "dist")) == (143, ["Orvane.app"])
    assert os.listdir(tmp_path / "dist/Orvane.app") == ["Contents"]


def test_two_makers_pack_the_same_bytes_of_the_sample(tmp_path):
    tarballs = []
    for umask in 0o022, 0o077:
        dest = tmp_path / f"{umask:o}"
        run = call(
            "--executable",
            EXECUTABLE,
            "--no-runtime",
            "--tarball",
            "--dest",
            dest,
            umask=umask,
            SOURCE_DATE_EPOCH=str(EPOCH),
        )
        assert run.status == 0, run
        tarballs.append((dest / f"Orvane-{VERSION}-{this_platform()}.tar.gz").read_bytes())
    assert tarballs[0] == tarballs[1]
    assert listing(dest / "Orvane.app") == {mode: sorted(names) for mode, names in SAMPLE.items()}
    assert os.readlink(dest / CONTENTS / "Resources/operator/uninstall") == "install"
    with zipfile.ZipFile(dest / CONTENTS / "Resources/lib" / JAR) as jar:
        assert f"\r\nImplementation-Version: {VERSION}\r\n".encode() in jar.read(MANIFEST)


def listing(app):
    """{permissions: the paths below, directories with a slash}"""
    found = {}
    for path in sorted(path for path in app.rglob("*") if not path.is_symlink()):
        name = f"{path.relative_to(app)}{'/' * path.is_dir()}".replace(
            CONTENTS.partition("/")[2], "..."
        )
        found.setdefault(f"{stat.S_IMODE(path.lstat().st_mode):o}", []).append(name)
    return {mode: sorted(names) for mode, names in found.items()}


SAMPLE = {
    "644": [
        "Contents/Info.plist",
        ".../Info.plist",
        *(
            f".../Resources/{name}"
            for name in (
                "conf/service.log.xml",
                "lang/messages.properties",
                "launchd/com.vaultory.service.agent.plist.in",
                "launchd/com.vaultory.service.plist",
                f"lib/{JAR}",
            )
        ),
    ],
    "755": [
        "Contents/",
        "Contents/Library/",
        "Contents/Library/LaunchServices/",
        "Contents/Library/LaunchServices/OrvaneService.app/",
        ".../",
        ".../Frameworks/",
        ".../MacOS/",
        ".../MacOS/OrvaneService",
        ".../Resources/",
        *(
            f".../Resources/{name}"
            for name in (
                "bin/",
                "conf/",
                "lang/",
                "launchd/",
                "lib/",
                "operator/",
                "bin/service-version",
                "operator/check-install",
                "operator/install",
                "operator/operator-tool",
            )
        ),
    ],
}


def property_lists(dest):
    files = [
        dest / "Orvane.app/Contents/Info.plist",
        dest / CONTENTS / "Info.plist",
        *(dest / CONTENTS / name for name in LAUNCHD),
    ]
    for text in [file.read_text() for file in files]:
        assert len(re.findall("<key>", text)) == len(set(re.findall("<key>(.*)</key>", text)))
    return [plistlib.loads(file.read_bytes()) for file in files]


def test_the_property_lists_name_the_product_and_each_key_once(tmp_path, mine):
    assert (
        bundle(
            "--main-jar",
            mine / "service.jar",
            "--no-runtime",
            "--app-version",
            "2.13",
            "--copyright",
            "© A & B <C>",
            "--mac-package-identifier",
            "com.a-b.backup",
            cwd=tmp_path,
        ).status
        == 0
    )
    common = {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundlePackageType": "APPL",
        "CFBundleShortVersionString": "2.13",
        "CFBundleVersion": "2.13",
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "LSMinimumSystemVersion": "11.0",
        "NSHumanReadableCopyright": "© A & B <C>",
    }
    job, directory = {
        "AssociatedBundleIdentifiers": "com.a-b.backup",
        "RunAtLoad": True,
        "KeepAlive": {"SuccessfulExit": False},
        "ThrottleInterval": 30,
        "ExitTimeOut": 60,
        "ProcessType": "Standard",
    }, f"/Applications/{CONTENTS}/MacOS"
    outputs = "StandardOutPath", "StandardErrorPath"
    assert property_lists(tmp_path / "dist") == [
        {**common, "CFBundleIdentifier": "com.a-b.backup", "CFBundleName": "Orvane"},
        {
            **common,
            "CFBundleIdentifier": "com.a-b.backup.service",
            "CFBundleName": "OrvaneService",
            "CFBundleExecutable": "OrvaneService",
            "LSBackgroundOnly": True,
            "NSLocalNetworkUsageDescription": "The service connects to devices in your local network.",
        },
        {
            **job,
            "Label": "com.vaultory.service",
            "ProgramArguments": [directory + "/OrvaneService"],
            "WorkingDirectory": directory,
            **dict.fromkeys(outputs, "/Library/Logs/OrvaneService.log"),
        },
        {
            **job,
            "Label": "com.vaultory.service.agent",
            "WorkingDirectory": "@HOME@" + directory,
            "ProgramArguments": [f"@HOME@{directory}/OrvaneService", "-Duser.install=1"],
            **dict.fromkeys(outputs, "@HOME@/Library/Logs/OrvaneService.log"),
        },
    ]


def this_platform():
    system, machine = os.uname().sysname, os.uname().machine
    return (
        {"Darwin": "macos", "Linux": "linux"}[system]
        + "-"
        + {"x86_64": "amd64", "arm64": "aarch64"}.get(machine, machine)
    )


def mach_o(*cpus):
    """An executable for macOS 11.0 and later, universal for two processors."""
    parts = [
        struct.pack("<14I", 0xFEEDFACF, cpu, 3, 2, 1, 24, 0, 0, 0x32, 24, 1, 11 << 16, 0, 0)
        for cpu in cpus
    ]
    if len(parts) == 1:
        return parts[0]
    return struct.pack(
        ">12I",
        0xCAFEBABE,
        2,
        *[word for at, cpu in zip((48, 104), cpus) for word in (cpu, 3, at, 56, 0)],
    ) + b"".join(parts)


def macos_jmods(directory, modules):
    """These modules for macOS on amd64, with a libjvm.dylib for 12.3; hashes of each other are hidden."""
    directory.mkdir()
    if not (JDK / "jmods").is_dir():
        unavailable(f"{JDK} has no jmods")
    for module in modules:
        made = directory / f"{module}.jmod"
        with zipfile.ZipFile(JDK / f"jmods/{module}.jmod") as old, open(made, "wb") as file:
            file.write(b"JM\1\0")
            with zipfile.ZipFile(file, "w") as new:
                for entry in old.namelist():
                    data = old.read(entry)
                    if entry == "classes/module-info.class":
                        data = re.sub(rb"(linux|macos)-(amd64|aarch64)", b"macos-amd64", data)
                        data = data.replace(b"Hashes", b"-Hash-")
                    new.writestr(entry, data)
                if module == "java.base":
                    new.writestr(
                        "lib/server/libjvm.dylib",
                        mach_o(0x01000007).replace(
                            struct.pack("<I", 11 << 16), struct.pack("<I", 12 << 16 | 3 << 8)
                        ),
                    )
    return directory


def test_a_bundle_for_a_Mac_has_the_modules_of_a_JDK_for_it_and_requires_its_macOS(tmp_path, mine):
    jmods = macos_jmods(tmp_path / "jmods", ["java.base", "java.logging", "jdk.unsupported"])
    executable = tmp_path / "universal"
    executable.write_bytes(mach_o(0x01000007, 0x0100000C))
    shutil.copy(executable, tmp_path / "operator-tool")
    arguments = [
        "--main-jar",
        mine / "service.jar",
        "--dest",
        tmp_path / "dist",
        "--executable",
        executable,
    ]
    wrong = "name the jmods directory of a JDK for that in --jmods"
    if LINUX:
        assert (
            call(*arguments).lines[-1]
            == f"bundle: --jdk: '{JDK}' is for {this_platform()}, the executable for macos-amd64 and "
            f"macos-aarch64; {wrong}"
        )
    executable.write_bytes(mach_o(0x0100000C))
    assert (
        call(*arguments, "--jmods", jmods).lines[-1]
        == f"bundle: --jmods: '{jmods}' is for macos-amd64, the executable for macos-aarch64; {wrong}"
    )
    executable.write_bytes(mach_o(0x01000007, 0x0100000C))
    run = call(*arguments, "--jmods", jmods, "--add-modules", "ALL-DEFAULT")
    assert (run.status, run.lines[-2:]) == (
        0,
        [
            "The runtime is for macos-amd64: call --train there, before signing, for the CDS archive",
            f"Made {tmp_path}/dist/Orvane.app",
        ],
    ), run
    assert [keys["LSMinimumSystemVersion"] for keys in property_lists(tmp_path / "dist")[:2]] == [
        "12.3"
    ] * 2
    jre = tmp_path / "dist" / CONTENTS / "Resources/jre"
    assert '\nMODULES="java.base java.logging jdk.unsupported"\n' in (jre / "release").read_text()
    assert os.listdir(jre / "bin") == ["java"] and (jre / "lib/server/libjvm.dylib").exists()


def test_wrong_input_is_one_line_that_names_the_option_before_anything_is_written(
    tmp_path, mine, classes
):
    file, empty, links = tmp_path / "file", tmp_path / "empty directory", tmp_path / "links"
    for path in file, tmp_path / "app/Orvane.app":
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(b"no jar")
    empty.mkdir()
    links.mkdir()
    (links / "out").symlink_to("../file")
    service, spaced = [
        write_jar(tmp_path / name, {MAIN: classes[MAIN]}) for name in ("s.jar", "a b.jar")
    ]
    other, again = write_jar(tmp_path / "o.jar", {"x": b""}), write_jar(
        tmp_path / "again/O.jar", {}
    )
    listing_jar, main = write_jar(tmp_path / JAR, {}), ["--main-jar", service]
    before = sorted(tmp_path.rglob("*"))
    for words, text in (
        (["--jar", "x"], "no such option; --help lists all"),
        (["--main-jar"], "give a value"),
        (["--lang", file], f"'{file}' is not a directory; name one"),
        (["--conf", empty], f"'{empty}' has no service.log.xml; add it, or name another directory"),
        (
            ["--bin", links],
            f"'{links}/out' is a link to '../file', outside; replace it with a copy",
        ),
        (
            ["--main-jar", file],
            f"'{file}' is not a jar that can be read; name jars, or directories of them",
        ),
        (
            ["--main-jar", other],
            f"'{other}' has no com.vaultory.service.QRService, which the launcher "
            "calls; name the jar with it",
        ),
        (
            ["--main-jar", spaced],
            "the VM archives no class of 'a b.jar'; rename it in ASCII without "
            "spaces, or add --no-archive",
        ),
        (["--input", "/none", *main], "'/none' does not exist; name jars, or directories of them"),
        (
            ["--input", again, *main, "--input", other],
            f"'{again}' and '{other}' would both be installed as o.jar; leave out one",
        ),
        (
            ["--input", listing_jar, *main],
            f"'{listing_jar}' has the name of the jar that lists the others; rename it",
        ),
        (["--app-version", "1.0-beta"], "'1.0-beta' is not a version; give one such as 2.1.0"),
        (
            ["--executable", file],
            f"'{file}' is not for macOS or Linux on amd64 or aarch64; name one that is",
        ),
        (
            ["--add-modules", "java.sql,no.such"],
            f"'no.such' is not a module of '{JDK}', which has ...",
        ),
        (
            ["--dest", "app"],
            "'app/Orvane.app' is not a directory; remove it, or name another directory",
        ),
        (
            ["--train", empty],
            f"'{empty}' is no bundle with a launcher and a runtime; name an Orvane.app",
        ),
        (["--lang", empty, "--train", empty], "has no meaning with --train; leave one out"),
    ):
        executable = (
            [] if {"--executable", "--train"} & set(words) else [f"--executable={EXECUTABLE}"]
        )
        run = call(*executable, *words, cwd=tmp_path)
        line = re.sub("which has .*", "which has ...", "\n".join(run.lines))
        assert (run.status, line) == (1, f"bundle: {words[0].partition('=')[0]}: {text}")
    assert call(cwd=tmp_path, JAVA_HOME=str(empty)).lines == [
        f"bundle: JAVA_HOME: '{empty}' has no bin/java; name a JDK, 11 or later"
    ]
    assert sorted(tmp_path.rglob("*")) == before
    dest = file / "none"  # where nobody can write
    run = bundle(*main, "--no-runtime", "--dest", dest)
    assert (run.status, [re.sub(": [A-Z].*", "", line) for line in run.lines]) == (
        1,
        [f"bundle: --dest: '{dest}'"],
    )


def test_all_options_are_explained_on_one_screen():
    lines = subprocess.check_output([ROOT / "script/bundle", "--help"]).splitlines()
    assert len(lines) <= 40 and max(map(len, lines)) <= 110
