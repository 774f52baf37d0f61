"""script/bundle makes the right bundle out of what a vendor has, or says in one line what is wrong."""

import functools
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
import time
import types
import zipfile

import pytest

from support import BUILD_DIR, CONTENTS, ROOT, VERSION, impossible

JDK = pathlib.Path(os.environ["JAVA_HOME"])
JAVA = int(re.search(r'^JAVA_VERSION="(\d+)', (JDK / "release").read_text(), re.M)[1])
KIND = "linked" if JAVA in (24, 25) else "plain"
EXECUTABLE = BUILD_DIR / "src/OrvaneService"
MAIN = "com/vaultory/service/QRService.class"
JAR = "com.vaultory.desktop.jar"
MANIFEST = "META-INF/MANIFEST.MF"
EPOCH = 1_700_000_000

SOURCES = {
    # What it does at the end shows what only a run sees: providers, a file and a child left behind.
    "com.vaultory.service.QRService": """import java.util.*; public class QRService {
        public static void main(String[] args) throws Exception {
            String word = args.length > 0 ? args[0] : "";
            if (word.equals("exit")) System.exit(3);
            if (word.equals("throw")) throw new IllegalStateException("no database");
            if (word.equals("crash")) { System.out.println("so far"); Runtime.getRuntime().halt(137); }
            if (word.equals("module")) {
                if (new java.io.File(System.getProperty("java.home"), "bin/javac").exists()) return;
                throw new Error("not a JDK");
            }
            if (word.equals("stay")) { System.out.println("staying"); Thread.sleep(600000); }
            System.out.println(below.Below.TEXT + upper.Upper.TEXT + vendor.Descriptor.TEXT +
                versioned.Versioned.TEXT);
            System.out.println(String.format(Locale.GERMANY, "%tA", new GregorianCalendar(2024, 0, 1)));
            new java.io.File("service.db").createNewFile();
            if (word.equals("child")) new ProcessBuilder("sleep", "987").start();
        }}""",
    **{name: f'public class {name.split(".")[1]} {{'
             f' public static final String TEXT = new String("{text}"); }}'
       for name, text in (("below.Below", "below "), ("upper.Upper", "upper "),
                          ("vendor.Descriptor", "descriptor "), ("versioned.Versioned", "versioned"))},
    "javax.xml.transform.Shared": "public class Shared { }",
}
VERSIONED = """package versioned; public class Versioned {
    public static final String TEXT = new String("versioned");
    Object never() { return new java.sql.Timestamp(0); } }"""
DESCRIPTOR = "module vendor { exports vendor; }"
SAID = b"below upper descriptor versioned\nMontag\n"


def call(*arguments, cwd=BUILD_DIR, program=ROOT / "script/bundle", umask=-1, **environment):
    """The finished program, its seconds replaced with N, and lines of standard error as a list."""
    run = subprocess.run([program, *arguments], cwd=cwd, capture_output=True, text=True, umask=umask,
                         env={**os.environ, **environment}, stdin=subprocess.DEVNULL)
    assert run.stdout == ""
    text = re.sub(r"\d+(\.\d)? s\b", "N s", run.stderr)
    return types.SimpleNamespace(status=run.returncode, said=text.splitlines())


def bundle(*arguments, **how):
    return call("--executable", EXECUTABLE, *arguments, **how)


def write_jar(path, entries, manifest=""):
    path.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(path, "w") as jar:
        jar.writestr(MANIFEST, f"Manifest-Version: 1.0\r\n{manifest}\r\n".encode("latin-1"))
        for name, data in entries.items():
            jar.writestr(name, data)
    return path


@pytest.fixture(scope="session")
def classes(tmp_path_factory):
    """{entry of a jar: class file}"""
    directory = tmp_path_factory.mktemp("classes")

    def compile_with(*options):
        subprocess.run([JDK / "bin/javac", "-nowarn", "-Xlint:-options", *options], check=True)

    files = []
    for name, text in SOURCES.items():
        files.append(directory / f"{name.rpartition('.')[2]}.java")
        files[-1].write_text(f"package {name.rpartition('.')[0]}; {text}")
    compile_with("--release", "8", "-d", directory / "out", *files)
    (directory / "11").mkdir()
    (directory / "11/Versioned.java").write_text(VERSIONED)
    compile_with("--release", "11", "-d", directory / "11", directory / "11/Versioned.java")
    (directory / "vendor").mkdir()
    (directory / "vendor/module-info.java").write_text(DESCRIPTOR)
    compile_with("--release", "11", "-d", directory / "vendor", directory / "vendor/module-info.java",
                 directory / "Descriptor.java")
    found = {file.relative_to(directory / "out").as_posix(): file.read_bytes()
             for file in directory.rglob("out/**/*.class")}
    found["META-INF/versions/11/versioned/Versioned.class"] = \
        (directory / "11/versioned/Versioned.class").read_bytes()
    # A descriptor that requires what is not there does not compile: its name takes the place of java.base's.
    found["module-info.class"] = \
        (directory / "vendor/module-info.class").read_bytes().replace(b"java.base", b"java.none")
    return found


