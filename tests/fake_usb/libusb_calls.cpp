// The functions of libusb, played by the current bus.

#include <fcntl.h>
#include <libusb.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fake_usb/bus.h"
#include "fake_usb/bus_state.h"
#include "support/dialogue.h"

#define FAKE_USB_EXPORT extern "C" __attribute__((visibility("default")))

namespace fake_usb {

namespace {

bus_state& state()
{
    return bus::current().state();
}

std::string hex_byte(unsigned int value)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", value & 0xFFU);
    return text;
}

bool is_known(const libusb_device* device)
{
    const auto& all = state().devices;
    return std::any_of(all.begin(), all.end(), [=](const auto& known) { return known.get() == device; });
}

std::string name_of(const libusb_device* device)
{
    if (device == nullptr)
        return "null";
    return is_known(device) ? device->description.name : "unknown";
}

bool is_known(const libusb_device_handle* handle)
{
    const auto& all = state().handles;
    return std::any_of(all.begin(), all.end(), [=](const auto& known) { return known.get() == handle; });
}

std::string name_of(const libusb_device_handle* handle)
{
    if (handle == nullptr)
        return "null";
    return is_known(handle) ? handle->device->description.name : "unknown";
}

std::string result_text(long result)
{
    return result < 0 ? error_name(static_cast<int>(result)) : std::to_string(result);
}

/// One call in the making. Its line falls into the dialogue when it answers, or when a hook throws.
class call {
public:
    explicit call(const char* function, std::string device = {}, std::string arguments = {})
        : m_function(function), m_device(std::move(device)), m_arguments(std::move(arguments))
    {
        run_hooks();
        for (failure& candidate : state().failures)
            if (const std::optional<int> result = candidate.seen(m_function, m_device); result && !m_failure)
                m_failure = result;
    }

    /// What the script has this call fail with.
    const std::optional<int>& failure_scripted() const { return m_failure; }

    int answer(int result, const std::string& detail = {}) const
    {
        support::record(line() + " -> " + result_text(result) + detail);
        return result;
    }
    void answer_text(const std::string& result) const { support::record(line() + " -> " + result); }
    void done() const { support::record(line()); }

    /// Records a call that a real bus would not forgive.
    void misuse(const std::string& why) const { state().misuse(line() + ": " + why); }

    bool require_context(const libusb_context* context) const
    {
        const auto& all = state().contexts;
        const bool is_good = std::any_of(all.begin(), all.end(), [=](const auto& known) {
            return known.get() == context && known->is_alive;
        });
        if (!is_good)
            misuse("the context is not alive");
        return is_good;
    }

    bool require_open(const libusb_device_handle* handle) const
    {
        if (is_known(handle) && handle->is_open)
            return true;
        misuse(handle == nullptr ? "the handle is null" : "the handle is not open");
        return false;
    }

    bool require_referenced(const libusb_device* device) const
    {
        if (is_known(device) && device->references > 0)
            return true;
        misuse("nobody holds a reference to the device");
        return false;
    }

private:
    std::string line() const
    {
        std::string all = m_function;
        for (const std::string* part : {&m_device, &m_arguments})
            if (!part->empty())
                all += " " + *part;
        return all;
    }

    void run_hooks() const
    {
        for (std::size_t i = 0; i < state().hooks.size(); ++i) { // an action may add hooks
            hook& candidate = state().hooks[i];
            if (candidate.function != m_function || --candidate.calls_left != 0)
                continue;
            const auto action = candidate.action;
            try {
                action();
            } catch (...) {
                support::record(line() + " -> throws");
                throw;
            }
        }
    }

    const support::backstage m_ownPart = {};
    std::string m_function;
    std::string m_device;
    std::string m_arguments;
    std::optional<int> m_failure;
};

bool is_visible(const libusb_device& device)
{
    return device.is_plugged && device.description.appears_at_search <= state().searches;
}

/// What a real device node is to those who have it open. -1 when nobody else is on this bus.
int open_shared_claim(const std::string& device)
{
    if (state().claims_folder.empty())
        return -1;
    const std::string path = state().claims_folder + "/" + device;
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0)
        state().misuse("cannot open " + path + ": " + std::strerror(errno));
    return descriptor;
}

