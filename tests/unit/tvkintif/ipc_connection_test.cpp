#include "tvkintif/src/ipc_connection.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
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

#include "process/wire.h"
#include "support/lines.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/private_paths.h"
#include "tvkintif/src/payload_buffer.h"
#include "unit/tvkintif/allocation_seam.h"
#include "unit/tvkintif/interruptions.h"
#include "unit/tvkintif/peer.h"
#include "unit/tvkintif/system_calls.h"

using process_test::bare_header;
using process_test::frame;
using process_test::nak_reply;
using process_test::ng_reply;
using process_test::ok_reply;
using support::bytes;
using support::bytes_of;
using support::hex;
using support::lines;
using support::pattern;
using support::operator+;
using unit::interruptions;
using unit::peer;
using unit::system_calls;

namespace {

constexpr int kHeaderSize = 20;

std::string time_out_set(const std::string& descriptor)
{
    return "setsockopt " + descriptor + " SOL_SOCKET SO_RCVTIMEO " +
           std::to_string(ipc_connection::kTimeoutSeconds) + " s";
}

static_assert(!std::is_copy_constructible_v<ipc_connection> && !std::is_copy_assignable_v<ipc_connection>);

/// A buffer that holds a reply's payload.
class reply_payload : public payload_buffer {
public:
    explicit reply_payload(const bytes& content) : payload_buffer(content.size())
    {
        std::copy(content.begin(), content.end(), data());
    }
};

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

/// A connection whose front-end has connected, with the log open and empty. What a test sends beforehand
/// waits in the queue.
class ipc_connection_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::open_log(1);
        m_frontEnd = std::make_unique<peer>(m_connection->port());
        ASSERT_TRUE(m_frontEnd->is_connected()) << "the first transfer would wait for nobody";
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
        return hex(m_frontEnd->receive_all());
    }

    system_calls m_calls; // of #1, which listened, #2, the front-end, and #3 once it is accepted
    std::unique_ptr<ipc_connection> m_connection = std::make_unique<ipc_connection>();
    std::unique_ptr<peer> m_frontEnd;
    ipc_header m_header = {};
    payload_buffer m_payload{1024};
};

} // namespace

// Construction

TEST_F(ipc_connection_test, kernel_chooses_the_port_and_the_time_out_is_set_before_anybody_connects)
{
    ipc_connection connection;
    EXPECT_GT(connection.port(), 0);
    EXPECT_EQ(m_calls.lines_of("bind"), lines{"bind #3 127.0.0.1:0"});
    EXPECT_EQ(m_calls.lines().at(4), time_out_set("#3"));
}

TEST_F(ipc_connection_test, port_can_be_asked_for_and_the_time_out_is_the_same)
{
    const int port = free_port();
    m_calls.take_lines();
    EXPECT_EQ(ipc_connection(port).port(), port);
    EXPECT_EQ(m_calls.lines().at(4), time_out_set("#4"));
}

// Reading a message

TEST_F(ipc_connection_test, read_of_a_message_without_payload_leaves_the_earlier_one_as_it_is)
{
    m_frontEnd->send(frame(1, 8, 2));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(read_payload(), bytes(1024, 0xAA));
}

TEST_F(ipc_connection_test, read_keeps_the_header_as_it_travelled)
{
    const bytes wire = {1, 2, 3, 4, 5, 6, 7, 8, 0x90, 0x91, 0x92, 0x93, 0x00, 0x00, 0, 0, 9, 8, 7, 6};
    m_frontEnd->send(wire);
    read();
    EXPECT_EQ(hex(memory_of(m_header)), hex(wire));
}

class payload_length : public ipc_connection_test, public testing::WithParamInterface<std::size_t> {};