@pytest.fixture(scope="session")
def mine(tmp_path_factory, classes):
    """A vendor's directory: mine/service.jar and mine/lib, with everything that a class path can hold."""
    mine = tmp_path_factory.mktemp("a vendor") / "mine"
    pick = lambda *names: {name: classes[name] for name in names}  # noqa: E731
    write_jar(mine / "service.jar", {**pick(MAIN), "META-INF/A.SF": b"signed"},
              "Class-Path: /usr/share/java/gone.jar lib/other.jar\r\nBuilt-By: J\xfcrgen\r\n")
    write_jar(mine / "lib/below/one.jar", pick("below/Below.class"))
    write_jar(mine / "lib/Upper.JAR", pick("upper/Upper.class"))
    write_jar(mine / "lib/descriptor-1.0.jar", pick("vendor/Descriptor.class", "module-info.class"))
    versioned = "versioned/Versioned.class"
    write_jar(mine / "lib/versioned.jar", pick(versioned, "META-INF/versions/11/" + versioned),
              "Multi-Release: true\r\n")
    write_jar(mine / "lib/xml-apis.jar", pick("javax/xml/transform/Shared.class"))
    write_jar(mine / "lib/broken.jar", {"a/Broken.class": b"\xca\xfe\xba\xbe\0\0\0\x99" + bytes(40)})
    (mine / "lib/descriptor.jar").symlink_to("descriptor-1.0.jar")
    (mine / "lib/README").write_text("not a jar")
    raw = bytearray((mine / "lib/xml-apis.jar").read_bytes().replace(b"Shared.class", b"Sh\xffred.class"))
    (mine / "lib/xml-apis.jar").write_bytes(raw)  # an entry's name is in no encoding that is known
    os.utime(mine / "service.jar", (10**9, 10**9))
    return mine


@pytest.fixture(scope="session")
def made(mine):
    """The bundle of that directory, made with relative paths: the files and what was said."""
    result = bundle("--main-jar", "mine/service.jar", "--input", "mine/lib", "--app-version", "2.1.0",
                    "--dest", "a dist", "--tarball", "--training-argument", "child",
                    "--java-options=--add-opens=java.base/java.lang=ALL-UNNAMED",
                    "--java-options", "'-Dtwo=two words'",
                    "--java-options", "-XX:ErrorFile=/Library/Logs/OrvaneService-%p.log",
                    cwd=mine.parent, SOURCE_DATE_EPOCH=str(EPOCH), umask=0o077)
    result.dest = mine.parent / "a dist"
    result.contents = result.dest / CONTENTS
    return result


