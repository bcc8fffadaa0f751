#include "tvkctl/src/diagnosis/ladder.h"

#include <gtest/gtest.h>

#include "tvkctl/src/machine/command_error.h"

namespace tarvik::tvkctl {

namespace {

rung_result good(situation&)
{
    return {verdict::good, "", "fine"};
}
rung_result doubtful(situation&)
{
    return {verdict::warning, "doubt", "perhaps"};
}
rung_result broken(situation&)
{
    return {verdict::bad, "cause", "broken"};
}
rung_result failing(situation&)
{
    throw command_error(exit_code::usb_unavailable, "no bus", "Look for one.");
}

/// The climb as text: each rung that was told, and the code.
std::string climb_of(const std::vector<rung>& rungs)
{
    situation where{"usb:1a2b:3c4d", {}};
    std::string told;
    const exit_code code = climb(rungs, where, [&](const rung& which, const rung_result& result) {
        told += std::string(which.name) + ": " + result.summary + "; ";
    });
    return told + std::to_string(static_cast<int>(code));
}

TEST(ladder_test, a_whole_ladder_is_climbed_to_its_end)
{
    EXPECT_EQ(climb_of({{"one", exit_code::bad_address, good}, {"two", exit_code::device_absent, good}}),
              "one: fine; two: fine; 0");
}

TEST(ladder_test, a_warning_does_not_end_the_climb)
{
    EXPECT_EQ(climb_of({{"one", exit_code::bad_address, doubtful}, {"two", exit_code::device_absent, good}}),
              "one: perhaps; two: fine; 0");
}

TEST(ladder_test, the_first_broken_rung_ends_the_climb_with_its_code)
{
    EXPECT_EQ(climb_of({{"one", exit_code::bad_address, good},
                        {"two", exit_code::device_absent, broken},
                        {"three", exit_code::no_rights, good}}),
              "one: fine; two: broken; 21");
}

TEST(ladder_test, a_look_that_fails_is_a_broken_rung)
{
    EXPECT_EQ(climb_of({{"one", exit_code::device_absent, failing}, {"two", exit_code::no_rights, good}}),
              "one: no bus; 21");
}

TEST(ladder_test, each_rung_has_a_code_of_its_own)
{
    std::vector<int> codes;
    for (const rung& one : ladder())
        codes.push_back(static_cast<int>(one.code));
    EXPECT_EQ(codes, (std::vector<int>{20, 21, 22, 23, 24, 25, 26, 27}));
}

} // namespace

} // namespace tarvik::tvkctl
