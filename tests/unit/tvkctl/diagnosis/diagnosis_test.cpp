#include "tvkctl/src/diagnosis/diagnosis.h"

#include <gtest/gtest.h>

#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

check_result good(check_context&)
{
    return {outcome::ok, {}, "fine"};
}
check_result doubtful(check_context&)
{
    return {outcome::warning, cause{"doubt"}, "perhaps"};
}
check_result failing(check_context&)
{
    return {outcome::failed, cause{"reason"}, "broken"};
}
check_result throwing(check_context&)
{
    throw tool_error(cause{"no_bus"}, "no bus", {"Look for one."});
}

/// A diagnosis as text: each check that was told, and the name of the one that failed.
std::string diagnosis_of(const std::vector<check_result (*)(check_context&)>& looks)
{
    const char* const names[] = {"one", "two", "three"};
    std::vector<check> checks;
    for (const auto look : looks)
        checks.push_back({names[checks.size()], 0, "", look});
    check_context context{"usb:1a2b:3c4d", {}};
    std::string told;
    const check* failed =
        diagnose(checks.data(), checks.data() + checks.size(), context,
                 [&](const check_result& result) { told += result.check + ": " + result.summary + "; "; });
    return told + (failed == nullptr ? "all is well" : failed->name);
}

TEST(diagnosis_test, every_check_is_made_when_all_is_well)
{
    EXPECT_EQ(diagnosis_of({good, good}), "one: fine; two: fine; all is well");
}

TEST(diagnosis_test, a_warning_does_not_end_the_diagnosis)
{
    EXPECT_EQ(diagnosis_of({doubtful, good}), "one: perhaps; two: fine; all is well");
}

TEST(diagnosis_test, the_first_check_that_fails_ends_the_diagnosis)
{
    EXPECT_EQ(diagnosis_of({good, failing, good}), "one: fine; two: broken; two");
}

TEST(diagnosis_test, a_check_that_throws_has_failed)
{
    EXPECT_EQ(diagnosis_of({throwing, good}), "one: no bus; one");
}

} // namespace

} // namespace tarvik::tvkctl
