"""operator/check-install over copies of the installed bundle, in a private root: a correct
installation, and one for each way of breaking it. In what it reports APP is Orvane.app, IN the
contents of the bundle in it, RES its Resources, DATA the data directory, JOB the property list."""

import json
import os
import re
import shutil
import subprocess
import unittest

from install_test import Machine
from support import CONTENTS, ROOT, VERSION
from support.bundle import APPLICATIONS, linked
from support.private_root import BUILD_DIR, PrivateRoot

SCRIPT = ROOT / "operator/check-install"
USAGE = re.search(r'^usage="(.*?)"$', SCRIPT.read_text(), re.M | re.S).group(1) + "\n"
RUNTIME = re.search('JAVA_VERSION="(.*)"', (BUILD_DIR / "jre/release").read_text()).group(1)
VERSIONS = f"Versions: launcher {VERSION}, service {VERSION}, runtime {RUNTIME}."
AGAIN = "install the bundle again"
PROGRAM = "IN/MacOS/OrvaneService"
JSA = "RES/jre/lib/server/classes.jsa"
JVM = "RES/jre/lib/server/libjvm.so"
JAR = "RES/lib/com.vaultory.desktop.jar"
# What macOS has and Linux lacks: the list in /state/acl, one path, is one that lets bob write.
MAC = {
    "uname": 'echo Darwin',
    "codesign": 'echo "$4: a sealed resource is missing or invalid" >&2; [ ! -e /state/unsigned ]',
    "ls": '''case $1 in
        -lnd) [ "$2" = /Applications ] && echo "drwxrwxr-x 2 0 80" || exec /bin/ls "$@" ;;
        *) shift; /bin/ls -ld "$@" | awk -v acl="$(cat /state/acl 2>/dev/null)" '
            { print; print " 0: group:everyone deny delete" }
            acl != "" && substr($0, length($0) - length(acl)) == " " acl {
                print " 1: user:bob allow " (/^d/ ? "add_file" : "write") }' ;;
    esac''',
}


class Installation:
    def __init__(self, test, home=""):
        self.root, self.home = PrivateRoot(test, uid=1000 if home else 0), home
        test.addCleanup(os.umask, os.umask(0o022))
        app = home + "/Applications/Orvane.app"
        name = "com.vaultory.service" + (".agent" if home else "") + ".plist"
        self.names = {
            "JSA": JSA, "JVM": JVM, "JAR": JAR,
            "RES": f"/Applications/{CONTENTS}/Resources", "IN": f"/Applications/{CONTENTS}",
            "DATA": "/Library/Application Support/Quillrest", "APP": "/Applications/Orvane.app",
            "JOB": f"/Library/Launch{'Agents' if home else 'Daemons'}/{name}"}
        shutil.copytree(APPLICATIONS, self.root.path(home + "/Applications"), symlinks=True,
                        copy_function=linked, dirs_exist_ok=True)
        self.root.put("/passwd", b"root:x:0:0::/:/bin/sh\nalice:x:1000:1000::/Users/alice:/bin/sh\n")
        self.root.bind(self.root.path("/passwd"), "/etc/passwd")
        self.root.bind(SCRIPT, self.put("/check-install", b""))
        template = self.at("RES/launchd/" + name + (".in" if home else "")).read_text()
        self.put("JOB", template.replace("@HOME@", home).encode())
        self.put("DATA/conf/jvm_args", b"-Xmx2g\n-Dorv.security.mode=\n-Djava.net.preferIPv4Stack=true")

    def path(self, name):
        first, slash, rest = name.partition("/")
        while first in self.names:
            name = self.names[first] + slash + rest
            first, slash, rest = name.partition("/")
        return name if name.startswith("/check") else self.home + name

    def at(self, name):
        return self.root.path(self.path(name))

    def put(self, name, content=b"", mode=0o644):
        """Replaces a file, never the one that the tests share."""
        self.at(name).unlink(missing_ok=True)
        self.root.put(self.path(name), content, mode)
        return self.path(name)

    def change(self, name, old=None, new=None, size=None, mode=None, times=None):
        """A copy of the file in its place: with other bytes, truncated, another mode or time."""
        stat, content = self.at(name).stat(), self.at(name).read_bytes()
        if old is not None:
            assert old in content
            content = content.replace(old, new)
        self.put(name, content[:size], stat.st_mode & 0o7777 if mode is None else mode)
        os.utime(self.at(name), ns=times or (stat.st_atime_ns, stat.st_mtime_ns))

    def link(self, name, target):
        self.at(name).symlink_to(target)

    def moved(self, name):
        """Puts a link into the place of what is moved away."""
        self.at(name).rename(self.root.path("/elsewhere"))
        self.link(name, "/elsewhere")

    def mac(self):
        for name, text in MAC.items():
            self.root.put("/stand-in/" + name, f"#!/bin/sh\n{text}\n".encode(), 0o755)
        self.put("APP/Contents/_CodeSignature/CodeResources")
        self.root.put("/state/acl", b"")

    def run(self, *arguments):
        user = ["--user", "alice"] if self.home else []
        result = self.root.run(["/bin/bash", "/check-install", *user, *arguments],
                               env={"PATH": "/stand-in:/usr/bin:/bin"})
        return result.status, result.stdout.decode(), result.stderr.decode()


