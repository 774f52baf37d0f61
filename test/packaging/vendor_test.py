"""A vendor's service takes the sample's place through the variables of the build alone."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from support import CONTENTS, ROOT
from support.bundle import Bundle
from support.private_root import BUILD_DIR

JDK = pathlib.Path(os.environ["JAVA_HOME"])
DATABASE = pathlib.Path("/usr/share/java/hsqldb.jar")

ADAPTER = """
package com.vaultory.service;
public class QRService {
    public static void main(String[] args) throws Exception {
        org.hsqldb.server.Server server = new org.hsqldb.server.Server();
        server.setLogWriter(null);
        try (java.net.ServerSocket free = new java.net.ServerSocket(0)) {
            server.setPort(free.getLocalPort());
        }
        server.setAddress("127.0.0.1");
        server.setDatabaseName(0, "backup");
        server.setDatabasePath(0, "mem:backup");
        server.start();
        String url = "jdbc:hsqldb:hsql://127.0.0.1:" + server.getPort() + "/backup";
        java.sql.ResultSet row = java.sql.DriverManager.getConnection(url, "SA", "")
            .createStatement().executeQuery("VALUES (UPPER('" + String.join("-", args) + "'))");
        row.next();
        System.out.println(row.getString(1));
        server.shutdown();
    }
}
"""

# What the database refers to, directly or not, what no class file shows, what was asked for.
MODULES = [
    "java.base", "java.datatransfer", "java.desktop", "java.logging", "java.naming", "java.prefs",
    "java.security.sasl", "java.sql", "java.transaction.xa", "java.xml", "jdk.crypto.ec",
    "jdk.unsupported", "jdk.zipfs",
]


class VendorTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vendor-", dir=BUILD_DIR))
        self.addCleanup(shutil.rmtree, self.folder)
        self.build = self.folder / "build"

    def put(self, name, content=""):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
        return path

    def configure(self, **variables):
        return subprocess.run(
            ["cmake", "-S", ROOT, "-B", self.build, "-DBUILD_TESTING=OFF",
             *(f"-D{name}={value}" for name, value in variables.items())],
            capture_output=True, text=True)

    def refusals(self, name, values):
        """The one line that each value of the variable is refused with."""
        lines = []
        for value in values:
            said = self.configure(**{name: value}).stderr
            lines += re.findall(r"^CMake Error at .*:\n(.*)\nCall Stack", said, re.M) or [said]
        shutil.rmtree(self.build)
        return lines

    def test_a_wrong_value_is_refused_in_one_line_that_names_the_variable(self):
        file = self.put("file")
        empty = self.folder / "empty folder"
        empty.mkdir()
        classless = BUILD_DIR / "CMakeCache.txt"
        for name in "BUNDLE_LANG", "BUNDLE_BIN", "BUNDLE_FRAMEWORKS":
            self.assertEqual(self.refusals(name, ["/nowhere", file]), [
                f"   {name}: '/nowhere' is not a folder; name the one to install",
                f"   {name}: '{file}' is not a folder; name the one to install",
            ])
        self.assertEqual(self.refusals("BUNDLE_CONF", ["/nowhere", empty]), [
            "   BUNDLE_CONF: '/nowhere' is not a folder; name the one to install",
            f"   BUNDLE_CONF: '{empty}' holds no service.log.xml, which the launcher names; add it",
        ])
        self.assertEqual(self.refusals("BUNDLE_JAR", ["/nowhere", empty, classless]), [
            "   BUNDLE_JAR: '/nowhere' is not a file; name the service's archive",
            f"   BUNDLE_JAR: '{empty}' is not a file; name the service's archive",
            f"   BUNDLE_JAR: '{classless}' is no archive with "
            "com/vaultory/service/QRService.class, which the launcher calls",
        ])
        self.assertEqual(self.refusals("BUNDLE_JDK", [empty]), [
            f"   BUNDLE_JDK: '{empty}' has no bin/java; name a JDK, 11 or later",
        ])
        self.assertEqual(self.refusals("BUNDLE_MODULES", ["java.sql;no.such.module"]), [
            f"   BUNDLE_MODULES: 'no.such.module' is no module of {JDK}; "
            "its bin/java --list-modules names them",
        ])
        self.assertEqual(self.refusals("BUNDLE_TRAINING_SECONDS", ["soon", "0"]), [
            f"   BUNDLE_TRAINING_SECONDS: '{value}' is not a time; "
            "give a whole number of seconds above 0" for value in ("soon", "0")
        ])

    def test_a_database_server_runs_inside_the_launcher(self):
        if not DATABASE.exists():
            self.skipTest(f"no {DATABASE} on this machine: install libhsqldb-java")
        applications = self.folder / "Applications"
        configured = self.configure(
            CMAKE_BUILD_TYPE="Release",
            BUNDLE_JAR=self.database_archive(),
            BUNDLE_LANG=self.put("lang/texts.properties").parent,
            BUNDLE_CONF=self.put("conf/service.log.xml").parent,
            BUNDLE_BIN=self.put("bin/tool").parent,
            BUNDLE_FRAMEWORKS=self.put("Frameworks/libnative.dylib").parent,
            BUNDLE_MODULES="jdk.zipfs",
            BUNDLE_TRAINING_ARGUMENTS="trained;with two words")
        self.assertEqual((configured.returncode, configured.stderr), (0, ""))
        for command in (["--build", self.build, "-j2"],
                        ["--install", self.build, "--prefix", applications]):
            subprocess.run(["cmake", *command], check=True, capture_output=True)

        bundle = Bundle(self, applications=applications)
        self.assertEqual(
            bundle.run("one", "two", tool_options="-Xlog:class+load:file=/tmp/loaded:none"),
            (0, bundle.stdout(b"one", b"two", service=b"ONE-TWO\n"),
             b"Picked up JAVA_TOOL_OPTIONS: -Xlog:class+load:file=/tmp/loaded:none\n"))
        loaded = bundle.root.path("/tmp/loaded").read_text()
        sources = re.findall(r"^(?:org\.hsqldb|com\.vaultory)\.\S+ source: (.*)$", loaded, re.M)
        self.assertGreater(len(sources), 100)
        self.assertEqual(set(sources), {"shared objects file"})

        resources = applications / CONTENTS / "Resources"
        self.assertEqual(
            [path.name for folder in ("lang", "conf", "bin", "../Frameworks")
             for path in (resources / folder).iterdir()],
            ["texts.properties", "service.log.xml", "tool", "libnative.dylib"])
        release = (resources / "jre/release").read_text()
        modules = re.search('^MODULES="(.*)"$', release, re.M).group(1)
        self.assertEqual(sorted(modules.split()), MODULES)

    def database_archive(self):
        """Debian's archive of the database and the adapter, in one."""
        archive = self.folder / "database.jar"
        shutil.copy(DATABASE, archive)
        source = self.put("adapter/QRService.java", ADAPTER)
        classes = self.folder / "classes"
        subprocess.run([JDK / "bin/javac", "-cp", archive, "-d", classes, source], check=True)
        subprocess.run([JDK / "bin/jar", "uf", archive, "-C", classes, "."], check=True)
        return archive
