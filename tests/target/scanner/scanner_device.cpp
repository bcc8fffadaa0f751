#include "target/scanner/scanner_device.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace virtual_scanner {

namespace {

constexpr std::uint32_t kLongestPattern = 0x7FFFFFFF;
constexpr int kCallBack = SIGUSR1;
constexpr std::chrono::milliseconds kBetweenLooks{1};
/// A device that serves a command, or waits for its host to read, hears no order.
constexpr std::chrono::seconds kOrderLimit{10};

std::size_t whole_packets(std::size_t length)
{
    return (length + function_fs::kPacketSize - 1) / function_fs::kPacketSize * function_fs::kPacketSize;
}

std::size_t whole_packets_within(std::size_t length)
{
    return length / function_fs::kPacketSize * function_fs::kPacketSize;
}

bool is_stall(fault_kind kind)
{
    return kind == fault_kind::stall_out || kind == fault_kind::stall_in ||
           kind == fault_kind::stall_out_always || kind == fault_kind::stall_in_always;
}

/// Makes a signal end a wait in the kernel, and do nothing else.
void let_be_called_back()
{
    struct sigaction what {};
    what.sa_handler = [](int) {};
    ::sigaction(kCallBack, &what, nullptr);
}

} // namespace

/// While it lives, orders reach the serving thread; those given before have been heard.
class scanner_device::open_to_orders {
public:
    explicit open_to_orders(scanner_device& device) : m_device(device)
    {
        const std::lock_guard lock(m_device.m_ordersMutex);
        for (const fault& each : std::exchange(m_device.m_ordered, {}))
            m_device.m_session.faults.emplace(m_device.m_session.status.commands_served + 1, each);
        m_device.m_isOpenToOrders = true;
        m_device.m_ordersChange.notify_all();
    }
    open_to_orders(const open_to_orders&) = delete;
    open_to_orders& operator=(const open_to_orders&) = delete;
    ~open_to_orders()
    {
        const std::lock_guard lock(m_device.m_ordersMutex);
        m_device.m_isOpenToOrders = false;
    }

private:
    scanner_device& m_device;
};

/// The time in a fault that lasts until it is cleared, or the link is lost.
class scanner_device::staying {
public:
    explicit staying(scanner_device& device) : m_device(device)
    {
        const std::lock_guard lock(m_device.m_ordersMutex);
        m_device.m_isToGoOn = false;
        m_device.m_stays = true;
    }
    staying(const staying&) = delete;
    staying& operator=(const staying&) = delete;
    ~staying()
    {
        const std::lock_guard lock(m_device.m_ordersMutex);
        m_device.m_stays = false;
        m_device.m_ordersChange.notify_all();
    }

    /// Waits a moment for the order.
    bool is_to_go_on() const
    {
        std::unique_lock lock(m_device.m_ordersMutex);
        return m_device.m_ordersChange.wait_for(lock, kBetweenLooks, [this] { return m_device.m_isToGoOn; });
    }

private:
    scanner_device& m_device;
};

scanner_device::scanner_device(const device_description& description, function_fs& link, gadget& bus)
    : m_description(description), m_link(link), m_bus(bus)
{
}

void scanner_device::serve()
{
    let_be_called_back();
    m_server = ::pthread_self();
    for (;;) {
        try {
            serve_one_link();
        } catch (const link_lost& reason) {
            note(std::string("link lost: ") + reason.what());
        }
    }
}

void scanner_device::arm(const fault& what)
{
    std::unique_lock lock(m_ordersMutex);
    const auto deadline = std::chrono::steady_clock::now() + kOrderLimit;
    m_ordered.push_back(what);
    while (!m_ordersChange.wait_for(lock, kBetweenLooks, [this] { return m_ordered.empty(); })) {
        if (std::chrono::steady_clock::now() > deadline) {
            m_ordered.clear();
            throw std::runtime_error("it is busy with a command");
        }
        // Again and again, as it may be only about to wait for the host.
        if (m_isOpenToOrders)
            ::pthread_kill(m_server, kCallBack);
    }
}

bool scanner_device::clear()
{
    std::unique_lock lock(m_ordersMutex);
    if (!m_stays)
        return false;
    m_isToGoOn = true;
    m_ordersChange.notify_all();
    if (!m_ordersChange.wait_for(lock, kOrderLimit, [this] { return !m_stays; }))
        throw std::runtime_error("it does not go on");
    return true;
}

void scanner_device::serve_one_link()
{
    m_session = {};
    m_taken.clear();
    for (const planned_fault& each : m_description.faults)
        m_session.faults.emplace(each.at_command, each.what);
    wait_with_open_ears([this] { m_link.wait_for_link(); });
    for (;;) {
        serve_one_command();
        ++m_session.status.commands_served;
    }
}

