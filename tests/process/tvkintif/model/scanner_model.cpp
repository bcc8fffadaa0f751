#include "process/tvkintif/model/scanner_model.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

#include "support/dialogue.h"

namespace session_model {

namespace {

constexpr std::size_t kLongestMessage = 1023;
constexpr int kAttempts = 5;
constexpr int kTries = 5;
constexpr int kSerialBuffer = 256;
constexpr unsigned int kTransferTimeout = 60000;
constexpr int kVendorSpecific = 0xFF;

/// The id in a field of an address; 0: there is none.
unsigned int id_in(const std::string& udi, int field)
{
    if (udi.rfind("usb:", 0) != 0)
        return 0;
    std::size_t start = 0;
    for (int i = 0; i < field; ++i) {
        const std::size_t colon = udi.find(':', start);
        if (colon == std::string::npos)
            return 0;
        start = colon + 1;
    }
    const std::string text = udi.substr(start, udi.find(':', start) - start);
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 16);
    return *end == '\0' && value < 0x10000 ? static_cast<unsigned int>(value) : 0;
}

std::string serial_in(const std::string& udi)
{
    std::istringstream input(udi);
    std::string field;
    for (int i = 0; i < 4; ++i)
        if (!std::getline(input, field, ':'))
            return {};
    return field;
}

} // namespace

void log(const std::string& text)
{
    const std::string shown = text.c_str(); // up to a NUL
    support::record("log INFO " + shown.substr(0, kLongestMessage));
}

const std::vector<plugin_kind>& known_plugins()
{
    static const std::vector<plugin_kind> kinds = [] {
        std::vector<plugin_kind> all = {
            {"plugin_good"}, {"plugin_odd", -7, 42, -3}, {"plugin_failing", 1, 0, 0}, {"plugin_refusing", 0}};
        plugin_kind talking{"plugin_talking"};
        talking.sent_in_ctor = {1};
        talking.sent_in_dtor = {4};
        all.push_back(talking);
        plugin_kind refusing{"plugin_refusing_after_talk", 0};
        refusing.sent_in_ctor = {1};
        all.push_back(refusing);
        for (const char* target : {"plugin_without_ctor", "plugin_without_dtor", "plugin_without_reader",
                                   "plugin_without_writer"}) {
            all.push_back({target});
            all.back().is_complete = false;
        }
        all.push_back({"plugin_echoing"});
        all.back().echoes = true;
        return all;
    }();
    return kinds;
}

std::string plugin_file_of(unsigned int product)
{
    static const std::map<unsigned int, std::string> files = {
        {0x0A71, "libqvintZ4.so"},
        {0x0A72, "libquban-plugin-stellan-x440.so"},
        {0x0A7E, "libmora-interpreter-stellan-x120.so"},
        {0x0A83, "libquban-plugin-stellan-x660.so"},
        {0x0A75, "libryo-mora-rt0915.so"},
        {0x0A76, "libryo-mora-rt0915.so"},
    };
    const auto listed = files.find(product);
    return listed == files.end() ? "libryo-mora-hk-t210.so" : listed->second;
}

scanner_model::scanner_model(const plugin_kind* installed, std::string installed_file)
    : m_installed(installed), m_installedFile(std::move(installed_file))
{
}

scanner_model::address scanner_model::parse(const std::string& udi)
{
    return {id_in(udi, 1), id_in(udi, 2), serial_in(udi)};
}

// The session.

bool scanner_model::open(const std::string& udi)
{
    log("open " + udi);
    if (m_device != nullptr)
        return true;
    const address to = parse(udi);
    if (!to.is_valid()) {
        log("machine: invalid UDI '" + std::string(udi.c_str()) + "'");
        log("get pid fails");
        return false;
    }
    const std::string file = plugin_file_of(to.product);
    log("interpName " + file);
    const bool is_loaded =
        load_plugin(std::string(TVKINTIF_PLUGIN_DIR) + "libexec/" + file, m_installedFile == file);
    if (is_loaded && connect(to))
        return start_plugin();
    log("open fails");
    return false;
}

void scanner_model::close()
{
    if (std::exchange(m_isRunning, false)) {
        if (!m_installed->echoes) {
            tell("dtor");
            send_by_itself(m_installed->sent_in_dtor);
        }
        unload_plugin();
    }
    end_usb();
}

bool scanner_model::send(bytes data)
{
    if (!m_isRunning || data.empty())
        return false;
    tell("writer " + std::to_string(data.size()));
    if (m_installed->echoes) {
        m_kept = data;
        return true;
    }
    const int result = m_installed->writer ? *m_installed->writer : transfer("write", m_out, data);
    return result != 0;
}