def test_a_bundle_is_made_of_whatever_a_class_path_can_hold(mine, made):
    said = made.said
    modules = {line.partition(":")[0]: line.split()[2:-1] for line in said if line.startswith("Modules, ")}
    assert (made.status, [line for line in said if not line.startswith(("Modules", "Passed over"))]) == (0, [
        f"Left out, not jars: 1 of the files in mine/lib",
        f"The configuration is the sample's, {ROOT}/service/conf: --conf names yours",
        "Looking up the modules that the jars refer to: N s",
        "Linking the runtime: N s",
        "Left running by the service or its client, ended: sleep 987",
        "Written by the service or its client, removed: Contents/MacOS/service.db",
        "Running the service once: N s",
        "Linking the runtime: N s",
        f"Archiving the classes that it loaded ({KIND}): N s",
        "Left running by the service or its client, ended: sleep 987",
        "Written by the service or its client, removed: Contents/MacOS/service.db",
        "Running it from the bundle: N s",
        "Classes of the service in this run, from the archive: 5 of 5",
        "Made a dist/Orvane.app",
        f"Packing a dist/Orvane-2.1.0-{this_platform()}.tar.gz: N s"]), said
    # Only the class for Java 11 refers to SQL, only the run shows the German names of the days.
    assert "java.sql" in modules["Modules, jdeps"] and "jdk.localedata" in modules["Modules, training"]
    lib = made.contents / "Resources/lib"
    installed = {file.relative_to(lib).as_posix(): file for file in lib.rglob("*") if file.is_file()}
    names = ["service.jar", "Upper.JAR", "below/one.jar", "broken.jar", "descriptor-1.0.jar", "versioned.jar",
             "xml-apis.jar"]
    assert sorted(installed) == sorted([JAR, *names])
    for name in names:
        source = mine / name if name == "service.jar" else mine / "lib" / name
        assert installed[name].read_bytes() == source.read_bytes()
    with zipfile.ZipFile(installed[JAR]) as jar:
        assert jar.namelist() == [MANIFEST]
        assert jar.read(MANIFEST).replace(b"\r\n ", b"") == (
            f"Manifest-Version: 1.0\r\nClass-Path: {' '.join(names)}\r\n\r\n".encode())
        assert max(map(len, jar.read(MANIFEST).split(b"\r\n"))) <= 72


def test_the_bundle_starts_from_its_archive_after_tar_in_each_mode(root, made, applications):
    for home, marker in ("", []), ("/Users/two words", ["-Duser.install=1"]):
        options = "-Xlog:class+load:file=/tmp/orvane/loaded:none -XX:+PrintFlagsFinal"
        place = f"{home}/Applications"
        root.copy(applications / "Orvane.app", f"{place}/Orvane.app")
        run = root.run(["./OrvaneService", *marker], cwd=f"{place}/{CONTENTS}/MacOS",
                              env={"JAVA_TOOL_OPTIONS": options, "LC_ALL": "C.UTF-8"})
        assert (run.status, SAID in run.stdout) == (0, True), run
        assert re.search(rb"\bErrorFile += /Library/Logs/OrvaneService-%p.log ", run.stdout)
        sources = loaded("/tmp/orvane/loaded")
        assert sources.count("shared objects file") / len(sources) >= 0.95


@pytest.fixture(scope="module")
def applications(tmp_path_factory, made):
    """What was packed, unpacked elsewhere."""
    directory = tmp_path_factory.mktemp("unpacked")
    with tarfile.open(made.dest / f"Orvane-2.1.0-{this_platform()}.tar.gz") as archive:
        members = archive.getmembers()
        archive.extractall(directory)
    assert [member.name for member in members] == sorted(
        (member.name for member in members), key=lambda name: name.split("/"))
    assert {(member.uid, member.gid, member.uname, member.gname) for member in members} == {
        (0, 0, "root", "root")}
    assert {oct(member.mode) for member in members} <= {"0o644", "0o755", "0o777"}
    assert max(member.mtime for member in members) <= EPOCH
    return directory


def loaded(trace, names=r"\S+"):
    return re.findall(rf"^{names} source: (.*)$", pathlib.Path(trace).read_text(), re.M)


def run_copy(root, source, change=lambda contents: None, *arguments):
    """A changed copy of a bundle, run from /Applications; where its service's classes came from."""
    contents = root.copy(source / "Orvane.app", "/Applications/Orvane.app").parent / CONTENTS
    change(contents)
    run = root.run(["./OrvaneService", *arguments], cwd=contents / "MacOS", env={
        "JAVA_TOOL_OPTIONS": "-Xlog:disable -Xlog:class+load:file=/tmp/orvane/loaded:none"})
    assert (run.status, SAID in run.stdout) == (0, True), run
    return set(loaded("/tmp/orvane/loaded", "com.vaultory[.]service[.]QRService"))


def test_the_vendor_s_next_jar_starts_in_an_installed_bundle(root, mine, made):
    def replace(contents):
        jar = contents / "Resources/lib/service.jar"
        with zipfile.ZipFile(jar, "a") as archive:
            archive.writestr("of-the-next-version", "")
    (place,) = run_copy(root, made.dest, replace)
    assert place.startswith("file:") and place.endswith("/Resources/lib/service.jar")


def test_a_start_without_the_archive_is_as_good(root, made):
    def take_away(contents):
        (contents / "Resources/jre/lib/server/classes.jsa").unlink()
    (place,) = run_copy(root, made.dest, take_away)
    assert place.startswith("file:")


