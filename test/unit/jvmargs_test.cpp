#include "jvmargs/jvmargs.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "executable_path.h"

namespace {

std::string exeDirOf(const std::string& path) {
    executablePath = path;
    return launcher::getExeDir();
}

std::string userPathIn(const std::string& exeDir, const std::string& root = "/Users/",
                       const std::string& separators = "/") {
    executablePath = exeDir + "/service";
    return launcher::getUserSpecificPath(root, "/S", separators);
}

/// Leaves no zero byte where the next function called has its variables.
[[gnu::noinline]] void dirtyStack() {
    volatile char bytes[65536];
    for (volatile char& byte : bytes) {
        byte = 'x';
    }
}

struct Case {
    std::string description;
    std::string path;
    std::string expected;
};

TEST(InstallLocations, The_executables_directory_ends_before_its_last_slash_or_backslash) {
    const std::string directory = "/" + std::string(1014, 'd');
    for (const auto& [description, path, expected] : std::vector<Case>{
             {"in the root directory it is empty", "/service", ""},
             {"without a separator it is the whole path", "service", "service"},
             {"a backslash alone", "dir\\service", "dir"},
             {"a backslash last", "/a/b\\service", "/a/b"},
             {"a slash last", "\\a\\b/service", "\\a\\b"},
             {"dots and double slashes stay", "/a/./../b//c//service", "/a/./../b//c/"},
             {"any bytes stay", "/\xff\x80 \n/service", "/\xff\x80 \n"},
             {"1023 bytes fit", directory + "/service", directory},
             {"1024 bytes do not", directory + "d/service", ""},
         }) {
        EXPECT_EQ(exeDirOf(path), expected) << description;
    }
}

TEST(InstallLocations, A_path_that_does_not_fit_leaves_nothing_of_what_was_on_the_stack) {
    executablePath = std::string(2000, 'd');
    dirtyStack();
    EXPECT_EQ(launcher::getExeDir(), "");
}

TEST(InstallLocations, The_home_directory_is_named_by_the_component_after_the_first_Users) {
    for (const auto& [description, directory, expected] : std::vector<Case>{
             {"what precedes is dropped", "/Volumes/Data/Users/user2/App.app", "/Users/user2/S"},
             {"a later one does not count", "/Users/first/Users/second/MacOS", "/Users/first/S"},
             {"a home may end the directory", "/Users/user1", "/Users/user1/S"},
             {"among the homes the name is empty", "/Users", "/Users//S"},
             {"among the homes with a slash too", "/Users/", "/Users//S"},
             {"a backslash does not end the name", "/Users/a\\b/MacOS", "/Users/a\\b/S"},
             {"without Users it begins at index 6", "/Applications/App.app", "/Users/cations/S"},
             {"the case counts", "/users/alice/MacOS", "/Users//S"},
             {"at index 6 the directory may end", "123456", "/Users//S"},
             {"or have one byte", "1234567", "/Users/7/S"},
         }) {
        EXPECT_EQ(userPathIn(directory), expected) << description;
    }
}

TEST(InstallLocations, A_directory_of_fewer_than_6_bytes_without_Users_is_out_of_range) {
    for (const std::string directory : {"", "/", "/opt", "12345"}) {
        EXPECT_THROW(userPathIn(directory), std::out_of_range) << directory;
    }
}

TEST(InstallLocations, Any_of_the_separators_ends_the_home_directorys_name) {
    EXPECT_EQ(userPathIn("/Users/a:b;c/MacOS", "/Users/", ";:"), "/Users/a/S");
    EXPECT_EQ(userPathIn("/Users/a;b:c/MacOS", "/Users/", ";:"), "/Users/a/S");
    EXPECT_EQ(userPathIn("/Users/alice/MacOS", "/Users/", ""), "/Users/alice/MacOS/S");
}

TEST(InstallLocations, Another_root_replaces_Users_and_an_empty_one_is_found_at_the_start) {
    EXPECT_EQ(userPathIn("/Users/alice/home/bob/MacOS", "/home/"), "/home/bob/S");
    EXPECT_EQ(userPathIn("alice/MacOS", ""), "alice/S");
    EXPECT_EQ(userPathIn("/Users/alice", ""), "/S");
}

}  // namespace
