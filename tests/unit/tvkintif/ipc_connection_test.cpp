#include "tvkintif/src/ipc_connection.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/lines.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/private_paths.h"
#include "support/wait_until.h"
#include "tvkintif/src/payload_buffer.h"
#include "unit/tvkintif/allocation_seam.h"
#include "unit/tvkintif/interruptions.h"
#include "unit/tvkintif/peer.h"
#include "unit/tvkintif/system_calls.h"

using support::lines;
using unit::bytes;
using unit::bytes_of;
using unit::hex;
using unit::interruptions;
using support::operator+;
using unit::peer;
using unit::system_calls;

namespace {

constexpr std::chrono::seconds kDeadline{10};
constexpr int kHeaderSize = 20;
std::string time_out_set(const std::string& descriptor)
{
    return "setsockopt " + descriptor + " SOL_SOCKET SO_RCVTIMEO " +
           std::to_string(ipc_connection::kTimeoutSeconds) + " s";
}

static_assert(!std::is_copy_constructible_v<ipc_connection> && !std::is_copy_assignable_v<ipc_connection>);

void append_big_endian(bytes& wire, std::uint32_t field)
{
    for (const unsigned int shift : {24U, 16U, 8U, 0U})
        wire.push_back(static_cast<unsigned char>(field >> shift));
}

/// A buffer that holds a reply's payload.
class reply_payload : public payload_buffer {
public:
    explicit reply_payload(const bytes& content) : payload_buffer(content.size())
    {
        std::copy(content.begin(), content.end(), data());
    }
};

/// A request's header as it travels.
bytes request(std::uint32_t id, std::uint32_t code, std::uint32_t size, std::uint32_t value)
{
    bytes wire;
    for (const std::uint32_t field : {id, code, 0U, size, value})
        append_big_endian(wire, field);
    return wire;
}

bytes memory_of(const ipc_header& header)
{
    bytes memory(sizeof header);
    std::memcpy(memory.data(), &header, sizeof header);
    return memory;
}

ipc_header header_of(const bytes& memory)
{
    ipc_header header = {};
    std::memcpy(&header, memory.data(), sizeof header);
    return header;
}

/// No two neighbours alike, and the period fits no power of two.
bytes pattern(std::size_t size)
{
    bytes data(size);
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<unsigned char>(i % 251);
    return data;
}

/// The log of a transfer of `size` bytes whose calls moved `results`.
lines walk(const std::string& called, const std::string& bail, int size, const std::vector<int>& results)
{
    lines log;
    int total = 0;
    for (const int result : results) {
        log.push_back("INFO " + called + std::to_string(size - total));
        log.push_back("INFO " + bail + std::to_string(result));
        total += result;
        log.push_back("INFO transferred " + std::to_string(result) + " bytes, total " +
                      std::to_string(total) + "/" + std::to_string(size));
    }
    return log;
}

lines read_walk(int size, const std::vector<int>& results)
{
    return walk("ipc connection read get called = ", "ipc connection read get bail rv = ", size, results);
}

lines write_walk(int size, const std::vector<int>& results)
{
    return walk("ipc connection wrute get called = ", "ipc connection wrte  bail rv = ", size, results);
}

lines failed_read(int remaining, int error)
{
    return {"INFO ipc connection read get called = " + std::to_string(remaining),
            std::string("INFO read failed: ") + std::strerror(error),
            "INFO ipc connection read get bail rv = -1"};
}

lines failed_write(int remaining, int error)
{
    return {"INFO ipc connection wrute get called = " + std::to_string(remaining),
            std::string("INFO write failed: ") + std::strerror(error),
            "INFO ipc connection wrte  bail rv = -1"};
}

bool is_blocked(int signal_number)
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal_number) == 1;
}

void change_mask(int how, int signal_number)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal_number);
    pthread_sigmask(how, &signals, nullptr);
}

volatile std::sig_atomic_t signals_handled = 0;

extern "C" {
static void count_signal(int)
{
    signals_handled = signals_handled + 1;
}
}