def test_the_archive_of_a_bundle_made_elsewhere(root, tmp_path, made):
    shutil.copytree(made.dest / "Orvane.app", tmp_path / "else where/Orvane.app", symlinks=True)
    contents = tmp_path / "else where" / CONTENTS
    archive = contents / "Resources/jre/lib/server/classes.jsa"
    archive.unlink()
    java = contents / "Resources/jre/bin/java"
    java.rename(java.with_name("java.real"))  # a VM as JDK 26 and later have it, which links no archive
    java.write_text('#!/bin/sh\ncase "$*" in *AOTClassLinking*) exit 1 ;; esac\nexec "$0.real" "$@"\n')
    java.chmod(0o755)
    run = call("--train", "Orvane.app", cwd=tmp_path / "else where")
    wrote = "Written by the service or its client, removed: Contents/MacOS/service.db"
    kind = "cache" if JAVA >= 25 else "plain"
    assert (run.status, run.said) == (0, [
        wrote, "Running the service once: N s", *[wrote] * (kind == "cache"),
        f"Archiving the classes that it loaded ({kind}): N s", wrote, "Running it from the bundle: N s",
        "Classes of the service in this run, from the archive: 5 of 5"])
    assert run_copy(root, tmp_path / "else where") == {"shared objects file"}


def test_what_a_client_of_the_service_ends_is_a_bundle(tmp_path, mine):
    script = tmp_path / "client"
    script.write_text("#!/bin/sh\nsleep 1\necho done >done\nsetsid sleep 986 &\ntouch $TMPDIR/left\n")
    script.chmod(0o755)
    run = bundle("--main-jar", mine / "service.jar", "--input", mine / "lib", "--training-argument", "stay",
                 "--training-command", "./client", "--training-seconds", "600", cwd=tmp_path)
    assert (run.status, (tmp_path / "done").read_text()) == (0, "done\n"), run
    left = [line for line in run.said if line.startswith(("Left running", "Written"))]
    assert left == ["Left running by the service or its client, ended: sleep 986",
                    "Written by the service or its client, removed: tmp/left"] * 2
    failed = bundle("--main-jar", mine / "service.jar", "--training-argument", "stay",
                    "--training-command", "exit 5", cwd=tmp_path)
    assert failed.said[-1] == "bundle: training's client ended with status 5 after N s, see above; give " \
        "another --training-command"


@pytest.mark.parametrize("word, quoted, wrong", [
    ("exit", [], "training ended with status 3"),
    ("crash", ["  | so far"], "training ended with status 137"),
    ("throw", ['  | Exception in thread "main" java.lang.IllegalStateException: no database',
               "  | \tat com.vaultory.service.QRService.main(QRService.java:5)"],
     "training ended with an exception from main"),
    ("-x", ["  | Launching as system", "  | Illegal argument encountered: '-x'."], None),
])
def test_training_that_fails_says_why_and_leaves_the_former_bundle(tmp_path, mine, word, quoted, wrong):
    former = tmp_path / "dist/Orvane.app/former"
    former.mkdir(parents=True)
    run = bundle("--main-jar", mine / "service.jar", "--training-argument", word, cwd=tmp_path)
    text = "--training-argument: the launcher does not start with these, see above; give others"
    if wrong:
        text = f"{wrong} after N s, see above; give --training-argument with which the service ends well, " \
            "or --no-archive"
    assert (run.status, run.said[2:]) == (1, [*quoted, f"bundle: {text}"])
    assert sorted(tmp_path.rglob("*")) == [former.parents[1], former.parent, former]


def test_a_service_that_misses_a_module_of_its_own_runtime_fails_the_bundle(tmp_path, mine):
    run = bundle("--main-jar", mine / "service.jar", "--training-argument", "module", cwd=tmp_path)
    assert run.said[-1] == "bundle: the run in the bundle's own runtime ended with an exception from main " \
        "after N s, see above; give what it misses to --add-modules"
    assert list((tmp_path / "dist").iterdir()) == []


def wrapped_jdk(directory, program, line):
    """The JDK, with a line of shell before one of its programs."""
    jdk = directory / "jdk"
    (jdk / "bin").mkdir(parents=True)
    for path in JDK.iterdir():
        if path.name != "bin":
            (jdk / path.name).symlink_to(path)
    for path in (JDK / "bin").iterdir():
        (jdk / "bin" / path.name).symlink_to(path)
    (jdk / "bin" / program).unlink()
    (jdk / "bin" / program).write_text(f'#!/bin/sh\n{line}\nexec "{JDK}/bin/{program}" "$@"\n')
    (jdk / "bin" / program).chmod(0o755)
    return jdk


