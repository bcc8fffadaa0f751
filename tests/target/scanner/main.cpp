// Becomes the USB devices that a device file describes, until its standard input ends.
//
// Standard output: "ready" once every device that starts plugged in is configured by the host, then one line
// for each order read from standard input, "plug NAME" or "unplug NAME": "done", or "failed: <reason>".
// Standard error: what the devices saw. Exit status: 0 after the end of input, 1 for a failure.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "target/scanner/device_file.h"
#include "target/scanner/function_fs.h"
#include "target/scanner/gadget.h"
#include "target/scanner/scanner_device.h"

namespace {

using namespace virtual_scanner;

// One device with all its parts, and the thread that serves it.
struct running_device {
    running_device(device_description what, const std::string& controller)
        : description(std::move(what)), plugged(description, controller),
          function(plugged.function_folder(), description.interfaces), device(description, function)
    {
        if (!function.is_of_use())
            return;
        // Ends with the process: nothing can call a thread back from a FunctionFS transfer of an unplugged
        // device.
        std::thread([this] { serve(); }).detach();
    }

    void serve()
    {
        try {
            device.serve();
        } catch (const std::exception& reason) {
            std::cerr << description.name << ": " << reason.what() << std::endl;
            std::_Exit(EXIT_FAILURE);
        }
    }

    device_description description;
    gadget plugged;
    function_fs function;
    scanner_device device;
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

void plug_first_ones(const running_devices& devices)
{
    for (const auto& each : devices) {
        if (each->description.starts_plugged)
            each->plugged.plug();
    }
    std::cout << "ready" << std::endl;
}

void obey(const running_devices& devices, const std::string& verb, const std::string& name)
{
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&name](const auto& each) { return each->description.name == name; });
    if (found == devices.end())
        throw std::invalid_argument("no device \"" + name + "\"");
    if (verb == "plug") {
        (*found)->plugged.plug();
    } else if (verb == "unplug") {
        (*found)->plugged.unplug();
    } else {
        throw std::invalid_argument("no order \"" + verb + "\"");
    }
}

void obey_orders(const running_devices& devices)
{
    for (std::string verb, name; std::cin >> verb >> name;) {
        try {
            obey(devices, verb, name);
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
            each->plugged.unplug();
    } catch (const std::exception& reason) {
        std::cerr << "virtual_scanner: " << reason.what() << std::endl;
        std::_Exit(EXIT_FAILURE);
    }
    std::_Exit(EXIT_SUCCESS);
}