/// Handles a signal by counting it while one lives.
class counted_signal {
public:
    explicit counted_signal(int signal_number)
        : m_signal(signal_number), m_previous(std::signal(signal_number, count_signal))
    {
        signals_handled = 0;
    }
    counted_signal(const counted_signal&) = delete;
    counted_signal& operator=(const counted_signal&) = delete;
    ~counted_signal() { std::signal(m_signal, m_previous); }

private:
    int m_signal;
    void (*m_previous)(int);
};

/// A connection whose front-end has connected, with the log open and empty. What a test sends beforehand
/// waits in the queue.
class ipc_connection_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::open_log(1);
        m_front_end = std::make_unique<peer>(m_connection->port());
        ASSERT_TRUE(m_front_end->is_connected()) << "the first transfer would wait for nobody";
        std::fill_n(m_payload.data(), m_payload.size(), static_cast<unsigned char>(0xAA));
        m_calls.take_lines();
    }

    void TearDown() override
    {
        if (support::have_private_paths())
            support::close_log();
    }

    static int free_port() { return ipc_connection().port(); }

    int read() { return m_connection->read(m_header, m_payload); }
    bytes read_payload() { return {m_payload.data(), m_payload.data() + m_payload.size()}; }
    /// What the front-end has got, once this side is through with it.
    std::string received()
    {
        m_connection.reset();
        return hex(m_front_end->receive_all());
    }

    system_calls m_calls; // of #1, which listened, #2, the front-end, and #3 once it is accepted
    std::unique_ptr<ipc_connection> m_connection = std::make_unique<ipc_connection>();
    std::unique_ptr<peer> m_front_end;
    ipc_header m_header = {};
    payload_buffer m_payload{1024};
};

} // namespace

// Construction

TEST_F(ipc_connection_test, kernel_chooses_the_port)
{
    ipc_connection connection;
    EXPECT_GT(connection.port(), 0);
    EXPECT_EQ(m_calls.lines_of("bind"), lines{"bind #3 127.0.0.1:0"});
}

TEST_F(ipc_connection_test, port_can_be_asked_for)
{
    const int port = free_port();
    const ipc_connection connection(port);
    EXPECT_EQ(connection.port(), port);
}

TEST_F(ipc_connection_test, time_out_is_set_before_anybody_connects)
{
    ipc_connection().port();
    EXPECT_EQ(m_calls.lines().at(4), time_out_set("#3"));
}

TEST_F(ipc_connection_test, time_out_is_the_same_on_a_given_port)
{
    const int port = free_port();
    m_calls.take_lines();
    ipc_connection(port).port();
    EXPECT_EQ(m_calls.lines().at(4), time_out_set("#4"));
}

TEST_F(ipc_connection_test, destruction_ends_the_connection)
{
    m_front_end->send(request(1, 8, 0, 0));
    read();
    m_connection.reset();
    EXPECT_TRUE(m_front_end->is_cut_off());
}

// Reading a message

TEST_F(ipc_connection_test, read_of_a_message_without_payload_returns_0)
{
    m_front_end->send(request(1, 8, 0, 2));
    EXPECT_EQ(read(), 0);
}

TEST_F(ipc_connection_test, read_of_a_message_without_payload_leaves_the_earlier_one_as_it_is)
{
    m_front_end->send(request(1, 8, 0, 2));
    read();
    EXPECT_EQ(read_payload(), bytes(1024, 0xAA));
}

TEST_F(ipc_connection_test, read_keeps_the_header_as_it_travelled)
{
    const bytes wire = {1, 2, 3, 4, 5, 6, 7, 8, 0x90, 0x91, 0x92, 0x93, 0x00, 0x00, 0, 0, 9, 8, 7, 6};
    m_front_end->send(wire);
    read();
    EXPECT_EQ(hex(memory_of(m_header)), hex(wire));
}

class payload_length : public ipc_connection_test, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(payload_length, is_returned)
{
    m_front_end->send(request(1, 6, GetParam(), 0) + pattern(GetParam()));
    EXPECT_EQ(read(), static_cast<int>(GetParam()));
}

