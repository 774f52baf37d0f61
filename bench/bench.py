"""Compares the launcher with other ways to start the same service, and writes REPORT.md: bench.py JDK...

script/bench calls it in the namespace of the tests, where it can write the override file. The first JDK
is that of the sample and of the counts, and every one that of the larger service.
"""

import datetime
import os
import pathlib
import platform
import random
import re
import shutil
import statistics
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parents[1]
BENCH = SOURCE / "bench"
WORK = pathlib.Path("/tmp/bench")
CONTENTS = "Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents"
OVERRIDE_FILE = pathlib.Path("/Library/Application Support/Quillrest/conf/jvm_args")
OPTIONS = (
    (SOURCE / "test/support/default_options.txt").read_text().replace("{home}", "").splitlines()
)
SERVICE = "com.vaultory.service.QRService"
CLASS_PATH = "../Resources/lib/com.vaultory.desktop.jar:../Resources/lang"
COMMONS_DAEMON = "/usr/share/java/commons-daemon.jar"
LOCALES = "de,es,fr,it,ja,ko,nl,pt-BR,sv,zh-Hans"  # a vendor's choice, English with it
HSQLDB = "/usr/share/java/hsqldb.jar"
# What a vendor would name; without it the runtime has the data of all locales, as jpackage's has.
LOCALES = "en,de,es,fr,it,ja,ko,nl,pt-BR,zh-CN"
# Every program gets the same, and no PATH: jpackage's asks the package manager that it finds there.
ENVIRONMENT = {"PATH": "/nonexistent", "LC_ALL": "C.UTF-8"}

WARM_UP_ROUNDS = 2
FEWEST_ROUNDS = 10
MOST_ROUNDS = 100
SECONDS_PER_RACE = 40  # after which there are no more rounds than the fewest

# What jpackage passes to jlink itself, without --strip-native-commands: jlink archives classes with the
# runtime's `java`.
JLINK_OPTIONS = "--strip-debug --no-man-pages --no-header-files --generate-cds-archive"

LAUNCHER = "launcher"
ITSELF = "the launcher itself"


def run(*command, **options):
    """What a command prints; ends the benchmarks if it fails."""
    done = subprocess.run(
        [*map(str, command)],
        text=True,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        **options,
    )
    if done.returncode:
        sys.exit(
            f"{done.stdout}\nbench: {command[0]}: status {done.returncode}; its output is above"
        )
    return done.stdout


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)


# Measuring programs that start the same service.


