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
#include <thread>
#include <type_traits>
#include <vector>

#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "tvkintif/src/payload_buffer.h"
#include "tvkintif/src/scanner.h"
#include "unit/tvkintif/allocation_seam.h"
#include "unit/tvkintif/peer.h"
#include "unit/tvkintif/system_calls.h"
#include "unit/tvkintif/watched_test.h"

using support::operator+;
using unit::bytes;
using unit::bytes_of;
using unit::hex;
using unit::peer;
using unit::system_calls;

namespace {

static_assert(std::is_same_v<decltype(do_cleanup), std::atomic<int>>);
static_assert(!std::is_copy_constructible_v<dispatch> && !std::is_copy_assignable_v<dispatch>);

const int cleanup_at_start = do_cleanup;

constexpr std::uint32_t kOpen = 4;
constexpr std::uint32_t kClose = 5;
constexpr std::uint32_t kSend = 6;
constexpr std::uint32_t kRecv = 7;
constexpr std::uint32_t kQuery = 8;
constexpr std::uint8_t kBulkOut = 0x02;

constexpr const char* kAddress = "usb:1a2b:3c4d";
constexpr const char* kNoAddress = "nonsense";

bytes message(std::uint32_t id, std::uint32_t code, std::uint32_t error, std::uint32_t value,
              const bytes& payload)
{
    bytes wire;
    for (const std::uint32_t field : {id, code, error, static_cast<std::uint32_t>(payload.size()), value})
        for (const unsigned int shift : {24U, 16U, 8U, 0U})
            wire.push_back(static_cast<unsigned char>(field >> shift));
    return wire + payload;
}

bytes request(std::uint32_t id, std::uint32_t code, std::uint32_t value = 0, const bytes& payload = {})
{
    return message(id, code, 0, value, payload);
}

/// A request that is always answered ng.
const bytes kRefused = request(1, kQuery, 0xFFFFFFFF);

bytes open_request(const std::string& udi = kAddress, std::uint32_t id = 0)
{
    return request(id, kOpen, 0, bytes_of(udi));
}

bytes ok(std::uint32_t id, const bytes& payload = {})
{
    return message(id, 0, 0, 0, payload);
}

bytes ng(std::uint32_t id)
{
    return message(id, 0, 0xFFFFFFFF, 0, {});
}

bytes nak(std::uint32_t id)
{
    return message(id, 0, 0xFFFFFFFF, 0, {0x15});
}

/// What the device of the fake bus gives first.
bytes device_bytes(std::size_t count)
{
    bytes data(count);
    for (std::size_t i = 0; i < count; ++i)
        data[i] = fake_usb::pattern_byte(i);
    return data;
}

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

/// The log without the lines of the transfers.
lines log_of_requests()
{
    lines found;
    for (const std::string& line : support::log_dialogue())
        if (line.find("ipc connection ") == std::string::npos &&
            line.find("transferred ") == std::string::npos && line.find(" failed: ") == std::string::npos)
            found.push_back(line);
    return found;
}

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
        m_front_end = std::make_unique<peer>(m_dispatch->port());
        ASSERT_TRUE(m_front_end->is_connected()) << "the loop would wait for nobody";
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
        m_front_end->send(requests);
        m_front_end->end_stream();
        m_dispatch->run();
        return replies();
    }

    /// As serve(), for requests that have to end the loop by themselves: the stream stays open.
    std::string serve_open_ended(const bytes& requests)
    {
        m_front_end->send(requests);
        m_dispatch->run();
        return replies();
    }

    /// Everything that the front-end was sent, once the loop is over.
    std::string replies()
    {
        m_dispatch.reset();
        return hex(m_front_end->receive_all());
    }

    /// What the plugin was asked for since the last look.
    static lines plugin_calls() { return starting_with("plugin_", support::take_dialogue()); }

    /// Opens the scanner outside the loop, so that the buffer is as the loop makes it.
    void open_beforehand()
    {
        ASSERT_TRUE(m_dispatch->connect(kAddress));
        forget_what_happened();
    }

    std::unique_ptr<dispatch> m_dispatch;
    std::unique_ptr<peer> m_front_end;
};

} // namespace

