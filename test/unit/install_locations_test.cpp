#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "executable_path.h"
#include "jvmargs/jvmargs.h"

namespace {

const std::string SYSTEM_FILE = "/Library/Application Support/Quillrest/conf/jvm_args";

std::string exeDirOf(const std::string& path) {
    executable::liesAt(path);
    return launcher::getExeDir();
}

std::string userPathIn(const std::string& exeDir, const std::string& root = "/Users/",
                       const std::string& separators = "/") {
    executable::liesAt(exeDir + "/service");
    return launcher::getUserSpecificPath(root, "/S", separators);
}

TEST(InstallLocations, The_executables_directory_ends_before_its_last_slash) {
    EXPECT_EQ(exeDirOf("/Users/user1/Applications/App.app/Contents/MacOS/service"),
              "/Users/user1/Applications/App.app/Contents/MacOS");
}

TEST(InstallLocations, The_directory_of_an_executable_in_the_root_folder_is_empty) {
    EXPECT_EQ(exeDirOf("/service"), "");
}

TEST(InstallLocations, An_executable_without_a_separator_is_its_own_directory) {
    EXPECT_EQ(exeDirOf("service"), "service");
}

TEST(InstallLocations, A_backslash_separates_the_executables_directory_too) {
    EXPECT_EQ(exeDirOf("dir\\service"), "dir");
    EXPECT_EQ(exeDirOf("/a/b\\service"), "/a/b");
    EXPECT_EQ(exeDirOf("\\a\\b/service"), "\\a\\b");
}

TEST(InstallLocations, Dots_double_slashes_and_foreign_bytes_of_the_executables_path_stay) {
    EXPECT_EQ(exeDirOf("/a/./../b//c/service"), "/a/./../b//c");
    EXPECT_EQ(exeDirOf("/a//service"), "/a/");
    EXPECT_EQ(exeDirOf("/\xff\x80 \n/service"), "/\xff\x80 \n");
}

TEST(InstallLocations, An_executables_path_of_1023_bytes_fits) {
    const std::string directory = "/" + std::string(1023 - 2 - 7, 'd');
    EXPECT_EQ(exeDirOf(directory + "/service"), directory);
    EXPECT_EQ(executable::path().size(), 1023U);
}

TEST(InstallLocations, An_executables_path_of_1024_bytes_gives_an_empty_directory) {
    const std::string directory = "/" + std::string(1024 - 2 - 7, 'd');
    EXPECT_EQ(exeDirOf(directory + "/service"), "");
    EXPECT_EQ(executable::path().size(), 1024U);
}

TEST(InstallLocations, Nothing_of_an_earlier_path_is_left_where_one_does_not_fit) {
    EXPECT_EQ(exeDirOf("/" + std::string(1000, 'd') + "/service").size(), 1001U);
    EXPECT_EQ(exeDirOf("/" + std::string(2000, 'd') + "/service"), "");
}

TEST(InstallLocations, The_platform_is_offered_1024_bytes) {
    exeDirOf("/service");
    EXPECT_EQ(executable::capacity, 1024U);
}

TEST(InstallLocations, The_home_folder_is_named_after_what_follows_Users) {
    EXPECT_EQ(userPathIn("/Users/user1/Applications/App.app/Contents/MacOS"), "/Users/user1/S");
}

TEST(InstallLocations, What_precedes_the_first_Users_is_dropped) {
    EXPECT_EQ(userPathIn("/Volumes/Data/Users/user2/App.app/Contents/MacOS"), "/Users/user2/S");
}

TEST(InstallLocations, The_first_Users_counts_and_not_a_later_one) {
    EXPECT_EQ(userPathIn("/Users/first/Users/second/MacOS"), "/Users/first/S");
}

TEST(InstallLocations, A_home_folder_may_end_the_directory) {
    EXPECT_EQ(userPathIn("/Users/user1"), "/Users/user1/S");
}

TEST(InstallLocations, An_executable_right_among_the_home_folders_doubles_the_slash) {
    EXPECT_EQ(userPathIn("/Users"), "/Users//S");
    EXPECT_EQ(userPathIn("/Users/"), "/Users//S");
}

TEST(InstallLocations, Outside_any_home_folder_the_name_is_taken_from_index_6) {
    EXPECT_EQ(userPathIn("/Applications/App.app/Contents/MacOS"), "/Users/cations/S");
    EXPECT_EQ(userPathIn("/users/alice/MacOS"), "/Users//S");
    EXPECT_EQ(userPathIn("123456"), "/Users//S");
    EXPECT_EQ(userPathIn("1234567"), "/Users/7/S");
}

TEST(InstallLocations, A_directory_of_fewer_than_6_bytes_without_Users_is_out_of_range) {
    for (const std::string directory : {"", "/", "/opt", "12345"}) {
        EXPECT_THROW(userPathIn(directory), std::out_of_range) << directory;
    }
}

TEST(InstallLocations, An_executables_path_that_does_not_fit_is_out_of_range_per_user) {
    executable::liesAt("/Users/alice/" + std::string(1024, 'd') + "/service");
    EXPECT_THROW(launcher::getUserSpecificPath("/Users/", "/S", "/"), std::out_of_range);
}

TEST(InstallLocations, A_backslash_does_not_end_the_home_folders_name) {
    EXPECT_EQ(userPathIn("/Users/back\\slash/MacOS"), "/Users/back\\slash/S");
}

TEST(InstallLocations, Any_of_the_separators_ends_the_home_folders_name) {
    EXPECT_EQ(userPathIn("/Users/a:b;c/MacOS", "/Users/", ";:"), "/Users/a/S");
    EXPECT_EQ(userPathIn("/Users/a;b:c/MacOS", "/Users/", ";:"), "/Users/a/S");
}

TEST(InstallLocations, Without_separators_the_name_is_all_the_rest) {
    EXPECT_EQ(userPathIn("/Users/alice/MacOS", "/Users/", ""), "/Users/alice/MacOS/S");
    EXPECT_EQ(userPathIn("/Users/alice", "/Users/", ":"), "/Users/alice/S");
}

TEST(InstallLocations, An_empty_root_is_found_at_the_start) {
    EXPECT_EQ(userPathIn("alice/MacOS", ""), "alice/S");
    EXPECT_EQ(userPathIn("/Users/alice", ""), "/S");
}

TEST(InstallLocations, Another_root_is_looked_for_and_put_in_front) {
    EXPECT_EQ(userPathIn("/Users/alice/home/bob/MacOS", "/home/"), "/home/bob/S");
}

TEST(InstallLocations, The_executables_path_is_asked_once_for_each_path_in_a_home_folder) {
    userPathIn("/Users/alice/MacOS");
    EXPECT_EQ(executable::timesAsked, 1);
    launcher::getUserSpecificPath("/Users/", "/S", "/");
    EXPECT_EQ(executable::timesAsked, 2);
}

TEST(InstallLocations, The_executables_path_is_not_remembered) {
    EXPECT_EQ(userPathIn("/Users/alice/MacOS"), "/Users/alice/S");
    EXPECT_EQ(userPathIn("/Users/bob/MacOS"), "/Users/bob/S");
}

TEST(InstallLocations, The_system_wide_override_file_lies_in_the_data_folder) {
    executable::liesAt("/Users/alice/MacOS/service");
    EXPECT_EQ(launcher::getJVMArgsFilePath(true), SYSTEM_FILE);
    EXPECT_EQ(executable::timesAsked, 0);
}

TEST(InstallLocations, The_per_user_override_file_lies_in_the_home_folder) {
    executable::liesAt("/Users/alice/MacOS/service");
    EXPECT_EQ(launcher::getJVMArgsFilePath(false), "/Users/alice" + SYSTEM_FILE);
    EXPECT_EQ(executable::timesAsked, 1);
}

TEST(InstallLocations, The_per_user_override_file_is_out_of_range_where_its_folder_is) {
    executable::liesAt("/service");
    EXPECT_THROW(launcher::getJVMArgsFilePath(false), std::out_of_range);
    EXPECT_EQ(launcher::getJVMArgsFilePath(true), SYSTEM_FILE);
}

}  // namespace
