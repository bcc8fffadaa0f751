#pragma once

#include <string>
#include <vector>

#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// Whether the program takes this for an address.
bool is_udi(const std::string& text);

/// The address by which the program finds a device, with the serial number where the device has one that an
/// address can carry (a colon would end it). Empty: no address can name it, for one of its ids is 0.
std::string udi_of(const usb_device& device);

/// As it is typed in a shell: in single quotes where it needs them.
std::string shell_word(const std::string& text);

/// The devices that `udi` fits, in the order in which the program tries them. A serial number that no device
/// has counts for nothing, on purpose of the program: then the ids decide.
std::vector<const usb_device*> devices_fitting(const std::string& udi, const std::vector<usb_device>& all);

} // namespace tarvik::tvkctl
