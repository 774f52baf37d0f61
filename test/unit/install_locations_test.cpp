#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

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

struct Case {
    std::string what;
    std::string path;
    std::string expected;
};

TEST(InstallLocations, The_executables_directory_ends_before_its_last_slash_or_backslash) {
    const std::string directory = "/" + std::string(1014, 'd');
    for (const auto& [what, path, expected] : std::vector<Case>{
             {"a path", "/Users/user1/Applications/App.app/Contents/MacOS/service",
              "/Users/user1/Applications/App.app/Contents/MacOS"},
             {"in the root directory it is empty", "/service", ""},
             {"without a separator it is the whole path", "service", "service"},
             {"a backslash alone", "dir\\service", "dir"},
             {"a backslash last", "/a/b\\service", "/a/b"},
             {"a slash last", "\\a\\b/service", "\\a\\b"},
             {"dots and double slashes stay", "/a/./../b//c/service", "/a/./../b//c"},
             {"a double slash leaves one", "/a//service", "/a/"},
             {"foreign bytes stay", "/\xff\x80 \n/service", "/\xff\x80 \n"},
             {"1023 bytes fit", directory + "/service", directory},
             {"1024 bytes do not", directory + "d/service", ""},
         }) {
        EXPECT_EQ(exeDirOf(path), expected) << what;
    }
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

TEST(InstallLocations, The_home_directory_is_named_after_what_follows_the_first_Users) {
    for (const auto& [what, directory, expected] : std::vector<Case>{
             {"a home", "/Users/user1/Applications/App.app/Contents/MacOS", "/Users/user1/S"},
             {"what precedes is dropped", "/Volumes/Data/Users/user2/App.app", "/Users/user2/S"},
             {"a later one does not count", "/Users/first/Users/second/MacOS", "/Users/first/S"},
             {"a home may end the directory", "/Users/user1", "/Users/user1/S"},
             {"among the homes the slash is doubled", "/Users", "/Users//S"},
             {"among the homes with a slash too", "/Users/", "/Users//S"},
             {"a backslash does not end the name", "/Users/a\\b/MacOS", "/Users/a\\b/S"},
             {"without Users it begins at index 6", "/Applications/App.app", "/Users/cations/S"},
             {"the case counts", "/users/alice/MacOS", "/Users//S"},
             {"at index 6 the directory may end", "123456", "/Users//S"},
             {"or have one byte", "1234567", "/Users/7/S"},
         }) {
        EXPECT_EQ(userPathIn(directory), expected) << what;
    }
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

TEST(InstallLocations, Any_of_the_separators_ends_the_home_directories_name) {
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

TEST(InstallLocations, The_executables_path_is_asked_once_for_each_path_and_not_remembered) {
    EXPECT_EQ(userPathIn("/Users/alice/MacOS"), "/Users/alice/S");
    EXPECT_EQ(executable::timesAsked, 1);
    EXPECT_EQ(userPathIn("/Users/bob/MacOS"), "/Users/bob/S");
    EXPECT_EQ(executable::timesAsked, 1);
}

TEST(InstallLocations, The_system_wide_override_file_lies_in_the_data_directory) {
    executable::liesAt("/Users/alice/MacOS/service");
    EXPECT_EQ(launcher::getJVMArgsFilePath(true), SYSTEM_FILE);
    EXPECT_EQ(executable::timesAsked, 0);
}

TEST(InstallLocations, The_per_user_override_file_lies_in_the_home_directory) {
    executable::liesAt("/Users/alice/MacOS/service");
    EXPECT_EQ(launcher::getJVMArgsFilePath(false), "/Users/alice" + SYSTEM_FILE);
    EXPECT_EQ(executable::timesAsked, 1);
}

TEST(InstallLocations, The_per_user_override_file_is_out_of_range_where_its_home_is) {
    executable::liesAt("/service");
    EXPECT_THROW(launcher::getJVMArgsFilePath(false), std::out_of_range);
    EXPECT_EQ(launcher::getJVMArgsFilePath(true), SYSTEM_FILE);
}

}  // namespace
