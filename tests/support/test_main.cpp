#include <gtest/gtest.h>

#include "support/private_paths.h"

/// The main of every test program: tests run with a log and a plugin directory of their own.
int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests))
        support::enter_private_paths();
    return RUN_ALL_TESTS();
}
