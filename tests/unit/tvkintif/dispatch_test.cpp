#include "tvkintif/src/dispatch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "process/wire.h"
#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "tvkintif/src/payload_buffer.h"
#include "tvkintif/src/scanner.h"
#include "unit/tvkintif/allocation_seam.h"
#include "unit/tvkintif/peer.h"
#include "unit/tvkintif/system_calls.h"
#include "unit/tvkintif/watched_test.h"

using namespace std::string_literals;
using process_test::bare_header;
using process_test::device_bytes;
using process_test::frame;
using process_test::nak_reply;
using process_test::ng_reply;
using process_test::ok_reply;
using process_test::open_request;
using process_test::query_request;
using process_test::recv_request;
using process_test::send_request;
using support::bytes;
using support::bytes_of;
using support::hex;
using support::operator+;
using unit::peer;
using unit::system_calls;

namespace {

static_assert(std::is_same_v<decltype(do_cleanup), std::atomic<int>>);
static_assert(!std::is_copy_constructible_v<dispatch> && !std::is_copy_assignable_v<dispatch>);

const int kCleanupAtStart = do_cleanup;

constexpr std::uint32_t kOpen = 4;
constexpr std::uint32_t kClose = 5;
constexpr std::uint32_t kSend = 6;
constexpr std::uint32_t kRecv = 7;
constexpr std::uint32_t kQuery = 8;
constexpr std::uint8_t kBulkOut = 0x02;

constexpr const char* kAddress = "usb:1a2b:3c4d";
constexpr const char* kNoAddress = "nonsense";

/// A request that is always answered ng.
const bytes kRefused = query_request(0xFFFFFFFF);

ipc_header header_of(const bytes& wire)
{
    ipc_header header = {};
    std::memcpy(&header, wire.data(), sizeof header);
    return header;
}

lines starting_with(const std::string& start, const lines& all)
{
    lines found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.compare(0, start.size(), start) == 0; });
    return found;
}

bool is_about_a_transfer(const std::string& line)
{
    return line.find("ipc connection ") != std::string::npos ||
           line.find("transferred ") != std::string::npos || line.find(" failed: ") != std::string::npos;
}

/// The log without the lines of the transfers.
lines log_of_requests()
{
    lines found;
    for (const std::string& line : support::log_dialogue())
        if (!is_about_a_transfer(line))
            found.push_back(line);
    return found;
}

const lines kHungUp = {"INFO do_cleanup 1", "INFO Leave do_cleanup 1"};
const lines kStopped = {"plugin_good dtor", "plugin_good unloaded"};

extern "C" {
static void end_the_loop(int)
{
    do_cleanup = 1;
}
}

/// Handles SIGTERM as the program does while one lives.
class termination_handler {
public:
    termination_handler() : m_previous(std::signal(SIGTERM, end_the_loop)) {}
    termination_handler(const termination_handler&) = delete;
    termination_handler& operator=(const termination_handler&) = delete;
    ~termination_handler() { std::signal(SIGTERM, m_previous); }

private:
    void (*m_previous)(int);
};

/// Has every accept fail, and SIGTERM arrive with call number `last` of them.
void fail_accepts(system_calls& calls, int error, int last)
{
    calls.fail("accept", error, 0);
    calls.before("accept", [last, attempts = 0]() mutable {
        if (++attempts == last)
            std::raise(SIGTERM);
    });
}

/// Standard output as a pipe whose reader has gone.
class unread_output {
public:
    unread_output()
    {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        dup2(ends[1], STDOUT_FILENO);
        ::close(ends[0]);
        ::close(ends[1]);
    }
    unread_output(const unread_output&) = delete;
    unread_output& operator=(const unread_output&) = delete;
    ~unread_output()
    {
        dup2(m_before, STDOUT_FILENO);
        ::close(m_before);
    }

private:
    int m_before = dup(STDOUT_FILENO);
};

/// A dispatcher with its front-end connected, a scanner on the bus, and a plugin that serves it installed.
class dispatch_test : public watched_test {
protected:
    void SetUp() override
    {
        watched_test::SetUp();
        if (IsSkipped())
            return;
        do_cleanup = 0;
        support::remove_plugins();
        use_plugin("plugin_good");
        bus.plug(fake_usb::scanner_device());
        m_dispatch = std::make_unique<dispatch>();
        m_frontEnd = std::make_unique<peer>(m_dispatch->port());
        ASSERT_TRUE(m_frontEnd->is_connected()) << "the loop would wait for nobody";
    }

