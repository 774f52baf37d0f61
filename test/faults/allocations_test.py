import unittest

from support import expected, platform
from support.launcher import ABORTED, Launcher, finished
from support.private_root import BUILD_DIR

USER = b"-Duser.install=1"
HOME = "/Users/alice"
LINES = [b"-Xmx1g", b"-Dorv.security.mode=" + b"m" * 3000, b"-Djava.net.preferIPv4Stack=true"]
ARGUMENTS = [b"first", b"a second one, longer than any string keeps within itself"]
OUT_OF_MEMORY = platform.terminated(b"std::bad_alloc", b"std::bad_alloc")
INJECTOR = "/tmp/allocation_fault.so"


class AllocationsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.launcher = Launcher(self, HOME + "/Applications")
        self.launcher.put_override_file(b"\n".join(LINES), HOME)
        self.launcher.root.put(INJECTOR, BUILD_DIR / "test/faults/liballocation_fault.so")
        self.finished = finished(HOME.encode(), LINES, ARGUMENTS)

    def run_failing(self, allocation):
        return self.launcher.run(USER, *ARGUMENTS, env={
            "LD_PRELOAD": INJECTOR, "ALLOCATION_FAULT": str(allocation)})

    def test_whichever_allocation_fails_the_run_aborts_there(self):
        self.assertEqual(self.run_failing(0), self.finished)
        allocations = int(self.launcher.root.path("/tmp/allocations").read_text())
        self.assertGreater(allocations, 50)
        went_on = []
        for allocation in range(1, allocations + 1):
            run = self.run_failing(allocation)
            if run == self.finished or platform.LIBCXX and run.stdout == self.finished.stdout:
                went_on.append(allocation)
                continue
            with self.subTest(allocation=allocation):
                self.assertEqual((run.status, run.stderr), (ABORTED, OUT_OF_MEMORY))
                self.assertEqual(run.stdout, self.finished.stdout[:len(run.stdout)])
                self.assertEqual(run.calls, self.finished.calls[:len(run.calls)])
                self.assertNotIn(expected.COMPLETE, run.stdout)
        self.assertLessEqual(len(went_on), platform.SPARE_ALLOCATIONS)
