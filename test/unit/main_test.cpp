#include <gtest/gtest.h>

#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "executable_path.h"
#include "jvm/jvm.h"
#include "jvmargs/jvmargs.h"
#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace launcher {
void printUserLevel(bool isUser);
}

namespace {

/// What every function of the product gives: texts, and the runtime's record. Last, argv.
std::vector<std::string> everything() {
    const std::ios_base::Init streams;
    executable::liesAt("/Users/alice/MacOS/service");
    runtime::reset();
    std::ostringstream output;
    std::streambuf* const console = std::cout.rdbuf(output.rdbuf());
    std::string arguments[] = {"service", "-Duser.install=1", "-Duser.install=0", "a"};
    char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                    arguments[3].data(), nullptr};
    const int status = launcherMain(4, argv);
    launcher::printUserLevel(false);
    std::cout.rdbuf(console);
    std::vector<std::string> all = runtime::calls();
    for (const bool isSystem : {true, false}) {
        const auto options = launcher::getDefaultJVMArgs(isSystem);
        all.insert(all.end(), options.begin(), options.end());
        all.push_back(launcher::getJVMArgsFilePath(isSystem));
    }
    const launcher::JMethod method{"a/B", "c", "()V"};
    all.insert(all.end(), {std::to_string(status), output.str(), launcher::getExeDir(),
                           launcher::getUserSpecificPath("/Users/", "/S", "/"),
                           std::to_string(method.getHash())});
    all.insert(all.end(), std::begin(arguments), std::end(arguments));
    return all;
}

/// This file is linked first: made before any other static object of the program.
const std::vector<std::string> BEFORE_MAIN = everything();

TEST(Main, Every_function_gives_the_same_before_main) {
    EXPECT_EQ(everything(), BEFORE_MAIN);
}

TEST(Main, The_arguments_are_left_as_they_were) {
    EXPECT_EQ(std::vector<std::string>(BEFORE_MAIN.end() - 4, BEFORE_MAIN.end()),
              (std::vector<std::string>{"service", "-Duser.install=1", "-Duser.install=0", "a"}));
}

TEST(Main, Without_even_a_program_name_it_fails_before_anything_is_printed) {
    runtime::reset();
    std::ostringstream output;
    std::streambuf* const console = std::cout.rdbuf(output.rdbuf());
    char* argv[] = {nullptr, nullptr};
    EXPECT_THROW(launcherMain(0, argv), std::length_error);
    std::cout.rdbuf(console);
    EXPECT_EQ(output.str(), "");
    EXPECT_TRUE(runtime::calls().empty());
}

}  // namespace
