#pragma once

#include <sys/types.h>

#include <string>

/// Device nodes and sysfs entries for the devices of the fake bus, which has none.
namespace process_test {

/// Gives this process, and its children, a /dev and a /sys/bus of their own, with no USB device in them.
/// Needs the private paths. May be called for each test.
void cover_usb_paths();

/// A file in the place of the node of a device, with this owner and mode; its path.
std::string make_node(int bus, int address, uid_t owner = 0, mode_t mode = 0666);

/// The device at this port ("1-1") is in this configuration.
void set_active_configuration(const std::string& port, int value);
/// A kernel driver, or "usbfs" for a process, has this interface ("1-1:1.0").
void bind_driver(const std::string& interface_name, const std::string& driver);

} // namespace process_test
