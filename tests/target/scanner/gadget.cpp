#include "target/scanner/gadget.h"

#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "target/scanner/posix_file.h"

namespace virtual_scanner {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kHostLimit{10};
constexpr std::chrono::milliseconds kBetweenLooks{2};
constexpr const char* kGadgetsFolder = "/sys/kernel/config/usb_gadget/";
constexpr const char* kFunctionsFolder = "/run/virtual-scanner/";
/// What the host calls its buses, before their number.
constexpr const char* kBusPrefix = "usb";
/// English, the one language of the strings.
constexpr const char* kLanguage = "0x409";

std::string hex(unsigned value)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

} // namespace

gadget::gadget(const device_description& device, std::string controller)
    : m_function("ffs." + device.name), m_folder(kGadgetsFolder + device.name),
      m_function_folder(kFunctionsFolder + device.name), m_controller(std::move(controller))
{
    remove();
    make(device);
}

void gadget::make(const device_description& device) const
{
    fs::create_directory(m_folder);
    write_attribute(m_folder + "/idVendor", hex(device.vendor));
    write_attribute(m_folder + "/idProduct", hex(device.product));
    const std::string strings = m_folder + "/strings/" + kLanguage;
    fs::create_directory(strings);
    write_attribute(strings + "/manufacturer", device.maker);
    write_attribute(strings + "/product", device.model);
    // An attribute that is never written leaves the device without a serial number string.
    if (!device.serial.empty())
        write_attribute(strings + "/serialnumber", device.serial);
    fs::create_directory(m_folder + "/configs/c.1");
    fs::create_directory(m_folder + "/functions/" + m_function);
    fs::create_symlink(m_folder + "/functions/" + m_function, m_folder + "/configs/c.1/" + m_function);
    fs::create_directories(m_function_folder);
    if (::mount(device.name.c_str(), m_function_folder.c_str(), "functionfs", 0, nullptr) != 0)
        throw_errno("mount functionfs at " + m_function_folder);
}

/// Of an earlier gadget any part may be left, or none.
void gadget::remove() const
{
    ::umount2(m_function_folder.c_str(), MNT_DETACH);
    ::unlink((m_folder + "/configs/c.1/" + m_function).c_str());
    ::rmdir((m_folder + "/functions/" + m_function).c_str());
    ::rmdir((m_folder + "/configs/c.1").c_str());
    ::rmdir((m_folder + "/strings/" + kLanguage).c_str());
    ::rmdir(m_folder.c_str());
}

void gadget::plug() const
{
    wait_until("forgotten the earlier device", [this] { return host_folder().empty(); });
    write_attribute(m_folder + "/UDC", m_controller);
    wait_until("configured the device", [this] { return is_configured(); });
}

void gadget::unplug() const
{
    try {
        write_attribute(m_folder + "/UDC", "\n");
    } catch (const std::system_error&) {
        return; // not plugged in
    }
    wait_until("seen the device go", [this] { return host_folder().empty(); });
}

/// Where the host controller that is wired to ours shows the device; empty while it has none. The device
/// controller's own state is no help: it may still be the one of the device before.
std::string gadget::host_folder() const
{
    const std::string number = m_controller.substr(m_controller.rfind('.') + 1);
    for (const auto& bus : fs::directory_iterator("/sys/devices/platform/dummy_hcd." + number)) {
        const std::string name = bus.path().filename();
        if (name.rfind(kBusPrefix, 0) != 0)
            continue;
        const fs::path folder = bus.path() / (name.substr(std::strlen(kBusPrefix)) + "-1");
        if (fs::exists(folder))
            return folder;
    }
    return "";
}

bool gadget::is_configured() const
{
    std::string value;
    std::ifstream(host_folder() + "/bConfigurationValue") >> value;
    return !value.empty();
}

void gadget::wait_until(const std::string& what, const std::function<bool()>& is_so) const
{
    const auto deadline = std::chrono::steady_clock::now() + kHostLimit;
    while (!is_so()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("the host has not " + what + " in time (" + m_controller + ")");
        std::this_thread::sleep_for(kBetweenLooks);
    }
}

} // namespace virtual_scanner
