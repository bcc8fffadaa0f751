#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tvkctl/src/machine/accounts.h"
#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// A udev rule that lets a group open a scanner, and the user at the machine's own screen.
struct udev_rule {
    std::string file; ///< where it belongs
    std::string line;
    account group;          ///< to which it gives the right
    bool is_member = false; ///< whether the user is in that group already
};

/// The rule that lets `user` open devices with these ids. The group is that of scanners where the machine has
/// one, else that of pluggable devices, else the user's own.
udev_rule rule_for(const usb_device& device, const identity& user,
                   const std::function<std::optional<account>(const std::string&)>& group_named);

} // namespace tarvik::tvkctl
