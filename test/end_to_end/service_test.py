"""The installed bundle runs its service on its real Java runtime. The private root of a
test, a home directory in it for a per-user run:

    /Applications/Orvane.app/.../OrvaneService.app/Contents   or below /Users/alice
        MacOS/OrvaneService        started here
        Resources/                 the sample service and its runtime
    /Library/Application Support/Quillrest/conf/jvm_args      or below /Users/alice
"""

import itertools
import re
import signal
import unittest

from support import VERSION, expected
from support.bundle import RESOURCES, Bundle, in_each_mode

PICKED_UP = b"Picked up JAVA_TOOL_OPTIONS: "


class ServiceTest(unittest.TestCase):
    maxDiff = None

    def assert_run(self, result, status, stdout, stderr=b""):
        self.assertEqual(result, (status, stdout, stderr))

    def test_the_service_gets_what_the_launcher_passes(self):
        for bundle in in_each_mode(self):
            result = bundle.run("json")
            report = bundle.report(result.stdout, b"json")
            self.assertEqual((result.status, result.stderr), (0, b""))
            for limit in "maximum", "committed":
                self.assertGreater(report["heap"].pop(limit), 0)
            self.assertEqual(report, expected_report(bundle))

    def test_arguments_arrive_byte_for_byte(self):
        arguments = ["json", "", " ", "two words", "two\nlines", "\ttab", "Grüße", "日本",
                     '"quoted"', "back\\slash", "a-b", "é" * 3000]
        encoded = [argument.encode() for argument in arguments]
        for bundle in in_each_mode(self):
            result = bundle.run(*encoded)
            self.assertEqual((result.status, result.stderr), (0, b""))
            self.assertEqual(bundle.report(result.stdout, *encoded)["arguments"], arguments)

    def test_a_maximum_heap_from_the_override_file_takes_effect(self):
        for bundle in in_each_mode(self):
            bundle.override(b"-Xmx64m", b"-Dorv.security.mode=strict")
            result = bundle.run("json", tool_options="-XX:+UseG1GC")
            lines = [b"-Xmx64m", b"-Dorv.security.mode=strict"]
            report = bundle.report(result.stdout, b"json", lines=lines)
            self.assertEqual((result.status, result.stderr),
                             (0, PICKED_UP + b"-XX:+UseG1GC\n"))
            self.assertEqual(report["heap"]["maximum"], 64 << 20)
            self.assertEqual(report["properties"]["orv.security.mode"], "strict")

    def test_an_unknown_word_is_an_argument_of_the_readable_report(self):
        for bundle in in_each_mode(self):
            result = bundle.run("hello")
            report = bundle.report(bundle.run("json").stdout, b"json")
            text = re.sub(rb"(maximum|committed) = \d+\n", rb"\1 = N\n", result.stdout)
            self.assert_run(result._replace(stdout=text), 0,
                            bundle.stdout(b"hello", service=readable(report, "hello")))

    def test_an_exception_that_leaves_main_gives_status_0(self):
        for bundle in in_each_mode(self):
            result = bundle.run("throw", "No disk.")
            trace = re.sub(rb":\d+\)", b":N)", result.stderr)
            self.assert_run(
                result._replace(stderr=trace), 0, bundle.stdout(b"throw", b"No disk."),
                b'Exception in thread "main" java.lang.IllegalStateException: No disk.\n'
                b"\tat com.vaultory.service.QRService.main(QRService.java:N)\n")

    def test_the_status_of_System_exit_is_the_exit_status(self):
        for bundle in in_each_mode(self):
            self.assert_run(bundle.run("exit", "3"), 3, bundle.until_main(b"exit", b"3"))

    def test_a_signal_runs_the_shutdown_hooks(self):
        for number in signal.SIGTERM, signal.SIGINT, signal.SIGHUP:
            for bundle in in_each_mode(self):
                up = bundle.until_main(b"stay", b"1000") + b"Running until a signal ends it.\n"
                with bundle.start("stay", "1000") as process:
                    self.assertEqual(process.stdout.read(len(up)), up)
                    process.signal_command(number)
                    self.assert_run(process.finish(), 128 + number, b"Stopped cleanly.\n")

    def test_SIGQUIT_writes_a_thread_dump_and_the_service_continues(self):
        for bundle in in_each_mode(self):
            up = bundle.until_main(b"stay", b"1000") + b"Running until a signal ends it.\n"
            with bundle.start("stay", "1000") as process:
                self.assertEqual(process.stdout.read(len(up)), up)
                process.signal_command(signal.SIGQUIT)
                dump = b"".join(itertools.takewhile(
                    lambda line: not line.startswith(b"JNI global refs"), process.stdout))
                self.assertRegex(dump, rb"\A\d+-\d+-\d+ \d+:\d+:\d+\nFull thread dump ")
                self.assertIn(b"at com.vaultory.service.QRService.main(", dump)
                process.signal_command(signal.SIGTERM)
                self.assertEqual(process.finish().status, 143)

    def test_the_heartbeat_continues_until_a_signal(self):
        bundle = Bundle(self)
        beats = (bundle.until_main(b"stay", b"1") + b"Running until a signal ends it.\n"
                 b"Heartbeat 1\nHeartbeat 2\n")
        with bundle.start("stay", "1") as process:
            self.assertEqual(process.stdout.read(len(beats)), beats)
            process.signal_command(signal.SIGTERM)
            result = process.finish()
        more = re.sub(rb"Heartbeat \d+\n", b"", result.stdout)
        self.assert_run(result._replace(stdout=more), 143, b"Stopped cleanly.\n")

    def test_a_remaining_thread_keeps_the_process_running_after_completion(self):
        for bundle in in_each_mode(self):
            self.assert_run(
                bundle.run("linger", "1"), 0,
                bundle.until_main(b"linger", b"1") + b"Returning with a thread still running.\n" +
                expected.COMPLETE + b"The remaining thread has ended.\n")

    def test_the_VMs_own_check_of_JNI_calls_finds_nothing(self):
        arguments = [b"version", b"", "Grüße".encode()]
        for bundle in in_each_mode(self):
            self.assert_run(bundle.run(*arguments, tool_options="-Xcheck:jni"), 0,
                            bundle.stdout(*arguments, service=f"{VERSION}\n".encode()),
                            PICKED_UP + b"-Xcheck:jni\n")

    def test_the_program_in_the_bin_directory_prints_the_version(self):
        bundle = Bundle(self)
        result = bundle.root.run([bundle.contents + "/Resources/bin/service-version"])
        self.assert_run(result, 0, f"{VERSION}\n".encode())


