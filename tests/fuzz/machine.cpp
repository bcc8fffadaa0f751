// What the kernel tells in /proc and /sys, and any device on the bus: what is made of it is as it stands
// there.

#include <algorithm>

#include "common/text/text.h"
#include "fuzz/any_device.h"
#include "support/dialogue.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkctl/src/machine/usb_scan.h"
#include "tvkintif/src/udi.h"

using namespace tarvik::tvkctl;
namespace fs = std::filesystem;

namespace {

/// A machine with one device at 1-2.3, which has a driver in its configuration 1, and one process.
struct folders {
    folders() : here{folder / "dev", folder / "sys", folder / "proc", ""}
    {
        fs::create_directories(device);
        fs::create_directories(here.devices + "/bus/usb/001");
        fs::create_directories(here.processes + "/12/fd");
        fs::create_directories(here.processes + "/self/fd");
        folder.file("dev/bus/usb/001/004", "");
        fs::create_symlink(here.devices + "/bus/usb/001/004", here.processes + "/12/fd/3");
        fs::create_directories(device + ":1.0");
        fs::create_symlink("../../../bus/usb/drivers/usblp", device + ":1.0/driver");
    }

    fuzz::scratch_folder folder;
    host here;
    std::string device = here.sysfs + "/bus/usb/devices/1-2.3";
};

std::string first_line(const std::string& content)
{
    return content.substr(0, content.find('\n'));
}

/// Of UTF-8, each unit of UTF-16 beyond ASCII as a question mark.
std::string as_ascii(const std::string& text)
{
    std::string ascii;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80)
            ascii += c;
        else if (byte >= 0xC0)
            ascii += byte < 0xF0 ? "?" : "??";
    }
    return ascii;
}

void check_address(const usb_device& device, const std::vector<usb_device>& all)
{
    const std::string text = udi_of(device);
    if (text.empty())
        return;
    const udi address(text);
    fuzz::expect(address.vendor_id == device.vendor_id && address.product_id == device.product_id,
                 "an address names its device's ids");
    const auto fitting = devices_fitting(address, all);
    fuzz::expect(std::find(fitting.begin(), fitting.end(), &device) != fitting.end(),
                 "an address fits its device");
}

} // namespace

void fuzz_one(std::string_view input)
{
    static const folders machine;
    fuzz::decisions decide(input);
    fake_usb::bus bus;
    fake_usb::device plugged = fuzz::any_device(decide);
    plugged.address = 4;
    plugged.ports = {2, 3};
    bus.plug(plugged);
    const bool is_trouble = decide.yes();
    if (is_trouble)
        fuzz::make_trouble(bus, decide);
    const std::string active = decide.short_text();
    const std::string serial = decide.short_text();
    const std::string comm(decide.rest());
    machine.folder.file("sys/bus/usb/devices/1-2.3/bConfigurationValue", active);
    machine.folder.file("sys/bus/usb/devices/1-2.3/serial", serial);
    machine.folder.file("proc/12/comm", comm);
    try {
        const std::vector<usb_device> found = scan_usb(machine.here);
        for (const usb_device& device : found) {
            check_address(device, found);
            const std::string digits = first_line(active);
            const bool is_number =
                !digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos;
            fuzz::expect(device.active_configuration.has_value() == is_number, "a configuration is a number");
            if (is_number && digits.size() < 10)
                fuzz::expect(*device.active_configuration == std::stoi(digits), "the active configuration");
            if (!usable_interface_of(device))
                fuzz::expect_equal(device.serial, as_ascii(first_line(serial)), "the serial number");
            fuzz::expect_equal(kernel_driver_of(device, 0, machine.here),
                               device.active_configuration == 1 ? "usblp" : "", "the driver");
            const node_holders holders = find_node_holders(device.node, machine.here);
            fuzz::expect(holders.is_complete && holders.found.size() == 1 && holders.found[0].pid == 12,
                         "the process has the device open");
            fuzz::expect_equal(holders.found[0].name, first_line(comm), "the name of the process");
        }
    } catch (const tool_error& error) {
        fuzz::expect(is_trouble && error.why() == kUsbUnavailable, "a scan that fails says so");
    }
    fuzz::expect_equal(support::text(bus.leftovers()) + support::text(bus.misuses()), "",
                       "what the bus blames");
    support::take_dialogue();
}