TEST_P(payload_length, is_exactly_as_announced)
{
    m_frontEnd->send(frame(1, 6, 0, pattern(GetParam())));
    EXPECT_EQ(read(), static_cast<int>(GetParam()));
    EXPECT_EQ(read_payload(), pattern(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, payload_length,
                         testing::Values(1U, 2U, 255U, 258U, 1023U, 1024U, 1025U, 4096U),
                         [](const auto& test) { return "of_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, read_stops_at_the_end_of_the_message)
{
    m_frontEnd->send(frame(1, 6, 0, bytes_of("one")) + frame(2, 7, 9, bytes_of("two")));
    read();
    EXPECT_EQ(read(), 3);
    EXPECT_EQ(hex(memory_of(m_header)), hex(bare_header(2, 7, 3, 9)));
    EXPECT_EQ(read_payload(), bytes_of("two"));
}

TEST_F(ipc_connection_test, part_of_a_payload_that_never_came_is_zero)
{
    m_frontEnd->send(bare_header(1, 6, 6) + bytes_of("abc"));
    m_frontEnd->close();
    EXPECT_EQ(read(), -2);
    EXPECT_EQ(read_payload(), bytes_of("abc") + bytes(3, 0));
}

TEST_F(ipc_connection_test, part_of_a_payload_behind_a_failed_read_is_zero)
{
    m_frontEnd->send(bare_header(1, 6, 6) + bytes_of("abc"));
    m_calls.fail("read", EAGAIN, 3);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(read_payload(), bytes_of("abc") + bytes(3, 0));
}

TEST_F(ipc_connection_test, each_call_of_a_payload_of_a_million_bytes_is_logged)
{
    constexpr int kSize = 1000000;
    std::thread sending([&] { m_frontEnd->send(frame(1, 6, 0, pattern(kSize))); });
    EXPECT_EQ(read(), kSize);
    sending.join();
    EXPECT_TRUE(read_payload() == pattern(kSize)) << "some byte is not the one that was sent";
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
    m_frontEnd->send(bare_header(1, 6, 0x7FFFFFFF));
    const unit::allocation_limit limit(0x1000000);
    EXPECT_THROW(read(), std::bad_alloc);
}

TEST_F(ipc_connection_test, short_reads_are_continued_and_logged_call_by_call)
{
    m_frontEnd->send(frame(1, 6, 0, pattern(20)));
    m_calls.limit("read", 8);
    EXPECT_EQ(read(), 20);
    EXPECT_EQ(read_payload(), pattern(20));
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {8, 8, 4}) + read_walk(20, {8, 8, 4}));
}

// A peer that closes

class header_byte : public ipc_connection_test, public testing::WithParamInterface<std::size_t> {};

TEST_P(header_byte, before_which_the_peer_closes_makes_read_return_minus_2)
{
    bytes wire = bare_header(1, 6, 4);
    wire.resize(GetParam());
    m_frontEnd->send(wire);
    m_frontEnd->close();
    EXPECT_EQ(read(), -2);
    EXPECT_EQ(read_payload(), bytes(1024, 0xAA)) << "the payload is not to be touched without a header";
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, header_byte, testing::Range<std::size_t>(0, kHeaderSize),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, peer_that_closes_half_way_through_the_header_is_logged_call_by_call)
{
    m_frontEnd->send(bytes(10, 1));
    m_frontEnd->close();
    read();
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {10, 0}));
}

class payload_byte : public ipc_connection_test, public testing::WithParamInterface<std::size_t> {};

TEST_P(payload_byte, before_which_the_peer_closes_makes_read_return_minus_2)
{
    m_frontEnd->send(bare_header(1, 6, 4) + bytes(GetParam(), 1));
    m_frontEnd->close();
    EXPECT_EQ(read(), -2);
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, payload_byte, testing::Range<std::size_t>(0, 4),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(ipc_connection_test, header_is_zero_when_nothing_came)
{
    m_header = header_of(bytes(20, 0xAA));
    m_frontEnd->close();
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
    m_frontEnd->send(frame(1, 6, 0, pattern(4)));
    m_calls.limit("read", 8);
    m_calls.fail("read", GetParam().error, 2);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {8}) + failed_read(12, GetParam().error));
    EXPECT_FALSE(is_blocked(SIGTERM));
    EXPECT_FALSE(is_blocked(SIGINT));
}

TEST_P(failing_read, in_the_payload_returns_minus_1_without_another_try)
{
    m_frontEnd->send(frame(1, 6, 0, pattern(4)));
    m_calls.fail("read", GetParam().error, 2);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), read_walk(20, {20}) + failed_read(4, GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, failing_read,
                         testing::Values(error_case{"interrupted", EINTR}, error_case{"timed_out", EAGAIN},
                                         error_case{"reset", ECONNRESET}),
                         [](const auto& test) { return test.param.name; });

TEST_F(ipc_connection_test, read_after_a_failed_one_goes_on_in_the_middle_of_the_message)
{
    m_frontEnd->send(bytes(10, 1));
    m_calls.fail("read", EAGAIN, 2);
    ASSERT_EQ(read(), -1);
    const bytes rest = bytes(10, 1) + bytes{2, 3, 0, 0, 0, 0, 7, 8, 9, 10};
    m_calls.before("read", [&] { m_frontEnd->send(rest); });
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(hex(memory_of(m_header)), hex(rest));
}

TEST_F(ipc_connection_test, read_after_a_failed_accept_waits_on_the_same_port_again)
{
    const int port = m_connection->port();
    m_calls.fail("accept", EMFILE);
    ASSERT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, EBADF));
    std::optional<peer> late;
    m_calls.before("accept", [&] {
        late.emplace(port);
        late->send(frame(1, 8, 2));
    });
    EXPECT_EQ(read(), 0);
}

// Signals

