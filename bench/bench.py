"""Measures the launcher beside its peers and writes the report. Called by script/bench, in a
root where the sample's bundle lies in /Applications, and /Library and /bench are empty."""

import os
import pathlib
import random
import re
import shutil
import statistics
import struct
import subprocess
import sys
import time

import report
import variants

SOURCE = pathlib.Path(__file__).parents[1]
sys.path.insert(0, str(SOURCE / "test"))
from support import CONTENTS, macho  # noqa: E402: it lies with the tests

BUILD = SOURCE / "build/release"
WORK = pathlib.Path("/bench")
HERE = SOURCE / "bench"
BUNDLE = pathlib.Path("/Applications", CONTENTS)
OVERRIDE_FILE = pathlib.Path("/Library/Application Support/Quillrest/conf/jvm_args")
SERVICE = "com.vaultory.service.QRService"
CLASS_PATH = "../Resources/lib/com.vaultory.desktop.jar:../Resources/lang"
OPTIONS = (SOURCE / "test/support/default_options.txt").read_text().replace("{home}", "")
OPTIONS = OPTIONS.splitlines()

WARM_UP, FLOOR_ROUNDS, ROUNDS, HEAVY_ROUNDS, LINE_ROUNDS = 2, 150, 80, 40, 30
COUNTS = [1000, 10_000, 100_000, 1_000_000]
ARGUMENT_COUNTS = [10, 100, 1000, 10_000, 100_000]
LINES = {8: "-Xmx512m", 28: "-Dorv.security.mode=12345678"}
random.seed(4)  # of the order in each round


def say(text):
    print(text, file=sys.stderr, flush=True)


