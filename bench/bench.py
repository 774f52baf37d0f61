"""Measures the launcher beside its peers and writes REPORT.md and chart.svg. Called by script/bench
in a root where the sample's bundle lies in /Applications, and /Library and /bench are empty."""

import os
import pathlib
import random
import re
import shutil
import statistics
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).parents[1]
sys.path.insert(0, str(SOURCE / "test"))
from support import CONTENTS  # noqa: E402: it lies with the tests

HERE, WORK = SOURCE / "bench", pathlib.Path("/bench")
BUNDLE = pathlib.Path("/Applications", CONTENTS)
OVERRIDE_FILE = pathlib.Path("/Library/Application Support/Quillrest/conf/jvm_args")
SERVICE = "com.vaultory.service.QRService"
JAR, LANG = "../Resources/lib/com.vaultory.desktop.jar", "../Resources/lang"
OPTIONS = (SOURCE / "test/support/default_options.txt").read_text().replace("{home}", "").splitlines()
DAEMON = "/usr/share/java/commons-daemon.jar"

WARM_UP, FEW = 2, 8
ROUNDS, READY_ROUNDS, COUNT_ROUNDS = (100, 110), (40, 100), (15, 30)  # at most, in that many seconds
COUNTS = [10_000, 100_000, 1_000_000]
WHAT = {"wall": "wall time", "cpu": "CPU", "memory": "peak memory"}
random.seed(4)  # of the order in each round
began = time.monotonic()


def say(text):
    print(f"{time.monotonic() - began:4.0f} s: {text}", file=sys.stderr, flush=True)


def run(*command, cwd=None, env=None):
    """Runs a command that has to succeed; its output."""
    done = subprocess.run([*map(str, command)], cwd=cwd, env=env, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True)
    if done.returncode != 0:
        said = "\n".join((done.stdout + done.stderr).splitlines()[-20:])
        raise SystemExit(f"{said}\nbench: {' '.join(map(str, command))}: status {done.returncode}, see above")
    return done.stdout + done.stderr