    void TearDown() override
    {
        m_dispatch.reset();
        scanner::instance().close();
        watched_test::TearDown();
    }

    /// To be called before the scanner is opened.
    static void use_plugin(const std::string& target)
    {
        support::install_plugin(target, "libryo-mora-hk-t210.so");
    }

    /// Has the front-end send these requests and end its stream, runs the loop, and returns the replies.
    std::string serve(const bytes& requests)
    {
        m_frontEnd->send(requests);
        m_frontEnd->end_stream();
        m_dispatch->run();
        return replies();
    }

    /// As serve(), for requests that have to end the loop by themselves: the stream stays open.
    std::string serve_open_ended(const bytes& requests)
    {
        m_frontEnd->send(requests);
        m_dispatch->run();
        return replies();
    }

    /// Everything that the front-end was sent, once the loop is over.
    std::string replies()
    {
        m_dispatch.reset();
        return hex(m_frontEnd->receive_all());
    }

    /// What the plugin was asked for since the last look.
    static lines plugin_calls() { return starting_with("plugin_", support::take_dialogue()); }

    /// That, among the lines of the log but those of transfers.
    static lines plugin_calls_and_log()
    {
        lines found;
        for (const std::string& line : support::take_dialogue())
            if (line.rfind("plugin_", 0) == 0 || (line.rfind("INFO ", 0) == 0 && !is_about_a_transfer(line)))
                found.push_back(line);
        return found;
    }

    /// Opens the scanner outside the loop, so that the buffer is as the loop makes it.
    void open_beforehand()
    {
        ASSERT_TRUE(m_dispatch->connect(kAddress));
        forget_what_happened();
    }

    std::unique_ptr<dispatch> m_dispatch;
    std::unique_ptr<peer> m_frontEnd;
};

} // namespace

// The dispatcher and the session

TEST_F(dispatch_test, termination_flag_is_0_at_the_start_of_the_process)
{
    EXPECT_EQ(kCleanupAtStart, 0);
}

TEST_F(dispatch_test, connect_opens_the_session_and_disconnect_closes_it)
{
    EXPECT_FALSE(m_dispatch->connect(kNoAddress));
    EXPECT_TRUE(m_dispatch->connect(kAddress));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good loaded", "plugin_good ctor"}));
    m_dispatch->disconnect();
    EXPECT_EQ(plugin_calls(), kStopped);
}

TEST_F(dispatch_test, destruction_closes_the_session_before_the_connection)
{
    open_beforehand();
    m_frontEnd->send(query_request(1));
    m_frontEnd->end_stream();
    {
        system_calls calls;
        calls.before("close", [] { support::record("socket closed"); });
        m_dispatch.reset();
    }
    const lines all = support::take_dialogue();
    ASSERT_GE(all.size(), 2U);
    EXPECT_EQ(all.front(), "plugin_good dtor");
    EXPECT_EQ(all.back(), "socket closed");
}

// The loop

TEST_F(dispatch_test, loop_does_not_read_when_the_flag_is_set_already)
{
    do_cleanup = 1;
    system_calls calls;
    m_dispatch->run();
    EXPECT_EQ(calls.lines(), lines());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO Leave do_cleanup 1"});
}

TEST_F(dispatch_test, end_of_the_connection_ends_the_loop_and_then_the_session)
{
    open_beforehand();
    m_frontEnd->end_stream();
    m_dispatch->run();
    EXPECT_EQ(do_cleanup, 1);
    EXPECT_EQ(plugin_calls_and_log(), kHungUp + kStopped);
}

TEST_F(dispatch_test, connection_that_ends_within_a_message_gets_no_reply)
{
    bytes cut = open_request();
    cut.pop_back();
    EXPECT_EQ(serve(cut), "");
    EXPECT_EQ(log_of_requests(), kHungUp);
}

TEST_F(dispatch_test, failure_to_accept_repeats_until_a_signal_sets_the_flag)
{
    m_frontEnd->close();
    const termination_handler handler;
    system_calls calls;
    fail_accepts(calls, EMFILE, 3);
    m_dispatch->run();
    const lines attempt = {"INFO ipc connection read get called = 20",
                           std::string("INFO read failed: ") + std::strerror(EBADF),
                           "INFO ipc connection read get bail rv = -1"};
    EXPECT_EQ(log(), text({support::repeated(3, attempt), {"INFO Leave do_cleanup 1"}}));
}

