#include "tvkintif/src/usb.h"

#include <unistd.h>

#include <array>
#include <cassert>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "common/log/logger.h"
#include "tvkintif/src/models.h"

#ifdef NDEBUG
#error "The assertions here guard libusb against programming errors and belong in shipped builds too."
#endif

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "usb";
constexpr int kLibusbMessages = 3; ///< errors, warnings and information
constexpr int kDriverBound = 1;

struct device_list_deleter {
    void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
using device_list = std::unique_ptr<libusb_device*, device_list_deleter>;

struct config_descriptor_deleter {
    void operator()(libusb_config_descriptor* descriptor) const { libusb_free_config_descriptor(descriptor); }
};
using config_descriptor = std::unique_ptr<libusb_config_descriptor, config_descriptor_deleter>;

std::vector<usb_endpoint> endpoints_of(const libusb_interface_descriptor& setting)
{
    std::vector<usb_endpoint> all;
    if (setting.endpoint == nullptr) // libusb may count endpoints of which it has no descriptors
        return all;
    for (int i = 0; i < setting.bNumEndpoints; ++i)
        all.push_back({setting.endpoint[i].bEndpointAddress, setting.endpoint[i].bmAttributes});
    return all;
}

config_descriptor read_configuration(libusb_device* device, std::uint8_t index)
{
    libusb_config_descriptor* descriptor = nullptr;
    if (libusb_get_config_descriptor(device, index, &descriptor) != LIBUSB_SUCCESS)
        return nullptr;
    return config_descriptor(descriptor);
}

} // namespace

usb_configuration configuration_of(const libusb_config_descriptor& descriptor)
{
    usb_configuration all{descriptor.bConfigurationValue, {}};
    for (int i = 0; i < descriptor.bNumInterfaces; ++i)
        for (int j = 0; j < descriptor.interface[i].num_altsetting; ++j) {
            const libusb_interface_descriptor& setting = descriptor.interface[i].altsetting[j];
            all.settings.push_back({setting.bInterfaceNumber, setting.bAlternateSetting,
                                    setting.bInterfaceClass, setting.bInterfaceSubClass,
                                    setting.bInterfaceProtocol, endpoints_of(setting)});
        }
    return all;
}

libusb_device_handle* open_device_with_vid_pid(libusb_context* ctx, std::uint16_t vid, std::uint16_t pid,
                                               int tries, useconds_t sleep)
{
    assert(ctx && vid && pid);
    for (; tries > 0; --tries) {
        if (libusb_device_handle* handle = libusb_open_device_with_vid_pid(ctx, vid, pid))
            return handle;
        usleep(sleep);
    }
    return nullptr;
}

libusb_context* usb_transceiver::sm_ctx = nullptr;
bool usb_transceiver::sm_isInitialized = false;
int usb_transceiver::sm_nConnectionCount = 0;
int usb_transceiver::sm_nDefaultTimeout = usb_transceiver::kTransferMilliseconds;

usb_transceiver::usb_transceiver()
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver start");
    if (!sm_isInitialized) {
        const int result = libusb_init(&sm_ctx);
        sm_isInitialized = result == LIBUSB_SUCCESS;
        if (!sm_isInitialized) {
            sm_ctx = nullptr;
            const char* name = libusb_error_name(result);
            Logger(kUnit, __LINE__, ESeveryLevel::info)("libusb error = %s", name);
            throw std::runtime_error(std::string("libusb_init: ") + name);
        }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // its successor needs libusb 1.0.22
        libusb_set_debug(sm_ctx, kLibusbMessages);
#pragma GCC diagnostic pop
    }
    ++sm_nConnectionCount;
}

usb_transceiver::~usb_transceiver()
{
    close();
    --sm_nConnectionCount;
    if (sm_nConnectionCount == 0 && sm_ctx != nullptr) {
        libusb_exit(sm_ctx);
        sm_ctx = nullptr;
        sm_isInitialized = false;
    }
}

int usb_transceiver::getpid(const udi& address)
{
    if (address.is_valid())
        return address.product_id;
    Logger(kUnit, __LINE__, ESeveryLevel::info)("machine: invalid UDI '%s'", address.text.c_str());
    return -1;
}

bool usb_transceiver::Is_matchID(std::uint16_t vid, std::uint16_t pid, std::string serial,
                                 libusb_device* device)
{
    libusb_device_descriptor descriptor = {};
    if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS)
        return false;
    if (descriptor.idVendor != vid || descriptor.idProduct != pid)
        return false;
    libusb_device_handle* handle = nullptr;
    if (libusb_open(device, &handle) != LIBUSB_SUCCESS)
        return true;
    std::array<unsigned char, 256> text{}; // stays empty when the serial cannot be read
    libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber, text.data(),
                                       static_cast<int>(text.size()));
    libusb_close(handle);
    return std::strcmp(reinterpret_cast<const char*>(text.data()), // libusb hands text out as bytes
                       serial.c_str()) == 0;
}

bool usb_transceiver::open(const udi& address)
{
    if (getpid(address) < 0)
        return false;
    Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver open start");
    const std::uint16_t pid = address.product_id;
    const std::uint16_t vid = address.vendor_id;
    assert(vid && pid);
    Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver open %s", address.serial.c_str());
    bool is_found = false;
    if (!address.serial.empty()) {
        is_found = open_by_serial(address);
        if (!is_found)
            Logger(kUnit, __LINE__, ESeveryLevel::info)("not found retry");
    }
    if (!is_found)
        m_handle = open_device_with_vid_pid(sm_ctx, vid, pid, kOpenTries, kOpenPauseMicroseconds);
    if (m_handle == nullptr) {
        close();
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver open fails");
        return false;
    }
    if (!set_bulk_endpoints()) {
        close();
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver set_bulk_endpoints fails");
        return false;
    }
    return true;
}

