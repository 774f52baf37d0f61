#include "jvmargs/jvmargs.h"

#include <gtest/gtest.h>

#include <string>

#include "jvmargs/executable_path.h"

namespace {

std::string executablePath;
int questions = 0;  // how often the platform was asked for it

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

TEST(InstallLocations, A_path_without_slash_and_backslash_is_its_own_directory) {
    executablePath = "service";
    EXPECT_EQ(launcher::getExeDir(), "service");
}

TEST(InstallLocations, A_path_that_does_not_fit_leaves_nothing_of_what_was_on_the_stack) {
    executablePath = std::string(2000, 'd');
    dirtyStack();
    EXPECT_EQ(launcher::getExeDir(), "");
}

TEST(InstallLocations, The_home_directory_is_named_by_the_component_after_the_first_Users) {
    EXPECT_EQ(userPathIn("/Users/first/Users/second/MacOS"), "/Users/first/S");
    EXPECT_EQ(userPathIn("/Volumes/Data/Users/user2"), "/Users/user2/S");
    EXPECT_EQ(userPathIn("/users/alice/MacOS"), "/Users//S");
    EXPECT_EQ(userPathIn("1234567"), "/Users/7/S");
}

TEST(InstallLocations, Any_of_the_separators_ends_the_home_directorys_name) {
    EXPECT_EQ(userPathIn("/Users/a:b;c/MacOS", "/Users/", ";:"), "/Users/a/S");
    EXPECT_EQ(userPathIn("/Users/alice/MacOS", "/Users/", ""), "/Users/alice/MacOS/S");
}

TEST(InstallLocations,
     Another_root_replaces_Users_found_or_not_and_an_empty_one_is_found_at_the_start) {
    EXPECT_EQ(userPathIn("/Users/alice/home/bob/MacOS", "/home/"), "/home/bob/S");
    EXPECT_EQ(userPathIn("alice/MacOS", ""), "alice/S");
    EXPECT_EQ(userPathIn("/Users/alice", "/home/"), "/home/s/S");
}

TEST(InstallLocations, System_wide_paths_do_not_ask_for_the_executables) {
    questions = 0;
    launcher::getJVMArgsFilePath(true);
    launcher::getDefaultJVMArgs(true);
    EXPECT_EQ(questions, 0);
}

TEST(DefaultOptions, Two_calls_give_equal_lists) {
    executablePath = "/Users/alice/service";
    for (const bool isSystemInstall : {false, true}) {
        EXPECT_EQ(launcher::getDefaultJVMArgs(isSystemInstall),
                  launcher::getDefaultJVMArgs(isSystemInstall));
    }
}

}  // namespace

/// In place of the platform's answer.
int launcher::getExecutablePath(char* buffer, std::uint32_t* size) {
    ++questions;
    if (executablePath.size() >= *size) {
        return -1;
    }
    buffer[executablePath.copy(buffer, *size)] = '\0';
    return 0;
}