TEST_F(dispatch_test, failures_that_follow_each_other_are_spaced_out)
{
    m_frontEnd->close();
    const termination_handler handler;
    system_calls calls;
    fail_accepts(calls, EMFILE, 10);
    m_dispatch->run();
    EXPECT_EQ(starting_with("usleep ", support::take_dialogue()),
              (lines{"usleep 10000", "usleep 20000", "usleep 40000", "usleep 80000", "usleep 160000",
                     "usleep 320000", "usleep 640000", "usleep 1000000", "usleep 1000000"}));
}

TEST_F(dispatch_test, request_that_was_read_ends_a_row_of_failures)
{
    system_calls calls;
    calls.fail("read", EINTR, 1);
    calls.fail("read", EINTR, 3);
    EXPECT_EQ(serve(kRefused), hex(ng_reply(1)));
    EXPECT_EQ(starting_with("usleep ", support::take_dialogue()), lines());
}

TEST_F(dispatch_test, loop_ends_when_nobody_came_in_time_and_nobody_reads_the_port)
{
    m_frontEnd->close();
    system_calls calls;
    calls.fail("accept", EAGAIN, 0);
    const unread_output nobody;
    m_dispatch->run();
    EXPECT_EQ(calls.lines_of("accept").size(), 1U);
    EXPECT_EQ(log_of_requests(), kHungUp);
}

TEST_F(dispatch_test, loop_goes_on_after_another_failure_though_nobody_reads_the_port)
{
    const termination_handler handler;
    system_calls calls;
    fail_accepts(calls, ECONNABORTED, 2);
    const unread_output nobody;
    m_dispatch->run();
    EXPECT_EQ(calls.lines_of("accept").size(), 2U);
}

TEST_F(dispatch_test, loop_goes_on_after_a_time_out_while_somebody_may_still_read_the_port)
{
    const termination_handler handler;
    system_calls calls;
    fail_accepts(calls, EAGAIN, 2);
    m_dispatch->run();
    EXPECT_EQ(calls.lines_of("accept").size(), 2U);
}

TEST_F(dispatch_test, request_after_a_reply_that_could_not_be_written_is_served)
{
    system_calls calls;
    calls.fail("write", EPIPE);
    EXPECT_EQ(serve(query_request(1) + kRefused), hex(ng_reply(1)));
}

TEST_F(dispatch_test, request_that_a_signal_came_with_is_served_and_then_the_loop_ends)
{
    const termination_handler handler;
    system_calls calls;
    calls.before("read", [] { std::raise(SIGTERM); });
    EXPECT_EQ(serve_open_ended(kRefused + query_request(1)), hex(ng_reply(1)));
}

TEST_F(dispatch_test, transfer_that_a_signal_came_in_is_answered_and_then_the_loop_ends)
{
    const termination_handler handler;
    open_beforehand();
    bus.before_call("bulk_transfer", 1, [] { std::raise(SIGTERM); });
    EXPECT_EQ(serve_open_ended(recv_request(3) + recv_request(3)), hex(ok_reply(device_bytes(3))));
}

TEST_F(dispatch_test, every_line_names_its_unit)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    serve_open_ended(open_request() + frame(1, kClose));
    testing::internal::GetCapturedStderr();
    lines own;
    for (const support::log_line& line : support::log_lines())
        if (support::source_of(line.message) == "dispatch")
            own.push_back(support::without_source(line.message));
    EXPECT_EQ(own,
              (lines{"open usb:1a2b:3c4d", "send ok", "enter close", "leave close", "Leave do_cleanup 1"}));
}

// Requests and their replies