TEST_P(payload_length, is_exactly_as_announced)
{
    m_front_end->send(request(1, 6, GetParam(), 0) + pattern(GetParam()));
    read();
    EXPECT_EQ(read_payload(), pattern(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, payload_length,
                         testing::Values(1U, 2U, 255U, 258U, 1023U, 1024U, 1025U, 4096U),
                         [](const auto& test) { return "of_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, read_stops_at_the_end_of_the_message)
{
    m_front_end->send(request(1, 6, 3, 0) + bytes_of("one") + request(2, 7, 3, 9) + bytes_of("two"));
    read();
    EXPECT_EQ(read(), 3);
    EXPECT_EQ(hex(memory_of(m_header)), hex(request(2, 7, 3, 9)));
    EXPECT_EQ(read_payload(), bytes_of("two"));
}

TEST_F(ipc_connection_test, part_of_a_payload_that_never_came_is_zero)
{
    m_front_end->send(request(1, 6, 6, 0) + bytes_of("abc"));
    m_front_end->close();
    read();
    EXPECT_EQ(read_payload(), bytes_of("abc") + bytes(3, 0));
}

TEST_F(ipc_connection_test, payload_of_a_million_bytes_arrives_whole)
{
    constexpr std::uint32_t kSize = 1000000;
    std::thread sending([&] { m_front_end->send(request(1, 6, kSize, 0) + pattern(kSize)); });
    const int result = read();
    sending.join();
    EXPECT_EQ(result, static_cast<int>(kSize));
    EXPECT_TRUE(read_payload() == pattern(kSize)) << "some byte is not the one that was sent";
}

TEST_F(ipc_connection_test, each_call_of_a_payload_of_a_million_bytes_is_logged)
{
    constexpr int kSize = 1000000;
    std::thread sending([&] { m_front_end->send(request(1, 6, kSize, 0) + pattern(kSize)); });
    read();
    sending.join();
    const lines log = support::log_dialogue();
    std::vector<int> results;
    const std::string bail = "INFO ipc connection read get bail rv = ";
    for (const std::string& line : log)
        if (line.compare(0, bail.size(), bail) == 0)
            results.push_back(std::stoi(line.substr(bail.size())));
    ASSERT_FALSE(results.empty());
    EXPECT_GT(results.size(), 2U) << "a million bytes never fit one call";
    results.erase(results.begin()); // the header's
    EXPECT_EQ(log, read_walk(kHeaderSize, {kHeaderSize}) + read_walk(kSize, results));
}

TEST_F(ipc_connection_test, length_that_cannot_be_had_is_thrown)
{
    m_front_end->send(request(1, 6, 0x7FFFFFFF, 0));
    const unit::allocation_limit limit(0x1000000);
    EXPECT_THROW(read(), std::bad_alloc);
}

// The log of a read

TEST_F(ipc_connection_test, read_of_header_and_payload_is_logged_call_by_call)
{
    m_front_end->send(request(1, 6, 7, 0) + bytes_of("payload"));
    read();
    EXPECT_EQ(support::log_dialogue(), read_walk(kHeaderSize, {kHeaderSize}) + read_walk(7, {7}));
}

TEST_F(ipc_connection_test, short_reads_are_continued_and_logged_call_by_call)
{
    m_front_end->send(request(1, 6, 20, 0) + pattern(20));
    m_calls.limit("read", 8);
    EXPECT_EQ(read(), 20);
    EXPECT_EQ(read_payload(), pattern(20));
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {8, 8, 4}) + read_walk(20, {8, 8, 4}));
}

TEST_F(ipc_connection_test, message_that_dribbles_in_byte_by_byte_is_read_whole)
{
    const bytes wire = request(1, 6, 4, 0) + pattern(4);
    auto next = wire.begin();
    m_calls.before("read", [&] { m_front_end->send({*next++}); });
    EXPECT_EQ(read(), 4);
    EXPECT_EQ(read_payload(), pattern(4));
    EXPECT_EQ(support::log_dialogue(),
              read_walk(20, std::vector<int>(20, 1)) + read_walk(4, std::vector<int>(4, 1)));
}

// A peer that closes

class header_byte : public ipc_connection_test, public testing::WithParamInterface<std::size_t> {};

TEST_P(header_byte, before_which_the_peer_closes_makes_read_return_minus_2)
{
    bytes wire = request(1, 6, 4, 0);
    wire.resize(GetParam());
    m_front_end->send(wire);
    m_front_end->close();
    EXPECT_EQ(read(), -2);
    EXPECT_EQ(read_payload(), bytes(1024, 0xAA)) << "the payload is not to be touched without a header";
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, header_byte, testing::Range<std::size_t>(0, kHeaderSize),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, peer_that_closes_half_way_through_the_header_is_logged_call_by_call)
{
    m_front_end->send(bytes(10, 1));
    m_front_end->close();
    read();
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {10, 0}));
}

