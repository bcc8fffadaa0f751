#include "tvkctl/src/diagnosis/listing.h"

#include <unistd.h>

#include "tvkctl/src/machine/udi.h"
#include "tvkctl/src/plugin/plugin_check.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

/// Errors about a file begin with its path, which the plugin's state holds already.
std::string without_path(const std::string& message, const std::string& path)
{
    const std::string beginning = path + ": ";
    return message.compare(0, beginning.size(), beginning) == 0 ? message.substr(beginning.size()) : message;
}

plugin_state look_at_plugin(const std::string& path)
{
    if (access(path.c_str(), F_OK) != 0)
        return {path, false, false, "not installed"};
    try {
        for (const check_result& result : check_plugin(read_elf_file(path), native_target()))
            if (result.came_out == outcome::failed)
                return {path, true, false, result.check + ": " + result.summary};
    } catch (const elf_error& error) {
        return {path, true, false, without_path(error.what(), path)};
    }
    return {path, true, true, {}};
}

std::string names_of(const std::vector<const usb_device*>& devices)
{
    std::string names;
    for (const usb_device* device : devices)
        names += (names.empty() ? "" : device == devices.back() ? " and " : ", ") + device->node.path;
    return names;
}

std::vector<std::string> warnings_about(const usb_device& device, const std::vector<usb_device>& all)
{
    const std::string address = udi_of(device);
    if (address.empty())
        return {device.node.path + " has no address: its vendor or product id is 0"};
    std::vector<std::string> warnings;
    if (device.serial.find(':') != std::string::npos)
        warnings.push_back(device.node.path +
                           " has a serial number with a colon, which no address can carry");
    if (const auto fitting = devices_fitting(udi(address), all); fitting.size() > 1)
        warnings.push_back(address + " fits " + names_of(fitting) +
                           ": which of them is opened depends on their order on the bus");
    return warnings;
}

listed_device look_at(const usb_device& device, const std::vector<usb_device>& all, const host& machine)
{
    listed_device listed{device, udi_of(device), usable_interface_of(device), {}, {}};
    if (!listed.interface)
        return listed;
    listed.plugin = look_at_plugin(lib_path(plugin_name(device.product_id)));
    listed.driver = kernel_driver_of(device, listed.interface->number, machine);
    listed.warnings = warnings_about(device, all);
    return listed;
}

} // namespace

std::vector<listed_device> list_devices(bool is_all, const host& machine)
{
    const std::vector<usb_device> all = scan_usb(machine);
    std::vector<listed_device> listed;
    for (const usb_device& device : all)
        if (is_all || usable_interface_of(device))
            listed.push_back(look_at(device, all, machine));
    return listed;
}

} // namespace tarvik::tvkctl
