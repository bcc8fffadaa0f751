#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tvkctl/src/machine/accounts.h"
#include "tvkctl/src/machine/cause.h"
#include "tvkctl/src/machine/host.h"
#include "tvkintif/src/interface_choice.h"

namespace tarvik::tvkctl {

/// The file through which a device is opened.
struct device_node {
    /// "crw-rw-r--"
    std::string mode_text() const;

    std::string path;
    bool exists = false; ///< the rest means nothing without it
    account owner;
    account group;
    mode_t mode = 0;
    bool may_open = false; ///< this user may read and write it
};

/// A device on the bus, as it was when it was looked at.
struct usb_device {
    std::uint16_t vendor_id = 0;
    std::uint16_t product_id = 0;
    int bus = 0;
    int address = 0;
    std::string port_path; ///< name of its folder in sysfs: "1-1.4", "usb1" for a root hub
    /// Texts as the program sees them: ASCII, '?' for anything else. Empty: none, or not to be read.
    std::string serial;
    std::string manufacturer;
    std::string product;
    std::vector<usb_configuration> configurations; ///< up to the first that cannot be read
    std::optional<int> active_configuration;       ///< nullopt: not known
    device_node node;
};

inline constexpr cause kUsbUnavailable{"usb_unavailable"}; ///< the devices cannot be enumerated

/// All devices in the order in which the program finds them. Throws tool_error (kUsbUnavailable). A device
/// that the program could use is opened for its texts, if this user may; of others sysfs tells them.
std::vector<usb_device> scan_usb(const host& machine);

/// "1a2b:3c4d"
std::string ids_of(const usb_device& device);

/// The interface that the program would use.
std::optional<usable_interface> usable_interface_of(const usb_device& device);

/// The kernel driver that is bound to an interface of the active configuration; empty when there is none or
/// sysfs does not tell. "usbfs" stands for a process that has claimed the interface.
std::string kernel_driver_of(const usb_device& device, int interface_number, const host& machine);

struct process_name {
    pid_t pid;
    std::string name;
};

/// Which processes hold a node open.
struct node_holders {
    std::vector<process_name> found;
    bool is_complete; ///< false: some processes could not be looked into, for lack of rights
};
node_holders find_node_holders(const device_node& node, const host& machine);

} // namespace tarvik::tvkctl
