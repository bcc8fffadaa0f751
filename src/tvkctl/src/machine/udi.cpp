#include "tvkctl/src/machine/udi.h"

#include <algorithm>

namespace tarvik::tvkctl {

std::string udi_of(const usb_device& device)
{
    if (device.vendor_id == 0 || device.product_id == 0)
        return {};
    const bool has_serial = !device.serial.empty() && device.serial.find(':') == std::string::npos;
    return "usb:" + ids_of(device) + (has_serial ? ":" + device.serial : "");
}

std::string shell_word(const std::string& text)
{
    constexpr const char* harmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:._+-/@%";
    if (!text.empty() && text.find_first_not_of(harmless) == std::string::npos)
        return text;
    std::string word = "'";
    for (const char c : text)
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

std::vector<const usb_device*> devices_fitting(const udi& address, const std::vector<usb_device>& all)
{
    std::vector<const usb_device*> by_ids;
    for (const usb_device& device : all)
        if (device.vendor_id == address.vendor_id && device.product_id == address.product_id)
            by_ids.push_back(&device);
    std::vector<const usb_device*> by_serial;
    std::copy_if(by_ids.begin(), by_ids.end(), std::back_inserter(by_serial), [&](const usb_device* device) {
        return !address.serial.empty() && device->serial == address.serial;
    });
    return by_serial.empty() ? by_ids : by_serial;
}

} // namespace tarvik::tvkctl
