#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tvkctl/src/machine/host.h"
#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// The plugin file that serves a device, as far as it tells without being loaded.
struct plugin_state {
    std::string path;
    bool is_installed;
    bool is_loadable;
    std::string problem; ///< empty: none
};

/// A device on the bus with all that matters for opening it.
struct listed_device {
    usb_device device;
    std::string udi; ///< empty: no address can name it
    std::optional<usable_interface> interface;
    std::optional<plugin_state> plugin;     ///< of a usable device
    std::string driver;                     ///< kernel driver on its interface; empty: none
    std::vector<std::string> warnings = {}; ///< whole sentences without their full stop
};

/// The devices that the program could use, or all, in the order in which it finds them. Throws tool_error.
std::vector<listed_device> list_devices(bool is_all, const host& machine);

} // namespace tarvik::tvkctl
