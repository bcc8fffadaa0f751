#include "tvkctl/src/commands/exit_code.h"

#include <gtest/gtest.h>

#include <set>

#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

TEST(exit_code_test, a_cause_without_a_number_of_its_own_is_any_other_error)
{
    EXPECT_EQ(exit_code_of(cause{"unheard_of"}), exit_code::internal_error);
}

TEST(exit_code_test, each_check_of_explain_has_one_from_20_to_39)
{
    std::set<int> codes;
    for (const check& one : kChecks) {
        const int code = static_cast<int>(exit_code_of(one));
        EXPECT_TRUE(code >= 20 && code <= 39 && codes.insert(code).second) << one.name << ": " << code;
    }
}

} // namespace

} // namespace tarvik::tvkctl