def test_VM_options_that_the_runtime_rejects_are_found_before_the_service_runs(tmp_path, mine):
    for option, text in (("-Xfoo", "Unrecognized option: -Xfoo"),
                         ("-agentlib:jdwp=server=y", "Error occurred during initialization of VM")):
        run = bundle("--main-jar", mine / "service.jar", "--java-options", "-Xss1m", "--java-options", option,
                     cwd=tmp_path)
        assert run.said[1:] == [
            "Looking up the modules that the jars refer to: N s", "Linking the runtime: N s",
            f"bundle: --java-options: the linked runtime does not start: {text}"]


def test_an_interrupted_run_takes_the_service_with_it_and_leaves_nothing(tmp_path, mine):
    command = [ROOT / "script/bundle", "--executable", EXECUTABLE, "--main-jar", mine / "service.jar",
               "--training-argument", "stay"]
    with subprocess.Popen(command, cwd=tmp_path, stderr=subprocess.DEVNULL) as script:
        deadline = time.monotonic() + 100
        while not (pids := services(script.pid)):
            assert script.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)
        script.send_signal(signal.SIGTERM)
        assert script.wait(60) == 143
    assert (services(script.pid), [pid for pid in pids if alive(pid)]) == ([], [])
    assert list((tmp_path / "dist").iterdir()) == []


def services(parent):
    listed = subprocess.run(["ps", "-A", "-o", "pid=,ppid=,args="], capture_output=True, text=True).stdout
    return [int(line.split()[0]) for line in listed.splitlines()
            if line.split()[1] == str(parent) and "QRService stay" in line]


def alive(pid):
    return subprocess.run(["ps", "-p", str(pid)], stdout=subprocess.DEVNULL).returncode == 0


def test_every_bundle_is_made_of_what_is_there_now_in_the_place_of_the_former(tmp_path, classes):
    jdk = wrapped_jdk(tmp_path, "jlink", "")
    service = write_jar(tmp_path / "service.jar", {MAIN: classes[MAIN], "version": b"1"})
    again = functools.partial(bundle, "--main-jar", service, "--jdk", "jdk", "--no-archive", cwd=tmp_path)
    assert again().status == 0
    write_jar(service, {MAIN: classes[MAIN], "version": b"2"})
    os.utime(service, (0, 10**9))  # older than the former
    with open(jdk / "bin/jlink", "w") as script:  # an update behind the same path
        script.write(f'#!/bin/sh\n"{JDK}/bin/jlink" "$@" && touch "$(dirname "$0")/updated"\n')
    assert again().status == 0
    assert (tmp_path / "dist" / CONTENTS / "Resources/lib/service.jar").read_bytes() == service.read_bytes()
    assert (jdk / "bin/updated").exists() and sorted(os.listdir(tmp_path / "dist")) == ["Orvane.app"]


@pytest.mark.parametrize("place", ["Contents", CONTENTS.partition("/")[2]])
def test_a_signed_bundle_is_replaced_with_force_alone(tmp_path, mine, place):
    app = tmp_path / "dist/Orvane.app"
    (app / place / "_CodeSignature").mkdir(parents=True)
    run = bundle("--main-jar", mine / "service.jar", "--no-runtime", cwd=tmp_path)
    assert run.said == [
        "bundle: --dest: 'dist/Orvane.app' is signed; add --force to replace it, or name another directory"]
    assert bundle("--main-jar", mine / "service.jar", "--no-runtime", "--force", cwd=tmp_path).status == 0
    assert not (app / place / "_CodeSignature").exists()
    (app / place / "_CodeSignature").mkdir()
    assert call("--train", app).said == [
        f"bundle: --train: '{app}' is no bundle with a launcher and a runtime; name an Orvane.app"]


def test_two_makers_pack_the_same_bytes_of_the_sample(tmp_path):
    tarballs = []
    for umask in 0o022, 0o077:
        dest = tmp_path / f"{umask:o}"
        run = call("--executable", EXECUTABLE, "--no-archive", "--dest", dest, program=ROOT / "script/pack",
                   umask=umask, SOURCE_DATE_EPOCH=str(EPOCH))
        assert run.status == 0, run
        tarballs.append((dest / f"Orvane-{VERSION}-{this_platform()}.tar.gz").read_bytes())
    assert tarballs[0] == tarballs[1]
    assert listing(dest / "Orvane.app") == listing_of_the_sample()
    with zipfile.ZipFile(dest / CONTENTS / "Resources/lib" / JAR) as jar:
        assert f"\r\nImplementation-Version: {VERSION}\r\n".encode() in jar.read(MANIFEST)