def rejected(number, what, remedy):
    return f"DATA/conf/jvm_args: line {number} {what}; {remedy}"


OTHERS = "writable by the group or by others; chmod go-w"
REJECTED = "is rejected, and the start with it"
WHITE = "ends in white space, which the VM sees"
DIFFERS = "is not as the bundle has it; run install"
ARCHIVE = f"{JSA}: not for this jar and this runtime; run update-cds-archive"
# What breaks it, and the lines that report it.
BROKEN = {
    "no bundle": (lambda i: i.at("APP").rename(i.root.path("/elsewhere")),
                  ["APP: missing; install the bundle"]),
    "bundle a link": (lambda i: i.moved("APP"), ["APP: a symbolic link; install the bundle itself"]),
    "data a link": (lambda i: i.moved("DATA"), ["DATA: a symbolic link; replace it with the directory"]),
    "parent a link": (lambda i: i.moved("/Library"),
                      ["/Library: a symbolic link; replace it with the directory"]),
    "open LaunchDaemons": (lambda i: i.at("JOB").parent.chmod(0o777),
                           ["/Library/LaunchDaemons: writable by group 0; chmod g-w",
                            "/Library/LaunchDaemons: writable by others; chmod o-w"]),
    "open Application Support": (lambda i: i.at("DATA").parent.chmod(0o1757),
                                 ["/Library/Application Support: writable by others; chmod o-w"]),
    "open Applications": (lambda i: i.at("APP").parent.chmod(0o775),
                          ["/Applications: writable by group 0; chmod g-w"]),
    "no launcher": (lambda i: i.at(PROGRAM).unlink(),
                    [f"{PROGRAM}: missing; {AGAIN}"]),
    "launcher not executable": (lambda i: i.change(PROGRAM, mode=0o644),
                                [f"{PROGRAM}: not executable; {AGAIN}"]),
    "launcher empty": (lambda i: i.put(PROGRAM, mode=0o755), [f"{PROGRAM}: does not start; {AGAIN}"]),
    "launcher truncated": (lambda i: i.change(PROGRAM, size=100000),
                           [f"{PROGRAM}: does not start; {AGAIN}"]),
    "libjvm truncated": (lambda i: i.change(JVM, size=20000), [f"RES/jre: does not start; {AGAIN}"]),
    "libjvm empty": (lambda i: i.put(JVM), [f"RES/jre: does not start; {AGAIN}"]),
    "no libjvm": (lambda i: i.at(JVM).unlink(),
                  ["RES/jre/lib/server/libjvm.dylib: missing; the Java runtime belongs in Resources/jre"]),
    "modules empty": (lambda i: i.put("RES/jre/lib/modules"), [f"RES/jre: does not start; {AGAIN}"]),
    "modules truncated": (lambda i: i.change("RES/jre/lib/modules", size=-1), [ARCHIVE]),
    "no CDS archive": (lambda i: i.at(JSA).unlink(),
                       [f"{JSA}: missing; starts are slower without it: run update-cds-archive"]),
    "CDS archive empty": (lambda i: i.put(JSA), [ARCHIVE]),
    "CDS archive truncated": (lambda i: i.change(JSA, size=-4096), [ARCHIVE]),
    "jar newer": (lambda i: i.change(JAR, times=(2 ** 60, 2 ** 60)), [ARCHIVE]),
    "jar older": (lambda i: i.change(JAR, times=(10 ** 18, 10 ** 18)), [ARCHIVE]),
    "jar of another size": (lambda i: i.change(JAR, b"", b"", size=-1), [ARCHIVE]),
    "pieces missing": (
        lambda i: [i.at("IN/Info.plist").unlink(), i.at(JAR).unlink(), shutil.rmtree(i.at("RES/conf")),
                   i.at("RES/jre/lib/jspawnhelper").unlink(), i.at("IN/Frameworks").rmdir()],
        [f"IN/Info.plist: missing; {AGAIN}", f"{JAR}: missing; the service's jar belongs there",
         f"RES/conf: missing; {AGAIN}",
         "RES/conf/service.log.xml: missing; the service's log configuration belongs there",
         f"IN/Frameworks: missing; {AGAIN}",
         "RES/jre/lib/jspawnhelper: missing; the service cannot start processes without it"]),
    "open bundle": (lambda i: i.at("IN/MacOS").chmod(0o775), [f"IN/MacOS: {OTHERS}"]),
    "somebody else's": (
        lambda i: [i.change(name) or os.chown(i.at(name), 65534, 65534)
                   for name in ("IN/Info.plist", "DATA/conf/jvm_args", "JOB")] and
        os.chown(i.at("JOB").parent, 65534, 65534),
        [f"{name}: not owned by root; chown it to root" for name in (
            "/Library/LaunchDaemons", "IN/Info.plist", "DATA/conf/jvm_args", "JOB")]),
    "setuid": (lambda i: [i.change("RES/bin/service-version", mode=0o4755),
                          i.change("RES/conf/service.log.xml", mode=0o2644)],
               [f"RES/{name}: has the setuid or setgid bit; chmod ug-s"
                for name in ("bin/service-version", "conf/service.log.xml")]),
    "foreign file": (lambda i: i.put("IN/MacOS/helper"), ["IN/MacOS/helper: not the bundle's; remove it"]),
    "crash report": (lambda i: i.put("IN/MacOS/hs_err_pid7.log"),
                     ["IN/MacOS/hs_err_pid7.log: a crash report: it breaks the signature; "
                      "move it out of the bundle"]),
    "links": (lambda i: [i.link("RES/conf/other.xml", "service.log.xml"),
                         i.link("RES/bin/app", "../../../../../../.."),
                         i.link("RES/bin/hosts", "/etc/hosts"),
                         i.link("RES/bin/out", "../../../../../../../..")],
              [f"RES/bin/{name}: links out of the bundle; replace it with what it links to"
               for name in ("hosts", "out")]),
    "unreadable bundle": (lambda i: i.at("RES/jre").chmod(0),
                          ["RES/jre: not readable for alice, so not checked; call as root"]),
    "unreadable data": (lambda i: i.at("DATA/conf").chmod(0),
                        ["DATA/conf: not readable for alice, so not checked; call as root"]),
    "unreadable override file": (lambda i: i.at("DATA/conf/jvm_args").chmod(0),
                                 ["DATA/conf/jvm_args: not readable for alice, so not checked; call as root"]),
    "open override file": (lambda i: i.at("DATA/conf/jvm_args").chmod(0o666),
                           [f"DATA/conf/jvm_args: {OTHERS}"]),
    "override file a directory": (lambda i: [i.at("DATA/conf/jvm_args").unlink(),
                                             i.at("DATA/conf/jvm_args").mkdir()],
                                  ["DATA/conf/jvm_args: not a file; remove it"]),
    "lines": (lambda i: i.put("DATA/conf/jvm_args",
                              b"\xef\xbb\xbf-Xmx2g\n-Xmx2g\r\n-Xmx2g\n\n# heap\n-Xmx2g -Xms1g\n"
                              b"-Dorv.security.mode=a b\n-Dorv.security.mode=a \n-Duser.install=1"),
              [rejected(1, REJECTED, "delete it"), rejected(2, WHITE, "delete it"),
               rejected(4, REJECTED, "delete it"), rejected(5, REJECTED, "delete it"),
               rejected(6, "has a size that the VM refuses", "correct it"),
               rejected(8, WHITE, "delete it"), rejected(9, REJECTED, "delete it")]),
    "no job": (lambda i: i.at("JOB").unlink(), ["JOB: missing; run install"]),
    "job a link": (lambda i: i.moved("JOB"), ["JOB: a symbolic link; run install"]),
    "open job": (lambda i: i.at("JOB").chmod(0o664), [f"JOB: {OTHERS}"]),
    "job cut off": (lambda i: i.change("JOB", size=-20), ["JOB: not a property list; run install"]),
    "job of another program": (lambda i: i.change("JOB", b"MacOS/OrvaneService<", b"MacOS/sh<"),
                               [f"JOB: ProgramArguments {DIFFERS}"]),
    "job with a program of its own": (
        lambda i: i.change("JOB", b"<key>RunAtLoad", b"<key>Program</key><string>/bin/sh</string><key>RunAtLoad"),
        [f"JOB: Program {DIFFERS}"]),
    "job in another directory": (lambda i: i.change("JOB", b"MacOS</string>", b"Resources</string>"),
                                 [f"JOB: WorkingDirectory {DIFFERS}"]),
    "job of another user": (
        lambda i: i.change("JOB", b"\t<key>RunAtLoad",
                           b"\t<key>UserName</key>\n\t<string>bob</string>\n\t<key>RunAtLoad"),
        [f"JOB: UserName {DIFFERS}"]),
    "job with an environment": (
        lambda i: i.change("JOB", b"<key>RunAtLoad", b"<key>EnvironmentVariables</key><dict><key>"
                           b"JAVA_TOOL_OPTIONS</key><string>-javaagent:x</string></dict><key>RunAtLoad"),
        [f"JOB: EnvironmentVariables {DIFFERS}"]),
    "access control list of a parent": (
        lambda i: [i.mac(), i.root.put("/state/acl", b"/Library")],
        ["/Library: an access control list allows changes; chmod -N"]),
    "access control list of a file": (
        lambda i: [i.mac(), i.root.put("/state/acl", i.path("DATA/conf/jvm_args").encode())],
        ["DATA/conf/jvm_args: an access control list allows changes; chmod -N"]),
    "broken signature": (
        lambda i: [i.mac(), i.root.put("/state/unsigned", b"")],
        [f"APP: its signature is not valid: a sealed resource is missing or invalid; {AGAIN}"]),
}


