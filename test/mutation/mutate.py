"""Tests the tests: builds small wrong versions of the product's sources, one at a time, and
runs the unit and console tests over each until one fails, those of failing allocations among
them. A mutant that no test notices has to be listed in survivors.txt with the reason. Writes
docs/mutation.md; with an argument, makes only the mutants whose name holds it, and writes
nothing.

Status 0 if at least 95 % were caught and survivors.txt lists those that were not and no other;
with an argument, if it lists those that were not.
"""

import collections
import concurrent.futures
import os
import pathlib
import queue
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time
import unittest

from mutants import mutants

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SURVIVORS = HERE / "survivors.txt"
REPORT = ROOT / "docs/mutation.md"
GOAL = 0.95
WORKERS = 2
UNIT_SECONDS = 20
MEMORY = 4 << 30

# Each source, and the unit tests that know it best.
UNIT_TESTS = {
    "src/launcher/main.cpp": [],
    "src/jvmargs/jvmargs.cpp": ["jvmargs_test"],
    "src/jvmargs/executable_path_linux.cpp": ["executable_path_test"],
    "src/jvm/jvm.cpp": ["jvm_test"],
    "src/jvm/jmethod.cpp": ["jvm_test"],
}
CONSOLE_TESTS = {"test/console": "*_test.py", "test/faults": "allocations_test.py"}
ALL_UNIT_TESTS = ["main_test", *sorted(set(sum(UNIT_TESTS.values(), [])))]


def one_line(text):
    return " ".join(text.split())


class Wrong:
    """One mutant: its file's content, and its key, which outlasts changes elsewhere."""

    def __init__(self, file, text, mutant):
        self.file, self.kind = file, mutant.kind
        self.content = text[:mutant.start] + mutant.text + text[mutant.end:]
        first = text.rfind("\n", 0, mutant.start) + 1
        last = text.find("\n", mutant.end)
        self.line = text.count("\n", 0, mutant.start) + 1
        self.before = one_line(text[first:last])
        self.after = one_line(text[first:mutant.start] + mutant.text + text[mutant.end:last])

    @property
    def key(self):
        return self.file, self.before, self.after

    def __str__(self):
        return f"{self.file}:{self.line}: {self.kind}\n  - {self.before}\n  + {self.after}"


