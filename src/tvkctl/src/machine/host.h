#pragma once

#include <string>

namespace tarvik::tvkctl {

/// File name of the program, and with it the beginning of the names of its log files.
inline constexpr const char* kProgramName = "tvkintif";

/// Where the things stand that commands look at. The defaults are this machine's; a test names its own.
struct host {
    std::string devices = "/dev";    ///< the USB device nodes are under bus/usb/
    std::string sysfs = "/sys";      ///< the USB devices are under bus/usb/devices/
    std::string processes = "/proc"; ///< one folder for each process
    std::string program;             ///< tvkintif to start unless told otherwise; empty: not found
};

/// This machine. The program is the tvkintif that stands beside this executable, else the first in PATH.
host this_host();

} // namespace tarvik::tvkctl
