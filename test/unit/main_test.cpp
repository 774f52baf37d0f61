#include <gtest/gtest.h>

#include <stdexcept>

#include "runtime.h"

int launcherMain(int argc, char* argv[]);

namespace {

TEST(Main, Without_even_a_program_name_it_throws_before_a_vm_is_created) {
    runtime::reset();
    char* argv[] = {nullptr, nullptr};
    EXPECT_THROW(launcherMain(0, argv), std::length_error);
    EXPECT_TRUE(runtime::calls().empty());
}

}  // namespace
