#include "jvmargs/executable_path.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>

namespace {

using Buffer = std::array<char, 8192>;

Buffer filled() {
    Buffer buffer{};
    buffer.fill('#');
    return buffer;
}

std::string ownPath() {
    Buffer buffer = filled();
    std::uint32_t size = buffer.size();
    EXPECT_EQ(launcher::getExecutablePath(buffer.data(), &size), 0);
    return buffer.data();
}

TEST(ExecutablePath, It_is_the_absolute_path_of_the_running_executable) {
    const std::filesystem::path path = ownPath();
    EXPECT_TRUE(path.is_absolute());
    EXPECT_TRUE(std::filesystem::equivalent(path, TEST_EXECUTABLE)) << path;
}

TEST(ExecutablePath, A_buffer_that_just_holds_it_is_filled_and_not_overrun) {
    const std::string path = ownPath();
    Buffer expected = filled();
    path.copy(expected.data(), path.size());
    expected.at(path.size()) = '\0';
    Buffer buffer = filled();
    auto size = static_cast<std::uint32_t>(path.size() + 1);
    EXPECT_EQ(launcher::getExecutablePath(buffer.data(), &size), 0);
    EXPECT_EQ(buffer, expected);
}

TEST(ExecutablePath, A_buffer_that_is_too_small_is_left_unchanged_and_the_required_size_stored) {
    const std::string path = ownPath();
    for (const std::size_t capacity : {path.size(), std::size_t{1}, std::size_t{0}}) {
        Buffer buffer = filled();
        auto size = static_cast<std::uint32_t>(capacity);
        EXPECT_EQ(launcher::getExecutablePath(buffer.data(), &size), -1);
        EXPECT_EQ(buffer, filled());
        EXPECT_EQ(size, path.size() + 1);
    }
}

}  // namespace
