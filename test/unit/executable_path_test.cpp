#include "jvmargs/executable_path.h"

#include <gtest/gtest.h>

#include <algorithm>
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
        size = capacity;
        EXPECT_EQ(launcher::getExecutablePath(buffer.data(), &size), fits ? 0 : -1);
        EXPECT_EQ(size, needed);
        EXPECT_EQ(std::string(buffer.data(), needed),
                  fits ? path + '\0' : std::string(needed, '#'));
        EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '#'),
                  buffer.size() - (fits ? needed : 0));
    }
}

}  // namespace
