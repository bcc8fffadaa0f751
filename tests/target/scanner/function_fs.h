#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "target/scanner/device_file.h"
#include "target/scanner/posix_file.h"

namespace virtual_scanner {

/// The device was unplugged, or the host reset it, in the middle of a transfer.
class link_lost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct bulk_endpoints {
    unsigned out = 0; ///< 0: none
    unsigned in = 0;
};

/// The function of one device, as FunctionFS shows it to its server: tells the kernel the descriptors, then
/// moves bytes on the endpoints that a scanner's host uses. Transfers block, and wait while the device is
/// unplugged. Failures are link_lost, or std::system_error for anything that plugging in again does not cure.
class function_fs {
public:
    /// OUT transfers are taken in multiples of this, so that no packet is larger than the room for it.
    static constexpr std::size_t kPacketSize = 512;

    function_fs(const std::string& folder, const std::vector<interface_description>& interfaces);

    /// Whether a host finds endpoints to talk to; without them no transfer may be asked for.
    bool is_of_use() const { return m_served.out != 0; }

    /// Takes what the host sends, at most `room` bytes (a multiple of kPacketSize); a short packet ends it
    /// early.
    std::size_t take(unsigned char* buffer, std::size_t room);
    /// Gives `length` bytes, and returns when the host's controller has them.
    void give(const unsigned char* data, std::size_t length);
    /// The host's next transfer in that direction stalls; the host's clearing of the halt ends it.
    void stall_out();
    void stall_in();

private:
    posix_file m_control;    // the function lives as long as this is open
    bulk_endpoints m_served; ///< by their place among the descriptors, counted from 1
    posix_file m_out;
    posix_file m_in;
};

} // namespace virtual_scanner
