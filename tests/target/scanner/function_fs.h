#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "target/scanner/device_file.h"
#include "target/scanner/posix_file.h"

namespace virtual_scanner {

/// The device was unplugged, or the host reset it or chose another configuration, since the link began.
class link_lost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A signal has called the thread back from waiting for the host; nothing was taken.
class called_back : public std::runtime_error {
public:
    called_back() : std::runtime_error("called back") {}
};

/// The function of one configuration, as FunctionFS shows it to its server: tells the kernel the descriptors,
/// then moves bytes on the endpoints that a scanner's host uses. It does so over a link, which lasts until
/// the device goes off the bus, is reset, or gets another configuration. Failures are link_lost, or
/// std::system_error for anything that the next link cannot repair.
class function_fs {
public:
    /// OUT transfers are taken in multiples of this, so that no packet is larger than the room for it.
    static constexpr std::size_t kPacketSize = 512;
    /// Keeps the kernel's copy of a transfer small enough to be found at any time; a multiple of the packet
    /// size, so that the cuts do not show on the bus.
    static constexpr std::size_t kLargestPiece = 64 * 1024;

    function_fs(const std::string& folder, const std::vector<interface_description>& interfaces);

    /// Whether a host finds endpoints to talk to; without them no transfer may be asked for.
    bool is_of_use() const { return m_served.out != 0; }

    /// Waits for a link, for as long as it takes. Throws called_back too.
    void wait_for_link();
    /// Throws link_lost when the link is no more.
    void check_link();

    /// Takes what the host sends, at most `room` bytes (a multiple of kPacketSize); a short packet ends it
    /// early. Throws called_back too.
    std::size_t take(unsigned char* buffer, std::size_t room);
    /// Gives `length` bytes, and returns when the host's controller has them.
    void give(const unsigned char* data, std::size_t length);
    /// Ends a transfer of the host that asks for more.
    void give_empty_packet();
    /// Waits until the host has read all that was given; it stalls a read that the host begins meanwhile.
    void wait_until_read();

    /// The host's next transfer in that direction stalls; the host's clearing of the halt ends it.
    void stall_out();
    void stall_in();
    /// Like the host's clearing of the halt, but from this side.
    void clear_out();
    void clear_in();

private:
    std::optional<int> next_event() const;

    posix_file m_control;      // the function lives as long as this is open
    served_endpoints m_served; ///< by their place among the descriptors, counted from 1
    posix_file m_waiting;      ///< waits for a link; the others' transfers fail without one
    posix_file m_out;
    posix_file m_in;
};

} // namespace virtual_scanner