TEST_F(ipc_connection_test, peer_that_ends_only_its_own_stream_counts_as_closed)
{
    m_front_end->end_stream();
    EXPECT_EQ(read(), -2);
}

class payload_byte : public ipc_connection_test, public testing::WithParamInterface<std::size_t> {};

TEST_P(payload_byte, before_which_the_peer_closes_makes_read_return_minus_2)
{
    m_front_end->send(request(1, 6, 4, 0) + bytes(GetParam(), 1));
    m_front_end->close();
    EXPECT_EQ(read(), -2);
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, payload_byte, testing::Range<std::size_t>(0, 4),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, header_is_zero_when_nothing_came)
{
    m_header = header_of(bytes(20, 0xAA));
    m_front_end->close();
    read();
    EXPECT_EQ(hex(memory_of(m_header)), hex(bytes(20, 0)));
}

// A read that fails

struct error_case {
    const char* name;
    int error;
};

class failing_read : public ipc_connection_test, public testing::WithParamInterface<error_case> {};

TEST_P(failing_read, in_the_header_returns_minus_1_without_another_try)
{
    m_front_end->send(request(1, 6, 4, 0) + pattern(4));
    m_calls.limit("read", 8);
    m_calls.fail("read", GetParam().error, 2);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {8}) + failed_read(12, GetParam().error));
}

TEST_P(failing_read, in_the_payload_returns_minus_1_without_another_try)
{
    m_front_end->send(request(1, 6, 4, 0) + pattern(4));
    m_calls.fail("read", GetParam().error, 2);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {20}) + failed_read(4, GetParam().error));
}

TEST_P(failing_read, leaves_the_signal_mask_as_it_was)
{
    m_calls.fail("read", GetParam().error);
    read();
    EXPECT_FALSE(is_blocked(SIGTERM));
    EXPECT_FALSE(is_blocked(SIGINT));
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, failing_read,
                         testing::Values(error_case{"interrupted", EINTR}, error_case{"timed_out", EAGAIN},
                                         error_case{"reset", ECONNRESET}),
                         [](const auto& test) { return test.param.name; });

TEST_F(ipc_connection_test, connection_that_the_peer_resets_makes_read_return_minus_1)
{
    m_front_end->send(request(1, 6, 0, 0));
    read();
    m_front_end->reset();
    support::open_log(1);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, ECONNRESET));
}

TEST_F(ipc_connection_test, read_after_a_failed_one_goes_on_in_the_middle_of_the_message)
{
    m_front_end->send(bytes(10, 1));
    m_calls.fail("read", EAGAIN, 2);
    ASSERT_EQ(read(), -1);
    const bytes rest = bytes(10, 1) + bytes{2, 3, 0, 0, 0, 0, 7, 8, 9, 10};
    m_calls.before("read", [&] { m_front_end->send(rest); });
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(hex(memory_of(m_header)), hex(rest));
}

TEST_F(ipc_connection_test, read_without_a_connection_returns_minus_1)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, EBADF));
}

TEST_F(ipc_connection_test, read_after_a_failed_accept_waits_on_the_same_port_again)
{
    const int port = m_connection->port();
    m_calls.fail("accept", EMFILE);
    ASSERT_EQ(read(), -1);
    std::optional<peer> late;
    m_calls.before("accept", [&] {
        late.emplace(port);
        late->send(request(1, 8, 0, 2));
    });
    EXPECT_EQ(read(), 0);
}

// Signals

