#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "jvmargs/executable_path.h"
#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace {

int questions = 0;  // how often the platform was asked for the executable's path

/// Every test begins with a fresh runtime and has both streams to itself.
class Main : public testing::Test {
protected:
    Main() { runtime::reset(); }
    ~Main() override {
        std::cout.rdbuf(stdoutBuffer);
        std::cerr.rdbuf(stderrBuffer);
    }

    std::string printed() const { return console.str(); }

    /// A per-user run, so that no test reads an override file of this machine.
    static int run() {
        questions = 0;
        std::string program = "OrvaneService";
        std::string userInstall = "-Duser.install=1";
        char* argv[] = {program.data(), userInstall.data(), nullptr};
        return launcherMain(2, argv);
    }

private:
    std::stringbuf console;
    std::streambuf* stdoutBuffer = std::cout.rdbuf(&console);
    std::streambuf* stderrBuffer = std::cerr.rdbuf(&console);
};

TEST_F(Main, Without_even_a_program_name_it_throws_before_anything_is_printed) {
    char* argv[] = {nullptr, nullptr};
    EXPECT_THROW(launcherMain(0, argv), std::length_error);
    EXPECT_EQ(printed(), "");
    EXPECT_TRUE(runtime::calls().empty());
}

TEST_F(Main, A_per_user_run_asks_where_it_is_for_the_bundle_the_data_and_the_override_file) {
    std::vector<std::string> options;
    runtime::reset([&options](const JavaVMInitArgs& init) {
        for (jint i = 0; i < init.nOptions; ++i) {
            options.emplace_back(init.options[i].optionString);
        }
    });
    EXPECT_EQ(run(), EXIT_SUCCESS);
    EXPECT_EQ(questions, 3);
    const auto has = [&options](const std::string& option) {
        return std::find(options.begin(), options.end(), option) != options.end();
    };
    EXPECT_TRUE(
        has("-Djava.library.path=/Users/1/Applications/Orvane.app/Contents/Library/LaunchServices/"
            "OrvaneService.app/Contents/Frameworks"));
    EXPECT_TRUE(
        has("-Dorv.service.upgrade.path=/Users/2/Library/Application Support/Quillrest/upgrade"));
}

TEST_F(Main, It_returns_its_status_instead_of_calling_exit) {
    for (const int status : {EXIT_SUCCESS, EXIT_FAILURE}) {
        setenv("RUNTIME_CREATE_STATUS", std::to_string(-status).c_str(), 1);
        // Only a run that returns reaches _Exit.
        EXPECT_EXIT(std::_Exit(40 + run()), testing::ExitedWithCode(40 + status), "");
    }
    unsetenv("RUNTIME_CREATE_STATUS");
}

}  // namespace

/// In place of the platform's answer: a home directory that is named by the number of the question.
int launcher::getExecutablePath(char* buffer, std::uint32_t* size) {
    const std::string path = "/Users/" + std::to_string(++questions) + "/OrvaneService";
    buffer[path.copy(buffer, *size - 1)] = '\0';
    return 0;
}
