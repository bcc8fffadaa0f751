#include "tvkctl/src/machine/udev_rule.h"

#include <algorithm>
#include <array>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::array<const char*, 2> kUsualGroups = {"scanner", "plugdev"};

bool is_member(const identity& user, const account& group)
{
    return std::any_of(user.groups.begin(), user.groups.end(),
                       [&](const account& one) { return one.id == group.id; });
}

account choose_group(const identity& user,
                     const std::function<std::optional<account>(const std::string&)>& group_named)
{
    for (const bool must_be_member : {true, false})
        for (const char* name : kUsualGroups)
            if (const auto group = group_named(name); group && (!must_be_member || is_member(user, *group)))
                return *group;
    return user.groups.front();
}

} // namespace

udev_rule rule_for(const usb_device& device, const identity& user,
                   const std::function<std::optional<account>(const std::string&)>& group_named)
{
    const std::string vendor = hexadecimal(device.vendor_id, 4);
    const std::string product = hexadecimal(device.product_id, 4);
    udev_rule rule;
    rule.group = choose_group(user, group_named);
    rule.is_member = is_member(user, rule.group);
    // Before 73-seat-late.rules, which acts on the uaccess tag.
    rule.file = "/etc/udev/rules.d/70-tvkintif-" + vendor + "-" + product + ".rules";
    rule.line = R"(SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}==")" + vendor +
                R"(", ATTR{idProduct}==")" + product + R"(", GROUP=")" + rule.group.name +
                R"(", MODE="0660", TAG+="uaccess")";
    return rule;
}

} // namespace tarvik::tvkctl
