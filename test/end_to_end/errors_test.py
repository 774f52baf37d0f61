"""What an operator reads when the installed service cannot start."""

import io
import unittest
import zipfile

from support import expected
from support.bundle import CLASS_DATA, JAR, in_each_mode


class ErrorsTest(unittest.TestCase):
    maxDiff = None

    def assert_class_not_found(self, archive):
        """archive is what lies in the place of the service's, if anything does."""
        for bundle in in_each_mode(self, copied=True):
            bundle.replace(CLASS_DATA, None)  # later VMs warn that it is of another archive
            bundle.replace(JAR, archive)
            self.assertEqual(
                bundle.run("hello"),
                (1, expected.before_vm(bundle.home.encode(), None, [b"hello"]),
                 expected.vm_error(b"Class Error. Couldn't find parent class "
                                   b"'com/vaultory/service/QRService'")))

    def test_a_missing_archive_is_reported(self):
        self.assert_class_not_found(None)

    def test_an_archive_that_is_none_is_reported(self):
        self.assert_class_not_found(b"not an archive")

    def test_an_archive_without_the_service_is_reported(self):
        empty = io.BytesIO()
        with zipfile.ZipFile(empty, "w") as archive:
            archive.writestr("META-INF/MANIFEST.MF", "Manifest-Version: 1.0\n")
        self.assert_class_not_found(empty.getvalue())

    def test_a_heap_size_that_the_VM_refuses_is_reported(self):
        for bundle in in_each_mode(self):
            bundle.override(b"-Xmx12q")
            self.assertEqual(
                bundle.run("hello"),
                (1, expected.before_vm(bundle.home.encode(), [b"-Xmx12q"], [b"hello"]),
                 b"Invalid maximum heap size: -Xmx12q\n" +
                 expected.vm_error(b"Error creating JVM: -6")))
