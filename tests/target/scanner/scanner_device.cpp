#include "target/scanner/scanner_device.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace virtual_scanner {

namespace {

constexpr const char* kFirmware = "1.0";
constexpr std::uint32_t kLongestPattern = 0x7FFFFFFF;

bytes pattern(std::uint32_t length)
{
    bytes made(length);
    for (std::uint32_t position = 0; position < length; ++position)
        made[position] = pattern_byte(position);
    return made;
}

bytes little_endian(std::uint32_t value)
{
    return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8U),
            static_cast<unsigned char>(value >> 16U), static_cast<unsigned char>(value >> 24U)};
}

std::size_t whole_packets(std::size_t length)
{
    return (length + function_fs::kPacketSize - 1) / function_fs::kPacketSize * function_fs::kPacketSize;
}

} // namespace

scanner_device::scanner_device(const device_description& description, function_fs& link)
    : m_description(description), m_link(link)
{
}

void scanner_device::serve()
{
    for (;;) {
        try {
            serve_one_plugging();
        } catch (const link_lost& reason) {
            std::clog << m_description.name << ": link lost: " << reason.what() << std::endl;
        }
    }
}

void scanner_device::serve_one_plugging()
{
    m_session = {};
    m_taken.clear();
    for (const planned_fault& fault : m_description.faults)
        m_session.faults.emplace(fault.at_command, fault.kind);
    for (;;)
        serve_one_command();
}

void scanner_device::serve_one_command()
{
    if (fault_strikes(fault_kind::stall_out))
        m_link.stall_out();
    command what{};
    if (!take_command(what)) {
        give_answer({what.code, what.tag, answer_status::not_a_command, 0}, {});
        return;
    }
    auto status = answer_status::ok;
    bytes data;
    if (what.payload_length > kLongestPayload) {
        status = answer_status::payload_too_long;
    } else {
        data = data_for(what, take_payload(what), status);
    }
    if (fault_strikes(fault_kind::stall_in))
        m_link.stall_in();
    give_answer({what.code, what.tag, status, wire_length(data.size())}, data);
    ++m_session.status.commands_served;
    if (what.code == command_code::fault && status == answer_status::ok) {
        m_session.faults.emplace(m_session.status.commands_served + 1,
                                 static_cast<fault_kind>(what.argument));
    }
}

bool scanner_device::fault_strikes(fault_kind kind)
{
    const auto due = m_session.faults.equal_range(m_session.status.commands_served + 1);
    const auto found =
        std::find_if(due.first, due.second, [kind](const auto& each) { return each.second == kind; });
    if (found == due.second)
        return false;
    m_session.faults.erase(found);
    ++m_session.status.stalls_done;
    std::clog << m_description.name << ": stalls " << (kind == fault_kind::stall_in ? "IN" : "OUT")
              << std::endl;
    return true;
}

bool scanner_device::take_command(command& what)
{
    take_at_least(kBlockSize);
    block head{};
    std::copy_n(m_taken.begin(), kBlockSize, head.begin());
    if (!decode(head, what)) {
        m_taken.clear();
        return false;
    }
    m_taken.erase(m_taken.begin(), m_taken.begin() + kBlockSize);
    return true;
}

bytes scanner_device::take_payload(const command& what)
{
    take_at_least(what.payload_length);
    const auto end = m_taken.begin() + static_cast<std::ptrdiff_t>(what.payload_length);
    bytes payload(m_taken.begin(), end);
    m_taken.erase(m_taken.begin(), end);
    m_session.status.payload_bytes_taken += what.payload_length;
    return payload;
}

void scanner_device::take_at_least(std::size_t length)
{
    while (m_taken.size() < length) {
        // Never more than is known to come: a transfer of whole packets has no short one to end the wait.
        const std::size_t before = m_taken.size();
        const std::size_t room = whole_packets(length - before);
        m_taken.resize(before + room);
        m_taken.resize(before + m_link.take(m_taken.data() + before, room));
    }
}

bytes scanner_device::data_for(const command& what, const bytes& payload, answer_status& status)
{
    switch (what.code) {
    case command_code::identify:
        return identification();
    case command_code::status:
        return encode(m_session.status);
    case command_code::read_pattern:
        if (what.argument > kLongestPattern) {
            status = answer_status::bad_argument;
            return {};
        }
        return pattern(what.argument);
    case command_code::echo:
        return payload;
    case command_code::checksum:
        return little_endian(crc32(payload));
    case command_code::fault:
        status = arm_fault(what.argument);
        return {};
    }
    status = answer_status::unknown_command;
    return {};
}

bytes scanner_device::identification() const
{
    bytes made(64);
    const auto put = [&made](std::size_t offset, std::size_t width, const std::string& text) {
        std::copy_n(text.begin(), std::min(width, text.size()),
                    made.begin() + static_cast<std::ptrdiff_t>(offset));
    };
    put(0, 32, m_description.model);
    put(32, 16, kFirmware);
    put(48, 16, m_description.serial);
    return made;
}

answer_status scanner_device::arm_fault(std::uint32_t which)
{
    switch (static_cast<fault_kind>(which)) {
    case fault_kind::stall_out:
    case fault_kind::stall_in:
        return answer_status::ok;
    }
    return answer_status::bad_argument;
}

void scanner_device::give_answer(const answer& head, const bytes& data)
{
    std::clog << m_description.name << ": " << name_of(head.code) << ", tag " << head.tag << ", status "
              << static_cast<std::uint32_t>(head.status) << ", " << data.size() << " bytes" << std::endl;
    const block encoded = encode(head);
    m_link.give(encoded.data(), encoded.size());
    m_link.give(data.data(), data.size());
    m_session.status.data_bytes_given += wire_length(data.size());
}

} // namespace virtual_scanner
