"""Many starts on the real Java runtime, and kills. How many, the environment's FAULTS says:
"full" for the numbers of script/faults."""

import os
import random
import signal
import time
import unittest

from support.bundle import Bundle

FULL = os.environ.get("FAULTS") == "full"
KILLS = 200 if FULL else 20
STARTS = 1000 if FULL else 20
AT_ONCE = 32 if FULL else 8
KILLED = 128 + signal.SIGKILL

# Starts the command after it as many times at once as its first argument says.
SIDE_BY_SIDE = """
count=$1; shift
for i in $(seq "$count"); do
    { "$@" >/tmp/out.$i 2>/tmp/err.$i; echo $? >/tmp/status.$i; } &
done
wait
"""


class StartsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.bundle = Bundle(self)
        self.whole = self.bundle.run("help")
        self.assertEqual((self.whole.status, self.whole.stderr), (0, b""))
        self.assertGreater(len(self.whole.stdout), len(self.bundle.stdout(b"help")))

    def files(self):
        root = self.bundle.root.path("/")
        return {str(path.relative_to(root)) for path in root.rglob("*")}

    def test_killed_at_any_moment_it_has_written_a_part_of_its_output_and_leaves_no_files(self):
        random.seed(4)
        begun = time.monotonic()
        self.bundle.run("help")
        longest = 1.2 * (time.monotonic() - begun)
        before = self.files()
        killed = 0
        for number in range(KILLS):
            with self.subTest(number), self.bundle.start("help") as process:
                pid = process.command_pid
                time.sleep(random.uniform(0, longest))
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass  # It was done.
                result = process.finish()
                if result != self.whole:
                    killed += 1
                    self.assertEqual(
                        result,
                        (KILLED, self.whole.stdout[:len(result.stdout)], b""))
        left = {file for file in self.files() - before if "/hsperfdata_" not in file}
        self.assertEqual(left, set())
        self.assertGreater(killed, KILLS // 4)
        print(f"{killed} of {KILLS} killed before their end")

    def test_after_a_kill_the_next_start_is_like_any_other(self):
        with self.bundle.start("stay", "1000") as process:
            process.stdout.read(1)
            process.signal_command(signal.SIGKILL)
            self.assertEqual(process.finish().status, KILLED)
        self.assertEqual(self.bundle.run("help"), self.whole)

    def test_one_start_after_another_each_is_like_the_first(self):
        for number in range(STARTS):
            with self.subTest(number):
                self.assertEqual(self.bundle.run("help"), self.whole)

    def test_many_starts_at_once_are_each_like_one_alone(self):
        result = self.bundle.root.run(
            ["sh", "-c", SIDE_BY_SIDE, "sh", str(AT_ONCE), *self.bundle.command("help")],
            timeout=600, **self.bundle.how())
        self.assertEqual(result, (0, b"", b""))
        for number in range(1, AT_ONCE + 1):
            with self.subTest(number):
                status, stdout, stderr = (
                    self.bundle.root.path(f"/tmp/{name}.{number}").read_bytes()
                    for name in ("status", "out", "err"))
                self.assertEqual((int(status), stdout, stderr), self.whole)
