#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "executable_path.h"
#include "jvmargs/jvmargs.h"

namespace {

using Strings = std::vector<std::string>;

/// The options all levels of tests expect, for a home folder, or for none.
Strings expectedOptions(const std::string& home) {
    const std::string placeholder = "{home}";
    std::ifstream file(DEFAULT_OPTIONS);
    Strings options;
    for (std::string line; std::getline(file, line);) {
        if (const auto position = line.find(placeholder); position != std::string::npos) {
            line.replace(position, placeholder.size(), home);
        }
        options.push_back(line);
    }
    return options;
}

TEST(DefaultOptions, System_wide_they_name_the_system_folders) {
    executable::liesAt("/Applications/Orvane.app/MacOS/service");
    EXPECT_EQ(launcher::getDefaultJVMArgs(true), expectedOptions(""));
}

TEST(DefaultOptions, System_wide_the_executables_place_does_not_count_and_is_not_asked) {
    for (const std::string path : {"/Users/alice/MacOS/service", "/service", ""}) {
        executable::liesAt(path);
        EXPECT_EQ(launcher::getDefaultJVMArgs(true), expectedOptions(""));
        EXPECT_EQ(executable::timesAsked, 0);
    }
}

TEST(DefaultOptions, Per_user_they_name_the_folders_of_the_home_the_executable_lies_in) {
    executable::liesAt("/Users/alice/Downloads/service");
    EXPECT_EQ(launcher::getDefaultJVMArgs(false), expectedOptions("/Users/alice"));
}

TEST(DefaultOptions, Per_user_the_executables_path_is_asked_twice) {
    executable::liesAt("/Users/alice/MacOS/service");
    launcher::getDefaultJVMArgs(false);
    EXPECT_EQ(executable::timesAsked, 2);
}

TEST(DefaultOptions, A_per_user_run_asks_for_the_executables_path_three_times) {
    executable::liesAt("/Users/alice/MacOS/service");
    launcher::getDefaultJVMArgs(false);
    launcher::getJVMArgsFilePath(false);
    EXPECT_EQ(executable::timesAsked, 3);
}

TEST(DefaultOptions, A_home_folder_of_no_name_is_used_as_it_is) {
    executable::liesAt("/Users/service");
    EXPECT_EQ(launcher::getDefaultJVMArgs(false), expectedOptions("/Users/"));
}

TEST(DefaultOptions, Per_user_outside_any_home_folder_the_path_yields_the_name) {
    executable::liesAt("/Applications/Orvane.app/MacOS/service");
    EXPECT_EQ(launcher::getDefaultJVMArgs(false), expectedOptions("/Users/cations"));
}

TEST(DefaultOptions, Per_user_a_short_directory_outside_any_home_folder_is_out_of_range) {
    for (const std::string path : {"/service", "/opt/service", "12345/service"}) {
        executable::liesAt(path);
        EXPECT_THROW(launcher::getDefaultJVMArgs(false), std::out_of_range) << path;
        EXPECT_EQ(executable::timesAsked, 1);
    }
}

TEST(DefaultOptions, A_second_call_gives_the_same_list) {
    executable::liesAt("/Users/alice/MacOS/service");
    const Strings first = launcher::getDefaultJVMArgs(false);
    EXPECT_EQ(launcher::getDefaultJVMArgs(false), first);
}

}  // namespace
