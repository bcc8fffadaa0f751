#pragma once

#include <cstdint>
#include <string>

/// The USB address of a scanner, one of
///
///     usb:VVVV:PPPP    usb:VVVV:PPPP:SERIAL    usb:VVVV:PPPP:BB:DD
///
/// with vendor id, product id, bus and device number in hexadecimal, taken apart into values. A malformed
/// address throws nothing: 0 or an empty string stands for what is absent or unreadable. A number may end in
/// a NUL, so that a front-end that sends its string's terminator along is served.
struct udi {
    explicit udi(std::string address);

    /// Whether a device can be looked for: both ids could be read.
    bool is_valid() const { return vendor_id != 0 && product_id != 0; }

    std::string text;             ///< as it came, for messages
    std::uint16_t vendor_id = 0;  ///< 0 also when the text does not begin with "usb:"
    std::uint16_t product_id = 0; ///< 0 also when the text does not begin with "usb:"
    std::string serial; ///< field 3, whatever the prefix and whether or not a field 4 makes it a bus number
    std::uint8_t bus_number = 0;    ///< low 8 bits of field 3, in an address that also has a field 4
    std::uint8_t device_number = 0; ///< low 8 bits of field 4
};

// One value of an address, for whoever needs no more than that.

std::uint16_t get_vid(const std::string& address);
std::uint16_t get_pid(const std::string& address);
std::string get_device_serial(const std::string& address);
std::uint8_t get_bus_number(const std::string& address);
std::uint8_t get_device_number(const std::string& address);
