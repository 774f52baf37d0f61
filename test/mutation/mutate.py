"""Tests the tests: builds small wrong versions of the sources that product.py names, one at a
time, and runs the tests it names over each until one fails; a run that does not end counts as
failed. A mutant that no test notices has to be listed in survivors.txt with the reason. Writes the
head of that file; with an argument, makes only the mutants whose name contains it, and writes
nothing.

Status 0 if at least 95 % were caught and survivors.txt lists exactly those that were not; with an
argument, if it lists those that were not.
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
import time
import typing

import product
from mutants import mutants

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SURVIVORS = HERE / "survivors.txt"
GOAL = 0.95
WORKERS = 2
# Far above what the tests need on a busy machine: only a run that would not end gets there.
UNIT_SECONDS = 60
PROCESS_SECONDS = 900
MEMORY = 4 << 30


def one_line(text):
    return " ".join(text.split())


class Wrong(typing.NamedTuple):
    """A mutant. Its key outlasts changes elsewhere in the file."""
    file: str
    before: str
    after: str
    kind: str
    line: int
    content: str

    @classmethod
    def of(cls, file, text, mutant):
        first, last = text.rfind("\n", 0, mutant.start) + 1, text.find("\n", mutant.end)
        return cls(file, one_line(text[first:last]),
                   one_line(text[first:mutant.start] + mutant.text + text[mutant.end:last]),
                   mutant.kind, text.count("\n", 0, mutant.start) + 1,
                   text[:mutant.start] + mutant.text + text[mutant.end:])

    @property
    def key(self):
        return self[:3]

    def __str__(self):
        return f"{self.file}:{self.line}: {self.kind}\n  - {self.before}\n  + {self.after}"


class Tests:
    """A copy of the tree, built, in which to run tests over wrong versions of its sources."""

    def __init__(self, directory):
        self.tree, self.build = directory / "tree", directory / "build"
        shutil.rmtree(directory, ignore_errors=True)
        shutil.copytree(ROOT, self.tree, symlinks=True, ignore=lambda path, names: (
            {"build", ".git"} & set(names) if pathlib.Path(path) == ROOT else ()))
        self.original = {file: (self.tree / file).read_text() for file in product.SOURCES}
        self.changed = None
        subprocess.run(
            ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DBUNDLE_RUNTIME=OFF",
             "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -w",
             "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
            check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        assert self.make(*product.UNIT_TESTS, product.PROGRAM, *product.HELPERS)
        self.process_tests = process_tests()
        for said in *map(self.unit, product.UNIT_TESTS), self.process():
            if said is not None:
                sys.exit(f"{said}\nmutate: a test fails over the unchanged sources")

    def make(self, *targets):
        return subprocess.run(["ninja", "-j", "1", "-C", self.build, *targets],
                              stdin=subprocess.DEVNULL, capture_output=True).returncode == 0

    def failure(self, command, seconds):
        """What the command wrote to standard error if it did not end well within these
        seconds, None if it did."""
        paths = [str(self.tree / path) for path in ("test", *dict(product.PROCESS_TESTS))]
        limits = ((resource.RLIMIT_AS, MEMORY), (resource.RLIMIT_CORE, 0))
        process = subprocess.Popen(
            command, cwd=self.build, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE, start_new_session=True,
            env={**os.environ, "CI": "1", "BUILD_DIR": str(self.build),
                 "PYTHONPATH": ":".join(paths)},
            preexec_fn=lambda: [resource.setrlimit(what, (n, n)) for what, n in limits])
        try:
            said = process.communicate(timeout=seconds)[1].decode(errors="replace")
            return said if process.returncode else None
        except subprocess.TimeoutExpired:
            return "does not end"
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
        return self.failure([self.build / "test/unit" / program, "--gtest_fail_fast"], UNIT_SECONDS)

    def process(self):
        """Runs the process tests. The one that fails goes first the next time: it is likely to
        notice the next mutant too, which is near this one."""
        applications = self.build / "Applications"
        # CMake does not replace an installed file whose time agrees to the second.
        shutil.rmtree(applications, ignore_errors=True)
        subprocess.run(["cmake", "--install", self.build, "--component", "launcher", "--prefix",
                        applications], check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL)
        (installed,) = applications.rglob(product.PROGRAM)
        assert installed.read_bytes() == (self.build / "src" / product.PROGRAM).read_bytes()
        said = self.failure([sys.executable, "-B", "-m", "unittest", "--failfast",
                             *self.process_tests], PROCESS_SECONDS)
        failed = re.search(r"^(?:FAIL|ERROR): (\w+)", said or "", re.MULTILINE)
        if failed:
            self.process_tests.sort(key=lambda name: not name.endswith("." + failed[1]))
        return said

    def verdict(self, wrong):
        """Whether a test noticed: True or False, or None for a mutant that does not compile."""
        if self.changed not in (None, wrong.file):
            (self.tree / self.changed).write_text(self.original[self.changed])
        self.changed = wrong.file
        (self.tree / wrong.file).write_text(wrong.content)
        first = product.SOURCES[wrong.file]
        rest = [program for program in product.UNIT_TESTS if program not in first]
        if not self.make(*(first or [product.PROGRAM])):
            return None
        if any(self.unit(program) is not None for program in first):
            return True
        assert self.make(product.PROGRAM)
        if self.process() is not None:
            return True
        assert self.make(*rest)
        return any(self.unit(program) is not None for program in rest)


def process_tests():
    """The names of the process tests."""
    return [f"{file.stem}.{kind}.{name}" for path, pattern in product.PROCESS_TESTS
            for file in sorted((ROOT / path).glob(pattern))
            for kind, body in re.findall(r"^class (\w+)(.*?)(?=^class|\Z)", file.read_text(),
                                         re.MULTILINE | re.DOTALL)
            for name in re.findall(r"^    def (test_\w+)", body, re.MULTILINE)]


def listed():
    """The keys in survivors.txt. Below its head, a block is a reason, a file, and lines before (-)
    and after (+), each after belonging to the last before."""
    keys, file, before = set(), None, None
    for line in SURVIVORS.read_text().splitlines():
        if line.startswith("- "):
            before = line[2:]
        elif line.startswith("+ "):
            keys.add((file, before, line[2:]))
        elif line in product.SOURCES:
            file = line
    return keys


def run(wanted):
    """{mutant: verdict}, with the progress said."""
    verdicts, todo = {}, queue.SimpleQueue()
    for wrong in wanted:
        todo.put(wrong)

    def work(number):
        tests = Tests(ROOT / f"build/mutate/{number}")
        while True:
            try:
                wrong = todo.get_nowait()
            except queue.Empty:
                return
            verdicts[wrong] = tests.verdict(wrong)
            if verdicts[wrong] is False:
                print(f"not noticed: {wrong}", flush=True)
            if len(verdicts) % 50 == 0:
                print(f"{len(verdicts)} of {len(wanted)}", flush=True)

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(work, range(1, WORKERS + 1)))
    return {wrong: verdicts[wrong] for wrong in wanted}


def summary(verdicts):
    of = collections.Counter(verdicts)
    built = of[True] + of[False]
    return (f"{built} mutants, {of[True]} caught ({100 * of[True] / max(built, 1):.1f} %), "
            f"{of[False]} survived; {of[None]} did not compile")


def head(verdicts):
    """The first lines of survivors.txt."""
    lines = ["# The mutants that no test notices, and why. script/mutate writes the lines with #.",
             *(f"# {file}: " + summary(verdict for wrong, verdict in verdicts.items()
                                       if wrong.file == file) for file in product.SOURCES),
             "# all: " + summary(verdicts.values())]
    return "\n".join(lines) + "\n"


def main():
    text = sys.argv[1] if len(sys.argv) > 1 else ""
    sources = {file: (ROOT / file).read_text() for file in product.SOURCES}
    wanted = [wrong for file, content in sources.items() for mutant in mutants(content)
              if text in str(wrong := Wrong.of(file, content, mutant))]
    if not wanted:
        sys.exit(f"mutate: no mutant's name contains '{text}'")
    begun = time.monotonic()
    verdicts = run(wanted)
    survived = {wrong.key: wrong for wrong, verdict in verdicts.items() if verdict is False}
    problems = [f"not noticed and not listed: {survived[key]}"
                for key in survived.keys() - listed()]
    if not text:
        rest = re.sub(r"^#.*\n", "", SURVIVORS.read_text(), flags=re.MULTILINE)
        SURVIVORS.write_text(head(verdicts) + rest)
        problems += [f"listed, but not made or noticed by now: {file}\n  - {before}\n  + {after}"
                     for file, before, after in listed() - survived.keys()]
    print(*sorted(problems),
          f"{summary(verdicts.values())}; {time.monotonic() - begun:.0f} s", sep="\n")
    caught = list(verdicts.values()).count(True)
    return 1 if problems or not text and caught < GOAL * (caught + len(survived)) else 0


if __name__ == "__main__":
    sys.exit(main())
