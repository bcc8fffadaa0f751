#include "target/scanner/fault.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

using namespace virtual_scanner;

namespace {

struct page_row {
    std::string name;
    bool may_have_amount;
    bool must_have_amount;
};

/// The rows of the page's table of faults, by number.
std::map<std::uint32_t, page_row> faults_in_page()
{
    const std::regex row(R"(^\| (\d+) \| ([a-z-]+) \| (-|bytes; .* without it|milliseconds) \| .*\|$)");
    std::map<std::uint32_t, page_row> found;
    std::ifstream page(COMMANDS_PAGE);
    for (std::string line; std::getline(page, line);)
        if (std::smatch parts; std::regex_match(line, parts, row))
            found[static_cast<std::uint32_t>(std::stoul(parts[1]))] = {parts[2], parts[3] != "-",
                                                                       parts[3] == "milliseconds"};
    return found;
}

} // namespace

TEST(fault, has_the_numbers_and_names_of_the_page)
{
    const auto page = faults_in_page();
    ASSERT_EQ(page.size(), 14U);
    for (const auto& [number, row] : page)
        EXPECT_EQ(name_of(static_cast<fault_kind>(number)), row.name);
}

TEST(fault, takes_an_amount_where_the_page_has_one)
{
    for (const auto& [number, row] : faults_in_page())
        EXPECT_EQ(fault_from(number, 512).has_value(), row.may_have_amount) << row.name;
}

TEST(fault, goes_without_an_amount_where_the_page_says_what_happens_then)
{
    for (const auto& [number, row] : faults_in_page())
        EXPECT_EQ(fault_from(number, std::nullopt).has_value(), !row.must_have_amount) << row.name;
}

TEST(fault, is_none_of_a_number_that_the_page_does_not_have)
{
    EXPECT_FALSE(fault_from(0, std::nullopt));
    EXPECT_FALSE(fault_from(15, std::nullopt));
}