TEST_F(ipc_connection_test, termination_signals_are_blocked_around_each_read)
{
    m_frontEnd->send(frame(1, 6));
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
    m_frontEnd->send(frame(1, 6));
    read();
    m_calls.take_lines();
    m_calls.limit("write", 10);
    m_connection->send_ng(1);
    EXPECT_EQ(m_calls.lines(),
              (lines{"sigprocmask SIG_BLOCK 2 15", "write #3 20 -> 10", "sigprocmask SIG_SETMASK",
                     "sigprocmask SIG_BLOCK 2 15", "write #3 10 -> 10", "sigprocmask SIG_SETMASK"}));
}

class termination_signal : public ipc_connection_test, public testing::WithParamInterface<int> {};

TEST_P(termination_signal, stays_blocked_after_a_read_if_it_was_before)
{
    change_mask(SIG_BLOCK, GetParam());
    m_frontEnd->send(frame(1, 6));
    read();
    EXPECT_TRUE(is_blocked(GetParam()));
    change_mask(SIG_UNBLOCK, GetParam());
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, termination_signal, testing::Values(SIGTERM, SIGINT),
                         [](const auto& test) { return test.param == SIGTERM ? "SIGTERM" : "SIGINT"; });

TEST_F(ipc_connection_test, hangup_ends_a_read_that_waits)
{
    m_frontEnd->send(frame(1, 6));
    read(); // the accept, which a signal would end, is behind us
    support::open_log(1);
    const interruptions hangups(SIGHUP);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(support::log_dialogue(), failed_read(20, EINTR));
}

// Replies

namespace {

struct reply {
    const char* name;
    std::function<int(ipc_connection&)> send;
    int result;
    std::string wire;
    int result_of_no_header = -1; ///< when the header's transfer moved nothing
};

const bytes kData = {0x11, 0x22, 0x33};
const bytes kHeader = pattern(kHeaderSize);
constexpr int kTellsNothing = -1;

/// Sends an ok with `size` bytes of `data`.
std::function<int(ipc_connection&)> ok_of(unsigned int id, const void* data, int size)
{
    return [=](ipc_connection& connection) {
        connection.send_ok(id, data, size);
        return kTellsNothing;
    };
}

std::function<int(ipc_connection&)> ok_of_payload(unsigned int id, const bytes& data)
{
    return [=](ipc_connection& connection) {
        reply_payload payload(data);
        return connection.send_ok(id, payload);
    };
}

/// One of the general senders; `first` is an id and an error, or a header.
template <typename... First>
std::function<int(ipc_connection&)> write_of(const void* data, int size, First... first)
{
    return [=](ipc_connection& connection) { return connection.write(first..., data, size); };
}

template <typename... First>
std::function<int(ipc_connection&)> write_of_payload(const bytes& data, First... first)
{
    return [=](ipc_connection& connection) {
        bytes payload = data;
        return connection.write(first..., payload);
    };
}

std::vector<reply> replies_with_payload()
{
    const std::string written = "01 02 03 04 00 00 00 00 ff ff ff fe 00 00 00 03 00 00 00 00 11 22 33";
    const ipc_header header = header_of(kHeader);
    return {
        {"ok_of_data", ok_of(0x01020304, kData.data(), 3), kTellsNothing, hex(ok_reply(kData, 0x01020304))},
        {"ok_of_payload", ok_of_payload(0xFFFFFFFF, kData), 3, hex(ok_reply(kData, 0xFFFFFFFF)), 0},
        {"nak", [](ipc_connection& connection) { return connection.send_nak(7); }, 1, hex(nak_reply(7)), 0},
        {"write_of_data", write_of(kData.data(), 3, 0x01020304U, 0xFFFFFFFEU), 3, written},
        {"write_of_payload", write_of_payload(kData, 0x01020304U, 0xFFFFFFFEU), 3, written},
        {"write_of_header_and_data", write_of(kData.data(), 3, header), 3, hex(kHeader + kData)},
        {"write_of_header_and_payload", write_of_payload(kData, header), 3, hex(kHeader + kData)},
    };
}

std::vector<reply> headers_alone()
{
    const std::string written_3 = "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00 00";
    const std::string written_0 = "00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 00";
    const ipc_header header = header_of(kHeader);
    return {
        {"ok_without_data", ok_of(1, nullptr, 0), kTellsNothing, hex(ok_reply())},
        {"ok_with_data_of_size_0", ok_of(1, kData.data(), 0), kTellsNothing, hex(ok_reply())},
        {"ok_with_a_size_but_no_data", ok_of(1, nullptr, 3), kTellsNothing, hex(bare_header(1, 0, 3))},
        {"ok_with_an_empty_payload", ok_of_payload(7, {}), kHeaderSize, hex(ok_reply({}, 7))},
        {"ng", [](ipc_connection& connection) { return connection.send_ng(1); }, kHeaderSize,
         hex(ng_reply())},
        {"write_of_data_of_size_0", write_of(kData.data(), 0, 1U, 2U), 0, written_0},
        {"write_of_null", write_of(nullptr, 3, 1U, 2U), -1, written_3},
        {"write_of_null_with_size_0", write_of(nullptr, 0, 1U, 2U), 0, written_0},
        {"write_of_an_empty_payload", write_of_payload({}, 1U, 2U), 0, written_0},
        {"write_of_a_header_and_size_0", write_of(kData.data(), 0, header), 0, hex(kHeader)},
        {"write_of_a_header_and_null", write_of(nullptr, 3, header), -1, hex(kHeader)},
        {"write_of_a_header_and_an_empty_payload", write_of_payload({}, header), 0, hex(kHeader)},
    };
}

const auto name_of_reply = [](const auto& test) { return test.param.name; };

} // namespace