/// Waits for the host, and takes notice of the orders that come meanwhile.
void scanner_device::wait_with_open_ears(const std::function<void()>& wait)
{
    for (;;) {
        const open_to_orders ears(*this);
        try {
            wait();
            return;
        } catch (const called_back&) {
            continue;
        }
    }
}

void scanner_device::serve_one_command()
{
    wait_with_open_ears([this] { await_command(); });
    command what{};
    if (!take_command(what))
        give_answer({what.code, what.tag, answer_status::not_a_command, 0}, {});
    else if (!breaks_off(what))
        carry_out(what);
}

void scanner_device::await_command()
{
    if (strikes(fault_kind::stall_out))
        m_link.stall_out();
    if (strikes(fault_kind::stall_out_always))
        stall_until_cleared(&function_fs::stall_out, &function_fs::clear_out);
    take_at_least(1);
}

bool scanner_device::take_command(command& what)
{
    take_at_least(kBlockSize);
    if (!decode(first_block(m_taken), what)) {
        m_taken.clear();
        return false;
    }
    m_taken.erase(m_taken.begin(), m_taken.begin() + kBlockSize);
    return true;
}

/// Whether a fault has ended the command before all of it was taken.
bool scanner_device::breaks_off(const command& what)
{
    if (const auto deaf = strikes(fault_kind::deaf)) {
        take_part_of_payload(what, *deaf);
        stay_until_cleared([this] { m_link.check_link(); }, [this] { m_taken.clear(); });
        return true;
    }
    if (const auto unplugged = strikes(fault_kind::unplug_in_write)) {
        take_part_of_payload(what, *unplugged);
        leave_the_bus(&gadget::unplug);
    }
    return false;
}

void scanner_device::carry_out(const command& what)
{
    auto status = answer_status::payload_too_long;
    bytes payload;
    bytes data;
    if (what.payload_length <= kLongestPayload) {
        status = answer_status::ok;
        payload = take_payload(what);
        data = data_for(what, payload, status);
    }
    give_answer({what.code, what.tag, status, wire_length(data.size())}, data);
    strike_after_answer();
    if (what.code == command_code::fault && status == answer_status::ok)
        m_session.faults.emplace(m_session.status.commands_served + 2, *fault_in(what, payload));
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
        bytes piece(std::min(whole_packets(length - m_taken.size()), function_fs::kLargestPiece));
        piece.resize(m_link.take(piece.data(), piece.size()));
        m_taken.insert(m_taken.end(), piece.begin(), piece.end());
    }
}

/// Takes whole packets, so that the host's transfer goes on; what came with the block counts.
void scanner_device::take_part_of_payload(const command& what, const fault& how_much)
{
    const std::size_t most = std::min(how_much.amount.value_or(what.payload_length / 2), what.payload_length);
    while (m_taken.size() + function_fs::kPacketSize <= most)
        take_at_least(m_taken.size() + 1);
    note("took " + std::to_string(m_taken.size()) + " bytes of the payload");
}

bytes scanner_device::data_for(const command& what, const bytes& payload, answer_status& status)
{
    const auto given = m_description.answers.find(what.code);
    if (given != m_description.answers.end()) {
        status = given->second.status;
        return given->second.data;
    }
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
        if (!fault_in(what, payload))
            status = answer_status::bad_argument;
        return {};
    case command_code::sheet:
        return size_of_sheet(what, status);
    case command_code::read_lines:
        return lines_of_sheet(what, payload, status);
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
    put(0, 32, model_of(m_description));
    put(32, kFirmwareWidth, m_description.firmware);
    put(48, 16, m_description.serial);
    return made;
}

bytes scanner_device::size_of_sheet(const command& what, answer_status& status)
{
    if (test_chart::can_have(what.argument))
        return encode(sheet_size{test_chart::width_at(what.argument), test_chart::height_at(what.argument)});
    status = answer_status::bad_argument;
    return {};
}

bytes scanner_device::lines_of_sheet(const command& what, const bytes& payload, answer_status& status)
{
    status = answer_status::bad_argument;
    if (!test_chart::can_have(what.argument) || payload.size() != sizeof(line_range))
        return {};
    const line_range wanted = decode_line_range(payload);
    const std::uint32_t lines = test_chart::height_at(what.argument);
    if (wanted.count > lines || wanted.first > lines - wanted.count)
        return {};
    status = answer_status::ok;
    const test_chart& chart = chart_at(what.argument);
    const auto first = chart.pixels().begin() + static_cast<std::ptrdiff_t>(wanted.first * chart.width());
    return {first, first + static_cast<std::ptrdiff_t>(wanted.count * chart.width())};
}