std::optional<bytes> scanner_model::receive(std::size_t count)
{
    if (!m_isRunning || count == 0)
        return std::nullopt;
    bytes data(count);
    tell("reader " + std::to_string(count));
    if (m_installed->echoes) {
        std::copy_n(m_kept.begin(), std::min(count, m_kept.size()), data.begin());
        return data;
    }
    const int result = m_installed->reader ? *m_installed->reader : transfer("read", m_in, data);
    return result != 0 ? std::optional(data) : std::nullopt;
}

// The plugin.

bool scanner_model::load_plugin(const std::string& path, bool is_installed)
{
    log("interpreter load " + path);
    if (m_installed == nullptr || !is_installed) {
        log("interpreter load fails " + path + ": cannot open shared object file: No such file or directory");
        log("interpreter : load failed.");
        return false;
    }
    if (!m_installed->echoes)
        tell("loaded");
    if (m_installed->is_complete)
        return true;
    unload_plugin();
    log("interpreter function load errors");
    log("interpreter : invalid symboles.");
    return false;
}

void scanner_model::unload_plugin() const
{
    if (!m_installed->echoes)
        tell("unloaded");
}

bool scanner_model::start_plugin()
{
    if (!m_installed->echoes)
        tell("ctor");
    send_by_itself(m_installed->sent_in_ctor);
    m_isRunning = m_installed->ctor != 0;
    if (m_isRunning)
        return true;
    end_usb();
    log("usb ctor failer.");
    unload_plugin();
    return false;
}

void scanner_model::tell(const std::string& what) const
{
    support::record(m_installed->target + " " + what);
}

void scanner_model::send_by_itself(const std::vector<int>& data)
{
    for (const int byte : data) {
        bytes one = {static_cast<unsigned char>(byte)};
        const int moved = transfer("write", m_out, one);
        tell("sent " + std::to_string(moved));
    }
}

// The device.

bool scanner_model::connect(const address& to)
{
    if (!start_usb())
        return false;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        const bool is_open = try_device(to);
        log("connection open isSuccess = " + std::to_string(static_cast<int>(is_open)));
        if (is_open) {
            log("break");
            return true;
        }
        if (attempt < kAttempts)
            support::record("sleep 3");
    }
    log("retry finish");
    log("usb connection failer.");
    end_usb();
    unload_plugin();
    return false;
}

bool scanner_model::start_usb()
{
    log("usb_transceiver start");
    const int result = libusb_init(&m_context);
    if (result == LIBUSB_SUCCESS) {
        libusb_set_debug(m_context, 3);
        return true;
    }
    m_context = nullptr;
    log(std::string("libusb error = ") + libusb_error_name(result));
    unload_plugin();
    log(std::string("libusb_init: ") + libusb_error_name(result));
    return false;
}

void scanner_model::end_usb()
{
    close_device();
    if (m_context != nullptr)
        libusb_exit(std::exchange(m_context, nullptr));
}

bool scanner_model::try_device(const address& to)
{
    log("usb_transceiver open start");
    log("usb_transceiver open " + to.serial);
    if (to.serial.empty() || !find_by_serial(to))
        find_by_ids(to);
    if (m_device == nullptr) {
        log("usb_transceiver open fails");
        return false;
    }
    if (take_interface())
        return true;
    close_device();
    log("usb_transceiver set_bulk_endpoints fails");
    return false;
}

bool scanner_model::find_by_serial(const address& to)
{
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(m_context, &list);
    for (ssize_t i = 0; i < count && m_device == nullptr; ++i)
        if (is_match(to, list[i])) {
            log("found device");
            if (libusb_open(list[i], &m_device) != LIBUSB_SUCCESS)
                m_device = nullptr;
        }
    if (count >= 0) // else there is none
        libusb_free_device_list(list, 1);
    if (m_device == nullptr)
        log("not found retry");
    return m_device != nullptr;
}

bool scanner_model::is_match(const address& wanted, libusb_device* candidate) const
{
    libusb_device_descriptor descriptor = {};
    if (libusb_get_device_descriptor(candidate, &descriptor) != LIBUSB_SUCCESS)
        return false;
    if (descriptor.idVendor != wanted.vendor || descriptor.idProduct != wanted.product)
        return false;
    libusb_device_handle* handle = nullptr;
    if (libusb_open(candidate, &handle) != LIBUSB_SUCCESS)
        return true;
    unsigned char serial[kSerialBuffer] = {};
    libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber, serial, kSerialBuffer);
    libusb_close(handle);
    return std::strcmp(reinterpret_cast<const char*>(serial), wanted.serial.c_str()) ==
           0; // libusb's type of text
}

