"""Classes come from the CDS archive in the runtime, with no option given."""

import os
import pathlib
import re
import signal
import subprocess
import time
import unittest
import zipfile

from support import ROOT, VERSION
from support.bundle import CDS_ARCHIVE, JAR, RESOURCES, Bundle, in_each_mode
from support.private_root import BUILD_DIR

SCRIPT = ROOT / "operator/update-cds-archive"
AGENT = BUILD_DIR / "test/packaging/libagent.so"
JAVA = int(re.search(r'^JAVA_VERSION="(\d+)', (RESOURCES / "jre/release").read_text(), re.M)[1])
KIND = "linked" if JAVA in (24, 25) else "plain"
LOG = "cds,aot" if JAVA >= 24 else "cds"
JVMTI = rb"\[.*\]\[error\]\[cds\] shared archive file has aot-linked classes. .*\n"
LAUNCHER = "../MacOS/OrvaneService"
REPORTING = {"LogConfig", "Messages", "QRService", "Report", "Text"}
ARCHIVED = "shared objects file"
TRAINED = "Running the service once: N s\n"
GIVE = "after N s, see above; give ARGUMENTs with which the service ends well\n"


class CdsArchiveTest(unittest.TestCase):
    maxDiff = None

    def loaded(self, bundle, *options):
        """Where each class of a run that ended well came from; less what the VM generated."""
        options = " ".join(["-Xlog:disable -Xlog:class+load:file=/tmp/loaded:none",
                            f"-Xlog:{LOG}:file=/tmp/log", *options])
        run = bundle.run("hello", tool_options=options)
        self.assertEqual((run.status, run.stderr),
                         (0, f"Picked up JAVA_TOOL_OPTIONS: {options}\n".encode()))
        loaded = bundle.root.path("/tmp/loaded").read_text()
        return dict(re.findall(r"^(\S+) source: (.*)$", loaded, re.M))

    def share(self, bundle, *options):
        """The share of all loaded classes that came from the archive."""
        sources = list(self.loaded(bundle, *options).values())
        return sources.count(ARCHIVED) / len(sources)

    def linked(self, bundle):
        return "AOT-linked classes: true" in bundle.root.path("/tmp/log").read_text()

    def update(self, bundle, *options, arguments=(), **env):
        """Calls the script for a copied bundle: its status and what it said, less the times."""
        app = bundle.root.path(bundle.home + "/Applications/Orvane.app")
        result = subprocess.run([SCRIPT, *options, app, *arguments], capture_output=True, text=True,
                                env={**os.environ, **env})
        self.assertEqual(result.stdout, "")
        return result.returncode, re.sub(r"\d+ s\b", "N s", result.stderr)

    def assert_updated(self, said, kind=KIND, classes=r"(\d+)"):
        self.assertRegex(str(said), re.escape(str(
            (0, f"{TRAINED}Archiving the classes it loaded ({kind}): N s\n"
                "Classes of the service that come from the archive: COUNT of COUNT\n")))
            .replace("COUNT", classes, 1).replace("COUNT", r"\1"))

    def test_nearly_every_class_of_a_run_comes_from_the_archive_linked_where_the_vm_can(self):
        for bundle in in_each_mode(self):
            self.assertGreater(self.share(bundle), 0.95)
            self.assertEqual(self.linked(bundle), KIND == "linked")
            sources = {name.rpartition(".")[2]: source for name, source in self.loaded(bundle).items()
                       if name.startswith("com.vaultory.")}
            self.assertEqual(sources, dict.fromkeys(sources, ARCHIVED))
            self.assertLessEqual(REPORTING, set(sources))

    def test_classes_of_several_jars_come_from_the_archive_too(self):
        for bundle in in_each_mode(self, copied=True):
            self.assertEqual(split(bundle), ["Json", "LogConfig", "Messages", "Report", "Text"])
            self.assert_updated(self.update(bundle), classes=r"([6-9])")
            self.assertGreater(self.share(bundle), 0.95)
            self.assertEqual(self.linked(bundle), KIND == "linked")

    def test_a_start_that_cannot_use_all_of_it_is_as_good_as_without_it(self):
        for options, least in [("-XX:+UseSerialGC -Xmx64m", 0.95), ("-XX:+UseParallelGC", 0.95),
                               ("-XX:+UseZGC", 0), ("-Xmx40g", 0),
                               ("-agentpath:/tmp/libagent.so", 0 if KIND == "linked" else 0.95)]:
            for bundle in in_each_mode(self):
                with self.subTest(options):
                    bundle.root.put("/tmp/libagent.so", AGENT)
                    run = bundle.run("version", tool_options=options)
                    self.assertEqual(
                        (run.status, re.sub(JVMTI, b"", run.stdout), run.stderr),
                        (0, bundle.stdout(b"version", service=f"{VERSION}\n".encode()),
                         f"Picked up JAVA_TOOL_OPTIONS: {options}\n".encode()))
                    self.assertGreaterEqual(self.share(bundle, options), least)

    def test_another_class_path_starts_the_service(self):
        java, run = RESOURCES / "jre/bin/java", ["com.vaultory.service.QRService", "version"]
        said = subprocess.run([java, "-Xlog:disable", "-cp", f"{RESOURCES}/lang:{RESOURCES}/{JAR}", *run],
                              capture_output=True, text=True)
        self.assertEqual((said.returncode, said.stdout, said.stderr), (0, f"{VERSION}\n", ""))

    def test_a_replaced_jar_starts_without_it_until_the_archive_is_regenerated(self):
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(JAR, bundle.resource(JAR).read_bytes())
            with zipfile.ZipFile(bundle.resource(JAR), "a") as archive:
                archive.writestr("of-another-version", "")
            self.assertEqual(self.share(bundle), 0)
            self.assert_updated(self.update(bundle))
            self.assertGreater(self.share(bundle), 0.95)

    def test_a_runtime_without_an_archive_starts_the_service(self):
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(CDS_ARCHIVE, None)
            self.assertEqual(bundle.run("version"),
                             (0, bundle.stdout(b"version", service=f"{VERSION}\n".encode()), b""))

    def test_a_space_in_the_path_of_the_bundle_and_of_temporary_files_does_no_harm(self):
        bundle = Bundle(self, "/Users/two words", copied=True)
        bundle.replace(CDS_ARCHIVE, None)
        self.assert_updated(self.update(bundle, TMPDIR=str(bundle.root.path("/Users/two words"))))
        self.assertGreater(self.share(bundle), 0.95)

    def test_a_vm_that_no_longer_links_an_archive_gets_an_aot_cache_instead(self):
        bundle = Bundle(self, copied=True)
        wrap(bundle, "jre/bin/java", 'case "$*" in *AOTClassLinking*) exit 1 ;; esac')
        self.assert_updated(self.update(bundle), "cache" if JAVA >= 25 else "plain")
        self.assertGreater(self.share(bundle), 0.95)
        self.assertEqual(self.linked(bundle), JAVA >= 25)

    def test_a_service_that_never_ends_is_ended_by_SIGTERM(self):
        bundle = Bundle(self, copied=True)
        bundle.replace(CDS_ARCHIVE, None)
        self.assert_updated(self.update(bundle, "-t", "2", arguments=["stay"]))

    def test_training_that_fails_says_what_the_service_said_and_leaves_the_former_archive(self):
        crash = "jre/bin/java", 'case "$*" in *crash*) echo so far; kill -KILL $$ ;; esac'
        unshared = LAUNCHER, 'export JAVA_TOOL_OPTIONS="$JAVA_TOOL_OPTIONS -XX:-UseCompressedOops"'
        ended = "update-cds-archive: the training run ended with"
        for arguments, changed, said in [
            (["throw", "no database"], None,
             '  | Exception in thread "main" java.lang.IllegalStateException: no database\n'
             "  | \tat com.vaultory.service.QRService.main(QRService.java:N)\n"
             f"{ended} an exception from main {GIVE}"),
            (["exit", "3"], None, f"{ended} status 3 {GIVE}"),
            (["-x"], None, "  | Illegal argument encountered: '-x'.\n"
             "update-cds-archive: the launcher does not start with these arguments, see above; "
             "give others\n"),
            (["crash"], crash, f"  | so far\n{ended} status 137 {GIVE}"),
            (["hello"], unshared, f"{TRAINED}Archiving the classes it loaded ({KIND}): N s\n...\n"
             "update-cds-archive: none of the service's N classes comes from the archive, "
             "the VM's reasons are above\n"),
        ]:
            with self.subTest(arguments):
                bundle = Bundle(self, copied=True)
                if changed:
                    wrap(bundle, *changed)
                before = identity(bundle.resource(CDS_ARCHIVE))
                status, text = self.update(bundle, arguments=arguments)
                text = re.sub(r"(java:|service's )\d+", r"\1N", text)
                text = re.sub(r"s\n(  \| .*\n)*  \| .*classes_nocoops.jsa.*\n(  \| .*\n)*", "s\n...\n", text)
                self.assertEqual((status, text), (1, said))
                self.assertEqual(identity(bundle.resource(CDS_ARCHIVE)), before)

    def test_a_failed_training_fails_the_installation_and_names_the_variables(self):
        bundle = Bundle(self, copied=True)
        wrap(bundle, "jre/bin/java", "exit 3")
        script = BUILD_DIR / "install_cds_archive.cmake"
        result = subprocess.run(
            ["cmake", "-DCMAKE_INSTALL_COMPONENT=cds-archive",
             f"-DCMAKE_INSTALL_PREFIX={bundle.root.path('/Applications')}", "-P", script],
            capture_output=True, text=True)
        self.assertEqual(
            (result.returncode, re.sub(r"\s+", " ", re.sub(r"\d+ s\b|(?<=cmake:)\d+", "N s", result.stderr))),
            (1, f"update-cds-archive: the training run ended with status 3 {GIVE}".strip() +
             f" CMake Error at {script}:N s (message): The bundle is installed without a CDS archive, "
             "for the reason above: set BUNDLE_TRAINING_ARGUMENTS to arguments with which the "
             "service ends well, BUNDLE_TRAINING_SECONDS to the time it takes, or "
             "BUNDLE_CDS_ARCHIVE to OFF. "))

    def test_an_interrupted_run_takes_the_service_with_it_and_leaves_the_archive(self):
        bundle = Bundle(self, copied=True)
        before = identity(bundle.resource(CDS_ARCHIVE))
        app = bundle.root.path("/Applications/Orvane.app")
        with subprocess.Popen([SCRIPT, app, "stay"], stderr=subprocess.PIPE) as script:
            children = pathlib.Path(f"/proc/{script.pid}/task/{script.pid}/children")
            deadline = time.monotonic() + 60
            while not (services := [child for child in children.read_text().split()
                                    if "QRService\0stay" in command_of(child)]):
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.01)
            script.send_signal(signal.SIGTERM)
            self.assertEqual((script.wait(60), script.stderr.read()), (143, b""))
        while command_of(services[0]) and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertEqual(command_of(services[0]), "")
        self.assertEqual(identity(bundle.resource(CDS_ARCHIVE)), before)

    def test_a_wrong_call_is_rejected_in_one_line(self):
        empty = BUILD_DIR / "test"
        for arguments, status, said in [
            ([empty], 1, f"update-cds-archive: '{empty}' is no bundle of the service; "
                         "name the Orvane.app of an Applications directory\n"),
            (["-t", "soon", empty], 1, "update-cds-archive: 'soon' is not a time; "
                                       "give a whole number of seconds above 0\n"),
            ([], 2, usage()),
            (["-x"], 2, usage()),
        ]:
            result = subprocess.run([SCRIPT, *arguments], capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (status, "", said))


