#include "tvkintif/src/models.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "support/private_paths.h"

namespace {

// Plugins.

TEST(plugin_name, is_the_one_under_which_packages_install_the_plugin_of_each_product)
{
    const std::map<int, std::string> own = {
        {0x0A71, "libqvintZ4.so"},
        {0x0A72, "libquban-plugin-stellan-x440.so"},
        {0x0A75, "libryo-mora-rt0915.so"},
        {0x0A76, "libryo-mora-rt0915.so"},
        {0x0A7E, "libmora-interpreter-stellan-x120.so"},
        {0x0A83, "libquban-plugin-stellan-x660.so"},
    };
    for (int product_id = 0; product_id <= 0x1FFFF; ++product_id) {
        const auto found = own.find(product_id);
        ASSERT_EQ(plugin_name(product_id), found != own.end() ? found->second : "libryo-mora-hk-t210.so")
            << "product id " << std::hex << product_id;
    }
}

TEST(lib_path, joins_the_fixed_directory_libexec_and_the_name)
{
    const std::string fixed = "/usr/lib/arm-linux-gnueabihf/tarvik/";
    if (support::kPluginRoot != fixed)
        GTEST_SKIP() << "this build was configured for another plugin directory: " << support::kPluginRoot;

    EXPECT_EQ(lib_path("libryo-mora-hk-t210.so"),
              "/usr/lib/arm-linux-gnueabihf/tarvik/libexec/libryo-mora-hk-t210.so");
}

TEST(lib_path, of_an_empty_name_is_the_directory)
{
    EXPECT_EQ(lib_path("") + "x", lib_path("x"));
    EXPECT_EQ(lib_path("").substr(lib_path("").size() - 9), "/libexec/");
}

class lib_path_with_a_directory_part : public testing::TestWithParam<const char*> {};

TEST_P(lib_path_with_a_directory_part, is_empty)
{
    EXPECT_EQ(lib_path(GetParam()), "");
}

INSTANTIATE_TEST_SUITE_P(such_as, lib_path_with_a_directory_part,
                         testing::Values("/libqvintZ4.so", "sub/libqvintZ4.so", "../libqvintZ4.so",
                                         "libqvintZ4.so/", "/", "/usr/lib/libqvintZ4.so"));

// Firmware.

TEST(firmware_directories, replace_what_was_in_the_environment)
{
    const auto variables = {"GLIMMERON_FIRMWARE_DIR", "QUBAN_FIRMWARE_DIR", "MORA_FIRMWARE_DIR",
                            "QUBAN_FW_DIR"};
    for (const char* variable : variables)
        setenv(variable, "/elsewhere/", 1);
    set_firmware_directories();

    for (const char* variable : variables)
        EXPECT_STREQ(std::getenv(variable), "/usr/share/tarvik/") << variable;
}

// The reset on close.

TEST(reset_on_close, is_for_seven_products)
{
    std::vector<int> found;
    for (int product_id = 0; product_id <= 0xFFFF; ++product_id)
        if (is_reset_on_close(static_cast<std::uint16_t>(product_id)))
            found.push_back(product_id);
    EXPECT_EQ(found, (std::vector<int>{0x0A71, 0x0A72, 0x0A73, 0x0A74, 0x0A75, 0x0A76, 0x0A8C}));
}

} // namespace