namespace {

enum class after { goes_on, ends };

struct exchange_case {
    const char* name;
    bytes requests;
    bytes replies;
    after loop = after::goes_on;
    const char* plugin = "plugin_good";
};

const auto name_of_case = [](const auto& test) { return test.param.name; };

const bytes kData = {1, 2, 3};
const bytes kOpened = ok_reply();

const std::vector<exchange_case> kSessions = {
    {"several", query_request(1) + kRefused + frame(2, kQuery, 1) + open_request() + recv_request(2),
     ok_reply(bytes(4, 0)) + ng_reply() + nak_reply(2) + kOpened + ok_reply(device_bytes(2))},

    {"open_with_id_1", frame(1, kOpen, 0, bytes_of(kAddress)), kOpened},
    {"open_with_id_2", frame(2, kOpen, 0, bytes_of(kAddress)), kOpened},
    {"open_with_the_greatest_id", frame(0xFFFFFFFF, kOpen, 0, bytes_of(kAddress)), kOpened},
    {"open_that_fails", open_request(kNoAddress), ng_reply(), after::ends},
    {"open_that_fails_with_another_id", frame(2, kOpen, 0, bytes_of(kNoAddress)), ng_reply(), after::ends},
    {"open_without_payload", frame(0, kOpen), ng_reply(), after::ends},
    {"open_with_terminator", open_request(kAddress + "\0"s), kOpened},
    {"open_with_a_nul_in_the_middle", open_request("usb:1a2b\0:3c4d"s), kOpened},
    {"open_longer_than_256", open_request("usb:" + std::string(300, '0') + "1a2b:3c4d"), kOpened},
    {"open_after_a_longer_payload", frame(1, kQuery, 1, bytes(300, 'x')) + open_request(),
     ok_reply(bytes(4, 0)) + kOpened},
    {"open_that_the_plugin_refuses", open_request(), ng_reply(), after::ends, "plugin_refusing"},

    {"close", frame(1, kClose), {}, after::ends},
    {"close_with_payload", frame(1, kClose, 0, kData), {}, after::ends},
    {"close_with_another_id", frame(2, kClose), nak_reply(2), after::ends},
    {"close_with_another_id_and_payload", frame(2, kClose, 0, kData), nak_reply(2), after::ends},

    {"send_before_an_open", send_request(kData), ng_reply()},
    {"send", open_request() + send_request(kData), kOpened + ok_reply()},
    {"send_that_the_plugin_fails", open_request() + send_request(kData), kOpened + ng_reply(), after::goes_on,
     "plugin_failing"},

    {"receive_before_an_open", recv_request(3), ng_reply()},
    {"receive_of_exactly_the_bytes_asked_for", open_request() + recv_request(512),
     kOpened + ok_reply(device_bytes(512))},
    {"receive_with_a_payload_to_discard", open_request() + frame(1, kRecv, 2, bytes(50, 0xAA)),
     kOpened + ok_reply(device_bytes(2))},
    // Claims success without touching the buffer.
    {"receive_into_zero_bytes", open_request() + frame(1, kRecv, 4, bytes(50, 0xAA)),
     kOpened + ok_reply(bytes(4, 0)), after::goes_on, "plugin_odd"},
    {"receive_that_the_plugin_fails", open_request() + recv_request(3), kOpened + ng_reply(), after::goes_on,
     "plugin_failing"},
};

/// No matter whether the session is open, of which they are to leave the plugin alone.
const std::vector<exchange_case> kNotForThePlugin = {
    {"send_with_id_0", frame(0, kSend, 1, kData), nak_reply(0)},
    {"send_with_id_2", frame(2, kSend, 1, kData), nak_reply(2)},
    {"send_with_the_greatest_id", frame(0xFFFFFFFF, kSend, 1, kData), nak_reply(0xFFFFFFFF)},
    {"send_with_id_1_the_wrong_way_round", frame(0x01000000, kSend, 1, kData), nak_reply(0x01000000)},
    {"receive_with_id_2", frame(2, kRecv, 1, kData), nak_reply(2)},
    {"query_with_id_2", frame(2, kQuery, 1, kData), nak_reply(2)},
    {"code_0_with_id_5", frame(5, 0), nak_reply(5)},
    {"code_9_with_id_5", frame(5, 9), nak_reply(5)},
    {"open_the_wrong_way_round_with_id_5", frame(5, 0x04000000), nak_reply(5)},

    {"code_0", frame(1, 0), ng_reply()},
    {"code_1", frame(1, 1), ng_reply()},
    {"code_3", frame(1, 3), ng_reply()},
    {"code_9", frame(1, 9), ng_reply()},
    {"open_the_wrong_way_round", frame(1, 0x04000000), ng_reply()},
    {"greatest_code", frame(1, 0xFFFFFFFF), ng_reply()},

    {"query_of_1", query_request(1), ok_reply(bytes(4, 0))},
    {"query_of_2", query_request(2), ok_reply(bytes(4, 0))},
    {"query_of_0", query_request(0), ng_reply()},
    {"query_of_3", query_request(3), ng_reply()},
    {"query_of_1_the_wrong_way_round", query_request(0x01000000), ng_reply()},
    {"query_of_the_greatest_number", query_request(0xFFFFFFFF), ng_reply()},

    {"receive_of_nothing", recv_request(0), ng_reply()},
    {"send_of_the_nothing_that_a_receive_left", recv_request(0) + frame(1, kSend), ng_reply() + ng_reply()},
};

} // namespace

