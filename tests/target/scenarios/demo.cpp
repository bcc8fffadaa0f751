#include <gtest/gtest.h>

#include <iostream>

#include "target/scenarios/scanner_process.h"
#include "tvkctl/src/child_process.h"

TEST(demo, session_with_the_scanner_goes_as_it_must)
{
    constexpr tvkctl::milliseconds kLimit{50'000};
    const target::scanner_process scanner("plain");
    tvkctl::child_process demo(tvkctl::launch{"/usr/bin/target_demo"});
    EXPECT_EQ(demo.wait_for_exit(kLimit), tvkctl::exit_status::exited(0));
    if (HasFailure())
        std::cout << demo.standard_output(kLimit);
}
