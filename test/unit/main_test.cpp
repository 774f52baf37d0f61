#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace {

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
