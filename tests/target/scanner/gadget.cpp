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
#include <vector>

#include "target/scanner/posix_file.h"

namespace virtual_scanner {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kHostLimit{10};
constexpr std::chrono::milliseconds kBetweenLooksAtHost{2};
constexpr const char* kGadgetsFolder = "/sys/kernel/config/usb_gadget/";
constexpr const char* kFunctionsFolder = "/run/virtual-scanner/";
/// How configfs knows the kind of a function.
constexpr const char* kFunctionPrefix = "ffs.";
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

/// What is in a folder, which may not exist.
std::vector<fs::path> entries_of(const fs::path& folder)
{
    std::error_code none_such;
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(folder, none_such))
        found.push_back(entry.path());
    return found;
}

} // namespace

gadget::gadget(const device_description& device, std::string controller)
    : m_name(device.name), m_folder(kGadgetsFolder + device.name), m_controller(std::move(controller))
{
    remove();
    make(device);
}

std::string gadget::function_name(std::uint8_t configuration) const
{
    return m_name + "." + std::to_string(configuration);
}

std::string gadget::function_folder(std::uint8_t configuration) const
{
    return kFunctionsFolder + function_name(configuration);
}

void gadget::make(const device_description& device) const
{
    fs::create_directory(m_folder);
    write_attribute(m_folder + "/idVendor", hex(device.vendor));
    write_attribute(m_folder + "/idProduct", hex(device.product));
    if (has_strings(device))
        make_strings(device);
    for (const configuration_description& each : device.configurations)
        make_configuration(each.value);
}

void gadget::make_strings(const device_description& device) const
{
    const std::string strings = m_folder + "/strings/" + kLanguage;
    fs::create_directory(strings);
    write_attribute(strings + "/manufacturer", maker_of(device));
    write_attribute(strings + "/product", model_of(device));
    if (!device.serial.empty())
        write_attribute(strings + "/serialnumber", device.serial);
}

void gadget::make_configuration(std::uint8_t value) const
{
    const std::string name = function_name(value);
    const std::string function = m_folder + "/functions/" + kFunctionPrefix + name;
    const std::string configuration = m_folder + "/configs/c." + std::to_string(value);
    fs::create_directory(configuration);
    fs::create_directory(function);
    fs::create_symlink(function, configuration + "/function");
    fs::create_directories(function_folder(value));
    if (::mount(name.c_str(), function_folder(value).c_str(), "functionfs", 0, nullptr) != 0)
        throw_errno("mount functionfs at " + function_folder(value));
}

/// Of an earlier gadget any part may be left, or none.
void gadget::remove() const
{
    for (const fs::path& configuration : entries_of(m_folder + "/configs")) {
        ::unlink((configuration / "function").c_str());
        ::rmdir(configuration.c_str());
    }
    for (const fs::path& function : entries_of(m_folder + "/functions")) {
        const std::string name = function.filename().string().substr(std::strlen(kFunctionPrefix));
        ::umount2((kFunctionsFolder + name).c_str(), MNT_DETACH);
        ::rmdir(function.c_str());
    }
    ::rmdir((m_folder + "/strings/" + kLanguage).c_str());
    ::rmdir(m_folder.c_str());
}

void gadget::plug()
{
    const std::lock_guard lock(m_plugging);
    if (m_isGone)
        throw std::runtime_error("it has vanished for good");
    if (is_plugged())
        throw std::runtime_error("it is plugged in already");
    wait_until("forgotten the earlier device", [this] { return host_folder().empty(); });
    write_attribute(m_folder + "/UDC", m_controller);
    wait_until("configured the device", [this] { return is_configured(); });
}

void gadget::unplug()
{
    const std::lock_guard lock(m_plugging);
    unplug_locked();
}

void gadget::vanish()
{
    const std::lock_guard lock(m_plugging);
    m_isGone = true;
    unplug_locked();
}

void gadget::unplug_locked() const
{
    if (!is_plugged())
        return;
    write_attribute(m_folder + "/UDC", "\n");
    wait_until("seen the device go", [this] { return host_folder().empty(); });
}

bool gadget::is_plugged() const
{
    std::string controller;
    return static_cast<bool>(std::ifstream(m_folder + "/UDC") >> controller);
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
        std::this_thread::sleep_for(kBetweenLooksAtHost);
    }
}

} // namespace virtual_scanner