def usage():
    return subprocess.run([SCRIPT, "--help"], capture_output=True, text=True, check=True).stdout


def split(bundle):
    """Moves the sample's classes into jars of their own, but for the one with main."""
    names = []
    with zipfile.ZipFile(bundle.resource(JAR)) as whole:
        files = {name: whole.read(name) for name in whole.namelist() if not name.endswith("/")}
    for path in sorted(files):
        name = re.sub(r".*/(\w+?)(\$\w+)?\.class", r"\1", path)
        if path.endswith(".class") and name != "QRService":
            names.append(name)
            with zipfile.ZipFile(bundle.resource(f"lib/{name}.jar"), "a") as jar:
                jar.writestr(path, files.pop(path))
    manifest = files.pop("META-INF/MANIFEST.MF").decode().rstrip()
    bundle.replace(JAR, None)
    with zipfile.ZipFile(bundle.resource(JAR), "w") as jar:
        jar.writestr("META-INF/MANIFEST.MF", manifest + "\nClass-Path: " +
                     "\n ".join(f"{name}.jar " for name in sorted(set(names))) + "\n\n")
        for path, content in files.items():
            jar.writestr(path, content)
    return sorted(set(names))


def wrap(bundle, name, line):
    """Has a program of a copied bundle run a line of shell first."""
    program = bundle.resource(name)
    program.rename(f"{program}.real")
    program.write_text(f'#!/bin/bash\n{line}\nexec "$0.real" "$@"\n')
    program.chmod(0o755)


def identity(path):
    """What changes when a file is replaced or written to, but not when it is linked to."""
    stat = path.stat()
    return stat.st_ino, stat.st_size, stat.st_mtime_ns


def command_of(pid):
    """The command line of a process, empty once it has ended."""
    try:
        return pathlib.Path(f"/proc/{pid}/cmdline").read_text()
    except FileNotFoundError:
        return ""