def run(*command, cwd=None, env=None):
    """Runs a command that has to succeed; its output."""
    done = subprocess.run([*map(str, command)], cwd=cwd, env=env, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True)
    if done.returncode != 0:
        raise SystemExit(f"{command}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout + done.stderr


def cached(name):
    """What the build was configured with."""
    return re.search(f"^{name}:[A-Z]+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)[1]


JDK = pathlib.Path(cached("BUNDLE_JDK"))


class Command:
    """What is measured: its words, its folder, and how the report prints it; with a text, only
    until that appears on its standard output; with a file, that is the override file; with an
    environment, in that besides this process's own."""

    def __init__(self, words, cwd, shown="", until="", file=None, env=None):
        self.words, self.cwd, self.shown = [*map(str, words)], cwd, shown
        self.until, self.file, self.env = until, file, {**os.environ, **(env or {})}

    def measure(self):
        """{wall: s, cpu: s, memory: bytes} of one run."""
        OVERRIDE_FILE.unlink(missing_ok=True)
        if self.file:
            OVERRIDE_FILE.symlink_to(self.file)
        done = subprocess.run([WORK / "measure", self.until, *self.words], cwd=self.cwd,
                              env=self.env, capture_output=True, text=True)
        wall, cpu, memory, status = map(int, done.stdout.split())
        if status != 0 or wall <= 0:
            raise SystemExit(f"{self.words[:9]}: status {status}")
        return {"wall": wall / 1e9, "cpu": cpu / 1e6, "memory": memory * 1024}

    def classes(self):
        """How many classes a run loads, and how many of them from class data."""
        log = WORK / "classes.log"
        run(*self.words, cwd=self.cwd,
            env={**self.env, "JAVA_TOOL_OPTIONS": f"-Xlog:class+load:file={log}:none"})
        lines = log.read_text().splitlines()
        return len(lines), sum("shared objects file" in line for line in lines)


def interleaved(commands, rounds, repeat=None):
    """{name: [a run of each round]}: all of them once a round, in random order; those in
    repeat so many times, of which the round keeps the median."""
    found = {name: [] for name in commands}
    for number in range(WARM_UP + rounds):
        for name in random.sample(list(commands), len(commands)):
            runs = [commands[name].measure() for _ in range((repeat or {}).get(name, 1))]
            if number >= WARM_UP:
                found[name].append({what: statistics.median(one[what] for one in runs)
                                    for what in runs[0]})
    return found


def ratios(ours, others):
    """{wall, cpu, memory: (median, minimum) of the rounds' ratios}"""
    return {what: spread([a[what] / b[what] for a, b in zip(ours, others)])
            for what in ("wall", "cpu", "memory")}


def spread(values):
    return statistics.median(values), min(values)


def prepare():
    """Builds what is measured beside the installed bundle."""
    say("Building what is measured beside it")
    include = ["-I", JDK / "include", "-I", JDK / "include/linux"]
    native = HERE / "native"
    (WORK / "options.h").write_text("".join(f'{{"{option}", NULL}},\n' for option in OPTIONS))
    idle = WORK / "idle/Resources/jre/lib/server/libjvm.so"
    idle.parent.mkdir(parents=True)
    (WORK / "idle/MacOS").mkdir()
    shutil.copy(BUNDLE / "MacOS/OrvaneService", WORK / "idle/MacOS")
    run("cc", "-O2", "-s", "-o", WORK / "measure", native / "measure.c")
    run("cc", "-O2", "-s", "-o", WORK / "empty", native / "empty.c")
    run("c++", "-O3", "-s", "-static-libstdc++", "-o", WORK / "getline", native / "getline.cpp")
    run("cc", "-O2", "-s", *include, "-I", WORK, "-o", WORK / "floor", native / "floor.c",
        "-Wl,-rpath,../Resources/jre/lib/server:../Resources/jre/lib/jli",
        JDK / "lib/server/libjvm.so")
    run("cc", "-O2", "-s", "-shared", "-fPIC", *include, "-o", idle, native / "idle_runtime.c",
        f"-Wl,--version-script={SOURCE / 'test/runtime/libjvm.map'}")

    jar = BUNDLE / "Resources/lib/com.vaultory.desktop.jar"
    run(JDK / "bin/javac", "-d", WORK / "jsvc", "-cp",
        f"{jar}:/usr/share/java/commons-daemon.jar", HERE / "java/jsvc/JsvcService.java")
    say("Building jpackage's application, and its class data")
    peer = prepare_peer(jar)
    say("Building the bundle of a service with some 2,000 classes")
    return peer, prepare_heavy()


def prepare_peer(jar):
    """jpackage's application around the bundle's own runtime, with class data made in the way
    that ours are."""
    (WORK / "peer-input").mkdir()
    shutil.copy2(jar, WORK / "peer-input/service.jar")
    run(JDK / "bin/jpackage", "--type", "app-image", "--name", "peer", "--dest", WORK,
        "--input", WORK / "peer-input", "--main-jar", "service.jar", "--main-class", SERVICE,
        "--runtime-image", BUNDLE / "Resources/jre",
        *(word for option in OPTIONS for word in ("--java-options", f'"{option}"')))
    peer = WORK / "peer"
    runtime = peer / "lib/runtime"
    listed, every = WORK / "peer.classes", WORK / "peer.all"
    data = runtime / "lib/server/classes.jsa"
    data.unlink(missing_ok=True)
    run(peer / "bin/peer", "hello", env={
        "PATH": "/nonexistent",
        "JAVA_TOOL_OPTIONS": f"-Xshare:off -XX:DumpLoadedClassList='{listed}'"})
    every.write_text((runtime / "lib/classlist").read_text() + listed.read_text())
    run(runtime / "bin/java", "-Xshare:dump", "-XX:+UseG1GC", f"-XX:SharedClassListFile={every}",
        f"-XX:SharedArchiveFile={data}", "-cp", peer / "lib/app/service.jar")
    return peer


def prepare_heavy():
    """The class-heavy service in a bundle made by the documented variables."""
    folder = WORK / "heavy"
    folder.mkdir()
    jar = folder / "heavy.jar"
    shutil.copy("/usr/share/java/hsqldb.jar", jar)
    run(JDK / "bin/javac", "-d", folder / "classes", "-cp", jar,
        HERE / "java/heavy/com/vaultory/service/QRService.java")
    run(JDK / "bin/jar", "uf", jar, "-C", folder / "classes", ".")
    run("cmake", "--preset", "release", "-B", folder / "build", f"-DBUNDLE_JAR={jar}",
        f"-DBUNDLE_JDK={JDK}", "-DBUILD_TESTING=OFF", cwd=SOURCE,
        env={**os.environ, "JAVA_HOME": str(JDK)})
    run("cmake", "--build", folder / "build")
    run("cmake", "--install", folder / "build", "--prefix", folder / "Applications")
    return folder / "Applications" / CONTENTS


def hosts(peer):
    """{name: Command} of what can host the sample service in the same runtime image."""
    folder = BUNDLE / "MacOS"
    java = BUNDLE / "Resources/jre"
    daemon = "/usr/share/java/commons-daemon.jar"
    jsvc = ["/usr/bin/jsvc", "-home", java, "-nodetach", "-pidfile", WORK / "jsvc.pid", "-cwd",
            folder, "-outfile", "&1", "-errfile", "&2", *OPTIONS]
    jsvc_shown = ("/usr/bin/jsvc -home $BUNDLE/Resources/jre -nodetach -pidfile $WORK/jsvc.pid "
                  "-cwd $BUNDLE/MacOS -outfile '&1' -errfile '&2' $OPTIONS")
    return {
        "ours": Command(["./OrvaneService", "hello"], folder, "./OrvaneService hello"),
        "floor": Command([WORK / "floor", "hello"], folder, "$WORK/floor hello"),
        "java": Command([java / "bin/java", *OPTIONS, "-cp", CLASS_PATH, SERVICE, "hello"], folder,
                        f"../Resources/jre/bin/java $OPTIONS -cp {CLASS_PATH} {SERVICE} hello"),
        "jpackage": Command([peer / "bin/peer", "hello"], folder,
                            "PATH=/nonexistent $WORK/peer/bin/peer hello",
                            env={"PATH": "/nonexistent"}),
        "jsvc": Command(
            [*jsvc, "-cp", f"{daemon}:{CLASS_PATH}:{WORK / 'jsvc'}", "JsvcService", "hello"],
            folder, f"{jsvc_shown} -cp {daemon}:{CLASS_PATH}:$WORK/jsvc JsvcService hello"),
        "jsvc-data": Command(
            [*jsvc, "-cp", f"{CLASS_PATH}:{daemon}:{WORK / 'jsvc'}", "JsvcService", "hello"],
            folder, f"{jsvc_shown} -cp {CLASS_PATH}:{daemon}:$WORK/jsvc JsvcService hello"),
    }


def heavy_hosts(heavy):
    return {
        "ours": Command(["./OrvaneService"], heavy / "MacOS", "./OrvaneService", "ready\n"),
        "stock": Command([JDK / "bin/java", *OPTIONS, "-cp", CLASS_PATH, SERVICE],
                         heavy / "MacOS", f"$JDK/bin/java $OPTIONS -cp {CLASS_PATH} {SERVICE}",
                         "ready\n"),
    }


def instructions(program, cwd):
    """Instructions of a whole run with an empty environment."""
    said = run("/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program,
               cwd=cwd, env={})
    return int(re.search(r"Collected : (\d+)", said)[1])


def per_item(runs, none, count):
    """What one of count items costs, over a run with none of them, round by round."""
    return {
        "wall": statistics.median((a["wall"] - b["wall"]) / count for a, b in zip(runs, none)),
        "cpu": statistics.median((a["cpu"] - b["cpu"]) / count for a, b in zip(runs, none)),
        "least": min((a["wall"] - b["wall"]) / count for a, b in zip(runs, none)),
        "memory": statistics.median((a["memory"] - b["memory"]) / count
                                    for a, b in zip(runs, none)),
    }


def resident(command):
    """Bytes of the executable's file that a run has in memory once main has begun."""
    with subprocess.Popen([command.words[0], "stay"], cwd=command.cwd,
                          stdout=subprocess.PIPE) as process:
        while process.stdout.readline() != b"Starting service.\n":
            pass
        process.stdout.readline()
        maps = pathlib.Path(f"/proc/{process.pid}/smaps").read_text()
        process.terminate()
    return 1024 * sum(map(int, re.findall(r"/MacOS/OrvaneService\n(?:.*\n){2,4}?Rss: +(\d+)", maps)))


def lines_file(line, count):
    path = WORK / f"lines-{len(line)}-{count}"
    path.write_text((line + "\n") * count)
    return path


def measure_lines():
    """{line length: {count: per_item}} of the launcher and of the getline loop."""
    ours, loop = {}, {}
    for length, line in LINES.items():
        commands = {}
        for count in [0, *COUNTS]:
            file = lines_file(line, count) if count else None
            commands["ours", count] = Command(["./OrvaneService"], WORK / "idle/MacOS", file=file)
            commands["loop", count] = Command([WORK / "getline", file or lines_file(line, 1)], WORK)
        few = {(who, count): 7 for who, count in commands if count <= 10_000}
        runs = interleaved(commands, LINE_ROUNDS, few)
        ours[length], loop[length] = [
            {count: per_item(runs[who, count], runs[who, 0], count) for count in COUNTS}
            for who in ("ours", "loop")]
    return ours, loop


def measure_arguments():
    commands = {count: Command(["./OrvaneService", *(f"arg{i:05}" for i in range(count))],
                               WORK / "idle/MacOS") for count in [0, *ARGUMENT_COUNTS]}
    runs = interleaved(commands, LINE_ROUNDS, {count: 7 for count in commands if count <= 10_000})
    return {count: per_item(runs[count], runs[0], count) for count in ARGUMENT_COUNTS}


def first_match(pattern, text):
    found = re.search(pattern, text, re.M)
    return found[1].strip() if found else "unknown"


def machine():
    """[(what, what it is)] of the machine and of the programs measured with."""
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2 ** 30
    packages = [f"{name} {run('dpkg-query', '-W', '-f', '${Version}', name)}"
                for name in ("jsvc", "libcommons-daemon-java", "libhsqldb-java", "valgrind",
                             "libc6", "binutils")]
    return [
        ("processor", first_match(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text())
         + f", {os.cpu_count()} cores"),
        ("memory", f"{memory:.0f} GiB"),
        ("system", first_match(r'^PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())
         + f", Linux {os.uname().release.split('-')[0]}"),
        ("compiler", run(cached("CMAKE_CXX_COMPILER"), "--version").splitlines()[0]),
        ("JDK", run(JDK / "bin/java", "-version").splitlines()[1]),
        ("others", ", ".join(packages)),
    ]


def main():
    began, load = time.monotonic(), os.getloadavg()[0]
    OVERRIDE_FILE.parent.mkdir(parents=True)
    peer, heavy = prepare()
    found = {"machine": machine(), "rounds": ROUNDS, "floor_rounds": FLOOR_ROUNDS,
             "heavy_rounds": HEAVY_ROUNDS, "line_rounds": LINE_ROUNDS, "warm_up": WARM_UP, "lines": LINES, "options": OPTIONS}

    commands, heavies = hosts(peer), heavy_hosts(heavy)
    found["commands"] = {name: command.shown for name, command in commands.items()}
    found["heavy_commands"] = {name: command.shown for name, command in heavies.items()}
    found["classes"] = {name: command.classes() for name, command in commands.items()}
    found["heavy_classes"] = {name: command.classes() for name, command in heavies.items()}

    say(f"Whole runs beside the floor, {FLOOR_ROUNDS} rounds")
    runs = interleaved({"ours": commands["ours"], "floor": commands["floor"],
                        "again": commands["floor"]}, FLOOR_ROUNDS)
    found["ratios"] = {"floor": ratios(runs["ours"], runs["floor"])}
    found["noise"] = ratios(runs["again"], runs["floor"])
    found["resident"] = resident(commands["ours"])
    say(f"Whole runs beside the peers, {ROUNDS} rounds")
    runs = interleaved({name: commands[name] for name in commands if name != "floor"}, ROUNDS)
    for name in "java", "jpackage", "jsvc", "jsvc-data":
        found["ratios"][name] = ratios(runs["ours"], runs[name])
    say(f"Start to readiness of the class-heavy service, {HEAVY_ROUNDS} rounds")
    runs = interleaved(heavies, HEAVY_ROUNDS)
    found["ratios"]["stock"] = ratios(runs["ours"], runs["stock"])

    say("Instructions")
    idle = WORK / "idle/MacOS"
    found["instructions"] = {
        "ours": instructions("./OrvaneService", idle),
        "floor": instructions(WORK / "floor", idle),
        "empty": instructions(WORK / "empty", idle),
    }
    say(f"Lines of the override file, {LINE_ROUNDS} rounds")
    found["ours_lines"], found["loop_lines"] = measure_lines()
    say(f"Arguments, {LINE_ROUNDS} rounds")
    found["arguments"] = measure_arguments()
    say("What was tried")
    found["variants"] = variants.measure(sys.modules[__name__])
    found["size"] = variants.composition(WORK / "variants/as it is")
    found["slices"] = macos_slices()
    found["load"] = load, os.getloadavg()[0]
    found["minutes"] = (time.monotonic() - began) / 60
    report.write(found, HERE)
    say(f"bench/REPORT.md is written after {found['minutes']:.0f} minutes")


def macos_slices():
    """{architecture: {part: bytes}}, or None where the macOS executable was not built."""
    file = SOURCE / "build/macos-universal/src/OrvaneService"
    if not file.exists():
        return None
    return {name: {"whole": len(data), **macho_parts(data)}
            for name, data in macho.slices(file.read_bytes()).items()}


def macho_parts(data):
    """The sections of the code segment and the sizes of the other segments in the file."""
    parts = {}
    for body in macho.Slice(data).bodies(0x19):  # LC_SEGMENT_64
        segment = body[8:24].rstrip(b"\0").decode()
        size, sections = struct.unpack_from("<Q", body, 48)[0], struct.unpack_from("<I", body, 64)[0]
        if segment != "__TEXT":
            parts[segment] = size
            continue
        for index in range(sections):
            at = 72 + 80 * index
            name = body[at:at + 16].rstrip(b"\0").decode()
            parts[f"__TEXT,{name}"] = struct.unpack_from("<Q", body, at + 40)[0]
    return {name: size for name, size in parts.items() if size}


if __name__ == "__main__":
    main()