class exchange : public dispatch_test, public testing::WithParamInterface<exchange_case> {};

TEST_P(exchange, has_these_replies_and_the_loop_goes_on_or_ends)
{
    const bool goes_on = GetParam().loop == after::goes_on;
    use_plugin(GetParam().plugin);
    EXPECT_EQ(serve(GetParam().requests + kRefused),
              hex(GetParam().replies + (goes_on ? ng_reply() : bytes())));
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, exchange, testing::ValuesIn(kSessions), name_of_case);
INSTANTIATE_TEST_SUITE_P(without_the_session, exchange, testing::ValuesIn(kNotForThePlugin), name_of_case);

class request_in_a_session : public dispatch_test, public testing::WithParamInterface<exchange_case> {};

TEST_P(request_in_a_session, is_answered_without_the_plugin)
{
    open_beforehand();
    EXPECT_EQ(serve(GetParam().requests), hex(GetParam().replies));
    EXPECT_EQ(plugin_calls_and_log(), kHungUp + kStopped);
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, request_in_a_session, testing::ValuesIn(kNotForThePlugin),
                         name_of_case);

// Opening

TEST_F(dispatch_test, open_is_logged_as_ok_before_the_reply_goes_out)
{
    serve(open_request());
    const lines all = support::log_dialogue();
    const auto logged = std::find(all.begin(), all.end(), "INFO send ok");
    ASSERT_NE(logged, all.end());
    EXPECT_EQ(*(logged + 1), "INFO ipc connection wrute get called = 20");
    const lines requests = log_of_requests();
    EXPECT_EQ(lines(requests.begin(), requests.begin() + 2),
              (lines{"INFO open usb:1a2b:3c4d", "INFO open usb:1a2b:3c4d"}));
    EXPECT_EQ(lines(requests.end() - 3, requests.end()), lines{"INFO send ok"} + kHungUp);
}

