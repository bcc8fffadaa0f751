#include "target/scenarios/host_device.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/wait_until.h"
#include "target/scanner/posix_file.h"

namespace target {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNodes = "/dev/bus/usb";
constexpr const char* kRootHub = "001"; // on every bus
constexpr fs::perms kKernelsRights = fs::perms::owner_read | fs::perms::owner_write;
constexpr std::chrono::milliseconds kRightsLimit{20'000};

std::string attribute_of(const fs::path& device, const std::string& name)
{
    std::string value;
    std::getline(std::ifstream(device / name), value);
    return value;
}

std::string folder_of(const std::string& attribute, const std::string& value)
{
    for (const auto& entry : fs::directory_iterator("/sys/bus/usb/devices"))
        if (attribute_of(entry, attribute) == value)
            return entry.path();
    throw std::runtime_error("no device on the bus has " + attribute + " " + value);
}

/// Of every device but the root hubs, which are there before the daemon.
bool are_rights_given()
{
    for (const auto& entry : fs::recursive_directory_iterator(kNodes))
        if (entry.is_character_file() && entry.path().filename() != kRootHub &&
            entry.status().permissions() == kKernelsRights)
            return false;
    return true;
}

} // namespace

host_device::host_device(const std::string& attribute, const std::string& value)
    : m_folder(folder_of(attribute, value))
{
}

std::string host_device::attribute(const std::string& name) const
{
    return attribute_of(m_folder, name);
}

std::string host_device::driver(int interface_number) const
{
    const std::string interface =
        m_folder + ":" + attribute("bConfigurationValue") + "." + std::to_string(interface_number);
    std::error_code none;
    return fs::read_symlink(interface + "/driver", none).filename();
}

void host_device::configure(int value) const
{
    virtual_scanner::write_attribute(m_folder + "/bConfigurationValue", std::to_string(value));
}

std::string host_device::node() const
{
    char path[32];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", std::stoi(attribute("busnum")),
                  std::stoi(attribute("devnum")));
    return path;
}

void wait_for_node_rights()
{
    if (!support::wait_until(kRightsLimit, are_rights_given))
        throw std::runtime_error("udev's daemon did not give every device node its rights: is it running?");
}

} // namespace target