class Sample:
    """One run: wall time to the line UNTIL, or else to the end; CPU time and peak memory of it all."""

    def __init__(self, cwd, command, until):
        start = time.perf_counter()
        process = subprocess.Popen(
            command,
            cwd=cwd,
            env=ENVIRONMENT,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        reached = None
        for line in process.stdout:
            if line == until:
                reached = time.perf_counter()
        _, status, used = os.wait4(process.pid, 0)
        process.returncode = status
        if status != 0:
            sys.exit(f"bench: {command[0]} in {cwd}: status {status}")
        if until and reached is None:
            sys.exit(f"bench: {command[0]} in {cwd}: no line {until}")
        self.wall = (reached or time.perf_counter()) - start
        self.cpu = used.ru_utime + used.ru_stime
        self.memory = used.ru_maxrss


def archived_classes(cwd, command):
    """The share of the classes of a run that come from a CDS archive."""
    log = WORK / "classes.log"
    log.unlink(missing_ok=True)
    options = f"-Xlog:class+load:file={log}"
    run(*command, cwd=cwd, env={**ENVIRONMENT, "JAVA_TOOL_OPTIONS": options})
    sources = re.findall(r" source: (.*)", log.read_text())
    archived = [source for source in sources if source.startswith("shared objects file")]
    return f"{100 * len(archived) / len(sources):.0f} %"


def race(cwd, commands, until=None):
    """Runs all commands once per round, in random order; a table of the ratios within a round."""
    programs = {**commands, ITSELF: commands[LAUNCHER]}
    samples = {name: [] for name in programs}
    deadline = time.monotonic() + SECONDS_PER_RACE
    rounds = 0
    while rounds < WARM_UP_ROUNDS + FEWEST_ROUNDS or (
        rounds < WARM_UP_ROUNDS + MOST_ROUNDS and time.monotonic() < deadline
    ):
        for name in random.sample(list(programs), len(programs)):
            samples[name].append(Sample(cwd, programs[name], until))
        rounds += 1
    measured = {name: runs[WARM_UP_ROUNDS:] for name, runs in samples.items()}
    ours = measured.pop(LAUNCHER)
    rows = [
        [
            name,
            f"{1000 * statistics.median(run.wall for run in theirs):.0f}",
            ratio(a.wall / b.wall for a, b in zip(ours, theirs)),
            ratio(a.cpu / b.cpu for a, b in zip(ours, theirs)),
            ratio(a.memory / b.memory for a, b in zip(ours, theirs)),
            archived_classes(cwd, programs[name]),
        ]
        for name, theirs in measured.items()
    ]
    return (
        f"{len(ours)} rounds. The medians of the launcher are "
        f"{1000 * statistics.median(run.wall for run in ours):.0f} ms of wall time, "
        f"{1000 * statistics.median(run.cpu for run in ours):.0f} ms of CPU time "
        f"and {statistics.median(run.memory for run in ours) / 1024:.0f} MiB.\n\n"
        + table(
            [
                "compared with",
                "its wall time, ms",
                "launcher / it: wall time",
                "CPU time",
                "peak memory",
                "its archived classes",
            ],
            rows,
        )
    )


def ratio(ratios):
    """The median, and its 95 % bootstrap interval."""
    ratios = list(ratios)
    medians = sorted(statistics.median(random.choices(ratios, k=len(ratios))) for _ in range(1000))
    return f"{statistics.median(ratios):.3f} ({medians[25]:.3f} to {medians[974]:.3f})"


# Making the programs.


def make_bundle(jdk, dest, *options):
    run(SOURCE / "script/bundle", "--jdk", jdk, "--dest", dest, *options)
    return dest / CONTENTS


def make_jpackage_application(jdk, name, dest, jars, *options):
    java_options = [word for option in OPTIONS for word in ("--java-options", f'"{option}"')]
    run(
        jdk / "bin/jpackage",
        *("--type", "app-image", "--name", name, "--dest", dest),
        *("--input", jars, "--main-jar", "service.jar", "--main-class", SERVICE),
        *java_options,
        *options,
    )
    return dest / name


def add_archive(application, cwd):
    """Adds what jpackage leaves to its user: an archive of the classes that the service loads."""
    program = application / "bin" / application.name
    configuration = application / f"lib/app/{application.name}.cfg"
    archive = application / "lib/app/service.jsa"
    options = f"-XX:ArchiveClassesAtExit={archive}"
    run(program, cwd=cwd, env={**ENVIRONMENT, "JAVA_TOOL_OPTIONS": options})
    text = configuration.read_text()
    head = "[JavaOptions]\n"
    option = "java-options=-XX:SharedArchiveFile=$APPDIR/service.jsa\n"
    assert text.count(head) == 1, text
    configuration.write_text(text.replace(head, head + option))


def java_commands(jdk, contents):
    words = [*OPTIONS, "-cp", CLASS_PATH, SERVICE]
    return {
        LAUNCHER: ["./OrvaneService"],
        "`java` of the bundle's runtime": [contents / "Resources/jre/bin/java", *words],
        "`java` of the JDK": [jdk / "bin/java", *words],
    }


def compile_c(jdk, output, *arguments):
    includes = [f"-I{jdk}/include", f"-I{jdk}/include/linux", f"-I{WORK}"]
    run("cc", "-O2", *includes, *arguments, "-o", output)


def compile_bare_host(jdk):
    (WORK / "options.h").write_text("".join(f'{{"{option}", NULL}},\n' for option in OPTIONS))
    compile_c(
        jdk,
        WORK / "bare_host",
        BENCH / "native/floor.c",
        jdk / "lib/server/libjvm.so",
        "-Wl,-rpath,../Resources/jre/lib/server",
    )
    return [WORK / "bare_host"]


def compile_jsvc_service(jdk, jar):
    classes = WORK / "jsvc"
    class_path = f"{jar}:{COMMONS_DAEMON}"
    run(jdk / "bin/javac", "-d", classes, "-cp", class_path, BENCH / "java/JsvcService.java")
    return [
        "/usr/bin/jsvc",
        *("-home", "../Resources/jre", "-nodetach", "-pidfile", WORK / "pid", "-cwd", "."),
        *("-outfile", "&1", "-errfile", "&2"),
        *OPTIONS,
        *("-cp", f"{COMMONS_DAEMON}:{CLASS_PATH}:{classes}"),
        "JsvcService",
    ]


# The sections of the report.


def compare_sample(jdk):
    """The whole run of the sample, which has few classes: what the programs themselves cost."""
    contents = make_bundle(jdk, WORK / "sample")
    jars = WORK / "sample/jars"
    jars.mkdir()
    jar = jars / "service.jar"
    shutil.copy(contents / "Resources/lib/com.vaultory.desktop.jar", jar)
    peer = make_jpackage_application(jdk, "peer", WORK / "sample", jars)
    return race(
        contents / "MacOS",
        {
            **java_commands(jdk, contents),
            "jpackage's application": [peer / "bin/peer"],
            "a bare C host": compile_bare_host(jdk),
            "jsvc": compile_jsvc_service(jdk, jar),
        },
    )


def compare_ready(jdk):
    """The time until a service with a database is ready; what was made for it, and how long it took."""
    work = WORK / jdk.name
    for name in "jars", "lib":
        (work / name).mkdir(parents=True)
        shutil.copy(HSQLDB, work / name)
    service = work / "jars/service.jar"
    run(jdk / "bin/javac", "-d", work / "classes", BENCH / "java/QRService.java")
    run(jdk / "bin/jar", "cf", service, "-C", work / "classes", ".")

    rows = [
        made_by(
            "`script/bundle`",
            work / "Orvane.app",
            lambda: make_bundle(
                *(jdk, work, "--main-jar", service, "--input", work / "lib"),
                *("--include-locales", LOCALES),
            ),
        ),
        made_by(
            "`jpackage`",
            work / "peer",
            lambda: make_jpackage_application(jdk, "peer", work, work / "jars"),
        ),
    ]
    contents = work / CONTENTS
    archived = make_jpackage_application(
        jdk, "archived", work, work / "jars", "--jlink-options", JLINK_OPTIONS
    )
    add_archive(archived, contents / "MacOS")
    return (
        f"### {jdk_name(jdk)}\n\n"
        + race(
            contents / "MacOS",
            {
                **java_commands(jdk, contents),
                "jpackage's application": [work / "peer/bin/peer"],
                "the same with an archive made by hand": [archived / "bin/archived"],
            },
            until=b"ready\n",
        )
        + "\n"
        + table(["made by", "seconds", "MiB"], rows)
    )


def made_by(name, root, make):
    start = time.monotonic()
    make()
    seconds = time.monotonic() - start
    size = sum(path.lstat().st_size for path in root.rglob("*"))
    return [name, f"{seconds:.0f}", f"{size / 2**20:.0f}"]


def count_growth(jdk):
    """Instructions over a runtime library that does nothing, and what a line or an argument adds."""
    cwd = WORK / "idle/MacOS"
    library = WORK / "idle/Resources/jre/lib/server/libjvm.so"
    library.parent.mkdir(parents=True)
    OVERRIDE_FILE.parent.mkdir(parents=True)
    shutil.copytree(WORK / "sample" / CONTENTS / "MacOS", cwd)
    compile_c(
        jdk,
        library,
        *("-shared", "-fPIC", BENCH / "native/idle_runtime.c"),
        f"-Wl,--version-script={SOURCE}/test/runtime/libjvm.map",
    )

    def instructions(program, *arguments, lines=0):
        OVERRIDE_FILE.write_bytes(b"-Xmx512m\n" * lines)
        valgrind = ["/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
        output = run(*valgrind, program, *arguments, cwd=cwd, env={})
        return int(re.search(r"Collected : (\d+)", output)[1])

    launcher = "./OrvaneService"
    alone = instructions(launcher)
    rows = []
    for number in 1000, 10_000, 100_000:
        with_lines = instructions(launcher, lines=number)
        with_arguments = instructions(launcher, *["argument"] * number)
        rows.append(
            [f"{number:,}", (with_lines - alone) // number, (with_arguments - alone) // number]
        )
    OVERRIDE_FILE.unlink()
    return (
        f"The launcher {alone:,}, the bare C host {instructions(WORK / 'bare_host'):,}. "
        "Each one adds:\n\n" + table(["of", "a line of 8 bytes", "an argument of 8 bytes"], rows)
    )


# What the figures are of.


def jdk_name(jdk):
    release = dict(re.findall(r'^(\w+)="(.*)"$', (jdk / "release").read_text(), re.MULTILINE))
    return f"JDK {release['JAVA_RUNTIME_VERSION']} ({release['IMPLEMENTOR']})"


def machine():
    model = re.search(r"model name\s*: (.*)|$", pathlib.Path("/proc/cpuinfo").read_text())[1]
    gibibytes = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    system = platform.freedesktop_os_release() if sys.version_info >= (3, 10) else {}
    return (
        f"{model or platform.machine()}, {os.cpu_count()} cores, {gibibytes:.0f} GiB, "
        f"{system.get('PRETTY_NAME', 'Linux')}, Linux {platform.release()}"
    )


def load():
    return f"{os.getloadavg()[0]:.1f}"


def commit():
    return run("git", "-C", SOURCE, "describe", "--always", "--dirty").strip()


def main(jdks):
    began, load_before = time.monotonic(), load()
    WORK.mkdir()
    sample = compare_sample(jdks[0])
    growth = count_growth(jdks[0])
    ready = "\n".join(compare_ready(jdk) for jdk in jdks)
    minutes = (time.monotonic() - began) / 60
    (BENCH / "REPORT.md").write_text(
        f"""# Benchmarks

`script/bench` wrote this page on {datetime.date.today()} in {minutes:.0f} minutes, from commit {commit()}.

- Machine: {machine()}.
- Load average of the last minute: {load_before} at the start, {load()} at the end. The benchmarks run one
  program at a time; more load than that is of something else.
- Compiler: {run("c++", "--version").splitlines()[0]}.
- JDKs: {", ".join(map(jdk_name, jdks))}.

Each round runs every program once, in random order. A ratio is the launcher's figure divided by the other
program's of the same round: the median over the rounds with its 95 % bootstrap interval; lower is better.
The launcher is also compared with itself: a difference as small as that one means nothing.

## Whole run of the sample service

{jdk_name(jdks[0])}, {sample}
All have the launcher's options and working directory. The bare C host is `bench/native/floor.c`: nothing
that hosts a VM in its own process can do less. jsvc runs `bench/java/JsvcService.java`; its own jar comes
first on the class path, as is usual, so the VM rejects the bundle's archive.

## Time until a service with a database is ready

`bench/java/QRService.java` loads some 2,000 classes, many of them HSQLDB's. Wall time is from the start to
its line `ready`; CPU time and memory are of the whole run. `script/bundle` is called with
`--include-locales {LOCALES}`. jpackage's application is what `jpackage` makes without further options; the
one with an archive is made with `--jlink-options` for an archive of the JDK's classes, and
`-XX:ArchiveClassesAtExit` for one of the service's.

{ready}
## Growth

Instructions of a whole run over a runtime library that does nothing, as callgrind counts them. {growth}"""
    )


if __name__ == "__main__":
    main([pathlib.Path(jdk) for jdk in sys.argv[1:]])
