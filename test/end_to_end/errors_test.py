"""What an operator reads when the installed service cannot start."""

import io
import unittest
import zipfile

from support import expected
from support.bundle import CDS_ARCHIVE, JAR, in_each_mode
from support.private_root import BUILD_DIR


class ErrorsTest(unittest.TestCase):
    maxDiff = None

    def assert_rejected(self, jar, message):
        """jar replaces the service's; None for no jar."""
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(CDS_ARCHIVE, None)  # later VMs warn that it belongs to another jar
            bundle.replace(JAR, jar)
            self.assertEqual(
                bundle.run("hello"),
                (1, expected.before_vm(bundle.home.encode(), None, [b"hello"]),
                 expected.vm_error(message)))

    def assert_class_not_found(self, jar):
        self.assert_rejected(
            jar, b"Class Error. Couldn't find parent class 'com/vaultory/service/QRService'")

    def test_a_missing_jar_is_reported(self):
        self.assert_class_not_found(None)

    def test_a_jar_that_is_not_a_jar_is_reported(self):
        self.assert_class_not_found(b"not a jar")

    def test_a_jar_without_the_service_is_reported(self):
        empty = io.BytesIO()
        with zipfile.ZipFile(empty, "w") as jar:
            jar.writestr("META-INF/MANIFEST.MF", "Manifest-Version: 1.0\n")
        self.assert_class_not_found(empty.getvalue())

    def test_a_jar_whose_main_is_not_static_is_reported(self):
        jar = BUILD_DIR / "test/end_to_end/instance_main.jar"
        self.assert_rejected(
            jar.read_bytes(), b"Couldn't find method 'main' with proper signature of "
                             b"'([Ljava/lang/String;)V'")

    def test_a_heap_size_that_the_VM_cannot_read_is_reported(self):
        for option in b"-Xmx12q", b"-Xmx2g\r", b"-Xmx2g ", b"-Xmx2g -Xms1g":
            for bundle in in_each_mode(self):
                bundle.override(option)
                self.assertEqual(
                    bundle.run("hello"),
                    (1, expected.before_vm(bundle.home.encode(), [option], [b"hello"]),
                     b"Invalid maximum heap size: " + option + b"\n" +
                     expected.vm_error(b"Error creating JVM: -6")))

    def test_a_heap_size_that_the_VM_cannot_allocate_ends_the_process_with_the_VMs_message(self):
        for option, reason in (
                (b"-Xmx1k", b"Too small maximum heap"),
                (b"-Xmx9000000g",
                 b"Could not reserve enough space for 9437184000000KB object heap")):
            for bundle in in_each_mode(self):
                bundle.override(option)
                result = bundle.run("hello")
                stdout = result.stdout.replace(b"000 KB", b"000KB")  # as later VMs write it
                self.assertEqual(
                    result._replace(stdout=stdout),
                    (1, expected.before_vm(bundle.home.encode(), [option], [b"hello"]) +
                     b"Error occurred during initialization of VM\n" + reason + b"\n", b""))

    def test_a_carriage_return_in_the_override_file_is_part_of_a_propertys_value(self):
        option = b"-Dorv.security.mode=strict\r"
        for bundle in in_each_mode(self):
            bundle.override(option)
            result = bundle.run("json")
            report = bundle.report(result.stdout, b"json", lines=[option])
            self.assertEqual((result.status, result.stderr), (0, b""))
            self.assertEqual(report["properties"]["orv.security.mode"], "strict\r")
