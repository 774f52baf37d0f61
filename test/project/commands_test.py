"""Follows the documents word by word: the shell commands they show, run in order in a copy of
the tree, in a directory with a space in its name, for a database server with its libraries."""

import os
import pathlib
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest

from support import CONTENTS, ROOT, VERSION
from support.bundle import in_each_mode

# Run by continuous integration itself: all tests, and what needs the npm registry.
RUN_ELSEWHERE = {"script/test", "script/cross-macos"}

JARS = [pathlib.Path(f"/usr/share/java/{name}.jar")
        for name in ("h2", "servlet-api", "slf4j-api", "slf4j-jdk14")]
JDK = pathlib.Path(os.environ["JAVA_HOME"])
SERVICE = "package com.vaultory.service; public class QRService { public static void main(String[] args) %s }"
ADAPTER = SERVICE % """throws Exception {
    org.h2.tools.Server server = org.h2.tools.Server.createTcpServer("-tcpPort", "0", "-ifNotExists").start();
    String url = "jdbc:h2:tcp://127.0.0.1:" + server.getPort() + "/mem:backup";
    try (java.sql.Connection connection = java.sql.DriverManager.getConnection(url);
         java.sql.Statement statement = connection.createStatement()) {
        statement.execute("CREATE TABLE file AS SELECT x id, 'name ' || x name FROM SYSTEM_RANGE(1, 1000)");
        java.sql.ResultSet row = statement.executeQuery(
            "SELECT COUNT(*) || ' " + String.join("-", args) + "' FROM file");
        row.next();
        System.out.println(row.getString(1));
    }
    server.stop();
    System.out.println(org.slf4j.LoggerFactory.getILoggerFactory().getClass().getName());
    System.out.println(javax.servlet.DispatcherType.REQUEST);
}"""
SAID = b"1000 one-two words\norg.slf4j.impl.JDK14LoggerFactory\nREQUEST\n"
# What the jars refer to, directly or not, and what no class file shows.
MODULES = [
    "java.base", "java.compiler", "java.datatransfer", "java.desktop", "java.instrument", "java.logging",
    "java.management", "java.naming", "java.prefs", "java.scripting", "java.security.sasl",
    "java.sql", "java.transaction.xa", "java.xml", "jdk.crypto.ec", "jdk.unsupported",
]


def commands(document):
    """The document's blocks of shell commands, less those marked as macOS's."""
    for block in re.findall(r"^```sh\n(.*?)^```$", (ROOT / document).read_text(),
                            re.MULTILINE | re.DOTALL):
        yield "".join(line for line in block.splitlines(keepends=True)
                      if line.strip() not in RUN_ELSEWHERE)


class Commands(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        linux = os.uname().sysname == "Linux"
        self.database = linux and all(jar.exists() for jar in JARS)
        if linux and not self.database and os.environ.get("CI"):
            self.fail(f"not all of {JARS} exist: script/test installs them")
        directory = tempfile.mkdtemp(prefix="a copy ", dir=os.environ["BUILD_DIR"])
        self.addCleanup(shutil.rmtree, directory)
        self.env = {**os.environ, "TMPDIR": directory}
        self.copy = pathlib.Path(directory, "orvane")
        shutil.copytree(ROOT, self.copy, symlinks=True, ignore=lambda path, names: (
            {"build", ".git", "mine"} & set(names) if pathlib.Path(path) == ROOT else ()))

    def put_service(self):
        """The adapter as mine/service.jar, the database and what it uses in mine/lib; without
        Debian's jars, which only Linux has, a service that needs none and an empty library."""
        (self.copy / "mine/lib").mkdir(parents=True)
        (self.copy / "build").mkdir()
        jars = JARS if self.database else []
        for jar in jars:
            shutil.copy(jar, self.copy / "mine/lib")
        (self.copy / "build/QRService.java").write_text(ADAPTER if jars else SERVICE % "{ }")
        for command in (
                ["javac", "--release", "11", "-cp", ":".join(map(str, jars)), "-d", "build/classes",
                 "build/QRService.java"],
                ["jar", "cf", "mine/service.jar", "-C", "build/classes", "."],
                ["jar", "cf", "mine/lib/empty.jar", "README.md"]):
            subprocess.run([JDK / "bin" / command[0], *command[1:]], cwd=self.copy, check=True)

    def run_block(self, block):
        run = subprocess.run(["bash", "-euo", "pipefail", "-c", block], cwd=self.copy,
                             env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True)
        self.assertEqual(0, run.returncode, f"{block}\n{run.stdout}")
        return run.stdout.splitlines()[-1:]

    def follow(self, document):
        """Runs the document's commands and returns the last line of what each block says."""
        return [line for block in commands(document) for line in self.run_block(block)]

    def assert_packed(self, tarball):
        """What was packed, unpacked elsewhere, serves in both modes out of the CDS archive."""
        applications = self.copy / "build/unpacked"
        shutil.rmtree(applications, ignore_errors=True)
        with tarfile.open(self.copy / tarball) as archive:
            archive.extractall(applications)
        options = "-Xlog:class+load:file=/tmp/loaded:none -XX:+PrintFlagsFinal"
        for bundle in in_each_mode(self, applications=applications):
            self.assertEqual(bundle.run("one", "two words"),
                             (0, bundle.stdout(b"one", b"two words", service=SAID), b""))
            flags = bundle.run("one", tool_options=options).stdout
            self.assertRegex(flags, rb"\bErrorFile += /Library/Logs/OrvaneService-%p.log ")
            loaded = bundle.root.path("/tmp/loaded").read_text()
            sources = re.findall(r"^(?:org\.(?:h2|slf4j)|com\.vaultory|javax\.servlet)\.\S+ source: (.*)$",
                                 loaded, re.M)
            share = sources.count("shared objects file") / len(sources)
            self.assertGreaterEqual((len(sources) > 300, share), (True, 0.95))
        release = (applications / CONTENTS / "Resources/jre/release").read_text()
        self.assertEqual(sorted(re.search('^MODULES="(.*)"$', release, re.M).group(1).split()), MODULES)

    def test_the_readme_and_then_the_packagers_guide_can_be_followed(self):
        self.put_service()
        last = self.follow("README.md")
        self.assertEqual(last[0], "Service is complete.")
        self.assertRegex(last[1], fr"/build/mine/Orvane-{VERSION}-\w+\.(tar\.gz|dmg)$")

        self.follow("docs/packaging.md")
        for jdk in ["", *filter(None, [os.environ.get("SECOND_JDK")])] if self.database else []:
            if jdk:
                self.run_block(f"cmake build/mine -DBUNDLE_JDK={jdk}\nscript/pack build/mine")
            self.assert_packed("build/mine/Orvane-2.1.0-Linux.tar.gz")