def listing(app):
    """The paths below but for the runtime's, directories with a slash, and their permissions."""
    found = [path for path in app.rglob("*") if "/Resources/jre/" not in str(path)]
    return sorted(f"{path.relative_to(app)}{'/' * path.is_dir()} {stat.S_IMODE(path.lstat().st_mode):o}"
                  for path in found)


def listing_of_the_sample():
    inner = CONTENTS.partition("/")[2] + "/"
    directories = [inner[:at + 1] for at, character in enumerate(inner) if character == "/"]
    directories += [inner + name for name in (
        "Frameworks/", "MacOS/", "Resources/", "Resources/bin/", "Resources/conf/", "Resources/jre/",
        "Resources/lang/", "Resources/launchd/", "Resources/lib/", "Resources/man/", "Resources/man/man8/",
        "Resources/operator/")]
    files = ["Contents/Info.plist", *(inner + name for name in (
        "Info.plist", "Resources/conf/service.log.xml", "Resources/lang/messages.properties",
        "Resources/launchd/com.vaultory.service.agent.plist.in",
        "Resources/launchd/com.vaultory.service.plist", f"Resources/lib/{JAR}",
        "Resources/man/man8/OrvaneService.8"))]
    programs = [inner + name for name in ("MacOS/OrvaneService", "Resources/bin/service-version")]
    programs += [f"{inner}Resources/operator/{name}" for name in ("install", "check-install")]
    link = f"{inner}Resources/operator/uninstall {stat.S_IMODE((ROOT / 'operator/uninstall').lstat().st_mode):o}"
    return sorted([f"{name} 755" for name in directories + programs] + [f"{name} 644" for name in files] + [link])


def property_lists(dest):
    contents = dest / CONTENTS
    jobs = contents / "Resources/launchd"
    return [plistlib.loads(path.read_bytes()) for path in (
        dest / "Orvane.app/Contents/Info.plist", contents / "Info.plist", jobs / "com.vaultory.service.plist",
        jobs / "com.vaultory.service.agent.plist.in")]


def test_the_property_lists_name_the_product_and_each_key_once(tmp_path, mine):
    assert bundle("--main-jar", mine / "service.jar", "--no-runtime", "--app-version", "2.13", "--copyright",
                  "© A & B <C>", "--mac-package-identifier", "com.a-b.backup", cwd=tmp_path).status == 0
    common = {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundlePackageType": "APPL",
        "CFBundleShortVersionString": "2.13",
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "CFBundleVersion": "2.13",
        "LSMinimumSystemVersion": "11.0",
        "NSHumanReadableCopyright": "© A & B <C>",
    }

    def job(label, home, *arguments):
        directory = f"{home}/Applications/{CONTENTS}/MacOS"
        return {
            "AssociatedBundleIdentifiers": "com.a-b.backup",
            "Label": label,
            "ProgramArguments": [directory + "/OrvaneService", *arguments],
            "WorkingDirectory": directory,
            "RunAtLoad": True,
            "KeepAlive": {"SuccessfulExit": False},
            "ThrottleInterval": 30,
            "ExitTimeOut": 60,
            "ProcessType": "Standard",
            "StandardOutPath": home + "/Library/Logs/OrvaneService.log",
            "StandardErrorPath": home + "/Library/Logs/OrvaneService.log",
        }
    assert property_lists(tmp_path / "dist") == [
        {**common, "CFBundleIdentifier": "com.a-b.backup", "CFBundleName": "Orvane"},
        {**common, "CFBundleIdentifier": "com.a-b.backup.service", "CFBundleName": "OrvaneService",
         "CFBundleExecutable": "OrvaneService", "LSBackgroundOnly": True,
         "NSLocalNetworkUsageDescription": "The service connects to devices in your local network."},
        job("com.vaultory.service", ""),
        job("com.vaultory.service.agent", "@HOME@", "-Duser.install=1")]
    for path in [*tmp_path.rglob("*.plist"), *tmp_path.rglob("*.plist.in")]:
        keys = re.findall("<key>(.*)</key>", path.read_text())
        assert sorted(keys) == sorted(set(keys))


