#pragma once

#include <libusb.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tvkintif/src/interface_choice.h"
#include "tvkintif/src/udi.h"

/// What libusb's descriptor tells of a configuration.
usb_configuration configuration_of(const libusb_config_descriptor& descriptor);

/// Opens the first device with these ids, trying up to `tries` times with `sleep` microseconds after each
/// failure. The handle is the caller's; null when there was none. A null context or a zero id aborts.
libusb_device_handle* open_device_with_vid_pid(libusb_context* ctx, std::uint16_t vid, std::uint16_t pid,
                                               int tries, useconds_t sleep);

/// The one connection to a scanner on USB: finds the device, claims a vendor-specific interface that has
/// bulk endpoints both ways, and moves bytes over them.
///
/// Owns the device handle and the claim on the interface, and gives both back in close(), together with
/// the kernel driver that was detached for it. All objects share one libusb context, which lives as long
/// as any of them. Failures are told by the result; their cause is in the log.
///
/// Threads: all objects on one thread.
class usb_transceiver {
public:
    /// How often open() looks for a device by its ids, and how long it waits after each failed try.
    static constexpr int kOpenTries = 5;
    static constexpr useconds_t kOpenPauseMicroseconds = 100;
    /// When a bulk transfer without an answer ends.
    static constexpr int kTransferMilliseconds = 60'000;

    /// Throws std::runtime_error when libusb cannot be initialised.
    usb_transceiver();
    usb_transceiver(const usb_transceiver&) = delete;
    usb_transceiver& operator=(const usb_transceiver&) = delete;
    virtual ~usb_transceiver();

    /// The product id in `address`, -1 when that is not valid. Needs no device.
    static int getpid(const udi& address);
    static int getpid(const std::string& address) { return getpid(udi(address)); }

    /// Opens the device that `address` names and prepares its endpoints; when it names a serial number that
    /// no device has, the first device with its ids. On failure the object is closed. Not for an open object.
    bool open(const udi& address);
    bool open(const std::string& address) { return open(udi(address)); }
    /// Gives everything back; harmless on a closed object.
    void close();
    bool is_open() const { return m_handle != nullptr; }

    /// One bulk transfer of `size` bytes to or from the device. Returns the bytes moved: fewer than `size`
    /// is a failure, or on reading perhaps a short packet. After a stall the endpoint is usable again.
    int write(void* buf, int size);
    int read(void* buf, int size);

    /// Chooses and claims the interface of the open device; part of open().
    bool set_bulk_endpoints();

    /// Whether `device` carries these ids and this serial number. One with the right ids that cannot be
    /// opened to ask for its serial counts as a match, on purpose: the caller's own attempt decides.
    static bool Is_matchID(std::uint16_t vid, std::uint16_t pid, std::string serial, libusb_device* device);

protected:
    static libusb_context* sm_ctx;
    static bool sm_isInitialized;
    static int sm_nConnectionCount; ///< live objects
    static int sm_nDefaultTimeout;  ///< of every bulk transfer, in milliseconds

    libusb_device_handle* m_handle = nullptr; ///< non-null exactly while open
    std::uint16_t m_nVendorId = 0;
    std::uint16_t m_nProductId = 0; ///< nothing assigns it yet; close() resets some models by it
    int m_nConfiguration = -1;      ///< bConfigurationValue; in this and the next ones -1 means none
    int m_nInterface = -1;          ///< bInterfaceNumber of the claimed interface
    bool m_isKernelDriverDetached = false;
    int m_nBulkIn = -1;  ///< bEndpointAddress
    int m_nBulkOut = -1; ///< bEndpointAddress

private:
    /// Opens the first device that matches; false leaves the search by ids to the caller.
    bool open_by_serial(const udi& address);
    /// Claims what of a configuration is to be claimed, and keeps the interface that is used. False when one
    /// of them could not be claimed.
    bool search_interfaces(const usb_configuration& configuration);
    /// Claims an interface in place of the kernel driver that may be bound to it.
    bool claim(int number);
    /// Gives the claimed interface back, to the kernel driver if there was one.
    void release();
    int transfer(int endpoint, void* buf, int size, int& transferred);
    /// Makes an endpoint usable again whose transfer ended with a stall.
    void clear_stall(int endpoint, int result);
};
