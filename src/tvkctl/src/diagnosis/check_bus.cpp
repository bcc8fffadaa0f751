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
std::vector<std::string> near_misses(const udi& address, const std::vector<usb_device>& devices)
{
    std::vector<std::string> all;
    for (const usb_device& device : devices) {
        const bool is_vendor = device.vendor_id == address.vendor_id;
        const bool is_product = device.product_id == address.product_id;
        if (is_vendor || is_product)
            all.push_back(std::string("same ") + (is_vendor ? "vendor" : "product id, other vendor") + ": " +
                          description_of(device));
    }
    return all;
}

std::string ids_in(const udi& address)
{
    usb_device wanted;
    wanted.vendor_id = address.vendor_id;
    wanted.product_id = address.product_id;
    return ids_of(wanted);
}

check_result absent(const udi& address, const check_context& context)
{
    check_result result{outcome::failed, cause{"absent"},
                        "no USB device is " + ids_in(address) +
                            " (devices on the bus: " + std::to_string(context.devices.size()) + ")"};
    result.evidence = near_misses(address, context.devices);
    result.next = {"switch the scanner on and check its cable", tool_step::list_all_devices};
    return result;
}

check_result other_serial(const udi& address, const check_context& context,
                          const std::vector<const usb_device*>& fitting)
{
    check_result result{outcome::warning, cause{"other_serial"},
                        "no device has serial number " + in_quotes(address.serial) +
                            ": the program opens the first with these ids, " +
                            description_of(*context.device)};
    if (fitting.size() > 1)
        result.evidence = descriptions_of(fitting);
    result.next = {tool_step::list_devices};
    return result;
}

/// For an address with bus and device number, which the program does not compare.
check_result by_location(const udi& address, const usb_device& device)
{
    if (address.bus_number == device.bus && address.device_number == device.address)
        return {outcome::ok, {}, description_of(device)};
    return {outcome::warning,
            cause{"other_location"},
            "the program opens the first device with these ids, " + description_of(device),
            {"the address names bus " + std::to_string(address.bus_number) + " device " +
             std::to_string(address.device_number)},
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
    const udi address(context.udi);
    const std::vector<const usb_device*> fitting = devices_fitting(address, context.devices);
    if (fitting.empty())
        return absent(address, context);
    context.device = fitting.front();
    if (!address.serial.empty() && context.device->serial != address.serial)
        return address.device_number != 0 ? by_location(address, *context.device)
                                          : other_serial(address, context, fitting);
    if (fitting.size() > 1)
        return ambiguous(context, fitting);
    return {outcome::ok, {}, description_of(*context.device)};
}

} // namespace tarvik::tvkctl