def this_platform():
    system, machine = os.uname().sysname, os.uname().machine
    return {"Darwin": "macos", "Linux": "linux"}[system] + "-" + {"x86_64": "amd64", "arm64": "aarch64"}.get(
        machine, machine)


def mach_o(*cpus):
    """An executable for macOS 11.0 and later, universal for two processors."""
    parts = [struct.pack("<14I", 0xFEEDFACF, cpu, 3, 2, 1, 24, 0, 0, 0x32, 24, 1, 11 << 16, 0, 0)
             for cpu in cpus]
    if len(parts) == 1:
        return parts[0]
    return struct.pack(">12I", 0xCAFEBABE, 2, *[word for at, cpu in zip((48, 104), cpus)
                                                for word in (cpu, 3, at, 56, 0)]) + b"".join(parts)


def macos_jmods(directory, modules):
    """These modules for macOS on amd64, with a libjvm.dylib for 12.3; hashes of each other are hidden."""
    directory.mkdir()
    if not (JDK / "jmods").is_dir():
        impossible(f"{JDK} has no jmods")
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
                    new.writestr("lib/server/libjvm.dylib", mach_o(0x01000007).replace(
                        struct.pack("<I", 11 << 16), struct.pack("<I", 12 << 16 | 3 << 8)))
    return directory


def test_a_bundle_for_a_Mac_has_the_modules_of_a_JDK_for_it_and_requires_its_macOS(tmp_path, mine):
    jmods = macos_jmods(tmp_path / "jmods", ["java.base", "java.logging", "jdk.unsupported"])
    executable = tmp_path / "universal"
    executable.write_bytes(mach_o(0x01000007, 0x0100000C))
    call_it = functools.partial(call, "--main-jar", mine / "service.jar", "--dest", tmp_path / "dist")
    wrong = "name the jmods directory of a JDK for that in --jmods"
    if this_platform().startswith("linux"):
        assert call_it("--executable", executable).said[-1] == \
            f"bundle: --jdk: '{JDK}' is for {this_platform()}, the executable for macos-amd64 and " \
            f"macos-aarch64; {wrong}"
    executable.write_bytes(mach_o(0x0100000C))
    assert call_it("--executable", executable, "--jmods", jmods).said[-1] == \
        f"bundle: --jmods: '{jmods}' is for macos-amd64, the executable for macos-aarch64; {wrong}"
    executable.write_bytes(mach_o(0x01000007, 0x0100000C))
    run = call_it("--executable", executable, "--jmods", jmods)
    assert (run.status, run.said[-2:]) == (0, [
        "The runtime is for macos-amd64: call --train there, before signing, for the CDS archive",
        f"Made {tmp_path}/dist/Orvane.app"]), run
    assert [keys["LSMinimumSystemVersion"] for keys in property_lists(tmp_path / "dist")[:2]] == ["12.3"] * 2
    jre = tmp_path / "dist" / CONTENTS / "Resources/jre"
    assert os.listdir(jre / "bin") == ["java"] and (jre / "lib/server/libjvm.dylib").exists()
    (jmods / "jdk.unsupported.jmod").write_bytes(b"no jmod")
    assert call_it("--executable", executable, "--jmods", jmods).said[-1] == \
        f"bundle: --jmods: jlink cannot link '{jmods}'; name a complete JDK's: Error: java.io.IOException: " \
        f"Invalid JMOD file: {jmods}/jdk.unsupported.jmod"


