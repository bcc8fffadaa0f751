#include "target/scenarios/usb_host.h"

#include <libusb.h>

#include <cstdio>
#include <functional>
#include <stdexcept>

namespace target {

using virtual_scanner::bytes;

namespace {

constexpr int kLongestString = 128;

void require(int result, const std::string& what)
{
    if (result < 0)
        throw std::runtime_error(what + ": " + libusb_error_name(result));
}

struct config_end {
    void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
using config_ptr = std::unique_ptr<libusb_config_descriptor, config_end>;

config_ptr current_configuration(libusb_device_handle* handle)
{
    libusb_config_descriptor* config = nullptr;
    require(libusb_get_active_config_descriptor(libusb_get_device(handle), &config),
            "read the configuration");
    return config_ptr(config);
}

config_ptr configuration_at(libusb_device* device, std::uint8_t index)
{
    libusb_config_descriptor* config = nullptr;
    require(libusb_get_config_descriptor(device, index, &config), "read a configuration");
    return config_ptr(config);
}

bool is_bulk(const libusb_endpoint_descriptor& endpoint)
{
    return (endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) == LIBUSB_TRANSFER_TYPE_BULK;
}

bool is_in(const libusb_endpoint_descriptor& endpoint)
{
    return (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) == LIBUSB_ENDPOINT_IN;
}

std::string interface_line(unsigned interface_class, unsigned subclass, unsigned protocol)
{
    char text[32];
    std::snprintf(text, sizeof text, "interface %02x %02x %02x\n", interface_class, subclass, protocol);
    return text;
}

std::string endpoint_line(bool bulk, bool in)
{
    return std::string("endpoint ") + (bulk ? "bulk" : "interrupt") + (in ? " in\n" : " out\n");
}

std::string configuration_line(unsigned value)
{
    return "configuration " + std::to_string(value) + "\n";
}

std::string describe(const libusb_config_descriptor& config)
{
    std::string text = configuration_line(config.bConfigurationValue);
    for (int index = 0; index < config.bNumInterfaces; ++index) {
        const libusb_interface_descriptor& each = config.interface[index].altsetting[0];
        text += interface_line(each.bInterfaceClass, each.bInterfaceSubClass, each.bInterfaceProtocol);
        for (int endpoint = 0; endpoint < each.bNumEndpoints; ++endpoint)
            text += endpoint_line(is_bulk(each.endpoint[endpoint]), is_in(each.endpoint[endpoint]));
    }
    return text;
}

std::string serial_of(libusb_device* device, std::uint8_t index)
{
    if (index == 0)
        return "";
    libusb_device_handle* handle = nullptr;
    require(libusb_open(device, &handle), "open the device");
    unsigned char text[kLongestString];
    const int length = libusb_get_string_descriptor_ascii(handle, index, text, sizeof text);
    libusb_close(handle);
    require(length, "read the serial number");
    return "serial " + std::string(text, text + length) + "\n";
}

std::string describe(libusb_device* device, const libusb_device_descriptor& descriptor)
{
    std::string text = serial_of(device, descriptor.iSerialNumber);
    for (std::uint8_t index = 0; index < descriptor.bNumConfigurations; ++index)
        text += describe(*configuration_at(device, index));
    return text;
}

libusb_context* make_context()
{
    libusb_context* context = nullptr;
    require(libusb_init(&context), "start libusb");
    return context;
}

/// Calls `visit` with each device of these ids on the bus.
void for_each_device(std::uint16_t vendor, std::uint16_t product,
                     const std::function<void(libusb_device*, const libusb_device_descriptor&)>& visit)
{
    libusb_context* const context = make_context();
    const std::unique_ptr<libusb_context, void (*)(libusb_context*)> context_owner(context, libusb_exit);
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    require(static_cast<int>(count), "list the devices");
    const std::unique_ptr<libusb_device*, void (*)(libusb_device**)> list_owner(
        list, [](libusb_device** all) { libusb_free_device_list(all, 1); });
    for (ssize_t index = 0; index < count; ++index) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[index], &descriptor);
        if (descriptor.idVendor == vendor && descriptor.idProduct == product)
            visit(list[index], descriptor);
    }
}

} // namespace