TEST_F(ipc_connection_test, termination_signals_are_blocked_around_each_read)
{
    m_front_end->send(request(1, 6, 0, 0));
    m_calls.limit("read", 10);
    read();
    const lines all = m_calls.lines();
    const auto first = std::find(all.begin(), all.end(), "sigprocmask SIG_BLOCK 2 15");
    EXPECT_EQ(lines(first, all.end()),
              (lines{"sigprocmask SIG_BLOCK 2 15", "read #3 20 -> 10", "sigprocmask SIG_SETMASK",
                     "sigprocmask SIG_BLOCK 2 15", "read #3 10 -> 10", "sigprocmask SIG_SETMASK"}));
}

TEST_F(ipc_connection_test, termination_signals_are_blocked_around_each_write)
{
    m_front_end->send(request(1, 6, 0, 0));
    read();
    m_calls.take_lines();
    m_calls.limit("write", 10);
    m_connection->send_ng(1);
    EXPECT_EQ(m_calls.lines(),
              (lines{"sigprocmask SIG_BLOCK 2 15", "write #3 20 -> 10", "sigprocmask SIG_SETMASK",
                     "sigprocmask SIG_BLOCK 2 15", "write #3 10 -> 10", "sigprocmask SIG_SETMASK"}));
}

class termination_signal : public ipc_connection_test, public testing::WithParamInterface<int> {};

TEST_P(termination_signal, that_comes_during_a_read_is_held_until_the_read_returned)
{
    const counted_signal counted(GetParam());
    m_front_end->send(request(1, 6, 0, 0));
    int handled_during_the_call = -1;
    m_calls.before("read", [&] {
        std::raise(GetParam());
        handled_during_the_call = signals_handled;
    });
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(handled_during_the_call, 0);
    EXPECT_EQ(signals_handled, 1);
}

TEST_P(termination_signal, that_comes_during_a_write_is_held_until_the_write_returned)
{
    const counted_signal counted(GetParam());
    int handled_during_the_call = -1;
    m_calls.before("write", [&] {
        std::raise(GetParam());
        handled_during_the_call = signals_handled;
    });
    EXPECT_EQ(m_connection->send_ng(1), kHeaderSize);
    EXPECT_EQ(handled_during_the_call, 0);
    EXPECT_EQ(signals_handled, 1);
}

TEST_P(termination_signal, does_not_cut_a_read_that_waits)
{
    m_front_end->send(request(1, 6, 0, 0));
    read(); // the accept, which a signal would end, is behind us
    const interruptions termination(GetParam());
    const int arrived_before = interruptions::arrived();
    std::thread sending([&] {
        support::wait_until(kDeadline, [&] { return termination.sent() > 20; });
        m_front_end->send(request(1, 6, 0, 0));
    });
    EXPECT_EQ(read(), 0);
    sending.join();
    EXPECT_GT(interruptions::arrived(), arrived_before);
}

TEST_P(termination_signal, stays_blocked_after_a_read_if_it_was_before)
{
    change_mask(SIG_BLOCK, GetParam());
    m_front_end->send(request(1, 6, 0, 0));
    read();
    EXPECT_TRUE(is_blocked(GetParam()));
    change_mask(SIG_UNBLOCK, GetParam());
}

TEST_P(termination_signal, is_not_blocked_after_a_read_if_it_was_not_before)
{
    m_front_end->send(request(1, 6, 0, 0));
    read();
    EXPECT_FALSE(is_blocked(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, termination_signal, testing::Values(SIGTERM, SIGINT),
                         [](const auto& test) { return test.param == SIGTERM ? "SIGTERM" : "SIGINT"; });

TEST_F(ipc_connection_test, hangup_is_handled_during_a_read)
{
    const counted_signal counted(SIGHUP);
    m_front_end->send(request(1, 6, 0, 0));
    int handled_during_the_call = -1;
    m_calls.before("read", [&] {
        std::raise(SIGHUP);
        handled_during_the_call = signals_handled;
    });
    read();
    EXPECT_EQ(handled_during_the_call, 1);
}

TEST_F(ipc_connection_test, hangup_ends_a_read_that_waits)
{
    m_front_end->send(request(1, 6, 0, 0));
    read(); // the accept, which a signal would end, is behind us
    support::open_log(1);
    const interruptions hangups(SIGHUP);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, EINTR));
}

