#include <algorithm>

#include "front_end/src/bytes.h"
#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkintif/src/udi.h"

namespace tarvik::tvkctl {

namespace {

/// "1a2b:3c4d at bus 1 device 4, Example Scanner, serial number "SN0042""
std::string description_of(const usb_device& device)
{
    std::string text = ids_of(device) + " at bus " + std::to_string(device.bus) + " device " +
                       std::to_string(device.address);
    for (const std::string* name : {&device.manufacturer, &device.product})
        if (!name->empty())
            text += ", " + in_quotes(*name);
    return text +
           (device.serial.empty() ? ", no serial number" : ", serial number " + in_quotes(device.serial));
}

std::vector<std::string> descriptions_of(const std::vector<const usb_device*>& devices)
{
    std::vector<std::string> all;
    all.reserve(devices.size());
    for (const usb_device* device : devices)
        all.push_back(description_of(*device));
    return all;
}

/// Devices of which the address may have meant one.
std::vector<std::string> near_misses(const check_context& context)
{
    std::vector<std::string> all;
    for (const usb_device& device : context.devices) {
        const bool is_vendor = device.vendor_id == get_vid(context.udi);
        const bool is_product = device.product_id == get_pid(context.udi);
        if (is_vendor || is_product)
            all.push_back(std::string("same ") + (is_vendor ? "vendor" : "product id, other vendor") + ": " +
                          description_of(device));
    }
    return all;
}

std::string ids_in(const std::string& udi)
{
    usb_device wanted;
    wanted.vendor_id = get_vid(udi);
    wanted.product_id = get_pid(udi);
    return ids_of(wanted);
}

check_result absent(const check_context& context)
{
    check_result result{outcome::failed, cause{"absent"},
                        "no USB device is " + ids_in(context.udi) +
                            " (devices on the bus: " + std::to_string(context.devices.size()) + ")"};
    result.evidence = near_misses(context);
    result.next = {"switch the scanner on and check its cable", tool_step::list_all_devices};
    return result;
}

check_result other_serial(const check_context& context, const std::vector<const usb_device*>& fitting)
{
    check_result result{outcome::warning, cause{"other_serial"},
                        "no device has serial number " + in_quotes(get_device_serial(context.udi)) +
                            ": the program opens the first with these ids, " +
                            description_of(*context.device)};
    if (fitting.size() > 1)
        result.evidence = descriptions_of(fitting);
    result.next = {tool_step::list_devices};
    return result;
}

bool names_location(const std::string& udi)
{
    return get_device_number(udi) != 0;
}

/// For an address with bus and device number, which the program does not compare.
check_result by_location(const check_context& context)
{
    const usb_device& device = *context.device;
    if (get_bus_number(context.udi) == device.bus && get_device_number(context.udi) == device.address)
        return {outcome::ok, {}, description_of(device)};
    return {outcome::warning,
            cause{"other_location"},
            "the program opens the first device with these ids, " + description_of(device),
            {"the address names bus " + std::to_string(get_bus_number(context.udi)) + " device " +
             std::to_string(get_device_number(context.udi))},
            {tool_step::list_devices}};
}

check_result ambiguous(const check_context& context, const std::vector<const usb_device*>& fitting)
{
    check_result result{outcome::warning, cause{"ambiguous"},
                        std::to_string(fitting.size()) + " devices fit; the program opens the first, " +
                            description_of(*context.device),
                        descriptions_of(fitting)};
    const bool has_other = udi_of(*context.device) != context.udi;
    if (has_other)
        result.next = {"name the one that is meant by its serial number", tool_step::list_devices};
    else
        result.next = {"unplug all but the one that is meant: they cannot be told apart"};
    return result;
}

} // namespace

check_result check_bus(check_context& context)
{
    context.devices = scan_usb(context.machine);
    const std::vector<const usb_device*> fitting = devices_fitting(context.udi, context.devices);
    if (fitting.empty())
        return absent(context);
    context.device = fitting.front();
    const std::string serial = get_device_serial(context.udi);
    if (!serial.empty() && context.device->serial != serial)
        return names_location(context.udi) ? by_location(context) : other_serial(context, fitting);
    if (fitting.size() > 1)
        return ambiguous(context, fitting);
    return {outcome::ok, {}, description_of(*context.device)};
}

} // namespace tarvik::tvkctl