class Tests:
    """A copy of the tree, built, in which to run tests over wrong versions of its sources."""

    def __init__(self, folder):
        self.tree, self.build = folder / "tree", folder / "build"
        self.original = {}
        self.changed = None
        self.console_tests = []
        self.console_seconds = 0

    def prepare(self):
        shutil.rmtree(self.tree, ignore_errors=True)
        shutil.copytree(ROOT, self.tree, symlinks=True, ignore=lambda path, names: (
            {"build", ".git"} & set(names) if pathlib.Path(path) == ROOT else ()))
        for file in UNIT_TESTS:
            self.original[file] = (self.tree / file).read_text()
            (self.tree / file).touch()  # Newer than what a former call built of a mutant.
        subprocess.run(
            ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DBUNDLE_RUNTIME=OFF",
             "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -w",
             "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
            check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        assert self.make(*ALL_UNIT_TESTS, "OrvaneService", "recording_libjvm", "allocation_fault")

    def make(self, *targets):
        return subprocess.run(["ninja", "-j", "1", "-C", self.build, *targets],
                              stdin=subprocess.DEVNULL, capture_output=True).returncode == 0

    def failure(self, command, seconds):
        """What the command wrote to standard error if it did not end well within these
        seconds, None if it did."""
        folders = [str(self.tree / folder) for folder in ("test", *CONSOLE_TESTS)]
        environment = {**os.environ, "CI": "1", "BUILD_DIR": str(self.build),
                       "PYTHONPATH": ":".join(folders)}
        limits = ((resource.RLIMIT_AS, MEMORY), (resource.RLIMIT_CORE, 0))
        process = subprocess.Popen(
            command, cwd=self.build, env=environment, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True,
            preexec_fn=lambda: [resource.setrlimit(what, (n, n)) for what, n in limits])
        try:
            said = process.communicate(timeout=seconds)[1].decode(errors="replace")
            return said if process.returncode else None
        except subprocess.TimeoutExpired:
            return ""
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
            process.stderr.close()
            for left in self.build.glob("root-*"):
                shutil.rmtree(left, ignore_errors=True)

    def unit(self, program):
        return self.failure([self.build / "test/unit" / program, "--gtest_fail_fast"],
                            UNIT_SECONDS) is None

    def console(self, tests, seconds):
        subprocess.run(["cmake", "--install", self.build, "--component", "launcher", "--prefix",
                        self.build / "Applications"], check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL)
        return self.failure([sys.executable, "-B", "-m", "unittest", "--failfast", *tests], seconds)

    def all_console(self):
        """Whether all console tests pass. The one that fails goes first the next time: it is
        likely to notice the next mutant too, which is near this one."""
        said = self.console(self.console_tests, 20 + 3 * self.console_seconds)
        failed = re.search(r"^(?:FAIL|ERROR): (\w+)", said or "", re.MULTILINE)
        if failed:
            self.console_tests.sort(key=lambda name: not name.endswith("." + failed[1]))
        return said is None

    def verdict(self, wrong):
        """Whether a test noticed: True or False, or None for a mutant that does not compile."""
        if self.changed not in (None, wrong.file):
            (self.tree / self.changed).write_text(self.original[self.changed])
        self.changed = wrong.file
        (self.tree / wrong.file).write_text(wrong.content)
        first = UNIT_TESTS[wrong.file] or ["OrvaneService"]
        if not self.make(*first):
            return None
        if not all(self.unit(program) for program in UNIT_TESTS[wrong.file]):
            return True
        assert self.make("OrvaneService")
        if not self.all_console():
            return True
        rest = [program for program in ALL_UNIT_TESTS if program not in first]
        assert self.make(*rest)
        return not all(self.unit(program) for program in rest)


def find_console_tests(tests):
    """The console tests' names, the quickest first, and the seconds that all take."""
    os.environ["BUILD_DIR"] = str(tests.build)
    sys.path.insert(0, str(tests.tree / "test"))

    def flat(suite):
        for test in suite:
            if isinstance(test, unittest.TestSuite):
                yield from flat(test)
            else:
                yield test.id()

    seconds = {}
    for folder, pattern in CONSOLE_TESTS.items():
        folder = str(tests.tree / folder)
        for name in flat(unittest.TestLoader().discover(folder, pattern, folder)):
            begun = time.monotonic()
            said = tests.console([name], 120)
            if said is not None:
                sys.exit(f"{said}\nmutate: {name} fails over the unchanged sources")
            seconds[name] = time.monotonic() - begun
    return sorted(seconds, key=seconds.get), sum(seconds.values())


def reasons():
    """{key: reason} of survivors.txt. A block of it is a reason, a file, lines before (-) and
    after (+), each after belonging to the last before."""
    listed = {}
    for block in SURVIVORS.read_text().split("\n\n") if SURVIVORS.exists() else []:
        reason, file, before = [], None, None
        for line in block.splitlines():
            if line.startswith("- "):
                before = line[2:]
            elif line.startswith("+ "):
                listed[file, before, line[2:]] = one_line(" ".join(reason))
            elif line.startswith("src/"):
                file = line
            else:
                reason.append(line)
    return listed


def run(wanted, workers):
    """{mutant: verdict}, with the progress said."""
    verdicts = {}
    todo = queue.SimpleQueue()
    for wrong in wanted:
        todo.put(wrong)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(Tests.prepare, workers))
    for program in ALL_UNIT_TESTS:
        if not workers[0].unit(program):
            sys.exit(f"mutate: {program} fails over the unchanged sources")
    names, seconds = find_console_tests(workers[0])
    for tests in workers:
        tests.console_tests, tests.console_seconds = names[:], seconds
    begun = time.monotonic()
    print(f"{len(wanted)} mutants, {len(names)} console tests in {seconds:.0f} s", flush=True)

    def work(tests):
        while True:
            try:
                wrong = todo.get_nowait()
            except queue.Empty:
                return
            verdicts[wrong] = tests.verdict(wrong)
            if verdicts[wrong] is False:
                print(f"not noticed: {wrong}", flush=True)
            if len(verdicts) % 20 == 0:
                of = collections.Counter(verdicts.values())
                print(f"{len(verdicts)} of {len(wanted)}: {of[True]} caught, {of[False]} not "
                      f"noticed, {of[None]} do not compile, "
                      f"{time.monotonic() - begun:.0f} s", flush=True)

    threads = [threading.Thread(target=work, args=[tests]) for tests in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if len(verdicts) != len(wanted):
        sys.exit("mutate: a worker ended early")
    return verdicts


def share(caught, built):
    return f"{100 * caught / built:.1f} %" if built else "-"


def table(title, verdicts, of):
    lines = [f"| {title} | built | caught | not noticed | share |", "|---|---|---|---|---|"]
    groups = collections.defaultdict(list)
    for wrong, verdict in verdicts.items():
        if verdict is not None:
            groups[of(wrong)].append(verdict)
    for name, group in [*sorted(groups.items()), ("all", sum(groups.values(), []))]:
        lines.append(f"| {name} | {len(group)} | {sum(group)} | {len(group) - sum(group)} | "
                     f"{share(sum(group), len(group))} |")
    return "\n".join(lines)


def report(verdicts, listed, seconds):
    built = [verdict for verdict in verdicts.values() if verdict is not None]
    blocks = collections.defaultdict(list)
    for wrong, verdict in verdicts.items():
        if verdict is False:
            blocks[listed.get(wrong.key, "No reason is known."), wrong.file].append(wrong)
    survivors = "\n".join(
        f"- {reason} (`{file}`)\n\n  ```diff\n" + "".join(
            f"  - {wrong.before}\n  + {wrong.after}\n" for wrong in group) + "  ```\n"
        for (reason, file), group in blocks.items())
    return f"""# Mutation: what the tests notice

Written by `script/mutate`, which breaks the product's sources in small ways, one at a time,
builds each wrong version and runs the unit and console tests over it until one fails, and that
of failing allocations. A run that does not end in time counts as caught; a version that does
not compile counts for nothing
({len(verdicts) - len(built)} of {len(verdicts)} here). Of {len(built)} that were built,
{sum(built)} were caught, **{share(sum(built), len(built))}**; it took {seconds / 60:.0f} minutes.

{table("file", verdicts, lambda wrong: f"`{wrong.file}`")}

{table("what is wrong", verdicts, lambda wrong: wrong.kind)}

- literals: a text emptied, its first byte changed, its last one dropped
- constants: a number one more, one less, zero; a named one in another's place
- conditions: always true, always false, negated; the branches of `?:` in each other's place
- operators: another in its place, or left out with an operand
- names: `begin` for `end`, `rfind` for `find`, one variable or type for another
- statements: one left out, a flush left out or added, an element of a list left out
- swaps: arguments, elements of lists, operands of `+` in each other's place

`script/mutate TEXT` makes only those whose file, kind or line holds the text. What is not
noticed has to be listed with its reason in [survivors.txt](../test/mutation/survivors.txt), or
the command fails; as it does if less than {GOAL:.0%} are caught, or what is listed is noticed
by now.

## What is not noticed, and why

{survivors}"""


def main():
    text = sys.argv[1] if len(sys.argv) > 1 else ""
    sources = {file: (ROOT / file).read_text() for file in UNIT_TESTS}
    wanted = [wrong for file, content in sources.items()
              for wrong in (Wrong(file, content, mutant) for mutant in mutants(content))
              if text in str(wrong)]
    if not wanted:
        sys.exit(f"mutate: no mutant's name holds '{text}'")
    begun = time.monotonic()
    found = run(wanted, [Tests(ROOT / f"build/mutate/{number}")
                         for number in range(1, WORKERS + 1)])
    seconds = time.monotonic() - begun
    verdicts = {wrong: found[wrong] for wrong in wanted}
    listed = reasons()
    survived = {wrong.key for wrong, verdict in verdicts.items() if verdict is False}
    problems = [f"not noticed and not listed: {wrong}" for wrong, verdict in verdicts.items()
                if verdict is False and wrong.key not in listed]
    if not text:
        REPORT.write_text(report(verdicts, listed, seconds))
        problems += [f"listed, but not made or noticed by now: {file}\n  - {before}\n  + {after}"
                     for file, before, after in listed if (file, before, after) not in survived]
    for problem in problems:
        print(problem)
    of = collections.Counter(verdicts.values())
    built = of[True] + of[False]
    print(f"{built} mutants, {of[True]} caught ({share(of[True], built)}), {of[False]} survived, "
          f"{len(problems)} to be seen to; {of[None]} did not compile; {seconds:.0f} s")
    return 1 if problems or not text and of[True] < GOAL * built else 0


if __name__ == "__main__":
    sys.exit(main())
