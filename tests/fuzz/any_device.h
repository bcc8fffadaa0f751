#pragma once

#include <algorithm>
#include <array>
#include <string>

#include "fake_usb/bus.h"
#include "fake_usb/bus_state.h"
#include "fuzz/harness.h"

namespace fuzz {

inline fake_usb::alt_setting any_setting(decisions& decide, int interface_number)
{
    static const std::array<std::uint8_t, 6> addresses = {0x81, 0x02, 0x83, 0x04, 0x80, 0x00};
    fake_usb::alt_setting setting;
    setting.interface_number =
        static_cast<std::uint8_t>(decide.below(8) == 1 ? decide.byte() : interface_number);
    const int foreign = decide.below(8);
    if (foreign == 1)
        setting.interface_class = decide.byte();
    if (foreign == 2)
        setting.interface_protocol = decide.byte();
    setting.is_endpoint_array_null = decide.below(8) == 1;
    for (int i = decide.below(5); i > 0; --i) {
        const std::uint8_t address = addresses.at(static_cast<std::size_t>(decide.below(6)));
        const std::uint8_t attributes =
            decide.below(4) == 1 ? decide.byte() : std::uint8_t{LIBUSB_TRANSFER_TYPE_BULK};
        setting.endpoints.push_back({address, attributes});
    }
    return setting;
}

inline bool has_configuration(const fake_usb::device& device, int value)
{
    return std::any_of(device.configurations.begin(), device.configurations.end(),
                       [=](const fake_usb::configuration& each) { return each.value == value; });
}

/// A device with the ids of a scanner, and with whatever descriptors.
inline fake_usb::device any_device(decisions& decide)
{
    fake_usb::device device;
    if (decide.yes())
        device.serial = decide.yes() ? "SN0042" : decide.short_text();
    device.active_configuration = decide.below(4);
    for (int i = decide.below(4); i > 0; --i)
        device.kernel_drivers.insert(decide.below(4));
    for (int configurations = decide.below(4), i = 0; i < configurations; ++i) {
        fake_usb::configuration configuration;
        configuration.value = static_cast<std::uint8_t>(decide.below(4));
        while (has_configuration(device, configuration.value)) // two never have one value
            ++configuration.value;
        for (int interfaces = decide.below(4), number = 0; number < interfaces; ++number) {
            configuration.interfaces.emplace_back();
            for (int settings = decide.below(4); settings > 0; --settings)
                configuration.interfaces.back().push_back(any_setting(decide, number));
        }
        device.configurations.push_back(configuration);
    }
    return device;
}

/// Has calls fail, transfers end early, and the device leave.
inline void make_trouble(fake_usb::bus& bus, decisions& decide)
{
    static const std::array<const char*, 16> calls = {"init",
                                                      "get_device_list",
                                                      "get_device_descriptor",
                                                      "open",
                                                      "get_string_descriptor_ascii",
                                                      "open_device_with_vid_pid",
                                                      "get_device",
                                                      "get_configuration",
                                                      "get_config_descriptor",
                                                      "set_configuration",
                                                      "kernel_driver_active",
                                                      "detach_kernel_driver",
                                                      "attach_kernel_driver",
                                                      "claim_interface",
                                                      "release_interface",
                                                      "clear_halt"};
    const auto any_call = [&] { return calls.at(static_cast<std::size_t>(decide.below(16))); };
    const auto any_error = [&] { return -1 - decide.below(12); };
    for (int i = decide.below(4); i > 0; --i) {
        const char* const call =
            any_call(); // one after the other: a seed is read by one compiler as by another
        const int error = any_error();
        const int first = 1 + decide.below(4);
        bus.fail(call, error).from_call(first).times(1 + decide.below(4));
    }
    for (int i = decide.below(4); i > 0; --i) {
        const auto address = static_cast<std::uint8_t>(decide.yes() ? 0x81 : 0x02);
        const int error = any_error();
        bus.script("scanner", address, fake_usb::ends_with(error, decide.byte()));
    }
    if (decide.below(4) == 1) {
        const char* const call = any_call();
        bus.before_call(call, 1 + decide.below(4), [&bus] { bus.unplug("scanner"); });
    }
}

/// Of the only device, as it is now.
inline int active_configuration()
{
    return fake_usb::bus::current().state().devices.at(0)->description.active_configuration;
}

} // namespace fuzz