opened_device::opened_device(std::uint16_t vendor, std::uint16_t product)
    : m_context(make_context()), m_handle(libusb_open_device_with_vid_pid(m_context.get(), vendor, product))
{
    if (m_handle == nullptr)
        throw std::runtime_error("no such device can be opened");
}

void opened_device::context_end::operator()(libusb_context* context) const
{
    libusb_exit(context);
}

void opened_device::handle_end::operator()(libusb_device_handle* handle) const
{
    libusb_close(handle);
}

usb_host::usb_host(std::uint16_t vendor, std::uint16_t product, int interface)
    : m_device(vendor, product), m_interface(interface)
{
    find_endpoints();
    require(libusb_claim_interface(m_device.handle(), interface), "claim the interface");
}

usb_host::~usb_host()
{
    libusb_release_interface(m_device.handle(), m_interface);
}

void usb_host::find_endpoints()
{
    const config_ptr config = current_configuration(m_device.handle());
    const libusb_interface_descriptor& ours = config->interface[m_interface].altsetting[0];
    for (int index = 0; index < ours.bNumEndpoints; ++index) {
        const libusb_endpoint_descriptor& endpoint = ours.endpoint[index];
        if (is_bulk(endpoint))
            (is_in(endpoint) ? m_in : m_out) = endpoint.bEndpointAddress;
    }
}

transfer usb_host::write(const bytes& data, unsigned timeout_ms)
{
    bytes copy = data; // libusb has one buffer type for both ways
    transfer came{};
    came.result = libusb_bulk_transfer(m_device.handle(), m_out, copy.data(), static_cast<int>(copy.size()),
                                       &came.moved, timeout_ms);
    return came;
}

transfer usb_host::read(int count, unsigned timeout_ms)
{
    transfer came{};
    came.data.resize(static_cast<std::size_t>(count));
    came.result =
        libusb_bulk_transfer(m_device.handle(), m_in, came.data.data(), count, &came.moved, timeout_ms);
    came.data.resize(static_cast<std::size_t>(came.moved));
    return came;
}

void usb_host::clear_halt_in()
{
    require(libusb_clear_halt(m_device.handle(), m_in), "clear the halt of IN");
}

void usb_host::clear_halt_out()
{
    require(libusb_clear_halt(m_device.handle(), m_out), "clear the halt of OUT");
}

int active_configuration(std::uint16_t vendor, std::uint16_t product)
{
    int value = 0;
    require(libusb_get_configuration(opened_device(vendor, product).handle(), &value),
            "ask for the configuration");
    return value;
}

void choose_configuration(std::uint16_t vendor, std::uint16_t product, int value)
{
    require(libusb_set_configuration(opened_device(vendor, product).handle(), value),
            "choose a configuration");
}

bool is_on_bus(std::uint16_t vendor, std::uint16_t product)
{
    bool is_found = false;
    for_each_device(vendor, product,
                    [&](libusb_device*, const libusb_device_descriptor&) { is_found = true; });
    return is_found;
}

std::vector<std::string> described_on_bus(std::uint16_t vendor, std::uint16_t product)
{
    std::vector<std::string> found;
    for_each_device(vendor, product, [&](libusb_device* device, const libusb_device_descriptor& descriptor) {
        found.push_back(describe(device, descriptor));
    });
    return found;
}

std::string described_in_file(const virtual_scanner::device_description& device)
{
    std::string text = has_strings(device) ? "serial " + device.serial + "\n" : "";
    for (const auto& configuration : device.configurations) {
        text += configuration_line(configuration.value);
        for (const auto& each : configuration.interfaces) {
            text += interface_line(each.interface_class, each.subclass, each.protocol);
            for (const auto& endpoint : each.endpoints)
                text += endpoint_line(endpoint.type == virtual_scanner::endpoint_type::bulk,
                                      endpoint.direction == virtual_scanner::endpoint_direction::in);
        }
    }
    return text;
}

} // namespace target
