#include "fake_usb/bus.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <utility>

#include "fake_usb/bus_state.h"
#include "support/dialogue.h"

namespace fake_usb {

namespace {

bus* the_bus = nullptr;
void (*provider)() = nullptr;

const std::set<std::string>& known_functions()
{
    static const std::set<std::string> names = {
        kAnyFunction,
        "init",
        "exit",
        "set_debug",
        "get_device_list",
        "free_device_list",
        "get_device_descriptor",
        "open",
        "close",
        "get_string_descriptor_ascii",
        "open_device_with_vid_pid",
        "get_device",
        "get_configuration",
        "get_config_descriptor",
        "free_config_descriptor",
        "set_configuration",
        "kernel_driver_active",
        "detach_kernel_driver",
        "attach_kernel_driver",
        "claim_interface",
        "release_interface",
        "bulk_transfer",
        "clear_halt",
        "reset_device",
    };
    return names;
}

void require_known(const std::string& function)
{
    if (known_functions().count(function) == 0)
        throw std::invalid_argument("fake_usb: no function libusb_" + function +
                                    " is played here; see known_functions() in bus.cpp");
}

struct named_result {
    int code;
    const char* name;
};
constexpr named_result kResults[] = {
    {LIBUSB_SUCCESS, "LIBUSB_SUCCESS"},
    {LIBUSB_ERROR_IO, "LIBUSB_ERROR_IO"},
    {LIBUSB_ERROR_INVALID_PARAM, "LIBUSB_ERROR_INVALID_PARAM"},
    {LIBUSB_ERROR_ACCESS, "LIBUSB_ERROR_ACCESS"},
    {LIBUSB_ERROR_NO_DEVICE, "LIBUSB_ERROR_NO_DEVICE"},
    {LIBUSB_ERROR_NOT_FOUND, "LIBUSB_ERROR_NOT_FOUND"},
    {LIBUSB_ERROR_BUSY, "LIBUSB_ERROR_BUSY"},
    {LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT"},
    {LIBUSB_ERROR_OVERFLOW, "LIBUSB_ERROR_OVERFLOW"},
    {LIBUSB_ERROR_PIPE, "LIBUSB_ERROR_PIPE"},
    {LIBUSB_ERROR_INTERRUPTED, "LIBUSB_ERROR_INTERRUPTED"},
    {LIBUSB_ERROR_NO_MEM, "LIBUSB_ERROR_NO_MEM"},
    {LIBUSB_ERROR_NOT_SUPPORTED, "LIBUSB_ERROR_NOT_SUPPORTED"},
    {LIBUSB_ERROR_OTHER, "LIBUSB_ERROR_OTHER"},
};

std::string driver_of(const libusb_device& device, int interface_number)
{
    return device.description.name + " interface " + std::to_string(interface_number);
}

} // namespace

device scanner_device()
{
    alt_setting setting;
    setting.endpoints = {{0x81}, {0x02}};
    configuration only;
    only.interfaces = {{setting}};
    device scanner;
    scanner.configurations = {only};
    return scanner;
}

transfer ends_with(int result, int count)
{
    transfer t;
    t.result = result;
    t.count = count;
    return t;
}

transfer brings(std::vector<unsigned char> bytes)
{
    transfer t;
    t.arriving = std::move(bytes);
    return t;
}

transfer refused_with(int result)
{
    transfer t;
    t.result = result;
    t.count = 0;
    t.is_count_untouched = true;
    return t;
}

unsigned char pattern_byte(std::size_t position)
{
    constexpr std::size_t kPeriod = 251;
    return static_cast<unsigned char>(position % kPeriod);
}

const char* error_name(int result)
{
    for (const named_result& known : kResults)
        if (known.code == result)
            return known.name;
    return "**UNKNOWN**";
}

int error_code(const std::string& name)
{
    for (const named_result& known : kResults)
        if (known.name == name)
            return known.code;
    throw std::invalid_argument("fake_usb: libusb has no result called " + name);
}

failure::failure(std::string function, int result) : m_function(std::move(function)), m_result(result) {}

failure& failure::of(std::string device_name)
{
    m_device = std::move(device_name);
    return *this;
}

failure& failure::from_call(int call)
{
    m_first = call;
    return *this;
}

failure& failure::times(int calls)
{
    m_times = calls;
    return *this;
}

std::optional<int> failure::seen(const std::string& function, const std::string& device_name)
{
    if ((m_function != kAnyFunction && function != m_function) || (m_device && *m_device != device_name))
        return std::nullopt;
    ++m_seen;
    const bool is_over = m_times && m_seen >= m_first + *m_times;
    if (m_seen < m_first || is_over)
        return std::nullopt;
    return m_result;
}

libusb_device& bus_state::device_named(const std::string& name)
{
    for (const auto& device : devices)
        if (device->description.name == name)
            return *device;
    throw std::invalid_argument("fake_usb: no device called '" + name + "' was plugged in");
}

void bus_state::misuse(const std::string& what)
{
    misuses.push_back(what);
    support::record("MISUSE: " + what);
}

bus::bus() : m_state(std::make_unique<bus_state>())
{
    if (the_bus != nullptr)
        throw std::logic_error("fake_usb: a bus exists already; destroy it first");
    the_bus = this;
}

bus::~bus()
{
    the_bus = nullptr;
}

bus& bus::current()
{
    if (the_bus == nullptr && provider != nullptr)
        provider();
    if (the_bus == nullptr) {
        std::fputs("fake_usb: libusb was called while no bus exists; keep a fake_usb::bus alive as long as"
                   " the code under test\n",
                   stderr);
        std::abort();
    }
    return *the_bus;
}

void bus::set_provider(void (*make)())
{
    provider = make;
}

void bus::plug(device description)
{
    if (description.address == 0)
        description.address = static_cast<std::uint8_t>(m_state->devices.size() + 1);
    m_state->devices.push_back(std::make_unique<libusb_device>(libusb_device{std::move(description)}));
}

void bus::unplug(const std::string& device_name)
{
    m_state->device_named(device_name).is_plugged = false;
}

failure& bus::fail(const std::string& function, int result)
{
    require_known(function);
    return m_state->failures.emplace_back(function, result);
}

void bus::before_call(const std::string& function, int call, std::function<void()> action)
{
    require_known(function);
    m_state->hooks.push_back({function, call, std::move(action)});
}

void bus::share_claims(const std::string& folder)
{
    m_state->claims_folder = folder;
}

void bus::script(const std::string& device_name, std::uint8_t endpoint_address, transfer next)
{
    m_state->device_named(device_name).script[endpoint_address].push_back(std::move(next));
}

const std::vector<unsigned char>& bus::written(const std::string& device_name,
                                               std::uint8_t endpoint_address) const
{
    return m_state->device_named(device_name).written[endpoint_address];
}

bool bus::is_kernel_driver_bound(const std::string& device_name, int interface_number) const
{
    return m_state->device_named(device_name).description.kernel_drivers.count(interface_number) != 0;
}

std::vector<std::string> bus::leftovers() const
{
    std::vector<std::string> all;
    for (const auto& context : m_state->contexts)
        if (context->is_alive)
            all.push_back("context");
    for (const auto& list : m_state->lists)
        all.push_back("device list of " + std::to_string(list.second->devices.size() - 1));
    for (const auto& config : m_state->configs)
        all.push_back("configuration descriptor " + config.second->name);
    for (const auto& handle : m_state->handles) {
        if (handle->is_open)
            all.push_back("handle of " + handle->device->description.name);
        for (const int number : handle->claimed)
            all.push_back("claim of " + driver_of(*handle->device, number));
    }
    for (const auto& device : m_state->devices) {
        if (device->references != 0)
            all.push_back(std::to_string(device->references) + " references to " + device->description.name);
        for (const int number : device->detached_drivers)
            all.push_back("detached kernel driver of " + driver_of(*device, number));
    }
    return all;
}

const std::vector<std::string>& bus::misuses() const
{
    return m_state->misuses;
}

std::vector<std::string> bus::take_misuses()
{
    return std::exchange(m_state->misuses, {});
}

} // namespace fake_usb
