#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "target/scanner/command_set.h"
#include "target/scanner/device_file.h"

struct libusb_context;
struct libusb_device_handle;

namespace target {

/// What came of a bulk transfer.
struct transfer {
    int result;                  ///< as libusb has it, 0: done
    int moved;                   ///< bytes
    virtual_scanner::bytes data; ///< of a read, as many as were moved
};

/// The first device of its ids, opened; std::runtime_error when there is none.
class opened_device {
public:
    opened_device(std::uint16_t vendor, std::uint16_t product);

    libusb_device_handle* handle() const { return m_handle.get(); }

private:
    struct context_end {
        void operator()(libusb_context* context) const;
    };
    struct handle_end {
        void operator()(libusb_device_handle* handle) const;
    };

    std::unique_ptr<libusb_context, context_end> m_context;
    std::unique_ptr<libusb_device_handle, handle_end> m_handle;
};

/// A device as its host sees it, with nothing of the program in between. Its interface is claimed for as long
/// as the object lives. Failures to find, open or claim are std::runtime_error.
class usb_host {
public:
    /// The first device of these ids; `interface` is the number of the one to claim.
    usb_host(std::uint16_t vendor, std::uint16_t product, int interface = 0);
    usb_host(const usb_host&) = delete;
    usb_host& operator=(const usb_host&) = delete;
    ~usb_host();

    /// Over the last bulk endpoint of the claimed interface in that direction.
    transfer write(const virtual_scanner::bytes& data, unsigned timeout_ms = kTimeoutMs);
    transfer read(int count, unsigned timeout_ms = kTimeoutMs);
    /// The host's way to end a stall.
    void clear_halt_in();
    void clear_halt_out();

    static constexpr unsigned kTimeoutMs = 10'000;

private:
    void find_endpoints();

    opened_device m_device;
    int m_interface;
    unsigned char m_in = 0;
    unsigned char m_out = 0;
};

/// The value of the configuration that the host has chosen for the first device of these ids.
int active_configuration(std::uint16_t vendor, std::uint16_t product);
/// Has the host choose another one, for which no interface may be claimed.
void choose_configuration(std::uint16_t vendor, std::uint16_t product, int value);

/// Whether a device of these ids is on the bus. It is not opened, so that it may come or go at any time.
bool is_on_bus(std::uint16_t vendor, std::uint16_t product);

/// The configurations of a device on the bus, as its descriptors tell, and its serial number; one text for
/// one device, in the words of device files. Empty when no such device is on the bus.
std::vector<std::string> described_on_bus(std::uint16_t vendor, std::uint16_t product);
/// The same of a device that is described in a device file.
std::string described_in_file(const virtual_scanner::device_description& device);

} // namespace target
