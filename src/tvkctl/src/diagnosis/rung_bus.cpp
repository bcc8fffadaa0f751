#include <algorithm>

#include "common/text/text.h"
#include "front_end/src/bytes.h"
#include "tvkctl/src/diagnosis/rungs.h"
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
std::vector<std::string> near_misses(const situation& where)
{
    std::vector<std::string> all;
    for (const usb_device& device : where.devices) {
        const bool is_vendor = device.vendor_id == get_vid(where.udi);
        const bool is_product = device.product_id == get_pid(where.udi);
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

rung_result absent(const situation& where)
{
    const std::size_t count = where.devices.size();
    rung_result result{verdict::bad, "absent",
                       "none of " + count_of(count, "USB device") + " is " + ids_in(where.udi)};
    result.evidence = near_misses(where);
    result.next = {"switch the scanner on and check its cable", "tvkctl list --all"};
    return result;
}

rung_result other_serial(const situation& where, const std::vector<const usb_device*>& fitting)
{
    rung_result result{verdict::warning, "other_serial",
                       "no device has serial number " + in_quotes(get_device_serial(where.udi)) +
                           ": the program opens the first with these ids, " + description_of(*where.device)};
    if (fitting.size() > 1)
        result.evidence = descriptions_of(fitting);
    result.next = {"tvkctl list   # shows the addresses with the serial numbers"};
    return result;
}

bool names_location(const std::string& udi)
{
    return get_device_number(udi) != 0;
}

/// For an address with bus and device number, which the program does not compare.
rung_result by_location(const situation& where)
{
    const usb_device& device = *where.device;
    if (get_bus_number(where.udi) == device.bus && get_device_number(where.udi) == device.address)
        return {verdict::good, "", description_of(device)};
    return {verdict::warning,
            "other_location",
            "the program opens the first device with these ids, " + description_of(device),
            {"the address names bus " + std::to_string(get_bus_number(where.udi)) + " device " +
             std::to_string(get_device_number(where.udi))},
            {"tvkctl list   # shows the addresses with the serial numbers"}};
}

rung_result ambiguous(const situation& where, const std::vector<const usb_device*>& fitting)
{
    rung_result result{verdict::warning, "ambiguous",
                       std::to_string(fitting.size()) + " devices fit; the program opens the first, " +
                           description_of(*where.device),
                       descriptions_of(fitting)};
    const bool has_other = udi_of(*where.device) != where.udi;
    result.next = {has_other ? "name the one that is meant by its serial number (tvkctl list)"
                             : "unplug all but the one that is meant: they cannot be told apart"};
    return result;
}

} // namespace

rung_result look_at_bus(situation& where)
{
    where.devices = scan_usb(where.machine);
    const std::vector<const usb_device*> fitting = devices_fitting(where.udi, where.devices);
    if (fitting.empty())
        return absent(where);
    where.device = fitting.front();
    const std::string serial = get_device_serial(where.udi);
    if (!serial.empty() && where.device->serial != serial)
        return names_location(where.udi) ? by_location(where) : other_serial(where, fitting);
    if (fitting.size() > 1)
        return ambiguous(where, fitting);
    return {verdict::good, "", description_of(*where.device)};
}

} // namespace tarvik::tvkctl