TEST_F(ipc_connection_test, signal_ends_the_accept_and_so_the_read)
{
    m_connection = std::make_unique<ipc_connection>(); // nobody connects to this one
    const interruptions termination(SIGTERM);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, EBADF));
}

// Replies

TEST_F(ipc_connection_test, ok_without_data_is_a_header_of_20_bytes)
{
    m_connection->send_ok(1, nullptr, 0);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, ok_with_data_is_a_header_and_the_data)
{
    m_connection->send_ok(0x01020304, "\x11\x22\x33", 3);
    EXPECT_EQ(received(), "01 02 03 04 00 00 00 00 00 00 00 00 00 00 00 03 00 00 00 00 11 22 33");
}

TEST_F(ipc_connection_test, ok_with_data_of_size_0_is_the_header_alone)
{
    m_connection->send_ok(1, "\x11", 0);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, ok_with_a_size_but_no_data_is_the_header_alone)
{
    m_connection->send_ok(1, nullptr, 3);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 03 00 00 00 00");
}

TEST_F(ipc_connection_test, ok_with_a_payload_is_a_header_and_the_payload)
{
    reply_payload payload({0x11, 0x22});
    EXPECT_EQ(m_connection->send_ok(0xFFFFFFFF, payload), 2);
    EXPECT_EQ(received(), "ff ff ff ff 00 00 00 00 00 00 00 00 00 00 00 02 00 00 00 00 11 22");
}

TEST_F(ipc_connection_test, ok_with_an_empty_payload_is_the_header_alone)
{
    payload_buffer payload(0);
    EXPECT_EQ(m_connection->send_ok(7, payload), kHeaderSize);
    EXPECT_EQ(received(), "00 00 00 07 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, ok_with_a_payload_of_a_million_bytes_arrives_whole)
{
    reply_payload payload(pattern(1000000));
    bytes arrived;
    std::thread receiving([&] { arrived = m_front_end->receive(1000020); });
    EXPECT_EQ(m_connection->send_ok(1, payload), 1000000);
    receiving.join();
    EXPECT_TRUE(arrived == request(1, 0, 1000000, 0) + pattern(1000000))
        << "some byte is not the one that was sent";
}

TEST_F(ipc_connection_test, ng_is_a_header_with_error_minus_1)
{
    EXPECT_EQ(m_connection->send_ng(1), kHeaderSize);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 ff ff ff ff 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, nak_is_a_header_with_error_minus_1_and_the_byte_15)
{
    EXPECT_EQ(m_connection->send_nak(7), 1);
    EXPECT_EQ(received(), "00 00 00 07 00 00 00 00 ff ff ff ff 00 00 00 01 00 00 00 00 15");
}

TEST_F(ipc_connection_test, header_and_payload_are_logged_as_two_transfers)
{
    m_connection->send_nak(7);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {20}) + write_walk(1, {1}));
}

TEST_F(ipc_connection_test, short_writes_are_continued_and_logged_call_by_call)
{
    m_calls.limit("write", 8);
    reply_payload payload(pattern(20));
    EXPECT_EQ(m_connection->send_ok(1, payload), 20);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {8, 8, 4}) + write_walk(20, {8, 8, 4}));
}

TEST_F(ipc_connection_test, bytes_of_short_writes_arrive_in_order)
{
    reply_payload payload(pattern(20));
    m_calls.limit("write", 7);
    m_connection->send_ok(1, payload);
    EXPECT_EQ(received(), hex(request(1, 0, 20, 0) + pattern(20)));
}

TEST_F(ipc_connection_test, first_operation_may_be_a_reply)
{
    EXPECT_EQ(m_connection->send_ng(1), kHeaderSize);
}

// Every sender, by name

