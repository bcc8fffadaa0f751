#include "process/tvkctl/usb_paths.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

const std::string kNodes = "/dev/bus/usb";
const std::string kSysfsDevices = "/sys/bus/usb/devices";
const std::string kNewDev = support::kLogRoot + "/dev";

void check(int result, const std::string& step)
{
    if (result != 0)
        throw std::runtime_error(step + ": " + std::strerror(errno));
}

/// /dev need not have a folder for USB, and it belongs to the machine: a new one takes its place, with the
/// nodes that the other tests of this process need.
void cover_dev()
{
    fs::create_directories(kNewDev + "/pts");
    check(mount("/dev/pts", (kNewDev + "/pts").c_str(), nullptr, MS_BIND, nullptr), "bind of /dev/pts");
    fs::create_symlink("pts/ptmx", kNewDev + "/ptmx");
    fs::create_symlink("/proc/self/fd", kNewDev + "/fd");
    for (const std::string name : {"null", "zero", "full", "urandom"}) {
        std::ofstream(kNewDev + "/" + name);
        check(mount(("/dev/" + name).c_str(), (kNewDev + "/" + name).c_str(), nullptr, MS_BIND, nullptr),
              "bind of /dev/" + name);
    }
    check(mount(kNewDev.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr), "bind over /dev");
}

void cover_once()
{
    static bool is_covered = false;
    if (is_covered)
        return;
    cover_dev();
    check(mount("tmpfs", "/sys/bus", "tmpfs", 0, "mode=0755"), "tmpfs over /sys/bus");
    is_covered = true;
}

} // namespace

void cover_usb_paths()
{
    cover_once();
    for (const std::string& folder : {kNodes, kSysfsDevices}) {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
}

std::string make_node(int bus, int address, uid_t owner, mode_t mode)
{
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "/%03d/%03d", bus, address);
    const std::string path = kNodes + name.data();
    fs::create_directories(fs::path(path).parent_path());
    const std::ofstream file(path);
    check(chown(path.c_str(), owner, owner), "chown " + path);
    check(chmod(path.c_str(), mode), "chmod " + path);
    return path;
}

void set_active_configuration(const std::string& port, int value)
{
    const std::string folder = kSysfsDevices + "/" + port;
    fs::create_directories(folder);
    std::ofstream(folder + "/bConfigurationValue") << value << "\n";
}

void bind_driver(const std::string& interface_name, const std::string& driver)
{
    const std::string folder = kSysfsDevices + "/" + interface_name;
    fs::create_directories(folder);
    fs::create_symlink("../../drivers/" + driver, folder + "/driver");
}

} // namespace process_test
