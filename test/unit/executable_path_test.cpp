#include "jvmargs/executable_path.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

namespace {

TEST(ExecutablePath, It_is_written_where_it_just_fits_and_otherwise_only_its_size_is_stored) {
    std::array<char, 8192> buffer{};
    std::uint32_t size = buffer.size();
    ASSERT_EQ(launcher::getExecutablePath(buffer.data(), &size), 0);
    const std::string path = buffer.data();
    const auto needed = static_cast<std::uint32_t>(path.size() + 1);
    for (const std::uint32_t capacity : {needed, needed - 1, 1U, 0U}) {
        const bool fits = capacity == needed;
        buffer.fill('#');
        auto expected = buffer;
        if (fits) {
            path.copy(expected.data(), path.size());
            expected.at(path.size()) = '\0';
        }
        size = capacity;
        EXPECT_EQ(launcher::getExecutablePath(buffer.data(), &size), fits ? 0 : -1);
        EXPECT_EQ(size, needed);
        EXPECT_EQ(buffer, expected);
    }
}

}  // namespace
