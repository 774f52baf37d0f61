#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "operator/failure.h"

/// Gives each test an empty working directory, below the one in which the program was started.
class Workplace : public ::testing::Test {
public:
    /// What the call throws: exit status and message; "done" if nothing.
    template <typename Call>
    static std::string outcome(Call call) {
        try {
            call();
        } catch (const operator_tool::Failure& failure) {
            return std::to_string(failure.status) + ": " + failure.what();
        }
        return "done";
    }

    /// What a script of the shell prints on both channels; "tool" calls the program that was built,
    /// and "$tool" is its path, to start it in the background: $! is its number then.
    static std::string sh(const std::string& script) {
        const std::string tool = "tool='" OPERATOR_TOOL "'\ntool() { \"$tool\" \"$@\"; }\n";
        const std::string command = "exec 2>&1 </dev/null\nexport tool\n" + tool + script;
        std::string printed;
        FILE* const stream = popen(command.c_str(), "r");
        std::array<char, 4096> buffer{};
        while (const std::size_t got = fread(buffer.data(), 1, buffer.size(), stream)) {
            printed.append(buffer.data(), got);
        }
        pclose(stream);
        return printed;
    }

    struct Script {
        std::string what, text, prints;
    };

    /// Runs scripts that wait at the same time.
    static void expectAll(const std::vector<Script>& scripts) {
        std::vector<std::future<std::string>> printed;
        printed.reserve(scripts.size());
        for (const Script& script : scripts) {
            printed.push_back(std::async(std::launch::async, sh, script.text));
        }
        for (std::size_t index = 0; index < scripts.size(); ++index) {
            EXPECT_EQ(printed[index].get(), scripts[index].prints) << scripts[index].what;
        }
    }

    static void put(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
    }

    /// What the name itself stands for, 0 if nothing.
    static ino_t inode(const std::string& name) {
        struct stat found{};
        return lstat(name.c_str(), &found) == 0 ? found.st_ino : 0;
    }

protected:
    void SetUp() override {
        std::string name = "operator-tool.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        m_before = std::filesystem::current_path();
        m_own = m_before / name;
        std::filesystem::current_path(m_own);
    }

    void TearDown() override {
        std::filesystem::current_path(m_before);
        std::filesystem::remove_all(m_own);
    }

private:
    std::filesystem::path m_before, m_own;
};
