#pragma once

#include <string>
#include <vector>

#include "tvkctl/src/machine/usb_scan.h"
#include "tvkintif/src/udi.h"

namespace tarvik::tvkctl {

/// The address by which the program finds a device, with the serial number where the device has one that an
/// address can carry (a colon would end it). Empty: no address can name it, for one of its ids is 0.
std::string udi_of(const usb_device& device);

/// As it is typed in a shell: in single quotes where it needs them.
std::string shell_word(const std::string& text);

/// The devices that `address` fits, in the order in which the program tries them. A serial number that no
/// device has is ignored, as the program does on purpose: then the ids decide.
std::vector<const usb_device*> devices_fitting(const udi& address, const std::vector<usb_device>& all);

} // namespace tarvik::tvkctl
