#include "tvkctl/src/machine/udev_rule.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using tarvik::tvkctl::account;
using tarvik::tvkctl::identity;
using tarvik::tvkctl::rule_for;
using tarvik::tvkctl::udev_rule;
using tarvik::tvkctl::usb_device;

const account kScanner{105, "scanner"};
const account kPlugdev{46, "plugdev"};
const account kOwn{1000, "ada"};

udev_rule rule(const std::vector<account>& on_the_machine, const std::vector<account>& of_the_user)
{
    usb_device device;
    device.vendor_id = 0x0a2b;
    device.product_id = 0x3c4d;
    return rule_for(device, identity{{1000, "ada"}, of_the_user},
                    [&](const std::string& name) -> std::optional<account> {
                        for (const account& group : on_the_machine)
                            if (group.name == name)
                                return group;
                        return std::nullopt;
                    });
}

TEST(udev_rule_test, the_rule_names_ids_group_and_mode)
{
    EXPECT_EQ(rule({kScanner}, {kOwn, kScanner}).line,
              R"(SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}=="0a2b", )"
              R"(ATTR{idProduct}=="3c4d", GROUP="scanner", MODE="0660", TAG+="uaccess")");
}

TEST(udev_rule_test, the_file_sorts_before_the_one_that_serves_uaccess)
{
    const std::string file = rule({kScanner}, {kOwn}).file;
    EXPECT_EQ(file, "/etc/udev/rules.d/70-tvkintif-0a2b-3c4d.rules");
    EXPECT_LT(file, "/etc/udev/rules.d/73-seat-late.rules");
}

TEST(udev_rule_test, the_group_of_scanners_comes_first)
{
    EXPECT_EQ(rule({kScanner, kPlugdev}, {kOwn, kScanner, kPlugdev}).group.name, "scanner");
    EXPECT_EQ(rule({kScanner, kPlugdev}, {kOwn}).group.name, "scanner");
}

TEST(udev_rule_test, a_group_that_the_user_is_in_comes_before_one_that_the_user_is_not_in)
{
    const udev_rule made = rule({kScanner, kPlugdev}, {kOwn, kPlugdev});
    EXPECT_EQ(made.group.name, "plugdev");
    EXPECT_TRUE(made.is_member);
}

TEST(udev_rule_test, a_group_that_the_user_is_not_in_is_reported)
{
    EXPECT_FALSE(rule({kScanner}, {kOwn}).is_member);
}

TEST(udev_rule_test, a_machine_without_such_groups_gets_the_users_own)
{
    const udev_rule made = rule({}, {kOwn});
    EXPECT_EQ(made.group.name, "ada");
    EXPECT_TRUE(made.is_member);
}

} // namespace
