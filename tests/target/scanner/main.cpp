// Becomes the USB devices that a device file describes, until its standard input ends.
//
// Standard output: "ready" once every device that starts plugged in is configured by the host, then one line
// for each order read from standard input: "done", or "failed: <reason>". The README above lists the orders.
// Standard error: what the devices saw. Exit status: 0 after the end of input, 1 for a failure.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "target/scanner/device_file.h"
#include "target/scanner/fault.h"
#include "target/scanner/function_fs.h"
#include "target/scanner/gadget.h"
#include "target/scanner/scanner_device.h"
#include "target/scanner/words.h"

namespace {

using namespace virtual_scanner;

// The function of one configuration, and the thread that serves it.
struct running_function {
    running_function(const device_description& description, const configuration_description& configuration,
                     gadget& bus)
        : function(bus.function_folder(configuration.value), configuration.interfaces),
          device(description, function, bus)
    {
        if (!function.is_of_use())
            return;
        // Ends with the process, as nothing else ends its wait for the host.
        std::thread([this] { serve(); }).detach();
    }

    void serve()
    {
        try {
            device.serve();
        } catch (const std::exception& reason) {
            std::cerr << "virtual_scanner: " << reason.what() << std::endl;
            std::_Exit(EXIT_FAILURE);
        }
    }

    function_fs function;
    scanner_device device;
};

// One device with all its parts.
struct running_device {
    running_device(device_description what, const std::string& controller)
        : description(std::move(what)), bus(description, controller)
    {
        for (const configuration_description& each : description.configurations)
            functions.push_back(std::make_unique<running_function>(description, each, bus));
    }

    // Nothing here tells which configuration the host has chosen, so that orders go to the scanners of all.
    std::vector<scanner_device*> scanners() const
    {
        std::vector<scanner_device*> found;
        for (const auto& each : functions)
            if (each->function.is_of_use())
                found.push_back(&each->device);
        return found;
    }

    device_description description;
    gadget bus;
    std::vector<std::unique_ptr<running_function>> functions;
};

using running_devices = std::vector<std::unique_ptr<running_device>>;

std::vector<std::string> controllers()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/udc"))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<device_description> read_device_file(const std::string& path)
{
    std::ifstream text(path);
    if (!text)
        throw device_file_error("cannot read the device file " + path);
    return read_devices(text, path);
}

running_devices start(const std::vector<device_description>& descriptions)
{
    const std::vector<std::string> free = controllers();
    if (free.size() < descriptions.size()) {
        throw std::runtime_error(std::to_string(descriptions.size()) +
                                 " devices need as many device controllers; " + std::to_string(free.size()) +
                                 " are there (load dummy_hcd with a larger num=)");
    }
    running_devices running;
    for (std::size_t index = 0; index < descriptions.size(); ++index)
        running.push_back(std::make_unique<running_device>(descriptions[index], free[index]));
    return running;
}

void plug_later(running_device& device)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(*device.description.plugged_after_ms));
    try {
        device.bus.plug();
    } catch (const std::exception& reason) {
        std::clog << device.description.name + ": not plugged in: " + reason.what() + "\n" << std::flush;
    }
}

void plug_first_ones(const running_devices& devices)
{
    for (const auto& each : devices)
        if (each->description.starts_plugged)
            each->bus.plug();
    for (const auto& each : devices)
        if (each->description.plugged_after_ms)
            std::thread([&device = *each] { plug_later(device); }).detach();
    std::cout << "ready" << std::endl;
}

running_device& find_device(const running_devices& devices, const std::string& name)
{
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&name](const auto& each) { return each->description.name == name; });
    if (found == devices.end())
        throw std::invalid_argument("no device \"" + name + "\"");
    return **found;
}

using order = std::function<void(running_device&, const words& line)>;

void order_fault(running_device& device, const words& line)
{
    if (line.size() < 3 || line.size() > 4)
        throw std::invalid_argument("an order for a fault is \"fault NAME KIND [AMOUNT]\"");
    const fault what = read_fault(line[2], line.size() > 3 ? line[3] : "");
    if (device.scanners().empty())
        throw std::invalid_argument("it serves no commands that a fault could strike");
    for (scanner_device* each : device.scanners())
        each->arm(what);
}

void order_clear(running_device& device, const words&)
{
    const auto all = device.scanners();
    if (std::count_if(all.begin(), all.end(), [](scanner_device* each) { return each->clear(); }) == 0)
        throw std::runtime_error("it is in no fault that can be cleared");
}

const std::map<std::string, order> kOrders{
    {"plug", [](running_device& device, const words&) { device.bus.plug(); }},
    {"unplug", [](running_device& device, const words&) { device.bus.unplug(); }},
    {"vanish", [](running_device& device, const words&) { device.bus.vanish(); }},
    {"fault", order_fault},
    {"clear", order_clear},
};

void obey(const running_devices& devices, const words& line)
{
    if (line.size() < 2)
        throw std::invalid_argument("an order is a verb and the name of a device");
    one_of(kOrders, line[0])(find_device(devices, line[1]), line);
}

void obey_orders(const running_devices& devices)
{
    for (std::string line; std::getline(std::cin, line);) {
        try {
            obey(devices, split(line));
            std::cout << "done" << std::endl;
        } catch (const std::exception& reason) {
            std::cout << "failed: " << reason.what() << std::endl;
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: virtual_scanner DEVICE_FILE" << std::endl;
        return EXIT_FAILURE;
    }
    try {
        const running_devices devices = start(read_device_file(argv[1]));
        plug_first_ones(devices);
        obey_orders(devices);
        for (const auto& each : devices)
            each->bus.unplug();
    } catch (const std::exception& reason) {
        std::cerr << "virtual_scanner: " << reason.what() << std::endl;
        std::_Exit(EXIT_FAILURE);
    }
    std::_Exit(EXIT_SUCCESS);
}