class Command:
    """What is measured: its words and its directory; with a line, only until that appears on its
    standard output; with a file, that is the override file."""

    def __init__(self, words, cwd, until=b"", file=None, env=None):
        self.words, self.cwd, self.until, self.file = [*map(str, words)], cwd, until, file
        self.env = {**os.environ, **(env or {})}

    def measure(self):
        """{wall: s, cpu: s, memory: bytes} of one run."""
        OVERRIDE_FILE.unlink(missing_ok=True)
        if self.file:
            OVERRIDE_FILE.symlink_to(self.file)
        start = time.perf_counter()
        process = subprocess.Popen(self.words, cwd=self.cwd, env=self.env, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE if self.until else subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        if self.until:
            while (line := process.stdout.readline()) and line != self.until:
                pass
            wall = time.perf_counter() - start
            process.stdout.read()
            process.stdout.close()
        _, status, used = os.wait4(process.pid, 0)
        process.returncode = status
        if not self.until:
            wall = time.perf_counter() - start
        if status != 0:
            raise SystemExit(f"bench: {' '.join(self.words[:9])}: status {status}; it has to succeed")
        return {"wall": wall, "cpu": used.ru_utime + used.ru_stime, "memory": used.ru_maxrss * 1024}

    def archived(self):
        """The share of the classes a run loads that come from an archive, in percent."""
        log = WORK / "classes.log"
        run(*self.words, cwd=self.cwd,
            env={**self.env, "JAVA_TOOL_OPTIONS": f"-Xlog:class+load:file={log}:none"})
        lines = log.read_text().splitlines()
        return 100 * sum("shared objects file" in line for line in lines) / len(lines)


class Race:
    """Runs of several commands: all of them once a round, in random order; as many rounds as the
    time allows, but no fewer than FEW. The command named by twin runs twice; what that comes to
    beside itself is the noise of the race."""

    def __init__(self, commands, limits, twin=None):
        rounds, seconds = limits
        deadline = time.monotonic() + seconds
        self.runs = {name: [] for name in [*commands, *(["twin"] if twin else [])]}
        for number in range(WARM_UP + rounds):
            if number >= WARM_UP + FEW and time.monotonic() > deadline:
                break
            for name in random.sample(list(self.runs), len(self.runs)):
                figures = commands[twin if name == "twin" else name].measure()
                if number >= WARM_UP:
                    self.runs[name].append(figures)
        self.rounds = len(self.runs[next(iter(commands))])
        self.noise = {what: self.spread(twin, what) for what in WHAT} if twin else {}

    def ratios(self, name, other, what):
        return [a[what] / b[what] for a, b in zip(self.runs[name], self.runs[other])]

    def ratio(self, other, what, ours="ours"):
        return statistics.median(self.ratios(ours, other, what))

    def median(self, name, what):
        return statistics.median(figures[what] for figures in self.runs[name])

    def spread(self, twin, what):
        """How far from 1 the median ratio of the same program twice may lie, in 95 of 100 draws."""
        ratios = self.ratios("twin", twin, what)
        draws = sorted(abs(statistics.median(random.choices(ratios, k=len(ratios))) - 1)
                       for _ in range(1000))
        return draws[950]


def prepare(jdk):
    """Builds what is measured beside the installed bundle."""
    include = ["-I", jdk / "include", "-I", jdk / "include/linux"]
    (WORK / "options.h").write_text("".join(f'{{"{option}", NULL}},\n' for option in OPTIONS))
    idle = WORK / "idle/Resources/jre/lib/server/libjvm.so"
    idle.parent.mkdir(parents=True)
    (WORK / "idle/MacOS").mkdir()
    shutil.copy(BUNDLE / "MacOS/OrvaneService", WORK / "idle/MacOS")
    compile_c = ["cc", "-O2", "-s", *include, "-I", WORK, "-o"]
    run(*compile_c, WORK / "floor", HERE / "native/floor.c",
        "-Wl,-rpath,../Resources/jre/lib/server:../Resources/jre/lib/jli", jdk / "lib/server/libjvm.so")
    run(*compile_c, idle, "-shared", "-fPIC", HERE / "native/idle_runtime.c",
        f"-Wl,--version-script={SOURCE / 'test/runtime/libjvm.map'}")
    run(jdk / "bin/javac", "-d", WORK / "jsvc", "-cp", f"{BUNDLE / 'MacOS' / JAR}:{DAEMON}",
        HERE / "java/JsvcService.java")


def build_heavy(jdk):
    """The class-heavy service in a bundle made by the documented variables; its Contents."""
    directory = WORK / f"heavy-{jdk.name}"
    directory.mkdir()
    jar = shutil.copy("/usr/share/java/hsqldb.jar", directory / "heavy.jar")
    run(jdk / "bin/javac", "-d", directory / "classes", "-cp", jar, HERE / "java/QRService.java")
    run(jdk / "bin/jar", "uf", jar, "-C", directory / "classes", ".")
    run("cmake", "--preset", "release", "-B", directory / "build", f"-DBUNDLE_JAR={jar}",
        f"-DBUNDLE_JDK={jdk}", "-DBUILD_TESTING=OFF", cwd=SOURCE, env={**os.environ, "JAVA_HOME": str(jdk)})
    run("cmake", "--build", directory / "build")
    run("cmake", "--install", directory / "build", "--prefix", directory / "Applications")
    return directory / "Applications" / CONTENTS


def archive_by_hand(java, cwd, class_path, target, *arguments):
    """The best archive that the JDK's own tools make for an option; the option."""
    options = ["-XX:+UseG1GC", *OPTIONS, "-cp", class_path]
    if "AOTCache" in run(java, "-XX:+PrintFlagsFinal", "-version"):
        run(java, "-XX:AOTMode=record", f"-XX:AOTConfiguration={target}.conf", *options, SERVICE,
            *arguments, cwd=cwd)
        run(java, "-XX:AOTMode=create", f"-XX:AOTConfiguration={target}.conf",
            f"-XX:AOTCache={target}", *options, cwd=cwd)
        return "-XX:AOTCache="
    run(java, "-Xshare:off", f"-XX:DumpLoadedClassList={target}.list", *options, SERVICE, *arguments,
        cwd=cwd)
    run(java, "-Xshare:dump", f"-XX:SharedClassListFile={target}.list",
        f"-XX:SharedArchiveFile={target}", *options, cwd=cwd)
    return "-XX:SharedArchiveFile="


def build_peer(jdk, contents, *arguments):
    """jpackage's application around a bundle's runtime, with such an archive; its program."""
    place = WORK / f"peer-{len(list(WORK.glob('peer-*')))}"
    jar = contents / "Resources/lib" / pathlib.Path(JAR).name
    runtime = shutil.copytree(contents / "Resources/jre", place / "runtime", symlinks=True)
    (runtime / "lib/server/classes.jsa").unlink()
    (place / "input").mkdir()
    shutil.copy2(jar, place / "input/service.jar")
    option = archive_by_hand(runtime / "bin/java", place, place / "input/service.jar",
                             place / "trial", *arguments)
    run(jdk / "bin/jpackage", "--type", "app-image", "--name", "peer", "--dest", place, "--input",
        place / "input", "--main-jar", "service.jar", "--main-class", SERVICE, "--runtime-image",
        runtime, *(word for line in [*OPTIONS, f"{option}$APPDIR/app.cache"]
                   for word in ("--java-options", f'"{line}"')))
    app = place / "peer/lib/app"
    archive_by_hand(place / "peer/lib/runtime/bin/java", place, app / "service.jar",
                    app / "app.cache", *arguments)
    return place / "peer/bin/peer"


def hosts(jdk):
    """{name: Command} of what can host the sample service in the same runtime image."""
    cwd, java = BUNDLE / "MacOS", BUNDLE / "Resources/jre"
    return {
        "ours": Command(["./OrvaneService", "hello"], cwd),
        "a bare C host": Command([WORK / "floor", "hello"], cwd),
        "`java`": Command([java / "bin/java", *OPTIONS, "-cp", f"{JAR}:{LANG}", SERVICE, "hello"], cwd),
        "jpackage's launcher": Command([build_peer(jdk, BUNDLE, "hello"), "hello"], cwd,
                                       env={"PATH": "/nonexistent"}),
        "jsvc": Command(
            ["/usr/bin/jsvc", "-home", java, "-nodetach", "-pidfile", WORK / "jsvc.pid", "-cwd", cwd,
             "-outfile", "&1", "-errfile", "&2", *OPTIONS, "-cp",
             f"{DAEMON}:{JAR}:{LANG}:{WORK / 'jsvc'}", "JsvcService", "hello"], cwd),
    }


def ready_hosts(jdk):
    """The same of the class-heavy service, each until it says that it is ready."""
    contents = build_heavy(jdk)
    cwd, java = contents / "MacOS", contents / "Resources/jre/bin/java"
    cache = WORK / f"hand-{jdk.name}"
    hand = archive_by_hand(java, cwd, JAR, cache) + str(cache)
    words = [*OPTIONS, "-cp", f"{JAR}:{LANG}", SERVICE]
    return {
        "ours": Command(["./OrvaneService"], cwd, b"ready\n"),
        "stock JDK": Command([jdk / "bin/java", *words], cwd, b"ready\n"),
        "same runtime, `java`": Command([java, *words], cwd, b"ready\n"),
        "same runtime, `java`, best by hand": Command([java, hand, *words], cwd, b"ready\n"),
        "jpackage, best archive": Command([build_peer(jdk, contents)], cwd, b"ready\n",
                                          env={"PATH": "/nonexistent"}),
    }


def growth():
    """{kind: {count: nanoseconds of one item}}, over a run without any."""
    kinds = {"lines of 8 bytes": "-Xmx512m", "lines of 28 bytes": "-Dorv.security.mode=12345678",
             "arguments of 8 bytes": None}
    found = {}
    for kind, line in kinds.items():
        commands = {}
        for count in [0, *(COUNTS if line else [1000, 10_000, 100_000])]:
            file = WORK / f"lines-{count}" if line and count else None
            if file:
                file.write_text((line + "\n") * count)
            arguments = [] if line else (f"arg{number:05}" for number in range(count))
            commands[count] = Command(["./OrvaneService", *arguments], WORK / "idle/MacOS", file=file)
        race = Race(commands, COUNT_ROUNDS)
        found[kind] = {
            count: statistics.median((a["wall"] - b["wall"]) / count * 1e9
                                     for a, b in zip(race.runs[count], race.runs[0]))
            for count in commands if count}
    return found


def instructions(program, cwd):
    """Instructions of a whole run with an empty environment."""
    said = run("/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program,
               cwd=cwd, env={})
    return int(re.search(r"Collected : (\d+)", said)[1])


def table(head, rows):
    return "".join("| " + " | ".join(map(str, row)) + " |\n" for row in [head, ["---"] * len(head), *rows])


def verdict(value, goal, noise=0.0):
    if abs(value - goal) <= noise:
        return "equal"
    return "met" if value < goal else "**missed**"


def goals(sample, ready, costs, count):
    rows = []

    def row(text, race, other, goal, what="wall"):
        value = race.ratio(other, what)
        rows.append([f"{text}, {WHAT[what]}", f"≤ {goal:.2f}", f"{value:.3f}",
                     f"± {race.noise[what]:.3f}", verdict(value, goal, race.noise[what])])

    for what in WHAT:
        row("whole run: ours / a bare C host", sample, "a bare C host", 1, what)
    for other, goal in ("`java`", 1), ("jpackage's launcher", 1), ("jsvc", 0.8):
        row(f"whole run: ours / {other}", sample, other, goal)
    for version, race in ready.items():
        row(f"JDK {version}, ready: ours / stock JDK", race, "stock JDK",
            0.5 if version >= 24 else 0.55)
        row(f"JDK {version}: ours / stock JDK", race, "stock JDK", 1, "memory")
        row(f"JDK {version}, ready: ours / best by hand", race,
            "same runtime, `java`, best by hand", 1)
    rows.append(["instructions of a whole run over an idle runtime", "≤ 400,000", f"{count:,}", "",
                 verdict(count, 400_000)])
    for kind, cost in costs.items():
        many = max(cost)
        value = cost[many] / cost[10_000]
        rows.append([f"{kind}: cost of one of {many:,} / of 10,000", "≤ 1.20", f"{value:.2f}", "",
                     verdict(value, 1.2)])
    return rows


def race_table(race, archived, unit):
    names = [name for name in race.runs if name not in ("ours", "twin")]
    rows = [["ours", f"{race.median('ours', 'wall') * 1000:.0f}", "", "", "", f"{archived['ours']:.0f} %"]]
    rows += [[name, f"{race.median(name, 'wall') * 1000:.0f}",
              *(f"{race.ratio(name, what):.3f}" for what in WHAT), f"{archived[name]:.0f} %"]
             for name in names]
    return table(["", unit, *(f"ours / it, {text}" for text in WHAT.values()), "classes archived"], rows)


def chart(ready):
    """Bars of the ready times, in an SVG of a line each."""
    lines, y = [], 20
    longest = max(race.median("stock JDK", "wall") for race in ready.values())
    for version, race in ready.items():
        for name in (name for name in race.runs if name != "twin"):
            seconds = race.median(name, "wall")
            colour = "#2a6fb0" if name == "ours" else "#b8c4d0"
            lines.append(f'<rect x="300" y="{y - 13}" width="{330 * seconds / longest:.0f}" height="16" '
                         f'fill="{colour}"/><text x="290" y="{y}" text-anchor="end">JDK {version}, '
                         f'{name.replace("`", "")}</text><text x="{306 + 330 * seconds / longest:.0f}" '
                         f'y="{y}">{seconds * 1000:.0f} ms</text>')
            y += 22
        y += 10
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="720" height="{y}" font-family="sans-serif" '
            'font-size="13"><rect width="100%" height="100%" fill="white"/>\n'
            + "\n".join(lines) + "\n</svg>\n")


