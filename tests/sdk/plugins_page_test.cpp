#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "support/files.h"
#include "tvkintif/src/models.h"

namespace {

constexpr int kProductIds = 0x10000;

/// The table of docs/plugins.md: file by product id, the default under -1.
std::map<int, std::string> files_in_page()
{
    const std::regex row(R"(^\| (`([0-9a-f]{4})`|any other) \| `([^`]+\.so)` \|$)");
    std::map<int, std::string> files;
    std::istringstream page(support::read_file(PLUGINS_PAGE));
    for (std::string line; std::getline(page, line);)
        if (std::smatch parts; std::regex_match(line, parts, row))
            files[parts[2].matched ? std::stoi(parts[2], nullptr, 16) : -1] = parts[3];
    return files;
}

} // namespace

TEST(plugins_page, names_the_file_that_the_program_takes_for_every_product_id)
{
    const auto files = files_in_page();
    ASSERT_EQ(files.count(-1), 1U) << "no row for any other product id in " << PLUGINS_PAGE;
    for (int product_id = 0; product_id < kProductIds; ++product_id) {
        const auto row = files.find(product_id);
        const std::string& file = row != files.end() ? row->second : files.at(-1);
        ASSERT_EQ(file, plugin_name(product_id)) << "product id " << std::hex << product_id;
    }
}

TEST(plugins_page, names_the_folder_from_which_the_program_loads)
{
    const std::string text = support::read_file(PLUGINS_PAGE);
    const std::string path = lib_path("");
    EXPECT_NE(text.find("`" + path + "`"), std::string::npos) << path;
}
