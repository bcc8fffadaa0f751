#include <algorithm>

#include "common/text/text.h"
#include "front_end/src/bytes.h"
#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkintif/src/udi.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::size_t kSerialField = 3;
constexpr std::size_t kDeviceField = 4;

/// What is wrong with an id; empty when the program could read it as `value`.
std::string flaw_of_id(const char* name, const std::vector<std::string>& fields, std::size_t index,
                       unsigned int value)
{
    if (value != 0)
        return {};
    const std::string who = "field " + std::to_string(index) + ", the " + name;
    if (fields.size() <= index || fields[index].empty())
        return who + ", is missing";
    return who + ", is " + in_quotes(fields[index]) + " and not 1 to 4 hexadecimal digits other than 0";
}

std::vector<std::string> flaws_of(const udi& address, const std::vector<std::string>& fields)
{
    if (address.text.rfind("usb:", 0) != 0)
        return {"it does not begin with usb: in lower case"};
    std::vector<std::string> flaws = {flaw_of_id("vendor id", fields, 1, address.vendor_id),
                                      flaw_of_id("product id", fields, 2, address.product_id)};
    flaws.erase(std::remove(flaws.begin(), flaws.end(), ""), flaws.end());
    return flaws;
}

check_result bad_address(const std::vector<std::string>& flaws)
{
    return {outcome::failed,
            cause{"malformed"},
            flaws.front(),
            {flaws.begin() + 1, flaws.end()},
            {"write it in one of these shapes, ids and numbers in hexadecimal:", "    usb:VENDOR:PRODUCT",
             "    usb:VENDOR:PRODUCT:SERIAL", "    usb:VENDOR:PRODUCT:BUS:DEVICE", tool_step::list_devices}};
}

std::string summary_of(const udi& address)
{
    return "vendor " + hexadecimal(address.vendor_id, 4) + ", product " + hexadecimal(address.product_id, 4) +
           (address.serial.empty() ? ", any serial number" : ", serial number " + in_quotes(address.serial));
}

} // namespace

check_result check_address(check_context& context)
{
    const udi address(context.udi);
    const std::vector<std::string> fields = split(address.text, ':'); // as the program does
    if (const auto flaws = flaws_of(address, fields); !flaws.empty())
        return bad_address(flaws);
    check_result result{outcome::ok, {}, summary_of(address)};
    if (fields.size() <= kDeviceField)
        return result;
    result.came_out = outcome::warning;
    result.why = cause{"location_ignored"};
    result.evidence = {"bus " + hexadecimal(address.bus_number) + " and device " +
                           hexadecimal(address.device_number) + " are read, but choose no device",
                       "field 3 is looked for as a serial number; when no device has it, the ids decide"};
    if (fields.size() > kDeviceField + 1)
        result.evidence.push_back("what follows field 4 is ignored");
    result.next = {"name the device by its serial number", tool_step::list_devices};
    return result;
}

} // namespace tarvik::tvkctl