def machine(jdks):
    def first(pattern, path):
        found = re.search(pattern, pathlib.Path(path).read_text(), re.M)
        return found[1] if found else "unknown"
    versions = [run(jdk / "bin/java", "-version").splitlines()[1].split("(build ")[1].rstrip(")")
                for jdk in jdks.values()]
    return ", ".join([
        first(r"^model name\s*: (.*)$", "/proc/cpuinfo"), f"{os.cpu_count()} cores",
        f"{os.sysconf('SC_PAGE_SIZE') * os.sysconf('SC_PHYS_PAGES') / 2 ** 30:.0f} GiB",
        first(r'^PRETTY_NAME="(.*)"', "/etc/os-release"), run("c++", "--version").splitlines()[0],
        *(f"JDK {version}" for version in versions)])


def main():
    load = os.getloadavg()[0]
    jdks = {}
    for home in map(pathlib.Path, sys.argv[1:]):  # the first is the sample's
        jdks.setdefault(int(re.search(r'^JAVA_VERSION="(\d+)', (home / "release").read_text(), re.M)[1]), home)
    jdk = next(iter(jdks.values()))
    OVERRIDE_FILE.parent.mkdir(parents=True)
    say("Building what is measured")
    prepare(jdk)
    ready, ready_archived = {}, {}
    for version in sorted(jdks, reverse=True):
        commands = ready_hosts(jdks[version])
        say(f"Ready time on JDK {version}")
        ready[version] = Race(commands, READY_ROUNDS, "ours")
        ready_archived[version] = {name: command.archived() for name, command in commands.items()}
    commands = hosts(jdk)
    say("Whole run of the sample")
    sample = Race(commands, ROUNDS, "a bare C host")
    archived = {name: command.archived() for name, command in commands.items()}
    say("Lines and arguments")
    costs = growth()
    counted = {name: instructions(program, WORK / "idle/MacOS") for name, program in
               (("the launcher", "./OrvaneService"), ("the bare C host", WORK / "floor"))}
    rows = [[kind, ", ".join(f"{ns:.0f} at {count:,}" for count, ns in cost.items())]
            for kind, cost in costs.items()]
    (HERE / "chart.svg").write_text(chart(ready))
    (HERE / "REPORT.md").write_text(f"""# Benchmarks

`script/bench` wrote this page in {(time.monotonic() - began) / 60:.0f} minutes. Each round runs everything that is compared once, in
random order; a ratio is of two runs of one round, a figure is the median over the rounds (lower is better).
The noise is what one program comes to beside itself in the same rounds (95 of 100 draws of the median):
a figure no further than that from its goal is called equal.

Machine: {machine(jdks)}.
Load average of the last minute at the start {load:.1f}, at the end {os.getloadavg()[0]:.1f}: the hosts themselves make some.

## Goals

{table(["", "goal", "median", "noise", ""], goals(sample, ready, costs, counted["the launcher"]))}
## Ready time of a service with some 2,000 classes

{" and ".join(str(race.rounds) for race in ready.values())} rounds, from the start to the line `ready` on a pipe; CPU and memory are of the whole run. `bench/java/QRService.java`
with the HSQLDB database, in a bundle made by `BUNDLE_JAR`.

![Ready time](chart.svg)

""" + "\n".join(f"JDK {version}:\n\n{race_table(race, ready_archived[version], 'ms to ready')}"
                for version, race in ready.items()) + f"""
## Whole run of the sample

{sample.rounds} rounds, JDK {next(iter(jdks))}, the bundle's runtime, output to `/dev/null`. The bare C host is `bench/native/floor.c`: nothing
that hosts a VM in its own process can start sooner.

{race_table(sample, archived, "ms")}
- All have the launcher's {len(OPTIONS)} options, `PATH` and `LC_ALL=C.UTF-8`, and `MacOS` of the bundle as working directory.
- Best by hand: `-XX:AOTCache=` where the VM has it, else `-XX:SharedArchiveFile=`, trained by the same run, with the jar alone.
- jpackage's application: `--runtime-image` of the bundle's runtime without its archive, such an archive in
  `$APPDIR` by `--java-options`, and `PATH=/nonexistent`, as it asks the package manager at every start.
- jsvc's class is `bench/java/JsvcService.java`; its own jar comes first, as is usual, which keeps the VM from the archive.

## Growth

The launcher over a runtime library that does nothing (`bench/native/idle_runtime.c`), at most {COUNT_ROUNDS[0]} rounds. The cost of one is the time
of a run less that of a run without any, divided by their number; a thousand cost about what starts differ by.

{table(["", "nanoseconds each"], rows)}
Instructions of a whole run (`valgrind --tool=callgrind`, the loader's included): {", ".join(f"{name} {count:,}" for name, count in counted.items())}.
""")
    say("bench/REPORT.md is written")


if __name__ == "__main__":
    main()
