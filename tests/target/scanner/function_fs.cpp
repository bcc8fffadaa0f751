#include "target/scanner/function_fs.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/usb/functionfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

namespace virtual_scanner {

namespace {

constexpr std::uint16_t kFullSpeedPacket = 64;
constexpr std::uint16_t kHighSpeedPacket = function_fs::kPacketSize;
constexpr std::uint16_t kInterruptPacket = 8;
constexpr std::chrono::seconds kHostReadsLimit{10};
constexpr std::chrono::milliseconds kBetweenLooks{1};

template <typename Structure>
void append(bytes& to, const Structure& what)
{
    const auto* first = reinterpret_cast<const unsigned char*>(&what); // the kernel's records are plain bytes
    to.insert(to.end(), first, first + sizeof what);
}

void append_endpoint(bytes& to, const endpoint_description& endpoint, unsigned number,
                     std::uint16_t bulk_packet)
{
    const bool is_bulk = endpoint.type == endpoint_type::bulk;
    usb_endpoint_descriptor_no_audio descriptor{};
    descriptor.bLength = sizeof descriptor;
    descriptor.bDescriptorType = USB_DT_ENDPOINT;
    descriptor.bEndpointAddress =
        static_cast<__u8>(number | (endpoint.direction == endpoint_direction::in ? unsigned{USB_DIR_IN}
                                                                                 : unsigned{USB_DIR_OUT}));
    descriptor.bmAttributes = is_bulk ? USB_ENDPOINT_XFER_BULK : USB_ENDPOINT_XFER_INT;
    descriptor.wMaxPacketSize = htole16(is_bulk ? bulk_packet : kInterruptPacket);
    descriptor.bInterval = is_bulk ? 0 : 8;
    append(to, descriptor);
}

// Interface and endpoint numbers are only our proposal: the kernel deals out the ones that are free.
bytes descriptors_for(const std::vector<interface_description>& interfaces, std::uint16_t bulk_packet)
{
    bytes made;
    unsigned interface_number = 0;
    unsigned endpoint_number = 0;
    for (const interface_description& each : interfaces) {
        usb_interface_descriptor descriptor{};
        descriptor.bLength = sizeof descriptor;
        descriptor.bDescriptorType = USB_DT_INTERFACE;
        descriptor.bInterfaceNumber = static_cast<__u8>(interface_number++);
        descriptor.bNumEndpoints = static_cast<__u8>(each.endpoints.size());
        descriptor.bInterfaceClass = each.interface_class;
        descriptor.bInterfaceSubClass = each.subclass;
        descriptor.bInterfaceProtocol = each.protocol;
        append(made, descriptor);
        for (const endpoint_description& endpoint : each.endpoints)
            append_endpoint(made, endpoint, ++endpoint_number, bulk_packet);
    }
    return made;
}

std::uint32_t count_descriptors(const std::vector<interface_description>& interfaces)
{
    std::size_t count = interfaces.size();
    for (const interface_description& each : interfaces)
        count += each.endpoints.size();
    return wire_length(count);
}

bytes descriptor_message(const std::vector<interface_description>& interfaces)
{
    const bytes full_speed = descriptors_for(interfaces, kFullSpeedPacket);
    const bytes high_speed = descriptors_for(interfaces, kHighSpeedPacket);
    const std::uint32_t count = htole32(count_descriptors(interfaces));
    usb_functionfs_descs_head_v2 head{};
    head.magic = htole32(FUNCTIONFS_DESCRIPTORS_MAGIC_V2);
    head.flags = htole32(FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC);
    head.length =
        htole32(wire_length(sizeof head + 2 * sizeof count + full_speed.size() + high_speed.size()));
    bytes message;
    append(message, head);
    append(message, count);
    append(message, count);
    message.insert(message.end(), full_speed.begin(), full_speed.end());
    message.insert(message.end(), high_speed.begin(), high_speed.end());
    return message;
}

bytes empty_strings_message()
{
    usb_functionfs_strings_head head{};
    head.magic = htole32(FUNCTIONFS_STRINGS_MAGIC);
    head.length = htole32(sizeof head);
    bytes message;
    append(message, head);
    return message;
}

void write_message(const posix_file& control, const bytes& message, const char* what)
{
    if (::write(control.descriptor(), message.data(), message.size()) !=
        static_cast<ssize_t>(message.size())) {
        throw_errno(std::string("hand the ") + what + " to the kernel");
    }
}

posix_file open_control(const std::string& folder, const std::vector<interface_description>& interfaces)
{
    posix_file control(folder + "/ep0", O_RDWR | O_NONBLOCK);
    write_message(control, descriptor_message(interfaces), "descriptors");
    write_message(control, empty_strings_message(), "strings");
    return control;
}

// Opened both ways: a transfer in the wrong direction is how FunctionFS is told to stall.
posix_file open_endpoint(const std::string& folder, unsigned number, int flags)
{
    return number == 0 ? posix_file() : posix_file(folder + "/ep" + std::to_string(number), O_RDWR | flags);
}

[[noreturn]] void throw_transfer_error(const char* what)
{
    // EAGAIN: there is no link; a transfer is not cut short by the flag that asks not to wait for one.
    if (errno == ESHUTDOWN || errno == ENODEV || errno == ECONNRESET || errno == EAGAIN)
        throw link_lost(what);
    if (errno == EINTR)
        throw called_back();
    throw_errno(what);
}

void clear_halt(const posix_file& endpoint)
{
    if (::ioctl(endpoint.descriptor(), FUNCTIONFS_CLEAR_HALT) != 0)
        throw_transfer_error("clear a halt");
}

// Others tell that the bus goes to sleep and wakes.
bool ends_link(int event)
{
    return event != FUNCTIONFS_SUSPEND && event != FUNCTIONFS_RESUME;
}

} // namespace

function_fs::function_fs(const std::string& folder, const std::vector<interface_description>& interfaces)
    : m_control(open_control(folder, interfaces)), m_served(endpoints_to_serve(interfaces)),
      m_waiting(open_endpoint(folder, m_served.out, 0)),
      m_out(open_endpoint(folder, m_served.out, O_NONBLOCK)),
      m_in(open_endpoint(folder, m_served.in, O_NONBLOCK))
{
}

void function_fs::wait_for_link()
{
    // Any question will do: the kernel waits before it answers.
    if (::ioctl(m_waiting.descriptor(), FUNCTIONFS_ENDPOINT_REVMAP) < 0)
        throw_transfer_error("wait for the host");
    while (next_event()) {
    }
}

void function_fs::check_link()
{
    while (const auto event = next_event())
        if (ends_link(*event))
            throw link_lost("in the middle of a command");
}

std::size_t function_fs::take(unsigned char* buffer, std::size_t room)
{
    check_link();
    const ssize_t taken = ::read(m_out.descriptor(), buffer, room);
    if (taken < 0)
        throw_transfer_error("take bytes from the host");
    return static_cast<std::size_t>(taken);
}

void function_fs::give(const unsigned char* data, std::size_t length)
{
    check_link();
    for (std::size_t given = 0; given < length;) {
        const ssize_t now = ::write(m_in.descriptor(), data + given, std::min(length - given, kLargestPiece));
        // A process that is stopped for a while loses its transfer.
        if (now < 0 && errno == EINTR)
            continue;
        if (now < 0)
            throw_transfer_error("give bytes to the host");
        given += static_cast<std::size_t>(now);
    }
}

void function_fs::give_empty_packet()
{
    check_link();
    if (::write(m_in.descriptor(), "", 0) < 0)
        throw_transfer_error("give an empty packet to the host");
}

// Nothing tells when the host has read, but that the endpoint can stall.
void function_fs::wait_until_read()
{
    stall_in();
    clear_in();
}

void function_fs::stall_out()
{
    check_link();
    if (::write(m_out.descriptor(), "", 1) < 0 && errno != EBADMSG)
        throw_transfer_error("stall OUT");
}

void function_fs::stall_in()
{
    const auto deadline = std::chrono::steady_clock::now() + kHostReadsLimit;
    unsigned char nothing = 0;
    while (::read(m_in.descriptor(), &nothing, 1) < 0 && errno != EBADMSG) {
        // An endpoint cannot stall before the host has read what was given earlier.
        if (errno != EAGAIN || std::chrono::steady_clock::now() > deadline)
            throw_transfer_error("stall IN");
        check_link();
        std::this_thread::sleep_for(kBetweenLooks);
    }
}

void function_fs::clear_out()
{
    clear_halt(m_out);
}

void function_fs::clear_in()
{
    clear_halt(m_in);
}

/// What happened to the link, one event after the other; nothing when that was all.
std::optional<int> function_fs::next_event() const
{
    usb_functionfs_event event{};
    if (::read(m_control.descriptor(), &event, sizeof event) != sizeof event)
        return std::nullopt;
    return event.type;
}

} // namespace virtual_scanner
