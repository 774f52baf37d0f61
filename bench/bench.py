"""Compares the launcher with other ways to start the same service, and writes REPORT.md: bench.py JDK...
script/bench calls it in the namespace of the tests, where it can write the override file."""

import os
import pathlib
import random
import re
import shutil
import statistics
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parents[1]
BENCH, WORK = SOURCE / "bench", pathlib.Path("/tmp/bench")
CONTENTS = "Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents"
OVERRIDE_FILE = pathlib.Path("/Library/Application Support/Quillrest/conf/jvm_args")
OPTIONS = (
    (SOURCE / "test/support/default_options.txt").read_text().replace("{home}", "").splitlines()
)
SERVICE = "com.vaultory.service.QRService"
CLASS_PATH = "../Resources/lib/com.vaultory.desktop.jar:../Resources/lang"
DAEMON = "/usr/share/java/commons-daemon.jar"
ENV = {
    "PATH": "/nonexistent",
    "LC_ALL": "C.UTF-8",
}  # jpackage's program asks a package manager on PATH
WARM_UP, FEWEST, MOST, SECONDS = (
    2,
    10,
    100,
    90,
)  # rounds; more than the fewest only in these seconds


def run(*command, **options):
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


def measure(cwd, command, until):
    """Wall time to the line UNTIL or else to the end, CPU time and peak memory of one run."""
    start = time.perf_counter()
    process = subprocess.Popen(
        command,
        cwd=cwd,
        env=ENV,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    )
    found = [time.perf_counter() for line in process.stdout if line == until]
    _, process.returncode, used = os.wait4(process.pid, 0)
    if process.returncode or until and not found:
        sys.exit(f"bench: {command[0]} in {cwd}: status {process.returncode}, or no line {until}")
    return [*found, time.perf_counter()][0] - start, used.ru_utime + used.ru_stime, used.ru_maxrss


def race(cwd, commands, until=None):
    """Runs all commands once per round, in random order; a table of the ratios within a round."""
    commands["itself"] = commands["launcher"]
    runs = {name: [] for name in commands}
    deadline = time.monotonic() + SECONDS
    while len(runs["itself"]) < WARM_UP + (MOST if time.monotonic() < deadline else FEWEST):
        for name in random.sample(list(commands), len(commands)):
            runs[name].append(measure(cwd, commands[name], until))
    ours = runs.pop("launcher")[WARM_UP:]
    wall, cpu, memory = (statistics.median(figures) for figures in zip(*ours))
    return (
        f"{len(ours)} rounds; the launcher took {wall * 1000:.0f} ms, {cpu * 1000:.0f} ms of CPU time, "
        f"{memory / 1024:.0f} MiB.\n\n"
        + table(
            ["launcher /", "wall time", "CPU time", "peak memory"],
            [
                [
                    name,
                    *(
                        interval([a[i] / b[i] for a, b in zip(ours, others[WARM_UP:])])
                        for i in range(3)
                    ),
                ]
                for name, others in runs.items()
            ],
        )
    )


def interval(ratios):
    """The median, and its 95 % bootstrap interval."""
    draws = sorted(statistics.median(random.choices(ratios, k=len(ratios))) for _ in range(1000))
    return f"{statistics.median(ratios):.3f} ({draws[25]:.3f} to {draws[974]:.3f})"


def table(head, rows):
    return "".join(
        "| " + " | ".join(map(str, row)) + " |\n" for row in [head, ["---"] * len(head), *rows]
    )


def hosts(jdk, bundle, jars):
    """The directory to start in, and what can host a bundle's service: its launcher and others."""
    peer, java = bundle / "peer", bundle / CONTENTS / "Resources/jre/bin/java"
    words = *OPTIONS, "-cp", CLASS_PATH, SERVICE
    run(
        jdk / "bin/jpackage",
        "--type",
        "app-image",
        "--name",
        "peer",
        "--dest",
        bundle,
        "--input",
        jars,
        "--main-jar",
        "service.jar",
        "--main-class",
        SERVICE,
        *(word for option in OPTIONS for word in ("--java-options", f'"{option}"')),
    )
    return bundle / CONTENTS / "MacOS", {
        "launcher": ["./OrvaneService"],
        "`java` of the bundle's runtime": [java, *words],
        "`java` of the JDK": [jdk / "bin/java", *words],
        "jpackage's application": [peer / "bin/peer"],
    }


