#pragma once

#include <cstdint>
#include <optional>
#include <vector>

// What a device tells of its interfaces, as far as the choice depends on it.

struct usb_endpoint {
    std::uint8_t address;
    std::uint8_t attributes;
};

/// One alternate setting of an interface.
struct usb_setting {
    int interface_number;
    int alternate;
    std::uint8_t interface_class;
    std::uint8_t interface_subclass;
    std::uint8_t interface_protocol;
    std::vector<usb_endpoint> endpoints;
};

struct usb_configuration {
    int value;
    std::vector<usb_setting> settings; ///< of all interfaces, in descriptor order
};

/// The interface through which a device is used, and its endpoints.
struct usable_interface {
    int configuration; ///< value of the configuration in which it stands
    int number;
    int alternate;
    std::uint8_t bulk_in;  ///< address
    std::uint8_t bulk_out; ///< address
};

/// Why a setting is not used. One that is vendor specific has its interface claimed all the same, and given
/// back.
enum class setting_flaw { not_vendor_specific, no_bulk_endpoint, no_bulk_in, no_bulk_out };

struct passed_over_setting {
    usb_setting setting;
    setting_flaw flaw;
};

/// Of a configuration, the first setting in descriptor order that is vendor specific, whatever its subclass,
/// and has bulk endpoints both ways.
struct interface_choice {
    std::vector<passed_over_setting> passed_over; ///< the settings before it; all when there is none
    std::optional<usable_interface> used;
};
interface_choice choose_interface(const usb_configuration& configuration);

/// The configuration that is set when an interface is looked for in one that is not active.
inline constexpr int kConfigurationSet = 1;
