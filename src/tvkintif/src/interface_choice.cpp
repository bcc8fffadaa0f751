#include "tvkintif/src/interface_choice.h"

#include <algorithm>

namespace {

// As USB numbers them.
constexpr std::uint8_t kVendorSpecific = 0xFF;
constexpr unsigned int kDirection = 0x80;
constexpr unsigned int kOut = 0x00;
constexpr unsigned int kIn = 0x80;
constexpr unsigned int kTransferType = 0x03;
constexpr unsigned int kBulk = 2;

bool is_vendor_specific(const usb_setting& setting)
{
    return setting.interface_class == kVendorSpecific && setting.interface_protocol == kVendorSpecific;
}

/// Address of the last bulk endpoint in this direction.
std::optional<std::uint8_t> bulk_endpoint(const usb_setting& setting, unsigned int direction)
{
    const auto last =
        std::find_if(setting.endpoints.rbegin(), setting.endpoints.rend(), [=](const usb_endpoint& each) {
            return (each.attributes & kTransferType) == kBulk && (each.address & kDirection) == direction;
        });
    return last != setting.endpoints.rend() ? std::optional(last->address) : std::nullopt;
}

} // namespace

interface_choice choose_interface(const usb_configuration& configuration)
{
    interface_choice choice;
    for (const usb_setting& each : configuration.settings) {
        const auto in = bulk_endpoint(each, kIn);
        const auto out = bulk_endpoint(each, kOut);
        if (!is_vendor_specific(each)) {
            choice.passed_over.push_back({each, setting_flaw::not_vendor_specific});
        } else if (in && out) {
            choice.used = {configuration.value, each.interface_number, each.alternate, *in, *out};
            break;
        } else if (in || out) {
            choice.passed_over.push_back({each, in ? setting_flaw::no_bulk_out : setting_flaw::no_bulk_in});
        } else {
            choice.passed_over.push_back({each, setting_flaw::no_bulk_endpoint});
        }
    }
    return choice;
}
