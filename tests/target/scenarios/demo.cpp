#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <string>

#include "common/process/child_process.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "target/scanner/test_chart.h"
#include "target/scenarios/scanner_process.h"

TEST(demo, shows_every_step_and_leaves_the_picture_and_the_log)
{
    constexpr tarvik::milliseconds kLimit{50'000};
    const std::string folder = "/run/demo";
    const virtual_scanner::test_chart chart(virtual_scanner::test_chart::kLowestResolution);
    std::filesystem::create_directory(folder);
    support::make_log_directory();
    const target::scanner_process scanner("plain");
    tarvik::launch how;
    how.path = "/usr/bin/demo";
    how.arguments = {std::to_string(chart.resolution()), folder};
    tarvik::child_process demo(how);
    EXPECT_EQ(demo.wait_for_exit(kLimit), tarvik::exit_status::exited(0));
    const std::string picture = "P5 " + std::to_string(chart.width()) + " " + std::to_string(chart.height()) +
                                " 255\n" + std::string(chart.pixels().begin(), chart.pixels().end());
    EXPECT_TRUE(support::read_file(folder + "/scan.pgm") == picture) << picture.size() << " bytes, or others";
    EXPECT_TRUE(support::read_file(folder + "/tvkintif.log") == support::raw_log());
    if (HasFailure())
        std::cout << demo.standard_output(kLimit);
}