// The dispatcher and the session

TEST_F(dispatch_test, termination_flag_is_0_at_the_start_of_the_process)
{
    EXPECT_EQ(cleanup_at_start, 0);
}

TEST_F(dispatch_test, front_end_can_connect_before_the_loop_runs)
{
    EXPECT_TRUE(m_front_end->is_connected());
}

TEST_F(dispatch_test, port_stays_the_same)
{
    EXPECT_EQ(m_dispatch->port(), m_dispatch->port());
}

TEST_F(dispatch_test, connect_opens_the_session)
{
    EXPECT_TRUE(m_dispatch->connect(kAddress));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good loaded", "plugin_good ctor"}));
}

TEST_F(dispatch_test, connect_tells_that_the_session_could_not_be_opened)
{
    EXPECT_FALSE(m_dispatch->connect(kNoAddress));
}

TEST_F(dispatch_test, disconnect_closes_the_session)
{
    open_beforehand();
    m_dispatch->disconnect();
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, destruction_closes_the_session_before_the_connection)
{
    open_beforehand();
    m_front_end->send(request(1, kQuery, 1));
    m_front_end->end_stream();
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

TEST_F(dispatch_test, end_of_the_connection_ends_the_loop_and_sets_the_flag)
{
    serve({});
    EXPECT_EQ(do_cleanup, 1);
    EXPECT_EQ(log_of_requests(), (lines{"INFO do_cleanup 1", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, connection_that_ends_half_way_through_a_header_gets_no_reply)
{
    EXPECT_EQ(serve(bytes(10, 0)), "");
    EXPECT_EQ(log_of_requests(), (lines{"INFO do_cleanup 1", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, connection_that_ends_half_way_through_a_payload_gets_no_reply)
{
    bytes cut = open_request();
    cut.pop_back();
    EXPECT_EQ(serve(cut), "");
    EXPECT_EQ(log_of_requests(), (lines{"INFO do_cleanup 1", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, loop_closes_the_session_when_it_ends)
{
    open_beforehand();
    m_front_end->end_stream();
    m_dispatch->run();
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, session_is_closed_after_the_last_line_of_the_loop)
{
    open_beforehand();
    m_front_end->end_stream();
    m_dispatch->run();
    const lines all = support::take_dialogue();
    const auto leaving = std::find(all.begin(), all.end(), "INFO Leave do_cleanup 1");
    const auto stopping = std::find(all.begin(), all.end(), "plugin_good dtor");
    ASSERT_NE(stopping, all.end());
    EXPECT_LT(leaving, stopping);
}

TEST_F(dispatch_test, requests_are_answered_one_by_one_in_their_order)
{
    EXPECT_EQ(serve(request(1, kQuery, 1) + kRefused + request(2, kQuery, 1) + open_request() +
                    request(1, kRecv, 2)),
              hex(ok(1, bytes(4, 0)) + ng(1) + nak(2) + ok(1) + ok(1, device_bytes(2))));
}

TEST_F(dispatch_test, failure_to_accept_repeats_until_a_signal_sets_the_flag)
{
    m_front_end->close();
    const termination_handler handler;
    system_calls calls;
    fail_accepts(calls, EMFILE, 3);
    m_dispatch->run();
    const lines attempt = {"INFO ipc connection read get called = 20",
                           std::string("INFO read failed: ") + std::strerror(EBADF),
                           "INFO ipc connection read get bail rv = -1"};
    EXPECT_EQ(log(), text({attempt, attempt, attempt, {"INFO Leave do_cleanup 1"}}));
}

TEST_F(dispatch_test, failures_that_follow_each_other_are_spaced_out)
{
    m_front_end->close();
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
    m_front_end->send(kRefused);
    m_front_end->end_stream();
    m_dispatch->run();
    EXPECT_EQ(starting_with("usleep ", support::take_dialogue()), lines());
}

TEST_F(dispatch_test, loop_ends_when_nobody_came_in_time_and_nobody_reads_the_port)
{
    m_front_end->close();
    system_calls calls;
    calls.fail("accept", EAGAIN, 0);
    const unread_output nobody;
    m_dispatch->run();
    const lines expected = {
        "INFO ipc connection read get called = 20", std::string("INFO read failed: ") + std::strerror(EBADF),
        "INFO ipc connection read get bail rv = -1", "INFO do_cleanup 1", "INFO Leave do_cleanup 1"};
    EXPECT_EQ(support::log_dialogue(), expected);
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

TEST_F(dispatch_test, request_after_a_read_that_failed_is_served)
{
    system_calls calls;
    calls.fail("read", EINTR);
    m_front_end->send(kRefused);
    m_front_end->end_stream();
    m_dispatch->run();
    EXPECT_EQ(replies(), hex(ng(1)));
}

TEST_F(dispatch_test, request_after_a_reply_that_could_not_be_written_is_served)
{
    system_calls calls;
    calls.fail("write", EPIPE);
    m_front_end->send(request(1, kQuery, 1) + kRefused);
    m_front_end->end_stream();
    m_dispatch->run();
    EXPECT_EQ(replies(), hex(ng(1)));
}

TEST_F(dispatch_test, request_that_a_signal_came_with_is_served_and_then_the_loop_ends)
{
    const termination_handler handler;
    system_calls calls;
    calls.before("read", [] { std::raise(SIGTERM); });
    m_front_end->send(kRefused + request(1, kQuery, 1));
    m_dispatch->run();
    EXPECT_EQ(replies(), hex(ng(1)));
}

TEST_F(dispatch_test, transfer_that_a_signal_came_in_is_answered_and_then_the_loop_ends)
{
    const termination_handler handler;
    open_beforehand();
    bus.before_call("bulk_transfer", 1, [] { std::raise(SIGTERM); });
    EXPECT_EQ(serve_open_ended(request(1, kRecv, 3) + request(1, kRecv, 3)), hex(ok(1, device_bytes(3))));
}

TEST_F(dispatch_test, every_line_names_its_unit)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    serve_open_ended(open_request() + request(1, kClose));
    testing::internal::GetCapturedStderr();
    lines own;
    for (const support::log_line& line : support::log_lines())
        if (support::source_of(line.message) == "dispatch")
            own.push_back(support::without_source(line.message));
    EXPECT_EQ(own,
              (lines{"open usb:1a2b:3c4d", "send ok", "enter close", "leave close", "Leave do_cleanup 1"}));
}

// Opening

class id_of_an_open_request : public dispatch_test, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(id_of_an_open_request, does_not_matter_and_the_reply_carries_1)
{
    EXPECT_EQ(serve(open_request(kAddress, GetParam())), hex(ok(1)));
}

TEST_P(id_of_an_open_request, does_not_matter_for_a_failure_either)
{
    EXPECT_EQ(serve_open_ended(open_request(kNoAddress, GetParam())), hex(ng(1)));
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, id_of_an_open_request, testing::Values(0U, 1U, 2U, 0xFFFFFFFFU),
                         [](const auto& test) { return "of_" + std::to_string(test.param); });

TEST_F(dispatch_test, open_is_logged_with_its_address_here_and_in_the_session)
{
    serve(open_request());
    const lines all = log_of_requests();
    EXPECT_EQ(lines(all.begin(), all.begin() + 2),
              (lines{"INFO open usb:1a2b:3c4d", "INFO open usb:1a2b:3c4d"}));
}

TEST_F(dispatch_test, open_that_succeeds_is_logged_as_send_ok)
{
    serve(open_request());
    const lines all = log_of_requests();
    EXPECT_EQ(lines(all.end() - 3, all.end()),
              (lines{"INFO send ok", "INFO do_cleanup 1", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, open_starts_the_plugin)
{
    serve(open_request());
    EXPECT_EQ(plugin_calls(),
              (lines{"plugin_good loaded", "plugin_good ctor", "plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, open_is_logged_as_ok_before_the_reply_goes_out)
{
    serve(open_request());
    const lines all = support::log_dialogue();
    const auto logged = std::find(all.begin(), all.end(), "INFO send ok");
    ASSERT_NE(logged, all.end());
    EXPECT_EQ(*(logged + 1), "INFO ipc connection wrute get called = 20");
}

TEST_F(dispatch_test, open_that_fails_ends_the_loop_without_another_request)
{
    EXPECT_EQ(serve_open_ended(open_request(kNoAddress) + request(1, kQuery, 1)), hex(ng(1)));
    EXPECT_EQ(do_cleanup, 1);
}

TEST_F(dispatch_test, open_that_fails_is_logged_as_send_ng)
{
    serve_open_ended(open_request(kNoAddress));
    const lines all = log_of_requests();
    EXPECT_EQ(lines(all.end() - 2, all.end()), (lines{"INFO send ng", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, open_without_a_plugin_fails)
{
    support::remove_plugins();
    EXPECT_EQ(serve_open_ended(open_request()), hex(ng(1)));
}

TEST_F(dispatch_test, open_of_a_plugin_that_refuses_fails)
{
    use_plugin("plugin_refusing");
    EXPECT_EQ(serve_open_ended(open_request()), hex(ng(1)));
}

TEST_F(dispatch_test, second_open_is_ok_and_starts_nothing)
{
    open_beforehand();
    EXPECT_EQ(serve(open_request("usb:ffff:ffff")), hex(ok(1)));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, address_that_brings_its_terminator_along_is_served)
{
    EXPECT_EQ(serve(open_request(std::string(kAddress) + '\0')), hex(ok(1)));
}

TEST_F(dispatch_test, address_is_the_payload_and_nothing_of_an_earlier_longer_one)
{
    EXPECT_EQ(serve(request(1, kQuery, 1, bytes(100, 'x')) + open_request()),
              hex(ok(1, bytes(4, 0)) + ok(1)));
}

TEST_F(dispatch_test, open_without_payload_passes_zero_bytes_on)
{
    EXPECT_EQ(serve_open_ended(request(0, kOpen)), hex(ng(1)));
    EXPECT_EQ(log_of_requests().front(), "INFO open ");
}

// The gate

struct gate_case {
    std::uint32_t code;
    std::uint32_t id;
};

class wrong_id : public dispatch_test, public testing::WithParamInterface<gate_case> {};

TEST_P(wrong_id, is_answered_with_a_nak_that_carries_it)
{
    open_beforehand();
    EXPECT_EQ(serve(request(GetParam().id, GetParam().code, 1, {1, 2, 3})), hex(nak(GetParam().id)));
}

TEST_P(wrong_id, keeps_the_request_from_the_session)
{
    open_beforehand();
    m_front_end->send(request(GetParam().id, GetParam().code, 1, {1, 2, 3}));
    m_front_end->end_stream();
    m_dispatch->run();
    lines before_the_end;
    for (const std::string& line : support::take_dialogue()) {
        if (line == "INFO Leave do_cleanup 1")
            break;
        if (line.compare(0, 5, "INFO ") != 0)
            before_the_end.push_back(line);
    }
    EXPECT_EQ(before_the_end, lines());
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, wrong_id,
                         testing::Values(gate_case{kSend, 2}, gate_case{kSend, 0},
                                         gate_case{kSend, 0xFFFFFFFF}, gate_case{kSend, 0x01000000},
                                         gate_case{kRecv, 2}, gate_case{kQuery, 2}, gate_case{kClose, 2},
                                         gate_case{9, 5}, gate_case{0, 5}, gate_case{0x04000000, 5}),
                         [](const auto& test) {
                             return std::to_string(test.param.id) + "_on_code_" +
                                    std::to_string(test.param.code);
                         });

TEST_F(dispatch_test, refused_request_leaves_the_loop_running)
{
    EXPECT_EQ(serve(request(2, kSend) + kRefused), hex(nak(2) + ng(1)));
}

TEST_F(dispatch_test, refused_close_ends_the_loop_all_the_same)
{
    EXPECT_EQ(serve_open_ended(request(2, kClose) + kRefused), hex(nak(2)));
    EXPECT_EQ(do_cleanup, 1);
}

TEST_F(dispatch_test, refused_close_logs_no_close)
{
    serve_open_ended(request(2, kClose));
    EXPECT_EQ(log_of_requests(), lines{"INFO Leave do_cleanup 1"});
}

class unknown_code : public dispatch_test, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(unknown_code, is_answered_with_ng_and_the_loop_goes_on)
{
    EXPECT_EQ(serve(request(1, GetParam()) + request(1, kQuery, 1)), hex(ng(1) + ok(1, bytes(4, 0))));
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, unknown_code,
                         testing::Values(0U, 1U, 3U, 9U, 0x04000000U, 0xFFFFFFFFU),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

// Closing

TEST_F(dispatch_test, close_gets_no_reply_and_ends_the_loop)
{
    EXPECT_EQ(serve_open_ended(request(1, kClose) + request(1, kQuery, 1)), "");
    EXPECT_EQ(do_cleanup, 1);
}

TEST_F(dispatch_test, close_logs_its_begin_and_its_end)
{
    serve_open_ended(request(1, kClose));
    EXPECT_EQ(log_of_requests(), (lines{"INFO enter close", "INFO leave close", "INFO Leave do_cleanup 1"}));
}

TEST_F(dispatch_test, close_stops_the_plugin_once_though_the_session_is_closed_three_times)
{
    open_beforehand();
    serve_open_ended(request(1, kClose));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, close_stops_the_plugin_between_its_two_lines)
{
    open_beforehand();
    serve_open_ended(request(1, kClose));
    const lines all = support::take_dialogue();
    const auto place = [&](const std::string& line) { return std::find(all.begin(), all.end(), line); };
    EXPECT_LT(place("INFO enter close"), place("plugin_good dtor"));
    EXPECT_LT(place("plugin_good dtor"), place("INFO leave close"));
    EXPECT_NE(place("INFO leave close"), all.end());
}

TEST_F(dispatch_test, close_needs_no_open)
{
    EXPECT_EQ(serve_open_ended(request(1, kClose)), "");
    EXPECT_EQ(plugin_calls(), lines());
}

// Sending

TEST_F(dispatch_test, send_hands_its_payload_to_the_plugin)
{
    EXPECT_EQ(serve(open_request() + request(1, kSend, 0, {1, 2, 3})), hex(ok(1) + ok(1)));
    EXPECT_EQ(hex(bus.written("scanner", kBulkOut)), "01 02 03");
}

TEST_F(dispatch_test, value_of_a_send_does_not_matter)
{
    EXPECT_EQ(serve(open_request() + request(1, kSend, 0xFFFFFFFF, {1, 2, 3})), hex(ok(1) + ok(1)));
    EXPECT_EQ(hex(bus.written("scanner", kBulkOut)), "01 02 03");
}

TEST_F(dispatch_test, send_before_an_open_is_ng_and_the_loop_goes_on)
{
    EXPECT_EQ(serve(request(1, kSend, 0, {1, 2, 3}) + kRefused), hex(ng(1) + ng(1)));
}

TEST_F(dispatch_test, send_that_the_plugin_fails_is_ng_and_the_loop_goes_on)
{
    use_plugin("plugin_failing");
    EXPECT_EQ(serve(open_request() + request(1, kSend, 0, {1, 2, 3}) + kRefused), hex(ok(1) + ng(1) + ng(1)));
}

// Receiving

TEST_F(dispatch_test, receive_brings_exactly_the_bytes_asked_for)
{
    EXPECT_EQ(serve(open_request() + request(1, kRecv, 512)), hex(ok(1) + ok(1, device_bytes(512))));
}

TEST_F(dispatch_test, receive_discards_its_own_payload)
{
    EXPECT_EQ(serve(open_request() + request(1, kRecv, 2, bytes(50, 0xAA))),
              hex(ok(1) + ok(1, device_bytes(2))));
}

TEST_F(dispatch_test, receive_hands_zero_bytes_to_the_plugin)
{
    use_plugin("plugin_odd"); // claims success without touching the buffer
    EXPECT_EQ(serve(open_request() + request(1, kRecv, 4, bytes(50, 0xAA))), hex(ok(1) + ok(1, bytes(4, 0))));
}

TEST_F(dispatch_test, receive_of_a_million_bytes_arrives_whole)
{
    open_beforehand();
    m_front_end->send(request(1, kRecv, 1000000));
    m_front_end->end_stream();
    bytes arrived;
    std::thread receiving([&] { arrived = m_front_end->receive(1000020); });
    m_dispatch->run();
    receiving.join();
    EXPECT_TRUE(arrived == ok(1, device_bytes(1000000))) << "some byte is not the one that the device gave";
}

TEST_F(dispatch_test, receive_before_an_open_is_ng_and_the_loop_goes_on)
{
    EXPECT_EQ(serve(request(1, kRecv, 3) + kRefused), hex(ng(1) + ng(1)));
}

TEST_F(dispatch_test, receive_that_the_plugin_fails_is_ng_and_the_loop_goes_on)
{
    use_plugin("plugin_failing");
    EXPECT_EQ(serve(open_request() + request(1, kRecv, 3) + kRefused), hex(ok(1) + ng(1) + ng(1)));
}

TEST_F(dispatch_test, receive_of_nothing_is_ng_without_the_plugin)
{
    open_beforehand();
    EXPECT_EQ(serve(request(1, kRecv, 0)), hex(ng(1)));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, receive_of_more_than_there_is_memory_leaves_the_loop_as_an_exception)
{
    open_beforehand();
    m_front_end->send(request(1, kRecv, 0x7FFFFFFF));
    {
        const unit::allocation_limit limit(0x1000000);
        EXPECT_THROW(m_dispatch->run(), std::bad_alloc);
    }
    EXPECT_EQ(do_cleanup, 0);
    EXPECT_EQ(replies(), "");
}

TEST_F(dispatch_test, payload_of_more_than_there_is_memory_leaves_the_loop_as_an_exception)
{
    bytes header = request(1, kSend);
    header[12] = 0x7F; // announces more than two thousand million bytes
    m_front_end->send(header);
    const unit::allocation_limit limit(0x1000000);
    EXPECT_THROW(m_dispatch->run(), std::bad_alloc);
}

// Asking

struct query_case {
    std::uint32_t selector;
    bytes reply;
};

class query : public dispatch_test, public testing::WithParamInterface<query_case> {};

TEST_P(query, is_answered_by_its_selector)
{
    EXPECT_EQ(serve(request(1, kQuery, GetParam().selector)), hex(GetParam().reply));
}

TEST_P(query, does_not_reach_the_session)
{
    open_beforehand();
    serve(request(1, kQuery, GetParam().selector));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_P(query, leaves_the_loop_running)
{
    EXPECT_EQ(serve(request(1, kQuery, GetParam().selector) + request(1, kSend)),
              hex(GetParam().reply + ng(1)));
}

INSTANTIATE_TEST_SUITE_P(dispatch_test, query,
                         testing::Values(query_case{1, ok(1, bytes(4, 0))}, query_case{2, ok(1, bytes(4, 0))},
                                         query_case{0, ng(1)}, query_case{3, ng(1)},
                                         query_case{0x01000000, ng(1)}, query_case{0xFFFFFFFF, ng(1)}),
                         [](const auto& test) { return "number_" + std::to_string(test.param.selector); });

// The buffer: a send without payload passes on as many zero bytes as the request before it left.

struct buffer_case {
    const char* name;
    bytes earlier;
    std::size_t length;
};

class length_of_the_buffer : public dispatch_test, public testing::WithParamInterface<buffer_case> {};

TEST_P(length_of_the_buffer, is_what_the_request_before_left)
{
    open_beforehand();
    serve(GetParam().earlier + request(1, kSend));
    const lines calls = starting_with("plugin_good writer", support::take_dialogue());
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back(), "plugin_good writer " + std::to_string(GetParam().length));
}

TEST_P(length_of_the_buffer, holds_only_zero_bytes)
{
    open_beforehand();
    serve(GetParam().earlier + request(1, kSend));
    const bytes& written = bus.written("scanner", kBulkOut);
    ASSERT_GE(written.size(), GetParam().length);
    EXPECT_EQ(bytes(written.end() - static_cast<bytes::difference_type>(GetParam().length), written.end()),
              bytes(GetParam().length, 0));
}

INSTANTIATE_TEST_SUITE_P(
    dispatch_test, length_of_the_buffer,
    testing::Values(
        buffer_case{"is_1024_at_the_start", {}, 1024}, buffer_case{"after_an_open", open_request(), 13},
        buffer_case{"after_a_send", request(1, kSend, 0, bytes(5, 0xAA)), 5},
        buffer_case{"after_a_longer_send", request(1, kSend, 0, bytes(3000, 0xAA)), 3000},
        buffer_case{"after_a_send_without_payload", request(1, kSend), 1024},
        buffer_case{"after_a_receive", request(1, kRecv, 512), 512},
        buffer_case{"after_a_longer_receive", request(1, kRecv, 2000), 2000},
        buffer_case{"after_a_receive_with_payload", request(1, kRecv, 7, bytes(50, 0xAA)), 7},
        buffer_case{"after_a_query", request(1, kQuery, 1), 1024},
        buffer_case{"after_a_query_with_payload", request(1, kQuery, 1, bytes(7, 0xAA)), 7},
        buffer_case{"after_an_unknown_code_with_payload", request(1, 9, 0, bytes(7, 0xAA)), 7},
        buffer_case{"after_a_refused_request", request(2, kSend), 1024},
        buffer_case{"after_a_refused_request_with_payload", request(2, kSend, 0, bytes(7, 0xAA)), 7},
        buffer_case{"after_a_refused_receive", request(2, kRecv, 512), 1024},
        buffer_case{"after_a_refused_receive_with_payload", request(2, kRecv, 512, bytes(7, 0xAA)), 7}),
    [](const auto& test) { return test.param.name; });

TEST_F(dispatch_test, send_without_payload_after_a_receive_of_nothing_is_ng_without_the_plugin)
{
    open_beforehand();
    EXPECT_EQ(serve(request(1, kRecv, 0) + request(1, kSend)), hex(ng(1) + ng(1)));
    EXPECT_EQ(plugin_calls(), (lines{"plugin_good dtor", "plugin_good unloaded"}));
}

TEST_F(dispatch_test, receive_that_failed_leaves_its_length_all_the_same)
{
    use_plugin("plugin_failing");
    open_beforehand();
    serve(request(1, kRecv, 512) + request(1, kSend));
    EXPECT_EQ(starting_with("plugin_failing writer", support::take_dialogue()),
              lines{"plugin_failing writer 512"});
}

TEST_F(dispatch_test, payload_that_could_not_be_read_leaves_its_length_in_zeros)
{
    open_beforehand();
    bytes announcement = request(1, kSend);
    announcement[15] = 5;
    m_front_end->send(announcement + request(1, kSend));
    m_front_end->end_stream();
    {
        system_calls calls;
        calls.fail("read", EAGAIN, 2);
        m_dispatch->run();
    }
    EXPECT_EQ(hex(bus.written("scanner", kBulkOut)), "00 00 00 00 00");
}

TEST_F(dispatch_test, one_request_can_be_handled_outside_the_loop)
{
    open_beforehand();
    ipc_header header = header_of(request(1, kRecv, 3));
    payload_buffer payload(10);
    m_dispatch->do_dispatch(header, payload);
    EXPECT_EQ(bytes(payload.data(), payload.data() + payload.size()), device_bytes(3));
    EXPECT_EQ(replies(), hex(ok(1, device_bytes(3))));
}