class any_reply : public ipc_connection_test, public testing::WithParamInterface<reply> {};

TEST_P(any_reply, has_these_bytes_and_this_result)
{
    EXPECT_EQ(GetParam().send(*m_connection), GetParam().result);
    const std::size_t payloads = GetParam().wire.size() > hex(bytes(kHeaderSize)).size() ? 1 : 0;
    EXPECT_EQ(m_calls.lines_of("write").size(), 1 + payloads);
    EXPECT_EQ(received(), GetParam().wire);
}

INSTANTIATE_TEST_SUITE_P(with_payload, any_reply, testing::ValuesIn(replies_with_payload()), name_of_reply);
INSTANTIATE_TEST_SUITE_P(header_alone, any_reply, testing::ValuesIn(headers_alone()), name_of_reply);

class reply_with_payload : public any_reply {};

TEST_P(reply_with_payload, has_none_after_a_header_that_failed)
{
    m_calls.fail("write", EPIPE);
    EXPECT_EQ(GetParam().send(*m_connection), -1);
    EXPECT_EQ(support::log_dialogue(), failed_write(20, EPIPE));
}

TEST_P(reply_with_payload, has_none_after_a_header_of_which_nothing_went_out)
{
    m_calls.answer("write", 0);
    EXPECT_EQ(GetParam().send(*m_connection), GetParam().result_of_no_header);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {0}));
}

TEST_P(reply_with_payload, has_it_after_a_header_of_which_one_byte_went_out)
{
    m_calls.before("write", [&, call = 0]() mutable {
        ++call;
        m_calls.limit("write", call == 1 ? 1 : 100);
        if (call == 2)
            m_calls.answer("write", 0);
    });
    EXPECT_EQ(GetParam().send(*m_connection), GetParam().result);
    EXPECT_EQ(m_calls.lines_of("write").size(), 3U);
}

TEST_P(reply_with_payload, is_not_tried_again_when_the_payload_fails)
{
    m_calls.fail("write", EINTR, 2);
    EXPECT_EQ(GetParam().send(*m_connection), -1);
    EXPECT_EQ(m_calls.lines_of("write").size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(ipc_connection_test, reply_with_payload, testing::ValuesIn(replies_with_payload()),
                         name_of_reply);

TEST_F(ipc_connection_test, header_and_payload_are_logged_as_two_transfers)
{
    m_connection->send_nak(7);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {20}) + write_walk(1, {1}));
}

TEST_F(ipc_connection_test, short_writes_are_continued_and_logged_call_by_call)
{
    m_calls.limit("write", 8);
    EXPECT_EQ(ok_of_payload(1, pattern(20))(*m_connection), 20);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {8, 8, 4}) + write_walk(20, {8, 8, 4}));
    EXPECT_EQ(received(), hex(ok_reply(pattern(20))));
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

TEST_F(ipc_connection_test, failed_write_after_a_short_one_returns_minus_1)
{
    m_calls.limit("write", 8);
    m_calls.fail("write", EAGAIN, 2);
    EXPECT_EQ(m_connection->send_ng(1), -1);
    EXPECT_EQ(support::log_dialogue(), write_walk(20, {8}) + failed_write(12, EAGAIN));
}

TEST_F(ipc_connection_test, reply_without_a_connection_returns_minus_1)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_EQ(m_connection->send_ng(1), -1);
    EXPECT_EQ(support::log_dialogue(), failed_write(20, EBADF));
}

// The log

TEST_F(ipc_connection_test, every_line_names_its_unit)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    m_connection->send_ng(1);
    m_frontEnd->close();
    read();
    testing::internal::GetCapturedStderr();
    lines units;
    for (const support::log_line& line : support::log_lines())
        units.push_back(support::source_of(line.message));
    EXPECT_EQ(units, lines(6, "ipc_connection"));
}