TEST_F(dispatch_test, open_that_fails_is_logged_as_send_ng)
{
    serve_open_ended(open_request(kNoAddress));
    EXPECT_EQ(do_cleanup, 1);
    const lines all = log_of_requests();
    EXPECT_EQ(lines(all.end() - 2, all.end()), (lines{"INFO send ng", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, second_open_is_ok_and_starts_nothing)
{
    open_beforehand();
    EXPECT_EQ(serve(open_request("usb:ffff:ffff")), hex(kOpened));
    EXPECT_EQ(plugin_calls(), kStopped);
}

TEST_F(dispatch_test, open_without_payload_passes_zero_bytes_on)
{
    serve_open_ended(frame(0, kOpen));
    EXPECT_EQ(log_of_requests().front(), "INFO open ");
}

// Closing

TEST_F(dispatch_test, close_stops_the_plugin_once_though_the_session_is_closed_three_times)
{
    open_beforehand();
    serve_open_ended(frame(1, kClose));
    EXPECT_EQ(do_cleanup, 1);
    EXPECT_EQ(plugin_calls_and_log(),
              (lines{"INFO enter close"} + kStopped + lines{"INFO leave close", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, refused_close_logs_no_close)
{
    serve_open_ended(frame(2, kClose));
    EXPECT_EQ(do_cleanup, 1);
    EXPECT_EQ(log_of_requests(), lines{"INFO Leave do_cleanup 1"});
}

// Transfers

TEST_F(dispatch_test, send_hands_its_payload_to_the_plugin_whatever_its_value)
{
    serve(open_request() + send_request(kData) + frame(1, kSend, 0xFFFFFFFF, {4, 5}));
    EXPECT_EQ(hex(bus.written("scanner", kBulkOut)), "01 02 03 04 05");
}

TEST_F(dispatch_test, receive_of_more_than_there_is_memory_leaves_the_loop_as_an_exception)
{
    open_beforehand();
    m_frontEnd->send(recv_request(0x7FFFFFFF));
    {
        const unit::allocation_limit limit(0x1000000);
        EXPECT_THROW(m_dispatch->run(), std::bad_alloc);
    }
    EXPECT_EQ(do_cleanup, 0);
    EXPECT_EQ(replies(), "");
}

TEST_F(dispatch_test, payload_of_more_than_there_is_memory_leaves_the_loop_as_an_exception)
{
    m_frontEnd->send(bare_header(1, kSend, 0x7F000000));
    const unit::allocation_limit limit(0x1000000);
    EXPECT_THROW(m_dispatch->run(), std::bad_alloc);
}

// The buffer: a send without payload passes on as many zero bytes as the request before it left.

struct buffer_case {
    const char* name;
    bytes earlier;
    std::size_t length;
};

class length_of_the_buffer : public dispatch_test, public testing::WithParamInterface<buffer_case> {};

TEST_P(length_of_the_buffer, is_what_the_request_before_left_in_zero_bytes)
{
    open_beforehand();
    serve(GetParam().earlier + frame(1, kSend));
    const lines calls = starting_with("plugin_good writer", support::take_dialogue());
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back(), "plugin_good writer " + std::to_string(GetParam().length));
    const bytes& written = bus.written("scanner", kBulkOut);
    ASSERT_GE(written.size(), GetParam().length);
    EXPECT_EQ(bytes(written.end() - static_cast<bytes::difference_type>(GetParam().length), written.end()),
              bytes(GetParam().length, 0));
}

INSTANTIATE_TEST_SUITE_P(
    dispatch_test, length_of_the_buffer,
    testing::Values(
        buffer_case{"is_1024_at_the_start", {}, 1024}, buffer_case{"after_an_open", open_request(), 13},
        buffer_case{"after_a_send", send_request(bytes(5, 0xAA)), 5},
        buffer_case{"after_a_longer_send", send_request(bytes(3000, 0xAA)), 3000},
        buffer_case{"after_a_send_without_payload", frame(1, kSend), 1024},
        buffer_case{"after_a_receive", recv_request(512), 512},
        buffer_case{"after_a_longer_receive", recv_request(2000), 2000},
        buffer_case{"after_a_receive_with_payload", frame(1, kRecv, 7, bytes(50, 0xAA)), 7},
        buffer_case{"after_a_query", query_request(1), 1024},
        buffer_case{"after_a_query_with_payload", frame(1, kQuery, 1, bytes(7, 0xAA)), 7},
        buffer_case{"after_an_unknown_code_with_payload", frame(1, 9, 0, bytes(7, 0xAA)), 7},
        buffer_case{"after_a_refused_request", frame(2, kSend), 1024},
        buffer_case{"after_a_refused_request_with_payload", frame(2, kSend, 0, bytes(7, 0xAA)), 7},
        buffer_case{"after_a_refused_receive", frame(2, kRecv, 512), 1024},
        buffer_case{"after_a_refused_receive_with_payload", frame(2, kRecv, 512, bytes(7, 0xAA)), 7}),
    name_of_case);

TEST_F(dispatch_test, receive_that_failed_leaves_its_length_all_the_same)
{
    use_plugin("plugin_failing");
    open_beforehand();
    serve(recv_request(512) + frame(1, kSend));
    EXPECT_EQ(starting_with("plugin_failing writer", support::take_dialogue()),
              lines{"plugin_failing writer 512"});
}

TEST_F(dispatch_test, payload_of_which_a_part_came_before_a_read_failed_leaves_its_length_in_zeros)
{
    open_beforehand();
    m_frontEnd->send(bare_header(1, kSend, 5) + bytes(2, 0xAA));
    {
        system_calls calls;
        calls.before("read", [&, call = 0]() mutable {
            if (++call == 3)
                m_frontEnd->send(frame(1, kSend));
            if (call == 4)
                m_frontEnd->end_stream();
        });
        calls.fail("read", EAGAIN, 3);
        m_dispatch->run();
    }
    EXPECT_EQ(hex(bus.written("scanner", kBulkOut)), "00 00 00 00 00");
}

TEST_F(dispatch_test, one_request_can_be_handled_outside_the_loop)
{
    open_beforehand();
    ipc_header header = header_of(recv_request(3));
    payload_buffer payload(10);
    m_dispatch->do_dispatch(header, payload);
    EXPECT_EQ(bytes(payload.data(), payload.data() + payload.size()), device_bytes(3));
    EXPECT_EQ(replies(), hex(ok_reply(device_bytes(3))));
}