class CheckInstall(unittest.TestCase):
    maxDiff = None

    def reported(self, installation, *reports):
        last = f"Deviations found: {len(reports)}." if reports else "No deviation found."
        text = "".join(f"{line}\n" for line in (*reports, last))
        before = sorted(installation.root.path("/").glob("Applications/**/*"))
        status, output, errors = installation.run()
        self.assertEqual(before, sorted(installation.root.path("/").glob("Applications/**/*")))
        versions, _, output = output.partition("\n")
        for name in "RES", "IN", "DATA", "APP", "JOB":
            output = output.replace(installation.path(name), name)
        self.assertEqual((bool(reports), text, ""), (status, output, errors))
        return versions

    def test_a_correct_installation_has_no_deviation(self):
        self.assertEqual(VERSIONS, self.reported(Installation(self)))
        self.assertEqual(VERSIONS, self.reported(Installation(self, "/Users/alice")))

    def test_a_Mac_s_own_lists_and_administrators_are_no_deviation(self):
        installation = Installation(self)
        installation.mac()
        self.reported(installation)

    def test_what_install_has_installed_has_no_deviation(self):
        machine = Machine(self)
        shutil.copytree(APPLICATIONS, machine.root.path("/new/real"), symlinks=True)
        shutil.copy(SCRIPT, machine.root.path("/new"))
        self.assertEqual(0, machine.call("real")[0])
        run = machine.root.run(["/new/check-install"])
        self.assertEqual((0, VERSIONS + "\nNo deviation found.\n"), (run.status, run.stdout.decode()))

    def test_each_broken_installation_is_reported(self):
        self.assertGreaterEqual(len(BROKEN), 30)
        for name, (change, reports) in BROKEN.items():
            if name == "somebody else's" and os.geteuid() != 0:
                continue  # only root can give files away
            with self.subTest(name):
                installation = Installation(self, "/Users/alice" * name.startswith("unreadable"))
                change(installation)
                self.reported(installation, *reports)

    def test_a_heap_that_the_VM_refuses_is_reported_and_no_other(self):
        installation = Installation(self)
        sizes = ["", "0", "1", "1k", "2m", "2048k", "2097152", "3m", "64M", "2g", "02G", "20t", "200t",
                 "16777216t", "99999999999999999999", "2gb", "2.5g", "-1", "+2g", " 2g", "2 g"]
        rejected_by_vm = [
            size for size in sizes if installation.root.run(
                [installation.path("RES/jre/bin/java"), "-Xmx" + size, "-version"]).status]
        installation.put("DATA/conf/jvm_args", "".join(f"-Xmx{size}\n" for size in sizes).encode())
        self.reported(installation, *(
            rejected(sizes.index(size) + 1, "has a size that the VM refuses", "correct it")
            for size in rejected_by_vm))

    def test_monitoring_gets_one_object(self):
        installation = Installation(self)
        versions = {"launcher": VERSION, "service": VERSION, "runtime": RUNTIME}
        status, output, errors = installation.run("--json")
        self.assertEqual((0, {**versions, "deviations": []}, ""), (status, json.loads(output), errors))
        name = 'a "b"\\c'
        installation.put("IN/MacOS/" + name)
        installation.at("JOB").unlink()
        status, output, errors = installation.run("--json")
        self.assertEqual((1, {**versions, "deviations": [
            {"path": installation.path("IN/MacOS/a \"b\"\\c"), "what": "not the bundle's",
             "remedy": "remove it"},
            {"path": installation.path("JOB"), "what": "missing", "remedy": "run install"},
        ]}, ""), (status, json.loads(output), errors))

    def test_help_is_the_usage_and_so_is_the_answer_to_a_wrong_call(self):
        def call(*arguments):
            run = subprocess.run([SCRIPT, *arguments], capture_output=True, text=True)
            return run.returncode, run.stdout, run.stderr
        self.assertEqual((0, USAGE, ""), call("--help"))
        for arguments in ["--user"], ["--user", ""], ["directory"], ["--root", "/"]:
            self.assertEqual((2, "", USAGE), call(*arguments))
        self.assertEqual((2, "", "check-install: there is no account 'no.such.account' here; "
                                 "name one this machine knows\n"), call("--user", "no.such.account"))
