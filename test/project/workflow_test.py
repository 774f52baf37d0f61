"""The hosted build calls the project's own commands and nothing else."""

import os
import unittest

from support import ROOT

try:
    import yaml
except ImportError:
    yaml = None


class Workflow(unittest.TestCase):
    def setUp(self):
        if yaml is None:
            if os.environ.get("CI") and os.uname().sysname == "Linux":
                self.fail("no Python module yaml: install python3-yaml")
            self.skipTest("no Python module yaml: install python3-yaml")
        self.workflow = yaml.safe_load((ROOT / ".github/workflows/ci.yml").read_text())

    def test_each_system_runs_these_commands(self):
        self.assertEqual({
            "linux": ("ubuntu-24.04", [".ci/run"]),
            "macos": ("macos-14", ["script/pack", "script/sign-macos -", "script/test"]),
        }, {name: (job["runs-on"], [step["run"] for step in job["steps"] if "run" in step])
            for name, job in self.workflow["jobs"].items()})

    def test_linux_is_the_Debian_the_scripts_install_on(self):
        self.assertEqual({"image": "debian:12", "options": "--privileged"},
                         self.workflow["jobs"]["linux"]["container"])

    def test_no_other_action_than_the_checkout_is_used(self):
        self.assertEqual(["actions/checkout@v4"] * 2, [
            step["uses"] for job in self.workflow["jobs"].values() for step in job["steps"]
            if "uses" in step])

    def test_the_commands_are_there_and_can_be_run(self):
        commands = {step["run"].split()[0] for job in self.workflow["jobs"].values()
                    for step in job["steps"] if "run" in step}
        self.assertEqual([], [command for command in sorted(commands)
                              if not os.access(ROOT / command, os.X_OK)])
