#include "process/tvkintif/model/player.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iostream>
#include <limits>

#include "process/tvkintif/model/draw.h"
#include "support/log_reader.h"
#include "support/log_transfers.h"
#include "support/plugin_files.h"
#include "support/proc_files.h"

namespace session_model {

namespace {

using support::kPatience;

/// When requests stay unread, the end of the connection cuts off those replies that are still under way.
/// These are not: they fit into any socket's buffer, and so many packets are sent before the first is
/// acknowledged.
bool surely_arrive(const std::vector<prediction::reply>& replies)
{
    constexpr std::size_t kBytes = 32 * 1024;
    constexpr std::size_t kReplies = 4;
    std::size_t size = 0;
    for (const prediction::reply& each : replies)
        size += each.data.size();
    return size <= kBytes && replies.size() <= kReplies;
}

lines log_without_sources()
{
    lines all;
    for (const support::log_line& line : support::log_lines())
        all.push_back(line.level + " " + support::without_source(line.message));
    return all;
}

/// The dialogue in which the lines of the log stand between the calls, as they are in the log.
lines merged(lines dialogue)
{
    const std::string log_line = "log ";
    for (std::string& line : dialogue)
        if (line.rfind(log_line, 0) == 0)
            line.erase(0, log_line.size());
    return dialogue;
}

std::string text_of(const lines& all)
{
    return support::text(support::with_whole_transfers(all));
}

/// Where two replies part.
std::string difference(const bytes& actual, const bytes& expected)
{
    const auto parted = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    const auto next = [](auto from, auto end) {
        return process_test::hex(bytes(from, from + std::min<std::ptrdiff_t>(32, end - from)));
    };
    return std::to_string(actual.size()) + " bytes instead of " + std::to_string(expected.size()) +
           ", from byte " + std::to_string(parted.first - actual.begin()) + ":\n" +
           next(parted.first, actual.end()) + "\ninstead of\n" + next(parted.second, expected.end());
}

} // namespace

void player::play(std::uint64_t seed, std::uint64_t first, std::uint64_t count)
{
    for (std::uint64_t number = first; number < first + count; ++number) {
        play(draw(seed, number));
        ASSERT_FALSE(HasFailure()) << "play it again: scripts/soak sessions --seed " << seed << " --first "
                                   << number << " --count 1";
    }
}

void player::play(const session& what)
{
    try {
        play_through(what);
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
    if (HasFailure())
        std::cerr << what;
}

void player::play_through(const session& what)
{
    const prediction expected = predict(what);
    prepare(what);
    start_connected();
    send_and_receive(what, expected);
    leave(what, expected);
    if (m_received != expected.all_replies())
        ADD_FAILURE() << "replies: " << difference(m_received, expected.all_replies());
    program().wait_for_exit(kPatience);
    expect_end({0, {}, what.log == logging::verbose ? support::raw_log() : ""});
    expect_traces(what, expected);
}

void player::prepare(const session& what)
{
    set_up_machine();
    support::remove_plugins();
    if (!what.plugin.empty())
        with_plugin(what.plugin, what.plugin_file);
    with_bus(what.bus);
    if (what.log == logging::off)
        with_no_log_directory();
    if (what.log == logging::errors)
        with_log_level(3);
    if (what.log == logging::verbose)
        with_log_level(0);
    if (what.log == logging::in_order)
        with_mishap("record log");
    m_sent = 0;
    m_received.clear();
    m_isProgramGone = false;
}

void player::send_and_receive(const session& what, const prediction& expected)
{
    const bytes stream = what.stream();
    const std::size_t replies = expected.due_after(stream.size());
    std::size_t sent = 0;
    for (const std::size_t size : what.writes) {
        sent += size;
        if (sent > expected.taken && !surely_arrive(expected.replies))
            move(stream, expected.taken, replies);
        move(stream, sent, what.is_patient ? expected.due_after(sent) : 0);
    }
    if (what.end == departure::ends_stream && expected.awaited != 0)
        wire().half_close();
    move(stream, sent, replies);
}

void player::move(const bytes& stream, std::size_t sent, std::size_t received)
{
    const auto is_moved = [&] {
        return m_isProgramGone || (m_sent >= sent && m_received.size() >= received);
    };
    bool can_move = true;
    while (can_move && !is_moved()) {
        if (m_sent < sent && send_some(stream, sent))
            continue;
        if (receive_some() || is_moved())
            continue;
        const short events = static_cast<short>(m_sent < sent ? POLLIN | POLLOUT : POLLIN);
        pollfd one = {wire().descriptor(), events, 0};
        can_move = poll(&one, 1, static_cast<int>(kPatience.count())) > 0;
    }
    EXPECT_TRUE(can_move) << "the program neither reads nor answers";
}

bool player::send_some(const bytes& stream, std::size_t end)
{
    const ssize_t count = ::send(wire().descriptor(), stream.data() + m_sent, end - m_sent, MSG_NOSIGNAL);
    if (count <= 0)
        return false; // full, or the program has left, which its last replies tell
    m_sent += static_cast<std::size_t>(count);
    return true;
}

bool player::receive_some()
{
    unsigned char part[65536];
    const ssize_t count = ::recv(wire().descriptor(), part, sizeof part, MSG_DONTWAIT);
    if (count > 0)
        m_received.insert(m_received.end(), part, part + count);
    else
        m_isProgramGone = count == 0 || errno != EAGAIN; // a reset: it has not read all that was sent
    return count > 0;
}

void player::leave(const session& what, const prediction& expected)
{
    const bool ends_by_itself = expected.awaited == 0;
    if (!ends_by_itself && what.end == departure::resets) {
        EXPECT_TRUE(support::wait_until(kPatience,
                                        [&] { return support::is_waiting_to_read(pid(), expected.awaited); }))
            << "the program does not wait for " << expected.awaited << " bytes";
        wire().end_with_reset();
    }
    if (ends_by_itself || what.end == departure::ends_stream)
        move({}, 0, std::numeric_limits<std::size_t>::max());
    hang_up();
}

void player::expect_traces(const session& what, const prediction& expected)
{
    const lines log = what.log == logging::verbose ? log_without_sources() : lines(support::log_dialogue());
    EXPECT_EQ(text_of(log), expected.log.text());
    if (what.log == logging::in_order)
        EXPECT_EQ(text_of(merged(usb())), expected.all.text());
    else
        EXPECT_EQ(usb().text(), expected.bus.text());
    for (const std::string& line : expected.bus)
        EXPECT_FALSE(line.rfind("LEFT BEHIND", 0) == 0) << line;
}

} // namespace session_model