int try_open(libusb_device* device, libusb_device_handle** handle)
{
    if (!device->is_plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    if (device->description.open_error != LIBUSB_SUCCESS)
        return device->description.open_error;
    ++device->references;
    state().handles.push_back(std::make_unique<libusb_device_handle>(
        libusb_device_handle{device, open_shared_claim(device->description.name)}));
    *handle = state().handles.back().get();
    return LIBUSB_SUCCESS;
}

constexpr std::uint8_t kManufacturerIndex = 1;
constexpr std::uint8_t kProductIndex = 2;
constexpr std::uint8_t kSerialIndex = 3;

std::optional<std::string> text_of(const device& description, std::uint8_t index)
{
    switch (index) {
    case kManufacturerIndex:
        return description.manufacturer;
    case kProductIndex:
        return description.product;
    case kSerialIndex:
        return description.serial;
    default:
        return std::nullopt;
    }
}

const configuration* configuration_of(const libusb_device& device, int value)
{
    for (const configuration& candidate : device.description.configurations)
        if (candidate.value == value)
            return &candidate;
    return nullptr;
}

/// Whether the active configuration has such an interface, and with `address` given, such an endpoint on it.
bool has_interface(const libusb_device& device, int number, std::optional<std::uint8_t> address = {})
{
    const configuration* active = configuration_of(device, device.description.active_configuration);
    if (active == nullptr)
        return false;
    for (const usb_interface& candidate : active->interfaces)
        for (const alt_setting& setting : candidate)
            if (setting.interface_number == number &&
                (!address || std::any_of(setting.endpoints.begin(), setting.endpoints.end(),
                                         [&](const endpoint& e) { return e.address == *address; })))
                return true;
    return false;
}

bool is_claimed_endpoint(const libusb_device_handle& handle, std::uint8_t address)
{
    return std::any_of(handle.claimed.begin(), handle.claimed.end(),
                       [&](int number) { return has_interface(*handle.device, number, address); });
}

libusb_endpoint_descriptor describe(const endpoint& e)
{
    libusb_endpoint_descriptor result = {};
    result.bLength = LIBUSB_DT_ENDPOINT_SIZE;
    result.bDescriptorType = LIBUSB_DT_ENDPOINT;
    result.bEndpointAddress = e.address;
    result.bmAttributes = e.attributes;
    result.wMaxPacketSize = 512;
    return result;
}

libusb_interface_descriptor describe(const alt_setting& setting, std::size_t position,
                                     const std::vector<libusb_endpoint_descriptor>& endpoints)
{
    libusb_interface_descriptor result = {};
    result.bLength = LIBUSB_DT_INTERFACE_SIZE;
    result.bDescriptorType = LIBUSB_DT_INTERFACE;
    result.bInterfaceNumber = setting.interface_number;
    result.bAlternateSetting = static_cast<std::uint8_t>(position);
    result.bNumEndpoints = static_cast<std::uint8_t>(endpoints.size());
    result.bInterfaceClass = setting.interface_class;
    result.bInterfaceSubClass = setting.interface_subclass;
    result.bInterfaceProtocol = setting.interface_protocol;
    result.endpoint = setting.is_endpoint_array_null || endpoints.empty() ? nullptr : endpoints.data();
    return result;
}

std::vector<libusb_interface_descriptor> describe(const usb_interface& all, config_loan& loan)
{
    std::vector<libusb_interface_descriptor> settings;
    for (const alt_setting& setting : all) {
        std::vector<libusb_endpoint_descriptor> endpoints;
        for (const endpoint& e : setting.endpoints)
            endpoints.push_back(describe(e));
        loan.endpoints.push_back(std::move(endpoints)); // moving a vector leaves its elements in place
        settings.push_back(describe(setting, settings.size(), loan.endpoints.back()));
    }
    return settings;
}

std::unique_ptr<config_loan> describe(const libusb_device& device, std::uint8_t index)
{
    const configuration& source = device.description.configurations[index];
    auto loan = std::make_unique<config_loan>();
    loan->name = device.description.name + " " + std::to_string(index);
    for (const usb_interface& all : source.interfaces) {
        loan->settings.push_back(describe(all, *loan));
        const auto& settings = loan->settings.back();
        loan->interfaces.push_back({settings.data(), static_cast<int>(settings.size())});
    }
    loan->descriptor.bLength = LIBUSB_DT_CONFIG_SIZE;
    loan->descriptor.bDescriptorType = LIBUSB_DT_CONFIG;
    loan->descriptor.bNumInterfaces = static_cast<std::uint8_t>(source.interfaces.size());
    loan->descriptor.bConfigurationValue = source.value;
    loan->descriptor.interface = loan->interfaces.data();
    return loan;
}

/// A writer that opens the FIFO finds the transfer under way; closing it lets the transfer go on.
void wait_for(const std::string& fifo)
{
    int descriptor = -1;
    do {
        descriptor = ::open(fifo.c_str(), O_RDONLY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        state().misuse("cannot open the FIFO " + fifo + ": " + std::strerror(errno));
        return;
    }
    char ignored = 0;
    ssize_t count = 0;
    do {
        count = ::read(descriptor, &ignored, 1);
    } while (count > 0 || (count < 0 && errno == EINTR));
    ::close(descriptor);
}

transfer next_transfer(libusb_device& device, std::uint8_t address)
{
    std::deque<transfer>& script = device.script[address];
    if (script.empty())
        return {};
    transfer next = std::move(script.front());
    script.pop_front();
    return next;
}

int deliver(libusb_device& device, std::uint8_t address, const transfer& t, unsigned char* data, int length)
{
    if (t.arriving) {
        const int count = std::min(length, static_cast<int>(t.arriving->size()));
        std::copy_n(t.arriving->begin(), count, data);
        return count;
    }
    const int count = std::min(length, t.count.value_or(length));
    std::size_t& position = device.pattern_position[address];
    std::generate_n(data, count, [&] { return pattern_byte(position++); });
    return count;
}

int accept(libusb_device& device, std::uint8_t address, const transfer& t, const unsigned char* data,
           int length)
{
    const int count = std::min(length, t.count.value_or(length));
    std::vector<unsigned char>& written = device.written[address];
    written.insert(written.end(), data, data + count);
    return count;
}

/// Why a transfer cannot even begin; success when it can.
int refusal(const call& c, const libusb_device_handle* handle, std::uint8_t address,
            const unsigned char* data, int length)
{
    if (!c.require_open(handle))
        return LIBUSB_ERROR_NO_DEVICE;
    if (length < 0 || (length > 0 && data == nullptr)) {
        c.misuse("the buffer is null or its length is negative");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (!is_claimed_endpoint(*handle, address)) {
        c.misuse("no claimed interface has this endpoint");
        return LIBUSB_ERROR_NOT_FOUND;
    }
    if (!handle->device->is_plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    return c.failure_scripted().value_or(LIBUSB_SUCCESS);
}

int run_transfer(const call& c, libusb_device& device, std::uint8_t address, unsigned char* data, int length,
                 int* moved)
{
    if (device.halted.count(address) != 0) {
        *moved = 0;
        return c.answer(LIBUSB_ERROR_PIPE, " (0)");
    }
    const transfer t = next_transfer(device, address);
    if (!t.hold.empty())
        wait_for(t.hold);
    const bool is_in = (address & LIBUSB_ENDPOINT_IN) != 0;
    const int count =
        is_in ? deliver(device, address, t, data, length) : accept(device, address, t, data, length);
    if (t.result == LIBUSB_ERROR_PIPE)
        device.halted.insert(address);
    if (t.is_count_untouched)
        return c.answer(t.result, " (-)");
    *moved = count;
    const bool overflows = t.arriving && t.arriving->size() > static_cast<std::size_t>(length);
    return c.answer(overflows ? int{LIBUSB_ERROR_OVERFLOW} : t.result, " (" + std::to_string(count) + ")");
}

/// The common part of the functions that name an interface of an open device: what they answer when it
/// cannot be done, nothing when it can.
std::optional<int> cannot(const call& c, const libusb_device_handle* handle)
{
    if (!c.require_open(handle))
        return LIBUSB_ERROR_NO_DEVICE;
    if (c.failure_scripted())
        return c.failure_scripted();
    if (!handle->device->is_plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    return std::nullopt;
}

void give_back(libusb_device** list, bool is_unref, const call& c)
{
    const auto loan = state().lists.find(list);
    if (loan == state().lists.end()) {
        c.misuse("no such list is on loan");
        return;
    }
    for (libusb_device* device : loan->second->devices)
        if (device != nullptr && is_unref)
            --device->references;
    state().lists.erase(loan);
}

} // namespace

} // namespace fake_usb

using namespace fake_usb; // this file is nothing but the C face of it

FAKE_USB_EXPORT int LIBUSB_CALL libusb_init(libusb_context** context)
{
    const call c("init");
    if (context == nullptr) {
        c.misuse("the default context is not played here");
        return c.answer(LIBUSB_ERROR_INVALID_PARAM);
    }
    // A failure leaves a context behind that is no good: nobody may count on what was written.
    const int result = c.failure_scripted().value_or(LIBUSB_SUCCESS);
    state().contexts.push_back(std::make_unique<libusb_context>(libusb_context{result == LIBUSB_SUCCESS}));
    *context = state().contexts.back().get();
    return c.answer(result);
}

FAKE_USB_EXPORT void LIBUSB_CALL libusb_exit(libusb_context* context)
{
    const call c("exit");
    c.done();
    if (!c.require_context(context))
        return;
    for (const auto& handle : state().handles)
        if (handle->is_open)
            c.misuse("a handle of " + name_of(handle.get()) + " is still open");
    if (!state().lists.empty())
        c.misuse("a device list is still on loan");
    context->is_alive = false;
}

FAKE_USB_EXPORT void LIBUSB_CALL libusb_set_debug(libusb_context* context, int level)
{
    const call c("set_debug", {}, std::to_string(level));
    c.done();
    c.require_context(context);
}

FAKE_USB_EXPORT const char* LIBUSB_CALL libusb_error_name(int result)
{
    return error_name(result);
}

FAKE_USB_EXPORT ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context* context, libusb_device*** list)
{
    ++state().searches;
    const call c("get_device_list");
    if (!c.require_context(context))
        return c.answer(LIBUSB_ERROR_INVALID_PARAM);
    if (c.failure_scripted())
        return c.answer(*c.failure_scripted());
    auto loan = std::make_unique<device_list>();
    for (const auto& device : state().devices)
        if (is_visible(*device))
            loan->devices.push_back(device.get());
    for (libusb_device* device : loan->devices)
        ++device->references;
    const int count = static_cast<int>(loan->devices.size());
    loan->devices.push_back(nullptr);
    *list = loan->devices.data();
    state().lists[*list] = std::move(loan);
    return c.answer(count);
}

FAKE_USB_EXPORT void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices)
{
    const call c("free_device_list", {}, unref_devices != 0 ? "unref" : "keep");
    c.done();
    if (list != nullptr)
        give_back(list, unref_devices != 0, c);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* device,
                                                             libusb_device_descriptor* descriptor)
{
    const call c("get_device_descriptor", name_of(device));
    if (!c.require_referenced(device))
        return c.answer(LIBUSB_ERROR_NO_DEVICE);
    if (c.failure_scripted())
        return c.answer(*c.failure_scripted());
    *descriptor = {};
    descriptor->bLength = LIBUSB_DT_DEVICE_SIZE;
    descriptor->bDescriptorType = LIBUSB_DT_DEVICE;
    descriptor->idVendor = device->description.vendor_id;
    descriptor->idProduct = device->description.product_id;
    descriptor->iManufacturer = device->description.manufacturer ? kManufacturerIndex : 0;
    descriptor->iProduct = device->description.product ? kProductIndex : 0;
    descriptor->iSerialNumber = device->description.serial ? kSerialIndex : 0;
    descriptor->bNumConfigurations = static_cast<std::uint8_t>(device->description.configurations.size());
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* device)
{
    return device->description.bus_number;
}

FAKE_USB_EXPORT uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* device)
{
    return device->description.address;
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_get_port_numbers(libusb_device* device, uint8_t* ports, int length)
{
    const std::vector<std::uint8_t>& way = device->description.ports;
    if (way.size() > static_cast<std::size_t>(length))
        return LIBUSB_ERROR_OVERFLOW;
    std::copy(way.begin(), way.end(), ports);
    return static_cast<int>(way.size());
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_open(libusb_device* device, libusb_device_handle** handle)
{
    const call c("open", name_of(device));
    if (!c.require_referenced(device))
        return c.answer(LIBUSB_ERROR_NO_DEVICE);
    return c.answer(c.failure_scripted() ? *c.failure_scripted() : try_open(device, handle));
}

FAKE_USB_EXPORT void LIBUSB_CALL libusb_close(libusb_device_handle* handle)
{
    const call c("close", name_of(handle));
    c.done();
    if (handle == nullptr || !c.require_open(handle)) // null is harmless to libusb
        return;
    if (!handle->claimed.empty())
        c.misuse("interface " + std::to_string(*handle->claimed.begin()) + " is still claimed");
    handle->is_open = false;
    --handle->device->references;
    if (handle->shared_claim >= 0)
        ::close(handle->shared_claim);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* handle,
                                                                   uint8_t index, unsigned char* data,
                                                                   int length)
{
    const call c("get_string_descriptor_ascii", name_of(handle), std::to_string(index));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    const std::optional<std::string> text = text_of(handle->device->description, index);
    if (!text)
        return c.answer(LIBUSB_ERROR_INVALID_PARAM);
    const int count = std::min(length - 1, static_cast<int>(text->size()));
    std::copy_n(text->begin(), count, data);
    data[count] = 0;
    return c.answer(count);
}

FAKE_USB_EXPORT libusb_device_handle* LIBUSB_CALL libusb_open_device_with_vid_pid(libusb_context* context,
                                                                                  uint16_t vendor_id,
                                                                                  uint16_t product_id)
{
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", vendor_id, product_id);
    ++state().searches;
    const call c("open_device_with_vid_pid", {}, ids);
    libusb_device_handle* handle = nullptr;
    if (c.require_context(context) && !c.failure_scripted())
        for (const auto& device : state().devices)
            if (is_visible(*device) && device->description.vendor_id == vendor_id &&
                device->description.product_id == product_id) {
                try_open(device.get(), &handle);
                break; // libusb does not go on to a second one
            }
    c.answer_text(name_of(handle));
    return handle;
}

FAKE_USB_EXPORT libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* handle)
{
    const call c("get_device", name_of(handle));
    libusb_device* const device = c.require_open(handle) && !c.failure_scripted() ? handle->device : nullptr;
    c.answer_text(name_of(device));
    return device;
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* handle, int* value)
{
    const call c("get_configuration", name_of(handle));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    *value = handle->device->description.active_configuration;
    return c.answer(LIBUSB_SUCCESS, " (" + std::to_string(*value) + ")");
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* device, uint8_t index,
                                                             libusb_config_descriptor** descriptor)
{
    const call c("get_config_descriptor", name_of(device), std::to_string(index));
    if (!c.require_referenced(device))
        return c.answer(LIBUSB_ERROR_NO_DEVICE);
    if (c.failure_scripted())
        return c.answer(*c.failure_scripted());
    if (index >= device->description.configurations.size())
        return c.answer(LIBUSB_ERROR_NOT_FOUND);
    auto loan = describe(*device, index);
    *descriptor = &loan->descriptor;
    state().configs[*descriptor] = std::move(loan);
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* descriptor)
{
    const auto loan = state().configs.find(descriptor);
    const bool is_lent = loan != state().configs.end();
    const call c("free_config_descriptor", is_lent ? loan->second->name : "");
    c.done();
    if (is_lent)
        state().configs.erase(loan);
    else if (descriptor != nullptr)
        c.misuse("no such descriptor is on loan");
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* handle, int value)
{
    const call c("set_configuration", name_of(handle), std::to_string(value));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    if (configuration_of(*handle->device, value) == nullptr)
        return c.answer(LIBUSB_ERROR_NOT_FOUND);
    if (!handle->claimed.empty())
        return c.answer(LIBUSB_ERROR_BUSY);
    handle->device->description.active_configuration = value;
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* handle, int number)
{
    const call c("kernel_driver_active", name_of(handle), std::to_string(number));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    return c.answer(static_cast<int>(handle->device->description.kernel_drivers.count(number)));
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* handle, int number)
{
    const call c("detach_kernel_driver", name_of(handle), std::to_string(number));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    if (handle->device->description.kernel_drivers.erase(number) == 0)
        return c.answer(LIBUSB_ERROR_NOT_FOUND);
    handle->device->detached_drivers.insert(number);
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle* handle, int number)
{
    const call c("attach_kernel_driver", name_of(handle), std::to_string(number));
    if (!c.require_open(handle))
        return c.answer(LIBUSB_ERROR_NO_DEVICE);
    const bool was_detached = handle->device->detached_drivers.erase(number) != 0; // that it was tried counts
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    if (handle->claimed.count(number) != 0) {
        c.misuse("the interface is still claimed");
        return c.answer(LIBUSB_ERROR_BUSY);
    }
    if (!was_detached)
        return c.answer(LIBUSB_ERROR_NOT_FOUND);
    handle->device->description.kernel_drivers.insert(number);
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* handle, int number)
{
    const call c("claim_interface", name_of(handle), std::to_string(number));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    if (!has_interface(*handle->device, number))
        return c.answer(LIBUSB_ERROR_NOT_FOUND);
    if (handle->device->description.kernel_drivers.count(number) != 0)
        return c.answer(LIBUSB_ERROR_BUSY);
    if (handle->shared_claim >= 0 && flock(handle->shared_claim, LOCK_EX | LOCK_NB) != 0)
        return c.answer(LIBUSB_ERROR_BUSY);
    handle->claimed.insert(number);
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_release_interface(libusb_device_handle* handle, int number)
{
    const call c("release_interface", name_of(handle), std::to_string(number));
    if (!c.require_open(handle))
        return c.answer(LIBUSB_ERROR_NO_DEVICE);
    const bool was_claimed = handle->claimed.erase(number) != 0; // that it was tried counts
    if (!was_claimed)
        c.misuse("the interface is not claimed");
    if (handle->shared_claim >= 0)
        flock(handle->shared_claim, LOCK_UN);
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    return c.answer(was_claimed ? int{LIBUSB_SUCCESS} : int{LIBUSB_ERROR_NOT_FOUND});
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* handle, unsigned char address,
                                                     unsigned char* data, int length, int* moved,
                                                     unsigned int timeout)
{
    const call c("bulk_transfer", name_of(handle),
                 hex_byte(address) + " " + std::to_string(length) + " " + std::to_string(timeout));
    if (const int refused = refusal(c, handle, address, data, length); refused != LIBUSB_SUCCESS)
        return c.answer(refused, " (-)");
    return run_transfer(c, *handle->device, address, data, length, moved);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* handle, unsigned char address)
{
    const call c("clear_halt", name_of(handle), hex_byte(address));
    if (const std::optional<int> refused = cannot(c, handle))
        return c.answer(*refused);
    handle->device->halted.erase(address);
    return c.answer(LIBUSB_SUCCESS);
}

FAKE_USB_EXPORT int LIBUSB_CALL libusb_reset_device(libusb_device_handle* handle)
{
    const call c("reset_device", name_of(handle));
    return c.answer(cannot(c, handle).value_or(LIBUSB_SUCCESS));
}