const test_chart& scanner_device::chart_at(std::uint32_t dots_per_inch)
{
    if (!m_chart || m_chart->resolution() != dots_per_inch)
        m_chart.emplace(dots_per_inch);
    return *m_chart;
}

std::optional<fault> scanner_device::fault_in(const command& what, const bytes& payload)
{
    if (payload.empty())
        return fault_from(what.argument, std::nullopt);
    return payload.size() == 4 ? fault_from(what.argument, number_in(payload)) : std::nullopt;
}

void scanner_device::give_answer(const answer& head, const bytes& data)
{
    note(std::string(name_of(head.code)) + ", tag " + std::to_string(head.tag) + ", status " +
         std::to_string(static_cast<std::uint32_t>(head.status)) + ", " + std::to_string(data.size()) +
         " bytes");
    if (const auto delay = strikes(fault_kind::delay))
        std::this_thread::sleep_for(std::chrono::milliseconds(*delay->amount));
    if (strikes(fault_kind::stall_in))
        m_link.stall_in();
    if (strikes(fault_kind::stall_in_always))
        stall_until_cleared(&function_fs::stall_in, &function_fs::clear_in);
    if (strikes(fault_kind::zlp_before))
        m_link.give_empty_packet();
    if (const auto silence = strikes(fault_kind::silence)) {
        give_whole_packets(head, data, silence->amount.value_or(0));
    } else if (const auto unplugged = strikes(fault_kind::unplug_in_read)) {
        give_whole_packets(head, data, unplugged->amount.value_or(wire_length(data.size() / 2)));
        leave_the_bus(&gadget::unplug);
    } else if (const auto shortened = strikes(fault_kind::short_answer)) {
        give_short(head, data, *shortened);
    } else {
        give(head, data, data.size());
    }
}

/// Gives as much as the host's transfer can take without ending, and the block only if there is any.
void scanner_device::give_whole_packets(const answer& head, const bytes& data, std::size_t most)
{
    const std::size_t count = whole_packets_within(std::min(most, data.size()));
    if (count > 0)
        give(head, data, count);
    note("gave " + std::to_string(count) + " bytes of the data");
}

/// An answer without data has its block cut.
void scanner_device::give_short(const answer& head, const bytes& data, const fault& how_much)
{
    const block encoded = encode(head);
    const std::size_t whole = data.empty() ? encoded.size() : data.size();
    const std::size_t count = std::min<std::size_t>(how_much.amount.value_or(wire_length(whole / 2)), whole);
    if (data.empty())
        m_link.give(encoded.data(), count);
    else
        give(head, data, count);
    if (count < whole && count % function_fs::kPacketSize == 0)
        m_link.give_empty_packet();
}

void scanner_device::give(const answer& head, const bytes& data, std::size_t count)
{
    const block encoded = encode(head);
    m_link.give(encoded.data(), encoded.size());
    m_link.give(data.data(), count);
    m_session.status.data_bytes_given += wire_length(count);
}

void scanner_device::strike_after_answer()
{
    if (strikes(fault_kind::zlp_after))
        m_link.give_empty_packet();
    for (const auto& [kind, leave] :
         {std::pair(fault_kind::unplug, &gadget::unplug), std::pair(fault_kind::vanish, &gadget::vanish)}) {
        if (!strikes(kind))
            continue;
        m_link.wait_until_read();
        leave_the_bus(leave);
    }
}

std::optional<fault> scanner_device::strikes(fault_kind kind)
{
    const auto due = m_session.faults.equal_range(m_session.status.commands_served + 1);
    const auto found =
        std::find_if(due.first, due.second, [kind](const auto& each) { return each.second.kind == kind; });
    if (found == due.second)
        return std::nullopt;
    const fault what = found->second;
    m_session.faults.erase(found);
    if (is_stall(kind))
        ++m_session.status.stalls_done;
    note("fault " + name_of(kind));
    return what;
}

/// The host may clear the halt as often as it likes: it comes back.
void scanner_device::stall_until_cleared(void (function_fs::*stall)(), void (function_fs::*end)())
{
    stay_until_cleared([this, stall] { (m_link.*stall)(); }, [this, end] { (m_link.*end)(); });
}

void scanner_device::stay_until_cleared(const std::function<void()>& again_and_again,
                                        const std::function<void()>& at_the_end)
{
    const staying here(*this);
    do {
        again_and_again();
    } while (!here.is_to_go_on());
    at_the_end();
}

void scanner_device::leave_the_bus(void (gadget::*leave)())
{
    (m_bus.*leave)();
    throw link_lost("left the bus");
}

/// In one piece, as other devices write too.
void scanner_device::note(const std::string& text) const
{
    std::clog << m_description.name + ": " + text + "\n" << std::flush;
}

} // namespace virtual_scanner