def test_wrong_input_is_one_line_that_names_the_option_before_anything_is_written(tmp_path, mine, classes):
    file, empty, links = tmp_path / "file", tmp_path / "empty directory", tmp_path / "links"
    file.write_bytes(b"no jar")
    empty.mkdir()
    links.mkdir()
    (links / "out").symlink_to("../file")
    service = write_jar(tmp_path / "s.jar", {MAIN: classes[MAIN]})
    other = write_jar(tmp_path / "o.jar", {"x": b""})
    again, listing_jar = write_jar(tmp_path / "again/O.jar", {}), write_jar(tmp_path / JAR, {})
    umlaut = write_jar(tmp_path / "\u00fc.jar", {})
    java = wrapped_jdk(tmp_path, "java", "echo 'no libjvm' >&2; exit 1") / "bin/java"
    (tmp_path / "bad").mkdir()
    (tmp_path / "bad/java.base.jmod").write_bytes(b"no jmod")
    directory = "is not a directory; name one"
    jar = "is not a jar that can be read; name jars, or directories of them"
    main = ["--main-jar", service]
    cases = [([f"--{name}", path], f"'{path}' {directory}") for path in ("/nowhere", file)
             for name in ("lang", "conf", "bin", "frameworks", "jmods")]
    cases += [
        (["--jar", "x"], "no such option; --help lists all"),
        (["--no-runtime=yes"], "takes no value"),
        (["--main-jar"], "give a value"),
        (["--main-jar", file], f"'{file}' {jar}"),
        (["--main-jar", other], f"'{other}' has no com.vaultory.service.QRService, which the launcher calls; "
                                "name the jar with it"),
        (["--input", other], "the sample needs none; give --main-jar as well"),
        (["--input", "/nowhere", *main], f"'/nowhere' {jar}"),
        (["--input", empty, *main], f"'{empty}' has no jar in it; name jars, or directories of them"),
        (["--input", again, *main, "--input", other],
         f"'{again}' and '{other}' would both be installed as o.jar; rename or leave out one"),
        (["--input", listing_jar, *main],
         f"'{listing_jar}' has the name of the jar that lists the others; rename it"),
        (["--input", umlaut, *main],
         f"'{umlaut}' has a name that Java finds in some locales only; rename it in ASCII"),
        (["--conf", empty], f"'{empty}' has no service.log.xml, which the launcher names; add it"),
        (["--bin", links],
         f"'{links}/out' is a link to '../file', which is not in that directory; replace it with a copy, or "
         "leave it out"),
        (["--app-version", "1.0-beta"],
         "'1.0-beta' is not a version; give one to three numbers with dots between them"),
        (["--copyright", "two\nlines"], "'two\nlines' is not one line; give one"),
        (["--mac-package-identifier", "backup"],
         "'backup' is not a bundle identifier; give words of letters, digits and hyphens "
         "with dots between them"),
        (["--executable", file], f"'{file}' is not for macOS or Linux on amd64 or aarch64; name one that is"),
        (["--jdk", empty], f"'{empty}' has no bin/java; name a JDK, 11 or later"),
        (["--jdk", java.parents[1]], f"'{java} --list-modules' fails: no libjvm"),
        (["--jmods", empty], f"'{empty}' has no java.base.jmod; name the jmods directory of a JDK"),
        (["--jmods", tmp_path / "bad"], f"'{tmp_path}/bad/java.base.jmod' cannot be read: Error: "
                                        f"Invalid JMOD file: {tmp_path}/bad/java.base.jmod"),
        (["--add-modules", "java.sql,no.such"], f"'no.such' is not a module of '{JDK}', which has ..."),
        (["--java-options", "-Da='b"], "'-Da='b' has a quotation mark without its other; add that"),
        (["--training-seconds", "soon"], "'soon' is not a time; give a whole number above 0"),
        (["--training-command", "x", "--no-archive"], "has no meaning with --no-archive; leave one out"),
        (["--add-modules", "java.sql", "--no-runtime"], "has no meaning with --no-runtime; leave one out"),
        (["--dest", file], f"'{file}' is not a directory; name one"),
        (["--train", empty], f"'{empty}' is no bundle with a launcher and a runtime; name an Orvane.app"),
        (["--lang", empty, "--train", empty], "has no meaning with --train; leave one out"),
    ]
    before = sorted(tmp_path.rglob("*"))
    for words, text in cases:
        ours = [] if {"--executable", "--train"} & set(words) else [f"--executable={EXECUTABLE}"]
        run = call(*ours, *words, cwd=tmp_path)
        said = [re.sub("which has .*", "which has ...", "\n".join(run.said))]
        assert (run.status, said) == (1, [f"bundle: {words[0].partition('=')[0]}: {text}"])
    for name, value, text in (("JAVA_HOME", empty, f"'{empty}' has no bin/java; name a JDK, 11 or later"),
                              ("SOURCE_DATE_EPOCH", "now", "'now' is not a time; give seconds since 1970")):
        assert call(cwd=tmp_path, **{name: str(value)}).said == [f"bundle: {name}: {text}"]
    assert sorted(tmp_path.rglob("*")) == before


def test_all_options_are_explained_on_one_screen():
    said = subprocess.check_output([ROOT / "script/bundle", "--help"]).splitlines()
    assert len(said) <= 40 and max(map(len, said)) <= 110
