#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "executable_path.h"
#include "jvmargs/jvmargs.h"

namespace {

using Strings = std::vector<std::string>;

/// The options all levels of tests expect, for a home directory or none.
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

TEST(DefaultOptions, System_wide_the_executables_path_does_not_count_and_is_not_asked) {
    for (const std::string path :
         {"/Applications/Orvane.app/MacOS/service", "/Users/alice/MacOS/service", "/service", ""}) {
        executable::liesAt(path);
        EXPECT_EQ(launcher::getDefaultJVMArgs(true), expectedOptions(""));
        EXPECT_EQ(executable::timesAsked, 0);
    }
}

TEST(DefaultOptions, Per_user_they_name_the_home_that_the_executables_path_yields_asked_twice) {
    for (const auto& [path, home] : {std::pair{"/Users/alice/Downloads/service", "/Users/alice"},
                                     std::pair{"/Users/service", "/Users/"},
                                     std::pair{"/Applications/service", "/Users/cations"}}) {
        executable::liesAt(path);
        EXPECT_EQ(launcher::getDefaultJVMArgs(false), expectedOptions(home)) << path;
        EXPECT_EQ(executable::timesAsked, 2);
    }
}

TEST(DefaultOptions, Per_user_a_short_directory_outside_any_home_directory_is_out_of_range) {
    for (const std::string path : {"/service", "/opt/service", "12345/service"}) {
        executable::liesAt(path);
        EXPECT_THROW(launcher::getDefaultJVMArgs(false), std::out_of_range) << path;
        EXPECT_EQ(executable::timesAsked, 1);
    }
}

}  // namespace
