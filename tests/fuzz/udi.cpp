// Addresses, against an oracle that reads them character by character.

#include "tvkintif/src/udi.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "fuzz/harness.h"

namespace {

constexpr const char* kBlanks = " \t\n\v\f\r";

struct number {
    unsigned long value = 0;
    bool is_whole = false; ///< nothing but the number stands there
};

int digit_of(char c)
{
    const std::size_t at = std::string("0123456789abcdefABCDEF").find(c);
    return at == std::string::npos ? -1 : static_cast<int>(at < 16 ? at : at - 6);
}

/// The hexadecimal number with which a C string begins; a sign and "0x" may come first.
number hexadecimal_at_the_beginning_of(std::string text)
{
    text.resize(std::min(text.find('\0'), text.size()));
    text.erase(0, std::min(text.find_first_not_of(kBlanks), text.size()));
    const bool is_negative = text[0] == '-';
    if (is_negative || text[0] == '+')
        text.erase(0, 1);
    if (text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x' && digit_of(text[2]) >= 0)
        text.erase(0, 2);
    number found;
    std::size_t at = 0;
    bool fits = true;
    for (; at < text.size() && digit_of(text[at]) >= 0; ++at) {
        fits = fits && found.value <= std::numeric_limits<unsigned long>::max() >> 4U;
        found.value = found.value << 4U | static_cast<unsigned long>(digit_of(text[at]));
    }
    found.is_whole = at > 0 && at == text.size();
    if (!fits)
        found.value = std::numeric_limits<unsigned long>::max();
    else if (is_negative)
        found.value = 0UL - found.value;
    return found;
}

std::uint16_t id(const std::string& field)
{
    const number found = hexadecimal_at_the_beginning_of(field);
    return found.is_whole && found.value <= 0xFFFF ? static_cast<std::uint16_t>(found.value)
                                                   : std::uint16_t{0};
}

std::uint8_t location(const std::string& field)
{
    return static_cast<std::uint8_t>(hexadecimal_at_the_beginning_of(field).value & 0xFFU);
}

/// Between colons; none follows a colon at the very end.
std::vector<std::string> fields_of(const std::string& address)
{
    std::vector<std::string> fields;
    bool is_new = true;
    for (const char c : address) {
        if (is_new)
            fields.emplace_back();
        is_new = c == ':';
        if (!is_new)
            fields.back() += c;
    }
    return fields;
}

} // namespace

void fuzz_one(std::string_view input)
{
    const std::string address(input);
    std::vector<std::string> fields = fields_of(address);
    const bool has_location = fields.size() > 4;
    const bool is_usb = address.size() > 3 && address.substr(0, 4) == "usb:";
    fields.resize(5);
    fuzz::expect(get_vid(address) == (is_usb ? id(fields[1]) : 0), "the vendor id");
    fuzz::expect(get_pid(address) == (is_usb ? id(fields[2]) : 0), "the product id");
    fuzz::expect(get_bus_number(address) == (has_location ? location(fields[3]) : 0), "the bus number");
    fuzz::expect(get_device_number(address) == (has_location ? location(fields[4]) : 0), "the device number");
    fuzz::expect_equal(get_device_serial(address), fields[3], "the serial number");

    const udi read(address);
    fuzz::expect_equal(read.text, address, "the text");
    if (!read.is_valid())
        return;
    char ids[16];
    std::snprintf(ids, sizeof ids, "usb:%04x:%04x", read.vendor_id, read.product_id);
    const udi again(ids + (":" + read.serial));
    fuzz::expect(again.vendor_id == read.vendor_id && again.product_id == read.product_id &&
                     again.serial == read.serial,
                 "an address that was printed reads as before");
}
