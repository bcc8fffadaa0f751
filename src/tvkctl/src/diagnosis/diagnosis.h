#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "front_end/src/front_end.h"
#include "tvkctl/src/log/log_files.h"
#include "tvkctl/src/machine/check_result.h"
#include "tvkctl/src/machine/host.h"
#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// What each check needs to know, and what it leaves for those after it. Lives as long as the diagnosis.
struct check_context {
    std::string udi;
    host machine;
    log_place log = {};
    milliseconds load_timeout{20'000}; ///< loading a plugin takes a fraction of a second

    std::vector<usb_device> devices = {};           ///< from the check "bus" on
    const usb_device* device = nullptr;             ///< one of these: which the program would open
    std::optional<usable_interface> interface = {}; ///< of that device, from the check "interface" on
    std::optional<log_tail> news = {};              ///< what is logged from the program's start on
    std::unique_ptr<front_end> program = {};        ///< connected, from the check "program" on
};

// The checks, each in a file of its own.

/// Can the program read the address, and does it mean what it seems to?
check_result check_address(check_context& context);
/// Is there such a device on the bus, and is it the one that is meant?
check_result check_bus(check_context& context);
/// May this user open the device?
check_result check_rights(check_context& context);
/// Has the device an interface that the program could use?
check_result check_interface(check_context& context);
/// Is the interface free, or can it be made free?
check_result check_driver(check_context& context);
/// Is the plugin of this model installed, and can a process of this machine load it?
check_result check_installed_plugin(check_context& context);
/// Does the program start, name its port and accept a connection?
check_result check_program(check_context& context);
/// Does it open the scanner, and close it again?
check_result check_open(check_context& context);

/// A row of the table that help, man page and guides show.
struct check {
    const char* name;
    int number;          ///< never changes, even if rows move: the exit status follows from it
    const char* failure; ///< what is wrong when it fails
    check_result (*look)(check_context&);
};

/// All of them, in the order in which an open needs them. Each may count on those before it being well.
inline constexpr std::array kChecks = {
    check{"address", 0, "the address cannot be used", check_address},
    check{"bus", 1, "no such device on the bus", check_bus},
    check{"rights", 2, "this user may not open the device", check_rights},
    check{"interface", 3, "the device has no interface that the program could use", check_interface},
    check{"driver", 4, "another process has claimed the device", check_driver},
    check{"plugin", 5, "the plugin is missing or cannot be loaded", check_installed_plugin},
    check{"program", 6, "tvkintif does not start or takes no connection", check_program},
    check{"open", 7, "every check passes, but the open or the close fails", check_open},
};

/// Looks until the first check that fails, and tells of each. Returns the one that failed, or null.
const check* diagnose(const check* first, const check* last, check_context& context,
                      const std::function<void(const check_result&)>& tell);

} // namespace tarvik::tvkctl