void scanner_model::find_by_ids(const address& to)
{
    for (int i = 0; i < kTries && m_device == nullptr; ++i) {
        m_device = libusb_open_device_with_vid_pid(m_context, static_cast<std::uint16_t>(to.vendor),
                                                   static_cast<std::uint16_t>(to.product));
        if (m_device == nullptr)
            support::record("usleep 100");
    }
}

bool scanner_model::take_interface()
{
    log("usb_transceiver set_bulk_endpoints");
    libusb_device* const device = libusb_get_device(m_device);
    libusb_device_descriptor descriptor = {};
    int active = 0;
    if (device == nullptr || libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS ||
        libusb_get_configuration(m_device, &active) != LIBUSB_SUCCESS)
        return false;
    bool is_over = false;
    bool is_taken = false;
    for (std::uint8_t i = 0; i < descriptor.bNumConfigurations && !is_over; ++i) {
        libusb_config_descriptor* configuration = nullptr;
        if (libusb_get_config_descriptor(device, i, &configuration) != LIBUSB_SUCCESS)
            return false;
        if (configuration->bConfigurationValue != active &&
            libusb_set_configuration(m_device, 1) != LIBUSB_SUCCESS)
            is_over = true;
        else
            is_taken = take_interface_of(*configuration, is_over);
        libusb_free_config_descriptor(configuration);
    }
    return is_taken;
}

bool scanner_model::take_interface_of(const libusb_config_descriptor& configuration, bool& is_over)
{
    for (int i = 0; i < configuration.bNumInterfaces; ++i)
        for (int k = 0; k < configuration.interface[i].num_altsetting; ++k) {
            const bool is_taken = take_setting(configuration.interface[i].altsetting[k], is_over);
            if (is_over)
                return is_taken;
        }
    return false;
}

bool scanner_model::take_setting(const libusb_interface_descriptor& setting, bool& is_over)
{
    if (setting.bInterfaceClass != kVendorSpecific || setting.bInterfaceProtocol != kVendorSpecific)
        return false;
    const int number = setting.bInterfaceNumber;
    const bool has_driver = libusb_kernel_driver_active(m_device, number) == 1;
    is_over = true; // unless it has too few endpoints
    if (has_driver && libusb_detach_kernel_driver(m_device, number) != LIBUSB_SUCCESS)
        return false;
    if (libusb_claim_interface(m_device, number) != LIBUSB_SUCCESS) {
        if (has_driver)
            libusb_attach_kernel_driver(m_device, number);
        return false;
    }
    take_endpoints(setting);
    if (m_in != -1 && m_out != -1) {
        m_interface = number;
        m_hasDriver = has_driver;
        return true;
    }
    is_over = false;
    libusb_release_interface(m_device, number);
    if (has_driver)
        libusb_attach_kernel_driver(m_device, number);
    return false;
}

void scanner_model::take_endpoints(const libusb_interface_descriptor& setting)
{
    m_in = -1;
    m_out = -1;
    for (int i = 0; i < setting.bNumEndpoints && setting.endpoint != nullptr; ++i) {
        const libusb_endpoint_descriptor& endpoint = setting.endpoint[i];
        if ((endpoint.bmAttributes & 3) == LIBUSB_TRANSFER_TYPE_BULK)
            ((endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0 ? m_in : m_out) =
                endpoint.bEndpointAddress;
    }
}

void scanner_model::close_device()
{
    if (m_interface != -1) {
        libusb_release_interface(m_device, m_interface);
        if (m_hasDriver)
            libusb_attach_kernel_driver(m_device, m_interface);
        m_interface = -1;
    }
    if (m_device != nullptr)
        libusb_close(std::exchange(m_device, nullptr));
}

int scanner_model::transfer(const char* direction, int endpoint, bytes& data)
{
    const std::string name = std::string("usb ") + direction + " : ";
    const int size = static_cast<int>(data.size());
    int moved = 0;
    const int result = libusb_bulk_transfer(m_device, static_cast<unsigned char>(endpoint), data.data(), size,
                                            &moved, kTransferTimeout);
    if (moved != size)
        log(name + "transferred " + std::to_string(moved) + " of " + std::to_string(size) + " bytes");
    if (result == LIBUSB_ERROR_PIPE) {
        libusb_clear_halt(m_device, static_cast<unsigned char>(endpoint));
        log("clearing halt: LIBUSB_ERROR_PIPE");
    }
    if (result != LIBUSB_SUCCESS)
        log(name + libusb_error_name(result));
    return moved;
}

} // namespace session_model
