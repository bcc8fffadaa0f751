#include "tvkctl/src/machine/usb_scan.h"

#include <fcntl.h>
#include <libusb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "common/text/text.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkintif/src/usb.h"

namespace fs = std::filesystem;

namespace tarvik::tvkctl {

namespace {

constexpr int kDeepestPort = 7; // of hubs within hubs, as far as USB goes

struct context_deleter {
    void operator()(libusb_context* context) const { libusb_exit(context); }
};
using context = std::unique_ptr<libusb_context, context_deleter>;

struct list_deleter {
    void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
using device_list = std::unique_ptr<libusb_device*, list_deleter>;

struct handle_deleter {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};
using device_handle = std::unique_ptr<libusb_device_handle, handle_deleter>;

struct config_deleter {
    void operator()(libusb_config_descriptor* descriptor) const { libusb_free_config_descriptor(descriptor); }
};
using config_descriptor = std::unique_ptr<libusb_config_descriptor, config_deleter>;

[[noreturn]] void give_up(const char* call, ssize_t result)
{
    throw tool_error(kUsbUnavailable,
                     std::string("the USB devices cannot be enumerated: ") + call + " answers " +
                         libusb_error_name(static_cast<int>(result)),
                     {"Check that this machine has USB and that /dev/bus/usb and /sys/bus/usb are there."});
}

context new_context()
{
    libusb_context* made = nullptr;
    if (const int result = libusb_init(&made); result != LIBUSB_SUCCESS)
        give_up("libusb_init", result);
    return context(made);
}

std::vector<usb_configuration> read_configurations(libusb_device* device, std::uint8_t count)
{
    std::vector<usb_configuration> all;
    for (std::uint8_t index = 0; index < count; ++index) {
        libusb_config_descriptor* read = nullptr;
        if (libusb_get_config_descriptor(device, index, &read) != LIBUSB_SUCCESS)
            break; // the program does not look further either
        all.push_back(configuration_of(*config_descriptor(read)));
    }
    return all;
}

std::string read_port_path(libusb_device* device, int bus)
{
    std::array<std::uint8_t, kDeepestPort> ports{};
    const int count = libusb_get_port_numbers(device, ports.data(), static_cast<int>(ports.size()));
    if (count <= 0)
        return "usb" + std::to_string(bus);
    std::string path = std::to_string(bus);
    for (int i = 0; i < count; ++i)
        path += (i == 0 ? '-' : '.') + std::to_string(ports.at(static_cast<std::size_t>(i)));
    return path;
}

fs::path sysfs_folder(const std::string& name, const host& machine)
{
    return fs::path(machine.sysfs) / "bus/usb/devices" / name;
}

std::string first_line(const fs::path& file)
{
    std::ifstream text(file);
    std::string line;
    std::getline(text, line);
    return line;
}

/// Sysfs gives UTF-8; to the program every UTF-16 unit beyond ASCII is a question mark.
std::string as_ascii(const std::string& utf8)
{
    std::string ascii;
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        const bool is_continuation = (byte & 0xC0U) == 0x80U;
        const bool is_of_two_units = byte >= 0xF0U;
        if (byte < 0x80U)
            ascii += c;
        else if (!is_continuation)
            ascii += is_of_two_units ? "??" : "?";
    }
    return ascii;
}

std::string read_text(const device_handle& handle, std::uint8_t index)
{
    std::array<unsigned char, 256> buffer{};
    if (index == 0 || libusb_get_string_descriptor_ascii(handle.get(), index, buffer.data(),
                                                         static_cast<int>(buffer.size())) <= 0)
        return {};
    return {buffer.begin(), std::find(buffer.begin(), buffer.end(), '\0')};
}

device_handle open_device(libusb_device* device)
{
    libusb_device_handle* opened = nullptr;
    return device_handle(libusb_open(device, &opened) == LIBUSB_SUCCESS ? opened : nullptr);
}

void read_texts(usb_device& device, libusb_device* source, const libusb_device_descriptor& descriptor,
                const host& machine)
{
    const device_handle handle = usable_interface_of(device) ? open_device(source) : nullptr;
    if (handle) {
        device.serial = read_text(handle, descriptor.iSerialNumber);
        device.manufacturer = read_text(handle, descriptor.iManufacturer);
        device.product = read_text(handle, descriptor.iProduct);
        return;
    }
    const fs::path folder = sysfs_folder(device.port_path, machine);
    device.serial = as_ascii(first_line(folder / "serial"));
    device.manufacturer = as_ascii(first_line(folder / "manufacturer"));
    device.product = as_ascii(first_line(folder / "product"));
}

std::optional<int> read_active_configuration(const std::string& port_path, const host& machine)
{
    const std::string text = first_line(sysfs_folder(port_path, machine) / "bConfigurationValue");
    return is_number(text) ? std::optional<int>(std::atoi(text.c_str())) : std::nullopt;
}

std::string node_path(int bus, int address, const host& machine)
{
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "/bus/usb/%03d/%03d", bus, address);
    return machine.devices + name.data();
}

device_node look_at_node(const std::string& path)
{
    device_node node;
    node.path = path;
    struct stat status = {};
    node.exists = stat(path.c_str(), &status) == 0;
    if (!node.exists)
        return node;
    node.owner = user_of(status.st_uid);
    node.group = group_of(status.st_gid);
    node.mode = status.st_mode;
    node.may_open = faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0;
    return node;
}

std::optional<usb_device> look_at_device(libusb_device* source, const host& machine)
{
    libusb_device_descriptor descriptor = {};
    if (libusb_get_device_descriptor(source, &descriptor) != LIBUSB_SUCCESS)
        return std::nullopt; // the program passes it by as well
    usb_device device;
    device.vendor_id = descriptor.idVendor;
    device.product_id = descriptor.idProduct;
    device.bus = libusb_get_bus_number(source);
    device.address = libusb_get_device_address(source);
    device.port_path = read_port_path(source, device.bus);
    device.configurations = read_configurations(source, descriptor.bNumConfigurations);
    device.active_configuration = read_active_configuration(device.port_path, machine);
    device.node = look_at_node(node_path(device.bus, device.address, machine));
    read_texts(device, source, descriptor, machine);
    return device;
}

/// Whether two files are the same thing: one file, or two nodes of one device.
bool is_same(const struct stat& a, const struct stat& b)
{
    if (S_ISCHR(a.st_mode) && S_ISCHR(b.st_mode))
        return a.st_rdev == b.st_rdev;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

enum class look { holds, does_not, not_permitted };

look look_into_process(const fs::path& process, const struct stat& wanted)
{
    std::error_code error;
    for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        struct stat status = {};
        if (stat(entry->path().c_str(), &status) == 0 && is_same(status, wanted))
            return look::holds;
    }
    const bool is_refused = error == std::errc::permission_denied;
    return is_refused ? look::not_permitted : look::does_not; // a process that is gone holds nothing
}

} // namespace

