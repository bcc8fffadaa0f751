#pragma once

#include <libusb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// A libusb for tests: the functions that the program uses, played by a small scripted bus. Every call
/// leaves one line in the dialogue (support/dialogue.h), with the device's name, the arguments and what came
/// back:
///
///     get_device_list -> 2
///     open scanner -> 0
///     claim_interface scanner 0 -> LIBUSB_ERROR_BUSY
///     bulk_transfer scanner 0x81 512 60000 -> 0 (512)
///
/// The bus keeps track of everything handed out, and of calls that a real bus would not accept. Only
/// error_name and the questions where a device is (get_bus_number, get_device_address, get_port_numbers),
/// which change nothing and cannot fail, leave no line.
namespace fake_usb {

struct endpoint {
    std::uint8_t address;
    std::uint8_t attributes = LIBUSB_TRANSFER_TYPE_BULK;
};

/// One alternate setting of an interface; by default one that a scanner would have, without endpoints.
struct alt_setting {
    std::uint8_t interface_number = 0;
    std::uint8_t interface_class = 0xFF;
    std::uint8_t interface_subclass = 0;
    std::uint8_t interface_protocol = 0xFF;
    std::vector<endpoint> endpoints = {};
    /// Reports the endpoints' number with a null array, as libusb 1.0.26 can.
    bool is_endpoint_array_null = false;
};

using usb_interface = std::vector<alt_setting>;

struct configuration {
    std::uint8_t value = 1;
    std::vector<usb_interface> interfaces = {};
};

struct device {
    std::string name = "scanner"; ///< in the dialogue; not known to the program
    std::uint16_t vendor_id = 0x1a2b;
    std::uint16_t product_id = 0x3c4d;
    std::optional<std::string> serial = {};
    std::optional<std::string> manufacturer = {};
    std::optional<std::string> product = {};
    std::uint8_t bus_number = 1;
    std::uint8_t address = 0;             ///< 0: its place among the devices, counted from 1
    std::vector<std::uint8_t> ports = {}; ///< from the root hub to it; empty for a root hub
    std::vector<configuration> configurations = {};
    int active_configuration = 1;
    std::set<int> kernel_drivers = {}; ///< numbers of the interfaces that one is bound to
    int open_error = LIBUSB_SUCCESS;   ///< what every open of it fails with
    int appears_at_search = 1;         ///< number of the first search of the bus that finds it
};

/// A device with one configuration, one vendor-specific interface 0, bulk IN 0x81 and bulk OUT 0x02.
device scanner_device();

/// How one bulk transfer on an endpoint goes. What is not scripted succeeds in full: an OUT endpoint takes
/// everything, an IN endpoint gives the bytes of pattern_byte().
struct transfer {
    int result = LIBUSB_SUCCESS;
    std::optional<int> count = {};                           ///< bytes moved; absent: all
    std::optional<std::vector<unsigned char>> arriving = {}; ///< IN only; absent: pattern bytes
    bool is_count_untouched = false; ///< libusb leaves the caller's count alone when it cannot submit
    std::string hold = {}; ///< a FIFO: waits until somebody has opened it for writing and closed it again
};

/// Ends with `result` after `count` bytes.
transfer ends_with(int result, int count);
/// An IN transfer that brings these bytes.
transfer brings(std::vector<unsigned char> bytes);
/// Is refused before anything is submitted; the caller's count is not written.
transfer refused_with(int result);

/// Byte `position` of what an unscripted IN endpoint gives since the device was plugged in. The period is a
/// prime, so that a lost or doubled piece shows.
unsigned char pattern_byte(std::size_t position);

/// Stands for each of the functions, where failures are scripted.
inline constexpr const char* kAnyFunction = "any";

/// A failure of one function, built up as a sentence:
///     bus.fail("open", LIBUSB_ERROR_ACCESS).of("scanner").from_call(2).times(1);
/// Calls are counted from here on. Functions that return a pointer return null, whatever the code.
class failure {
public:
    failure(std::string function, int result);
    failure& of(std::string device_name);
    failure& from_call(int call);
    failure& times(int calls);

    /// Counts a call if it is one of these; its result when it is to fail.
    std::optional<int> seen(const std::string& function, const std::string& device_name);

private:
    std::string m_function;
    int m_result;
    std::optional<std::string> m_device;
    int m_first = 1;
    std::optional<int> m_times;
    int m_seen = 0;
};

struct bus_state;

/// The bus that libusb's functions act on, from construction to destruction. At most one at a time.
///
/// Does not judge by itself: leftovers() and misuses() tell what went wrong. Unit tests use checked_bus,
/// which fails the test.
class bus {
public:
    bus();
    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;
    virtual ~bus();

    /// The bus in force; without one, a call of libusb aborts the process with a message.
    static bus& current();
    /// Has `make`, which must make a bus, called when libusb is first called without one.
    static void set_provider(void (*make)());

    /// Plugs a device in, after those already there.
    void plug(device description);
    /// Pulls a device out: every further use of it is answered with LIBUSB_ERROR_NO_DEVICE.
    void unplug(const std::string& device_name);

    /// Has a function fail, named without its "libusb_". Of several failures the first that fits wins.
    failure& fail(const std::string& function, int result);
    /// Runs `action` before call number `call`, counted from here on, of a function. It may throw: the
    /// exception leaves the function.
    void before_call(const std::string& function, int call, std::function<void()> action);
    /// Has other processes see what is claimed on a device, by a lock on the file of its name in `folder`. As
    /// with a real device, the claim lasts until it is released, or until nobody has the device open any
    /// more: neither this process nor a child that it forked.
    void share_claims(const std::string& folder);
    /// Scripts the next not yet scripted transfer on an endpoint.
    void script(const std::string& device_name, std::uint8_t endpoint_address, transfer next);

    /// Everything that was written to an endpoint.
    const std::vector<unsigned char>& written(const std::string& device_name,
                                              std::uint8_t endpoint_address) const;
    /// Whether a kernel driver is bound to the interface now.
    bool is_kernel_driver_bound(const std::string& device_name, int interface_number) const;

    /// What was handed out and not given back, a line each; empty when all is well.
    std::vector<std::string> leftovers() const;
    /// Calls that a real bus would not accept, a line each.
    const std::vector<std::string>& misuses() const;
    /// As misuses(), and forgets them: a test that expects one takes it.
    std::vector<std::string> take_misuses();

    bus_state& state() { return *m_state; } ///< for the functions of libusb

private:
    std::unique_ptr<bus_state> m_state;
};

/// Name of a libusb result ("LIBUSB_ERROR_BUSY").
const char* error_name(int result);

/// Result by its name; throws std::invalid_argument for a name that libusb does not know.
int error_code(const std::string& name);

} // namespace fake_usb