bool usb_transceiver::open_by_serial(const udi& address)
{
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(sm_ctx, &devices);
    const device_list owner(devices);
    for (ssize_t i = 0; i < count; ++i) {
        if (!Is_matchID(address.vendor_id, address.product_id, address.serial, devices[i]))
            continue;
        Logger(kUnit, __LINE__, ESeveryLevel::info)("found device");
        if (libusb_open(devices[i], &m_handle) == LIBUSB_SUCCESS && m_handle != nullptr)
            return true;
    }
    return false;
}

bool usb_transceiver::set_bulk_endpoints()
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("usb_transceiver set_bulk_endpoints");
    libusb_device* device = libusb_get_device(m_handle);
    libusb_device_descriptor descriptor = {};
    int active = 0;
    if (device == nullptr || libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS ||
        libusb_get_configuration(m_handle, &active) != LIBUSB_SUCCESS)
        return false;
    for (std::uint8_t index = 0; index < descriptor.bNumConfigurations; ++index) {
        m_nConfiguration = -1;
        const config_descriptor configuration = read_configuration(device, index);
        if (!configuration)
            break;
        // On purpose: configuration 1 whatever this one's value is, as <tarvik/interpreter.h> tells plugins,
        // and `active` as it was first read, so that each further configuration sets it again.
        if (configuration->bConfigurationValue != active &&
            libusb_set_configuration(m_handle, kConfigurationSet) != LIBUSB_SUCCESS)
            break;
        if (!search_interfaces(configuration_of(*configuration)))
            return false;
        if (m_nConfiguration != -1)
            break;
    }
    return m_nInterface != -1 && m_nBulkIn != -1 && m_nBulkOut != -1;
}

bool usb_transceiver::search_interfaces(const usb_configuration& configuration)
{
    m_isKernelDriverDetached = false;
    const interface_choice choice = choose_interface(configuration);
    for (const passed_over_setting& each : choice.passed_over) {
        if (each.flaw == setting_flaw::not_vendor_specific)
            continue;
        if (!claim(each.setting.interface_number))
            return false;
        release();
        m_isKernelDriverDetached = false;
    }
    if (!choice.used)
        return true;
    if (!claim(choice.used->number))
        return false;
    // The alternate setting is not selected, only its endpoint addresses are used: on purpose,
    // <tarvik/interpreter.h> tells plugins that the device stays in the setting that it was in.
    m_nConfiguration = choice.used->configuration;
    m_nBulkIn = choice.used->bulk_in;
    m_nBulkOut = choice.used->bulk_out;
    return true;
}

bool usb_transceiver::claim(int number)
{
    const bool is_driver_bound = libusb_kernel_driver_active(m_handle, number) == kDriverBound;
    if (is_driver_bound && libusb_detach_kernel_driver(m_handle, number) != LIBUSB_SUCCESS)
        return false;
    if (libusb_claim_interface(m_handle, number) != LIBUSB_SUCCESS) {
        if (is_driver_bound)
            libusb_attach_kernel_driver(m_handle, number);
        return false;
    }
    m_isKernelDriverDetached = is_driver_bound;
    m_nInterface = number;
    return true;
}

void usb_transceiver::release()
{
    libusb_release_interface(m_handle, m_nInterface);
    if (m_isKernelDriverDetached)
        libusb_attach_kernel_driver(m_handle, m_nInterface);
    m_nInterface = -1;
}

int usb_transceiver::write(void* buf, int size)
{
    int transferred = 0;
    const int result = transfer(m_nBulkOut, buf, size, transferred);
    if (transferred != size)
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb write : transferred %d of %d bytes", transferred,
                                                    size);
    clear_stall(m_nBulkOut, result);
    if (result != LIBUSB_SUCCESS)
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb write : %s", libusb_error_name(result));
    return transferred;
}

int usb_transceiver::read(void* buf, int size)
{
    int transferred = 0;
    const int result = transfer(m_nBulkIn, buf, size, transferred);
    if (transferred != size)
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb read : transferred %d of %d bytes", transferred,
                                                    size);
    clear_stall(m_nBulkIn, result);
    if (result != LIBUSB_SUCCESS)
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb read : %s", libusb_error_name(result));
    return transferred;
}

int usb_transceiver::transfer(int endpoint, void* buf, int size, int& transferred)
{
    return libusb_bulk_transfer(m_handle, static_cast<unsigned char>(endpoint),
                                static_cast<unsigned char*>(buf), size, &transferred,
                                static_cast<unsigned int>(sm_nDefaultTimeout));
}

void usb_transceiver::clear_stall(int endpoint, int result)
{
    if (result != LIBUSB_ERROR_PIPE)
        return;
    libusb_clear_halt(m_handle, static_cast<unsigned char>(endpoint));
    Logger(kUnit, __LINE__, ESeveryLevel::info)("clearing halt: %s", libusb_error_name(result));
}

void usb_transceiver::close()
{
    if (is_reset_on_close(m_nProductId)) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("libusb reset device");
        libusb_reset_device(m_handle);
    }
    if (m_nInterface != -1) {
        release();
        m_nConfiguration = -1;
        m_nBulkIn = -1;
        m_nBulkOut = -1;
    }
    if (m_handle != nullptr) {
        libusb_close(m_handle);
        m_handle = nullptr;
    }
}
