// Every end-to-end test runs in a sandbox of its own, so that tests run side by side and leave nothing on the machine.
#include <gtest/gtest.h>

#include <cstdio>

#include "sandbox.hpp"

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        std::string error;
        if (!sandbox_enter(error)) {
            fprintf(stderr, "end-to-end tests: %s\n", error.c_str());
            return 1;
        }
    }
    return RUN_ALL_TESTS();
}
