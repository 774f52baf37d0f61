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

    def test_the_paths_of_a_system_wide_run_do_not_depend_on_the_programs_place(self):
        for program in (self.copy_to("/OrvaneService"), self.path_of(1025),
                        self.copy_to("/Users/alice/OrvaneService")):
            with self.subTest(program):
                self.assertEqual(self.launcher.run(program=program), finished())

    def test_the_home_folder_is_named_by_the_programs_place(self):
        self.assert_home(self.copy_to("/Users/alice/Downloads/OrvaneService"), b"/Users/alice")

    def test_a_program_right_in_a_home_folder_belongs_to_it(self):
        self.assert_home(self.copy_to("/Users/alice/OrvaneService"), b"/Users/alice")

    def test_a_home_folders_name_may_hold_blanks_and_bytes_that_are_not_utf_8(self):
        home = b"/Users/al ice\xff\\"
        self.assert_home(self.copy_to(os.fsdecode(home) + "/bin/OrvaneService"), home)

    def test_what_precedes_the_first_users_folder_is_dropped(self):
        self.assert_home(self.copy_to("/Volumes/Data/Users/user2/App.app/OrvaneService"),
                         b"/Users/user2")

    def test_the_first_users_folder_of_the_path_counts(self):
        self.assert_home(self.copy_to("/Users/first/Users/second/OrvaneService"), b"/Users/first")

    def test_a_program_right_among_the_home_folders_has_a_home_without_a_name(self):
        self.assert_home(self.copy_to("/Users/OrvaneService"), b"/Users/")

    def test_outside_any_home_folder_the_name_is_what_the_path_yields(self):
        self.assert_home(self.launcher.program, b"/Users/cations")

    def test_a_program_in_the_root_folder_ends_abnormally_per_user(self):
        self.assert_out_of_range(self.copy_to("/service"), directory_size=0)

    def test_a_program_in_a_folder_of_five_bytes_ends_abnormally_per_user(self):
        self.assert_out_of_range(self.copy_to("/five/service"), directory_size=5)

    def test_a_program_in_a_folder_of_six_bytes_has_a_home_without_a_name(self):
        self.assert_home(self.copy_to("/sixth/service"), b"/Users/")

    def test_a_backslash_ends_the_programs_folder(self):
        self.assert_out_of_range(self.copy_to("/a\\service"), directory_size=2)

    def test_program_paths_of_1022_and_1023_bytes_are_known(self):
        for size in 1022, 1023:
            with self.subTest(size):
                self.assert_home(self.path_of(size), b"/Users/alice")

    def test_program_paths_of_1024_and_1025_bytes_end_abnormally_per_user(self):
        for size in 1024, 1025:
            with self.subTest(size):
                self.assert_out_of_range(self.path_of(size), directory_size=0)

    def test_a_relative_start_takes_the_working_directory(self):
        launcher = self.launcher = Launcher(self, "/Users/alice/Applications")
        contents = launcher.folder.rpartition("/")[0]
        for program, cwd in (("./OrvaneService", launcher.folder),
                             ("../MacOS/OrvaneService", launcher.folder),
                             ("../MacOS/OrvaneService", contents + "/Resources"),
                             (".//OrvaneService", launcher.folder)):
            with self.subTest(program):
                self.assert_home(program, b"/Users/alice", cwd)

    def test_a_start_from_the_folder_above_finds_the_home_but_another_runtime(self):
        self.launcher.root.put("/Users/alice/MacOS/OrvaneService",
                               self.launcher.root.path(self.launcher.program))
        self.launcher.put_runtime("/Users")
        self.assert_home("MacOS/OrvaneService", b"/Users/alice", "/Users/alice")

    def test_a_relative_start_from_among_the_home_folders_names_the_home_whole(self):
        self.launcher.put_runtime("")
        for name in "alice", ".alice", "..alice":
            with self.subTest(name):
                self.copy_to(f"/Users/{name}/bin/OrvaneService")
                self.assert_home(name + "/bin/OrvaneService", b"/Users/" + name.encode(), "/Users")

    def test_only_a_leading_dot_slash_is_taken_off_a_relative_start(self):
        path = self.path_of(1023)
        folder, _, name = path.rpartition("/")
        parent, _, last = folder.rpartition("/")
        for cwd in folder, parent:
            self.launcher.put_runtime(cwd.rpartition("/")[0])
        self.assert_home("./" + name, b"/Users/alice", folder)
        self.assert_home(f"./{last}/{name}", b"/Users/alice", parent)
        self.assert_out_of_range("././" + name, 0, folder)
        self.assert_out_of_range(".//" + name, 0, folder)
        self.assert_out_of_range(f"../{last}/{name}", 0, folder)

    def test_a_start_through_a_symbolic_link_belongs_to_the_links_place(self):
        link = self.launcher.root.path("/Users/bob/start")
        link.parent.mkdir(parents=True)
        link.symlink_to(self.launcher.program)
        self.assert_home("/Users/bob/start", b"/Users/bob")

    def test_a_symbolic_link_among_the_folders_is_not_resolved(self):
        self.copy_to("/Users/alice/bin/OrvaneService")
        self.launcher.root.path("/Users/bob").symlink_to("alice")
        self.assert_home("/Users/bob/bin/OrvaneService", b"/Users/bob")

    def test_dots_in_the_programs_path_stay(self):
        self.copy_to("/Users/alice/OrvaneService")
        self.launcher.root.path("/Users/bob").mkdir()
        self.assert_home("/Users/bob/../alice/./OrvaneService", b"/Users/bob")

    def test_from_the_root_folder_the_runtime_is_looked_for_there(self):
        self.launcher.put_runtime("")
        self.assertEqual(self.launcher.run(cwd="/"), finished())

    def test_from_a_folder_without_a_runtime_the_program_does_not_start(self):
        run = self.launcher.run(cwd="/Users")
        status, said = platform.no_runtime(self.launcher.program)
        self.assertRegex(run.stderr, said)
        self.assertEqual(run, Run(status, b"", run.stderr, [], normal_end=False))

    def test_the_runtime_is_found_in_the_server_folder_and_then_in_the_jli_folder(self):
        jre = f"/Applications/{CONTENTS}/Resources/jre/lib"
        self.launcher.root.put(f"{jre}/jli/{LIBRARY}", b"not a library")
        self.assertEqual(self.launcher.run(), finished())
        self.launcher.put_runtime(f"/Applications/{CONTENTS}", "jli")
        self.launcher.root.path(f"{jre}/server/{LIBRARY}").unlink()
        self.assertEqual(self.launcher.run(), finished())

    def test_the_environment_does_not_count(self):
        with_variables = {"HOME": "/Users/bob", "USER": "bob", "JAVA_HOME": "/Users",
                          "JAVA_TOOL_OPTIONS": "-Xmx1g", "LANG": "tr_TR.UTF-8"}
        result = self.launcher.root.run([self.launcher.program], cwd=self.launcher.folder,
                                        env=with_variables)
        self.assertEqual(result, finished()[:3])
