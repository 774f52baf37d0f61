#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Every other program of unit tests is checked like this one when it exits.
TEST(LeakDeathTest, Memory_that_is_never_freed_fails_a_test) {
    EXPECT_EXIT(
        {
            for (int i = 0; i < 10; ++i) {  // The stack may keep the last one's address.
                static_cast<void>(!new int[100]);
            }
            std::exit(EXIT_SUCCESS);
        },
        testing::ExitedWithCode(1), "LeakSanitizer: detected memory leaks");
}

}  // namespace
