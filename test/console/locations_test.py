import os
import unittest

from support import CONTENTS, expected, platform
from support.launcher import ABORTED, LIBRARY, Launcher, Run, finished

USER = b"-Duser.install=1"


class LocationsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.launcher = Launcher(self)

    def copy_to(self, path):
        """Puts a copy of the program there; it runs over the runtime of /Applications."""
        self.launcher.root.put(path, self.launcher.root.path(self.launcher.program))
        return path

    def assert_home(self, program, home, cwd=None):
        self.launcher.put_override_file(b"-Xmx2g\n", os.fsdecode(home))
        self.assertEqual(self.launcher.run(USER, program=program, cwd=cwd),
                         finished(home=home, lines=[b"-Xmx2g"]))

    def assert_out_of_range(self, program, directory_size, cwd=None):
        run = self.launcher.run(USER, b"a", program=program, cwd=cwd)
        self.assertEqual(run, Run(ABORTED, expected.launching(b"/Users/"),
                                  platform.out_of_range(directory_size), [], normal_end=False))

    def path_of(self, size):
        """The program's copy under alice's home, its path of this many bytes."""
        path = "/Users/alice/"
        while size - len(path) > 256 + len("/OrvaneService"):
            path += "d" * 200 + "/"
        rest = size - len(path) - len("/OrvaneService")
        return self.copy_to(path + "d" * rest + "/OrvaneService")

    def test_the_paths_of_a_system_wide_run_do_not_depend_on_the_programs_location(self):
        for program in (self.copy_to("/OrvaneService"), self.path_of(1025),
                        self.copy_to("/Users/alice/OrvaneService")):
            with self.subTest(program):
                self.assertEqual(self.launcher.run(program=program), finished())

    def test_the_programs_path_names_the_home(self):
        for sentence, program, home in (
                ("in a directory of the home", b"/Users/alice/Downloads/OrvaneService",
                 b"/Users/alice"),
                ("in the home itself", b"/Users/alice/OrvaneService", b"/Users/alice"),
                ("with a space and other bytes than UTF-8", b"/Users/al ice\xff\\/bin/OrvaneService",
                 b"/Users/al ice\xff\\"),
                ("what precedes Users is dropped", b"/Volumes/Data/Users/user2/App/OrvaneService",
                 b"/Users/user2"),
                ("the first Users counts", b"/Users/first/Users/second/OrvaneService",
                 b"/Users/first"),
                ("among the homes it has no name", b"/Users/OrvaneService", b"/Users/"),
                ("outside any home it is cut from the path", b"/Applications/OrvaneService",
                 b"/Users/cations"),
                ("in a directory of six bytes it has no name", b"/sixth/service", b"/Users/")):
            with self.subTest(sentence):
                self.assert_home(self.copy_to(os.fsdecode(program)), home)

    def test_a_program_in_a_directory_of_fewer_than_six_bytes_aborts_per_user(self):
        for program, size in ("/service", 0), ("/five/service", 5), ("/a\\service", 2):
            with self.subTest(program):
                self.assert_out_of_range(self.copy_to(program), size)

    def test_program_paths_of_1022_and_1023_bytes_are_known(self):
        for size in 1022, 1023:
            with self.subTest(size):
                self.assert_home(self.path_of(size), b"/Users/alice")

    def test_program_paths_of_1024_and_1025_bytes_abort_per_user(self):
        for size in 1024, 1025:
            with self.subTest(size):
                self.assert_out_of_range(self.path_of(size), directory_size=0)

    def test_a_relative_start_takes_the_working_directory(self):
        launcher = self.launcher = Launcher(self, "/Users/alice/Applications")
        contents = launcher.directory.rpartition("/")[0]
        for program, cwd in (("./OrvaneService", launcher.directory),
                             ("../MacOS/OrvaneService", launcher.directory),
                             ("../MacOS/OrvaneService", contents + "/Resources"),
                             (".//OrvaneService", launcher.directory)):
            with self.subTest(program):
                self.assert_home(program, b"/Users/alice", cwd)

    def test_a_start_from_the_directory_above_finds_the_home_but_another_runtime(self):
        self.launcher.root.put("/Users/alice/MacOS/OrvaneService",
                               self.launcher.root.path(self.launcher.program))
        self.launcher.put_runtime("/Users")
        self.assert_home("MacOS/OrvaneService", b"/Users/alice", "/Users/alice")

    def test_a_relative_start_from_among_the_home_directories_names_the_home_whole(self):
        self.launcher.put_runtime("")
        for name in "alice", ".alice", "..alice":
            with self.subTest(name):
                self.copy_to(f"/Users/{name}/bin/OrvaneService")
                self.assert_home(name + "/bin/OrvaneService", b"/Users/" + name.encode(), "/Users")

    def test_only_a_leading_dot_slash_is_taken_off_a_relative_start(self):
        path = self.path_of(1023)
        directory, _, name = path.rpartition("/")
        parent, _, last = directory.rpartition("/")
        for cwd in directory, parent:
            self.launcher.put_runtime(cwd.rpartition("/")[0])
        self.assert_home("./" + name, b"/Users/alice", directory)
        self.assert_home(f"./{last}/{name}", b"/Users/alice", parent)
        self.assert_out_of_range("././" + name, 0, directory)
        self.assert_out_of_range(".//" + name, 0, directory)
        self.assert_out_of_range(f"../{last}/{name}", 0, directory)

    def test_a_start_through_a_symbolic_link_belongs_to_the_links_location(self):
        link = self.launcher.root.path("/Users/bob/start")
        link.parent.mkdir(parents=True)
        link.symlink_to(self.launcher.program)
        self.assert_home("/Users/bob/start", b"/Users/bob")

    def test_a_symbolic_link_among_the_directories_is_not_resolved(self):
        self.copy_to("/Users/alice/bin/OrvaneService")
        self.launcher.root.path("/Users/bob").symlink_to("alice")
        self.assert_home("/Users/bob/bin/OrvaneService", b"/Users/bob")

    def test_dots_in_the_programs_path_stay(self):
        self.copy_to("/Users/alice/OrvaneService")
        self.launcher.root.path("/Users/bob").mkdir()
        self.assert_home("/Users/bob/../alice/./OrvaneService", b"/Users/bob")

    def test_from_the_root_directory_the_runtime_is_looked_for_there(self):
        self.launcher.put_runtime("")
        self.assertEqual(self.launcher.run(cwd="/"), finished())

    def test_from_a_directory_without_a_runtime_the_program_does_not_start(self):
        run = self.launcher.run(cwd="/Users")
        status, said = platform.no_runtime(self.launcher.program)
        self.assertRegex(run.stderr, said)
        self.assertEqual(run, Run(status, b"", run.stderr, [], normal_end=False))

    def test_the_runtime_is_found_in_the_server_directory_and_then_in_the_jli_directory(self):
        jre = f"/Applications/{CONTENTS}/Resources/jre/lib"
        self.launcher.root.put(f"{jre}/jli/{LIBRARY}", b"not a library")
        self.assertEqual(self.launcher.run(), finished())
        self.launcher.put_runtime(f"/Applications/{CONTENTS}", "jli")
        self.launcher.root.path(f"{jre}/server/{LIBRARY}").unlink()
        self.assertEqual(self.launcher.run(), finished())

    def test_variables_that_others_read_change_nothing(self):
        self.assertEqual(self.launcher.run(env={
            "HOME": "/Users/bob", "USER": "bob", "JAVA_HOME": "/Users", "LANG": "tr_TR.UTF-8",
            "JAVA_TOOL_OPTIONS": "-Xmx1g"}), finished())