def expected_report(bundle):
    """The report of a complete installation that has not upgraded yet, without the heap."""
    home, contents = bundle.home, bundle.contents
    options = [option.decode() for option in expected.options(home.encode())]
    values = dict(option[2:].split("=", 1) for option in options if option.startswith("-D"))
    states = {
        "orv.log.config": "file", "orv.service.bin.path": "directory",
        "java.library.path": "directory", "jna.library.path": "directory",
        "orv.config.defaultPath": "directory", "orv.service.upgrade.path": "missing",
    }
    return {
        "version": VERSION,
        "arguments": ["json"],
        "options": options,
        "properties": {name: value for name, value in values.items() if name not in states},
        "heap": {},
        "java": {
            "java.version": java_version(),
            "java.home": contents + "/Resources/jre",
            "user.dir": contents + "/MacOS",
        },
        "paths": [
            {"state": "file", "name": "java.class.path",
             "path": "../Resources/lib/com.vaultory.desktop.jar"},
            {"state": "directory", "name": "java.class.path", "path": "../Resources/lang"},
            *({"state": state, "name": name, "path": values[name]}
              for name, state in states.items()),
        ],
        "messages": "found",
        "logging": {"(root)": "INFO", "com.vaultory.service": "FINE",
                    "com.vaultory.service.upgrade": "CONFIG"},
        "missing": ["orv.service.upgrade.path"],
    }


def java_version():
    release = (RESOURCES / "jre/release").read_text()
    return re.search('^JAVA_VERSION="(.*)"$', release, re.M).group(1)


def readable(report, *arguments):
    """The report of such arguments as the sample prints it, without the numbers of the heap."""
    def quoted(section):
        return [f'  "{line}"' for line in section]

    def named(section):
        return [f"  {name} = {value}" for name, value in section.items()]

    lines = [
        "What the launcher passed to the sample service",
        f"Version: {report['version']}",
        "Arguments:", *quoted(arguments),
        "Options of the VM:", *quoted(report["options"]),
        "Properties:", *named(report["properties"]),
        "Heap in bytes:", "  maximum = N", "  committed = N",
        "Java:", *named(report["java"]),
        "Paths:", *(f"  {path['state']:10}{path['name']} = {path['path']}"
                    for path in report["paths"]),
        f"Texts of the lang directory: {report['messages']}",
        "Logging levels:", *named(report["logging"]),
        "Missing on this disk:", *quoted(report["missing"]),
    ]
    return "\n".join([*lines, ""]).encode()