std::string device_node::mode_text() const
{
    std::string text = S_ISCHR(mode) ? "crwxrwxrwx" : "-rwxrwxrwx";
    for (std::size_t bit = 0; bit < 9; ++bit)
        if ((mode & (0400U >> bit)) == 0)
            text[bit + 1] = '-';
    return text;
}

std::vector<usb_device> scan_usb(const host& machine)
{
    const context usb = new_context();
    libusb_device** found = nullptr;
    const ssize_t count = libusb_get_device_list(usb.get(), &found);
    if (count < 0)
        give_up("libusb_get_device_list", count);
    const device_list list(found);
    std::vector<usb_device> all;
    for (ssize_t i = 0; i < count; ++i)
        if (std::optional<usb_device> device = look_at_device(found[i], machine))
            all.push_back(*std::move(device));
    return all;
}

std::string ids_of(const usb_device& device)
{
    return hexadecimal(device.vendor_id, 4) + ":" + hexadecimal(device.product_id, 4);
}

std::optional<usable_interface> usable_interface_of(const usb_device& device)
{
    for (const usb_configuration& configuration : device.configurations)
        if (const interface_choice choice = choose_interface(configuration); choice.used)
            return choice.used;
    return std::nullopt;
}

std::string kernel_driver_of(const usb_device& device, int interface_number, const host& machine)
{
    if (!device.active_configuration)
        return {};
    const std::string interface_name = device.port_path + ":" + std::to_string(*device.active_configuration) +
                                       "." + std::to_string(interface_number);
    std::error_code none;
    return fs::read_symlink(sysfs_folder(interface_name, machine) / "driver", none).filename();
}

node_holders find_node_holders(const device_node& node, const host& machine)
{
    node_holders holders{{}, true};
    struct stat wanted = {};
    if (stat(node.path.c_str(), &wanted) != 0)
        return holders;
    std::error_code error;
    for (fs::directory_iterator entry(machine.processes, error), end; !error && entry != end;
         entry.increment(error)) {
        if (!is_number(entry->path().filename().string()))
            continue;
        const look result = look_into_process(entry->path(), wanted);
        if (result == look::holds)
            holders.found.push_back({static_cast<pid_t>(std::atol(entry->path().filename().c_str())),
                                     first_line(entry->path() / "comm")});
        holders.is_complete = holders.is_complete && result != look::not_permitted;
    }
    holders.is_complete = holders.is_complete && !error;
    return holders;
}

} // namespace tarvik::tvkctl