def compare_sample(jdk):
    bundle, jars = WORK / "sample", WORK / "jars"
    run(SOURCE / "script/bundle", "--dest", bundle, "--jdk", jdk)
    jars.mkdir()
    jar = shutil.copy(
        bundle / CONTENTS / "Resources/lib/com.vaultory.desktop.jar", jars / "service.jar"
    )
    (WORK / "options.h").write_text("".join(f'{{"{option}", NULL}},\n' for option in OPTIONS))
    run(
        "cc",
        "-O2",
        f"-I{jdk}/include",
        f"-I{jdk}/include/linux",
        f"-I{WORK}",
        BENCH / "native/floor.c",
        jdk / "lib/server/libjvm.so",
        "-o",
        WORK / "floor",
        "-Wl,-rpath,../Resources/jre/lib/server",
    )
    run(
        jdk / "bin/javac",
        "-d",
        WORK / "jsvc",
        "-cp",
        f"{jar}:{DAEMON}",
        BENCH / "java/JsvcService.java",
    )
    cwd, commands = hosts(jdk, bundle, jars)
    return race(
        cwd,
        {
            **commands,
            "a bare C host": [WORK / "floor"],
            "jsvc": [
                "/usr/bin/jsvc",
                "-home",
                "../Resources/jre",
                "-nodetach",
                "-pidfile",
                WORK / "pid",
                "-cwd",
                ".",
                "-outfile",
                "&1",
                "-errfile",
                "&2",
                *OPTIONS,
                "-cp",
                f"{DAEMON}:{CLASS_PATH}:{WORK}/jsvc",
                "JsvcService",
            ],
        },
    )


def compare_ready(jdk, work):
    for name in "jars", "lib":
        (work / name).mkdir(parents=True)
        shutil.copy("/usr/share/java/hsqldb.jar", work / name)
    run(jdk / "bin/javac", "-d", work / "classes", BENCH / "java/QRService.java")
    run(jdk / "bin/jar", "cf", work / "jars/service.jar", "-C", work / "classes", ".")
    run(
        SOURCE / "script/bundle",
        "--main-jar",
        work / "jars/service.jar",
        "--input",
        work / "lib",
        "--dest",
        work / "bundle",
        "--jdk",
        jdk,
    )
    return race(*hosts(jdk, work / "bundle", work / "jars"), until=b"ready\n")


def count(jdk):
    """Instructions over a runtime library that does nothing, and what a line or an argument adds."""
    cwd, library = WORK / "idle/MacOS", WORK / "idle/Resources/jre/lib/server/libjvm.so"
    for directory in library, OVERRIDE_FILE:
        directory.parent.mkdir(parents=True)
    shutil.copytree(WORK / "sample" / CONTENTS / "MacOS", cwd)
    run(
        "cc",
        "-O2",
        f"-I{jdk}/include",
        f"-I{jdk}/include/linux",
        "-shared",
        "-fPIC",
        "-o",
        library,
        BENCH / "native/idle_runtime.c",
        f"-Wl,--version-script={SOURCE}/test/runtime/libjvm.map",
    )

    def instructions(*arguments, lines=0, program="./OrvaneService"):
        OVERRIDE_FILE.write_bytes(b"-Xmx512m\n" * lines)
        output = run(
            "/usr/bin/valgrind",
            "--tool=callgrind",
            "--callgrind-out-file=/dev/null",
            program,
            *arguments,
            cwd=cwd,
            env={},
        )
        return int(re.search(r"Collected : (\d+)", output)[1])

    rows, alone, host = [], instructions(), instructions(program=WORK / "floor")
    for number in 1000, 10_000, 100_000:
        lines, arguments = instructions(lines=number), instructions(*["argument"] * number)
        rows.append([f"{number:,}", (lines - alone) // number, (arguments - alone) // number])
    return f"the launcher {alone:,}, the bare C host {host:,}. Each one adds:\n\n" + table(
        ["of", "a line of 8 bytes", "an argument of 8 bytes"], rows
    )


def main():
    jdks, began = [pathlib.Path(jdk) for jdk in sys.argv[1:]], time.monotonic()
    WORK.mkdir()
    sample, counted = compare_sample(jdks[0]), count(jdks[0])
    ready = "\n".join(f"{jdk.name}: {compare_ready(jdk, WORK / jdk.name)}" for jdk in jdks)
    cpu = re.search(r"model name\s*: (.*)|$", pathlib.Path("/proc/cpuinfo").read_text())[1]
    (BENCH / "REPORT.md").write_text(
        f"""# Benchmarks

`script/bench` wrote this in {(time.monotonic() - began) / 60:.0f} minutes.
Machine: {cpu or os.uname().machine}, {os.cpu_count()} cores.

Each round runs every program once, in random order. A ratio is the launcher's figure divided by the other
program's of the same round: the median over the rounds with its 95 % bootstrap interval; lower is better.
The row "itself" compares the launcher with itself: a difference as small as that means nothing.

## Whole run of the sample service

{jdks[0].name}: {sample}
All have the launcher's options and working directory. The bare C host is `bench/native/floor.c`.

## Time until a service with some 2,000 classes is ready

`bench/java/QRService.java`, from the start to its line `ready`; CPU time and memory are of the whole run.

{ready}
## Growth

Instructions of a whole run over a runtime library that does nothing: {counted}"""
    )


main()