namespace {

struct sender {
    const char* name;
    std::function<int(ipc_connection&)> send; ///< with a payload of three bytes
    int result_of_no_header;                  ///< when the header's transfer moved nothing
};

const std::array<unsigned char, 3> kData = {0x11, 0x22, 0x33};

std::vector<sender> senders_with_payload()
{
    const auto payload = [] { return bytes(kData.begin(), kData.end()); };
    const auto header = [] { return header_of(request(0x0A, 0x0B, 3, 0x0C)); };
    return {
        {"send_ok_of_data",
         [](ipc_connection& connection) {
             connection.send_ok(1, kData.data(), 3);
             return -1; // tells nothing
         },
         -1},
        {"send_ok_of_payload",
         [=](ipc_connection& connection) {
             reply_payload data(payload());
             return connection.send_ok(1, data);
         },
         0},
        {"send_nak", [](ipc_connection& connection) { return connection.send_nak(1); }, 0},
        {"write_of_data",
         [](ipc_connection& connection) { return connection.write(1U, 2U, kData.data(), 3); }, -1},
        {"write_of_payload",
         [=](ipc_connection& connection) {
             bytes data = payload();
             return connection.write(1U, 2U, data);
         },
         -1},
        {"write_of_header_and_data",
         [=](ipc_connection& connection) { return connection.write(header(), kData.data(), 3); }, -1},
        {"write_of_header_and_payload",
         [=](ipc_connection& connection) {
             bytes data = payload();
             return connection.write(header(), data);
         },
         -1},
    };
}

} // namespace

class every_sender : public ipc_connection_test, public testing::WithParamInterface<sender> {};

TEST_P(every_sender, sends_no_payload_after_a_header_that_failed)
{
    m_calls.fail("write", EPIPE);
    EXPECT_EQ(GetParam().send(*m_connection), -1);
    EXPECT_EQ(support::log_dialogue(), failed_write(20, EPIPE));
}

TEST_P(every_sender, sends_no_payload_after_a_header_of_which_nothing_went_out)
{
    m_calls.answer("write", 0);
    EXPECT_EQ(GetParam().send(*m_connection), GetParam().result_of_no_header);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {0}));
}

TEST_P(every_sender, tries_a_failed_write_of_the_payload_only_once)
{
    m_calls.fail("write", EINTR, 2);
    EXPECT_EQ(GetParam().send(*m_connection), -1);
    EXPECT_EQ(m_calls.lines_of("write").size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, every_sender, testing::ValuesIn(senders_with_payload()),
                         [](const auto& test) { return test.param.name; });

TEST_F(ipc_connection_test, ng_that_fails_returns_minus_1_without_another_try)
{
    m_calls.fail("write", EINTR);
    EXPECT_EQ(m_connection->send_ng(1), -1);
    EXPECT_EQ(support::log_dialogue(), failed_write(20, EINTR));
}

TEST_F(ipc_connection_test, write_without_progress_returns_the_short_count)
{
    m_calls.limit("write", 8);
    m_calls.before("write", [&, call = 0]() mutable {
        if (++call == 3)
            m_calls.answer("write", 0);
    });
    EXPECT_EQ(m_connection->send_ng(1), 16);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {8, 8, 0}));
}

TEST_F(ipc_connection_test, failed_write_after_a_short_one_returns_minus_1)
{
    m_calls.limit("write", 8);
    m_calls.fail("write", EAGAIN, 2);
    EXPECT_EQ(m_connection->send_ng(1), -1);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {8}) + failed_write(12, EAGAIN));
}

TEST_F(ipc_connection_test, reply_to_a_peer_that_has_gone_returns_minus_1)
{
    void (*const previous)(int) = std::signal(SIGPIPE, SIG_IGN);
    m_front_end->send(request(1, 8, 0, 2));
    read();
    m_front_end->reset();
    EXPECT_TRUE(support::wait_until(kDeadline, [&] { return m_connection->send_ng(1) == -1; }));
    std::signal(SIGPIPE, previous);
}

TEST_F(ipc_connection_test, reply_without_a_connection_returns_minus_1)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_EQ(m_connection->send_ng(1), -1);
    EXPECT_EQ(support::log_dialogue(), failed_write(20, EBADF));
}

// The general senders

