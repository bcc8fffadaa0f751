#include "tvkintif/src/udi.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "common/text/text.h"

namespace {

constexpr const char* kPrefix = "usb:";
constexpr std::size_t kFields = 5; ///< the prefix's and those that the longest form has

/// All of `field` as a 16-bit hexadecimal number; 0 when it is none.
std::uint16_t id_in(const std::string& field)
{
    char* end = nullptr;
    const unsigned long value = std::strtoul(field.c_str(), &end, 16);
    return *end == '\0' && value < 0x10000 ? static_cast<std::uint16_t>(value) : std::uint16_t{0};
}

/// Low 8 bits of the hexadecimal number with which `field` begins; 0 when it begins with none.
std::uint8_t location_in(const std::string& field)
{
    unsigned int value = 0;
    std::sscanf(field.c_str(), "%x", &value);
    return static_cast<std::uint8_t>(value & 0xFF);
}

} // namespace

udi::udi(std::string address) : text(std::move(address))
{
    std::vector<std::string> fields = tarvik::split(text, ':');
    const bool has_location = fields.size() >= kFields;
    fields.resize(std::max(fields.size(), kFields)); // an absent field reads as an empty one
    if (text.rfind(kPrefix, 0) == 0) {
        vendor_id = id_in(fields[1]);
        product_id = id_in(fields[2]);
    }
    serial = fields[3];
    if (has_location) {
        bus_number = location_in(fields[3]);
        device_number = location_in(fields[4]);
    }
}

std::uint16_t get_vid(const std::string& address)
{
    return udi(address).vendor_id;
}

std::uint16_t get_pid(const std::string& address)
{
    return udi(address).product_id;
}

std::string get_device_serial(const std::string& address)
{
    return udi(address).serial;
}

std::uint8_t get_bus_number(const std::string& address)
{
    return udi(address).bus_number;
}

std::uint8_t get_device_number(const std::string& address)
{
    return udi(address).device_number;
}