TEST_F(ipc_connection_test, write_of_data_sends_id_error_and_size_before_it)
{
    EXPECT_EQ(m_connection->write(0x01020304U, 0xFFFFFFFEU, kData.data(), 3), 3);
    EXPECT_EQ(received(), "01 02 03 04 00 00 00 00 ff ff ff fe 00 00 00 03 00 00 00 00 11 22 33");
}

TEST_F(ipc_connection_test, write_of_data_of_size_0_returns_0_after_the_header)
{
    EXPECT_EQ(m_connection->write(1U, 2U, kData.data(), 0), 0);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, write_of_null_returns_minus_1_after_the_header)
{
    EXPECT_EQ(m_connection->write(1U, 2U, nullptr, 3), -1);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00 00");
}

TEST_F(ipc_connection_test, write_of_null_makes_no_system_call_for_the_payload)
{
    m_connection->write(1U, 2U, nullptr, 3);
    EXPECT_EQ(m_calls.lines_of("write").size(), 1U);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {20}));
}

TEST_F(ipc_connection_test, write_of_null_with_size_0_returns_0)
{
    EXPECT_EQ(m_connection->write(1U, 2U, nullptr, 0), 0);
}

TEST_F(ipc_connection_test, write_of_a_payload_sends_its_length_before_it)
{
    bytes payload(kData.begin(), kData.end());
    EXPECT_EQ(m_connection->write(0x01020304U, 5U, payload), 3);
    EXPECT_EQ(received(), "01 02 03 04 00 00 00 00 00 00 00 05 00 00 00 03 00 00 00 00 11 22 33");
}

TEST_F(ipc_connection_test, write_of_an_empty_payload_returns_0_after_the_header)
{
    bytes payload;
    EXPECT_EQ(m_connection->write(1U, 2U, payload), 0);
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 00");
}

TEST_F(ipc_connection_test, write_of_a_header_sends_it_byte_for_byte)
{
    const bytes wire = pattern(20);
    EXPECT_EQ(m_connection->write(header_of(wire), kData.data(), 3), 3);
    EXPECT_EQ(received(), hex(wire) + " 11 22 33");
}

TEST_F(ipc_connection_test, write_of_a_header_and_size_0_returns_0)
{
    const bytes wire = pattern(20);
    EXPECT_EQ(m_connection->write(header_of(wire), kData.data(), 0), 0);
    EXPECT_EQ(received(), hex(wire));
}

TEST_F(ipc_connection_test, write_of_a_header_and_null_returns_minus_1)
{
    const bytes wire = pattern(20);
    EXPECT_EQ(m_connection->write(header_of(wire), nullptr, 3), -1);
    EXPECT_EQ(received(), hex(wire));
}

TEST_F(ipc_connection_test, write_of_a_header_and_a_payload_leaves_the_header_as_it_is)
{
    const bytes wire = pattern(20);
    bytes payload(kData.begin(), kData.end());
    EXPECT_EQ(m_connection->write(header_of(wire), payload), 3);
    EXPECT_EQ(received(), hex(wire) + " 11 22 33");
}

TEST_F(ipc_connection_test, write_of_a_header_and_an_empty_payload_returns_0)
{
    const bytes wire = pattern(20);
    bytes payload;
    EXPECT_EQ(m_connection->write(header_of(wire), payload), 0);
    EXPECT_EQ(received(), hex(wire));
}

TEST_F(ipc_connection_test, write_of_a_payload_without_progress_returns_the_short_count)
{
    m_calls.before("write", [&, call = 0]() mutable {
        if (++call == 2)
            m_calls.limit("write", 2);
        if (call == 3)
            m_calls.answer("write", 0);
    });
    EXPECT_EQ(m_connection->write(1U, 2U, kData.data(), 3), 2);
}

// The log

TEST_F(ipc_connection_test, every_line_names_its_unit)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    m_connection->send_ng(1);
    m_front_end->close();
    read();
    testing::internal::GetCapturedStderr();
    lines units;
    for (const support::log_line& line : support::log_lines())
        units.push_back(support::source_of(line.message));
    EXPECT_EQ(units, lines(6, "ipc_connection"));
}
