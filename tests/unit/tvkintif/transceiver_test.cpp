#include "tvkintif/src/transceiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/dialogue.h"
#include "support/lines.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/private_paths.h"
#include "unit/tvkintif/interruptions.h"
#include "unit/tvkintif/peer.h"
#include "unit/tvkintif/system_calls.h"

using support::lines;
using unit::bytes;
using unit::bytes_of;
using unit::interruptions;
using unit::listener;
using unit::peer;
using unit::system_calls;

namespace {

constexpr std::chrono::seconds kDeadline{10};
constexpr unsigned int kTimeout = 300;
constexpr const char* kNoSocket = "ERROR Bad file descriptor";

static_assert(!std::is_copy_constructible_v<transceiver> && !std::is_copy_assignable_v<transceiver>);

/// What set_sock_opts does with a time-out of 300 seconds.
lines all_options(const std::string& descriptor)
{
    const std::string start = "setsockopt " + descriptor + " SOL_SOCKET ";
    return {start + "SO_REUSEADDR 1", start + "SO_KEEPALIVE 0", start + "SO_RCVTIMEO 300 s",
            start + "SO_SNDTIMEO 300 s"};
}

/// What bind() does to ask for `port` with a time-out of 300 seconds.
lines binding(int port, const std::string& name = "#1")
{
    return lines{"socket AF_INET SOCK_STREAM 0 -> " + name, "fcntl " + name + " F_SETFD FD_CLOEXEC"} +
           all_options(name) +
           lines{"bind " + name + " 127.0.0.1:" + std::to_string(port), "getsockname " + name,
                 "listen " + name + " 5"};
}

bool is_open(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

int int_option(int descriptor, int level, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(descriptor, level, option, &value, &size);
    return value;
}

std::string time_option(int descriptor, int option)
{
    timeval value = {-1, -1};
    socklen_t size = sizeof value;
    getsockopt(descriptor, SOL_SOCKET, option, &value, &size);
    return std::to_string(value.tv_sec) + " s " + std::to_string(value.tv_usec) + " us";
}

bool is_blocking(int descriptor)
{
    return (fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0;
}

std::string bound_address(int descriptor)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length); // the interface's own cast
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
}

/// A server that nobody asked for anything yet, its system calls watched. A socket that a failed step made
/// the object forget is closed at the end.
class transceiver_test : public testing::Test {
protected:
    ~transceiver_test() override
    {
        m_server.close();
        m_calls.close_forgotten();
    }

    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::open_log(1);
        m_calls.take_lines();
    }

    void TearDown() override
    {
        if (support::have_private_paths())
            support::close_log();
    }

    system_calls m_calls;
    transceiver m_server{0, kTimeout};
};

/// A server that listens on #1 and has accepted its peer, which is #2, as #3.
class connected_transceiver : public transceiver_test {
protected:
    void SetUp() override
    {
        transceiver_test::SetUp();
        if (IsSkipped())
            return;
        m_peer = std::make_unique<peer>(m_server.port());
        ASSERT_TRUE(m_peer->is_connected()) << "the accept would wait for nobody";
        ASSERT_TRUE(m_server.accept());
        m_calls.take_lines();
    }

    peer& other() { return *m_peer; }
    /// Waits until something can be read, be it the end of the stream.
    bool has_arrived()
    {
        pollfd waiting = {m_server, POLLIN, 0};
        return poll(&waiting, 1, 10000) == 1;
    }

private:
    std::unique_ptr<peer> m_peer;
};

/// A client whose peer listens on #1.
class client_transceiver : public transceiver_test {
protected:
    listener m_listener;
    transceiver m_client{"127.0.0.1", m_listener.port(), kTimeout};
};

} // namespace

// Construction

TEST_F(transceiver_test, construction_makes_no_system_call)
{
    const transceiver server(0, kTimeout);
    const transceiver client("localhost", 1, kTimeout);
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, time_out_is_as_constructed)
{
    EXPECT_EQ(transceiver(0, 7).get_timeout(), 7U);
    EXPECT_EQ(transceiver("localhost", 1, 8).get_timeout(), 8U);
}

// Server form: listening

TEST_F(transceiver_test, port_of_a_fresh_server_is_chosen_by_the_kernel)
{
    EXPECT_GT(m_server.port(), 0);
}

TEST_F(transceiver_test, bind_makes_the_listening_socket_step_by_step)
{
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), binding(0));
}

TEST_F(transceiver_test, bind_without_a_time_out_sets_none)
{
    transceiver server(0, 0);
    server.bind();
    EXPECT_EQ(m_calls.lines_of("setsockopt"),
              (lines{"setsockopt #1 SOL_SOCKET SO_REUSEADDR 1", "setsockopt #1 SOL_SOCKET SO_KEEPALIVE 0"}));
}

TEST_F(transceiver_test, bind_asks_for_the_port_that_it_was_given)
{
    m_calls.fail("bind", EADDRINUSE); // whether this machine has it to spare is another matter
    transceiver server(4711, kTimeout);
    server.bind();
    EXPECT_EQ(m_calls.lines_of("bind"), lines{"bind #1 127.0.0.1:4711 -> -1"});
}

TEST_F(transceiver_test, listening_socket_is_bound_to_the_loopback_address)
{
    m_server.bind();
    EXPECT_EQ(bound_address(m_calls.descriptor("#1")), "127.0.0.1");
}

TEST_F(transceiver_test, another_address_of_this_machine_is_refused)
{
    const peer stranger(m_server.port(), "127.0.0.2");
    EXPECT_EQ(stranger.error(), ECONNREFUSED);
}

TEST_F(transceiver_test, listening_socket_is_close_on_exec)
{
    m_server.bind();
    EXPECT_EQ(fcntl(m_calls.descriptor("#1"), F_GETFD), FD_CLOEXEC);
}

TEST_F(transceiver_test, port_asked_again_is_the_same_without_a_new_socket)
{
    const int port = m_server.port();
    m_calls.take_lines();
    EXPECT_EQ(m_server.port(), port);
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, peer_can_connect_as_soon_as_the_port_is_known)
{
    const peer early(m_server.port());
    EXPECT_EQ(early.error(), 0);
}

TEST_F(transceiver_test, bind_succeeds_though_listening_fails)
{
    m_calls.fail("listen", EADDRINUSE);
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, accept_listens_for_itself_when_bind_could_not)
{
    std::optional<peer> late;
    m_calls.fail("listen", EADDRINUSE);
    const int port = m_server.port();
    m_calls.before("accept", [&] { late.emplace(port); });
    EXPECT_TRUE(m_server.accept());
}

TEST_F(transceiver_test, socket_that_cannot_be_made_fails_the_bind)
{
    m_calls.fail("socket", EMFILE);
    EXPECT_FALSE(m_server.bind());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO bind socket fails"});
}

TEST_F(transceiver_test, socket_that_cannot_be_made_is_not_used_further)
{
    m_calls.fail("socket", EMFILE);
    m_server.bind();
    EXPECT_EQ(m_calls.lines(), lines{"socket AF_INET SOCK_STREAM 0 -> -1"});
}

TEST_F(transceiver_test, address_that_cannot_be_bound_fails_the_bind)
{
    m_calls.fail("bind", EADDRINUSE);
    EXPECT_FALSE(m_server.bind());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO bind fails"});
}

TEST_F(transceiver_test, port_that_another_socket_listens_on_fails_the_bind)
{
    const listener other;
    transceiver server(other.port(), kTimeout);
    EXPECT_FALSE(server.bind());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO bind fails"});
}

TEST_F(transceiver_test, socket_of_a_failed_bind_is_forgotten_and_not_closed)
{
    m_calls.fail("bind", EADDRINUSE);
    {
        transceiver server(0, kTimeout);
        server.bind();
    }
    EXPECT_TRUE(is_open(m_calls.descriptor("#1")));
}

TEST_F(transceiver_test, binds_that_go_on_failing_forget_a_socket_a_second)
{
    m_calls.fail("bind", EADDRINUSE, 0);
    support::take_dialogue();
    for (int attempt = 0; attempt < 3; ++attempt)
        m_server.bind();
    EXPECT_EQ(support::take_dialogue(), (lines{"usleep 1000000", "usleep 1000000"}));
}

TEST_F(transceiver_test, bind_that_succeeds_lets_the_next_failure_pass_without_a_pause)
{
    m_calls.fail("bind", EADDRINUSE);
    m_server.bind();
    ASSERT_TRUE(m_server.bind());
    m_server.close();
    m_calls.fail("bind", EADDRINUSE);
    support::take_dialogue();
    m_server.bind();
    EXPECT_EQ(support::take_dialogue(), lines());
}

TEST_F(transceiver_test, bind_after_a_failed_one_starts_with_a_new_socket)
{
    m_calls.fail("bind", EADDRINUSE);
    m_server.bind();
    m_calls.take_lines();
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), binding(0, "#2"));
}

TEST_F(transceiver_test, port_after_a_failed_bind_is_the_one_asked_for)
{
    m_calls.fail("bind", EADDRINUSE);
    transceiver server(4711, kTimeout);
    EXPECT_EQ(server.port(), 4711);
}

TEST_F(transceiver_test, unknown_bound_address_fails_the_bind)
{
    m_calls.fail("getsockname", ENOBUFS);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(m_server.bind());
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(support::log_dialogue(), lines{"INFO getsockname fails"});
}

TEST_F(transceiver_test, unknown_bound_address_is_explained_on_standard_error)
{
    m_calls.fail("getsockname", ENOBUFS);
    testing::internal::CaptureStderr();
    m_server.bind();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(std::strerror(ENOBUFS)) + "\n");
}

TEST_F(transceiver_test, socket_with_an_unknown_bound_address_is_forgotten_and_not_closed)
{
    m_calls.fail("getsockname", ENOBUFS);
    testing::internal::CaptureStderr();
    {
        transceiver server(0, kTimeout);
        server.bind();
    }
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(is_open(m_calls.descriptor("#1")));
}

TEST_F(transceiver_test, bind_after_an_unknown_bound_address_starts_with_a_new_socket)
{
    m_calls.fail("getsockname", ENOBUFS);
    testing::internal::CaptureStderr();
    m_server.bind();
    testing::internal::GetCapturedStderr();
    m_calls.take_lines();
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), binding(0, "#2"));
}

class failing_option : public transceiver_test, public testing::WithParamInterface<int> {};

TEST_P(failing_option, ends_the_setting_of_options)
{
    m_calls.fail("setsockopt", ENOMEM, GetParam());
    m_server.bind();
    EXPECT_EQ(m_calls.lines_of("setsockopt").size(), static_cast<std::size_t>(GetParam()));
}

TEST_P(failing_option, is_logged_as_an_error)
{
    m_calls.fail("setsockopt", ENOMEM, GetParam());
    m_server.bind();
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

TEST_P(failing_option, does_not_fail_the_bind)
{
    m_calls.fail("setsockopt", ENOMEM, GetParam());
    EXPECT_TRUE(m_server.bind());
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_option, testing::Values(1, 2, 3, 4),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(transceiver_test, close_on_exec_that_cannot_be_set_does_not_fail_the_bind)
{
    m_calls.fail("fcntl", EINVAL);
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(support::log_dialogue(), lines());
}

// Server form: accepting

TEST_F(transceiver_test, accept_without_a_listening_socket_fails_at_once)
{
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, accept_takes_the_peer_and_closes_the_listening_socket_step_by_step)
{
    const int port = m_server.port();
    std::optional<peer> other;
    m_calls.before("accept", [&] { other.emplace(port); });
    m_calls.take_lines();
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(m_calls.lines(),
              (lines{"listen #1 5", "accept #1 -> #2", "fcntl #2 F_SETFD FD_CLOEXEC"} + all_options("#1") +
               lines{"close #1"} + all_options("#2") + lines{"setsockopt #2 IPPROTO_TCP TCP_NODELAY 1"}));
}

TEST_F(transceiver_test, accept_logs_nothing)
{
    const peer other(m_server.port());
    m_server.accept();
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(connected_transceiver, address_can_be_used_again_at_once)
{
    EXPECT_EQ(int_option(m_server, SOL_SOCKET, SO_REUSEADDR), 1);
}

TEST_F(connected_transceiver, keep_alive_is_off)
{
    EXPECT_EQ(int_option(m_server, SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST_F(connected_transceiver, receive_time_out_is_set_in_seconds)
{
    EXPECT_EQ(time_option(m_server, SO_RCVTIMEO), "300 s 0 us");
}

TEST_F(connected_transceiver, send_time_out_is_set_in_seconds)
{
    EXPECT_EQ(time_option(m_server, SO_SNDTIMEO), "300 s 0 us");
}

TEST_F(connected_transceiver, small_writes_are_not_delayed)
{
    EXPECT_EQ(int_option(m_server, IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST_F(connected_transceiver, connected_socket_is_close_on_exec)
{
    EXPECT_EQ(fcntl(m_server, F_GETFD), FD_CLOEXEC);
}

TEST_F(connected_transceiver, connected_socket_is_blocking)
{
    EXPECT_TRUE(is_blocking(m_server));
}

TEST_F(connected_transceiver, second_peer_is_refused)
{
    const peer second(m_server.port());
    EXPECT_EQ(second.error(), ECONNREFUSED);
}

TEST_F(connected_transceiver, accept_and_bind_do_nothing_more)
{
    EXPECT_TRUE(m_server.bind());
    EXPECT_TRUE(m_server.accept());
    EXPECT_TRUE(m_server.establish());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, second_peer_in_the_queue_is_cut_off_by_the_accept_of_the_first)
{
    const peer first(m_server.port());
    peer second(m_server.port());
    m_server.accept();
    EXPECT_TRUE(second.is_cut_off());
}

TEST_F(transceiver_test, time_out_of_0_leaves_the_connected_socket_without_one)
{
    transceiver server(0, 0);
    const peer other(server.port());
    server.accept();
    EXPECT_EQ(time_option(server, SO_RCVTIMEO), "0 s 0 us");
    EXPECT_EQ(time_option(server, SO_SNDTIMEO), "0 s 0 us");
}

TEST_F(transceiver_test, option_that_fails_on_the_connected_socket_is_logged_and_no_more)
{
    const peer other(m_server.port());
    m_calls.fail("setsockopt", ENOMEM, 5); // the first four are for the listening socket
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

TEST_F(transceiver_test, option_that_fails_on_the_listening_socket_is_logged_and_no_more)
{
    const peer other(m_server.port());
    m_calls.fail("setsockopt", ENOMEM, 1);
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

TEST_F(transceiver_test, delay_that_cannot_be_switched_off_is_not_even_logged)
{
    const peer other(m_server.port());
    m_calls.fail("setsockopt", ENOMEM, 9); // after four for either socket
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(m_calls.lines().back(), "setsockopt #3 IPPROTO_TCP TCP_NODELAY 1 -> -1")
        << "the call that fails here is to be the one that switches the delay off";
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, failed_accept_exchanges_the_listening_socket_for_another_one_on_its_port)
{
    const int port = m_server.port();
    m_calls.take_lines();
    m_calls.fail("accept", ECONNABORTED);
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(m_calls.lines(),
              (lines{"listen #1 5", "accept #1 -> -1"} + all_options("#1") +
               lines{"socket AF_INET SOCK_STREAM 0 -> #2", "fcntl #2 F_SETFD FD_CLOEXEC"} +
               all_options("#2") +
               // Nothing between these two, or somebody else might get the port.
               lines{"close #1", "bind #2 127.0.0.1:" + std::to_string(port), "listen #2 5"}));
}

TEST_F(transceiver_test, accept_that_a_signal_ends_leaves_no_listening_socket)
{
    m_server.bind();
    m_calls.take_lines();
    m_calls.fail("accept", EINTR);
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(m_calls.lines(),
              (lines{"listen #1 5", "accept #1 -> -1"} + all_options("#1") + lines{"close #1"}));
}

class failing_exchange : public transceiver_test, public testing::WithParamInterface<const char*> {};

TEST_P(failing_exchange, of_the_listening_socket_is_left_to_the_next_bind)
{
    const int port = m_server.port();
    m_calls.fail("accept", ECONNABORTED);
    m_calls.fail(GetParam(), EADDRINUSE, 1);
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), lines());
    EXPECT_EQ(m_server.port(), port);
    const peer late(port);
    EXPECT_TRUE(late.is_connected());
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_exchange, testing::Values("socket", "bind"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(transceiver_test, socket_that_could_not_be_bound_in_the_exchange_is_closed)
{
    m_server.bind();
    m_calls.fail("accept", ECONNABORTED);
    m_calls.fail("bind", EADDRINUSE, 1);
    m_server.accept();
    EXPECT_EQ(m_calls.lines_of("close"), (lines{"close #1", "close #2"}));
}

TEST_F(transceiver_test, failed_accept_logs_nothing)
{
    m_calls.fail("accept", ECONNABORTED);
    m_server.establish();
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, listening_socket_that_closes_badly_after_the_accept_is_not_logged)
{
    const peer other(m_server.port());
    m_calls.fail("close", EIO);
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, accept_gives_up_after_the_time_out)
{
    transceiver server(0, 1);
    server.bind();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(server.accept());
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, kDeadline);
    EXPECT_TRUE(server.has_timed_out());
}

TEST_F(transceiver_test, failure_of_another_kind_is_no_time_out)
{
    m_calls.fail("accept", ECONNABORTED);
    m_server.establish();
    EXPECT_FALSE(m_server.has_timed_out());
}

TEST_F(transceiver_test, peer_that_came_after_a_time_out_ends_it)
{
    m_calls.fail("accept", EAGAIN, 1);
    m_server.establish();
    EXPECT_TRUE(m_server.has_timed_out());
    const peer late(m_server.port());
    EXPECT_TRUE(m_server.establish());
    EXPECT_FALSE(m_server.has_timed_out());
}

TEST_F(transceiver_test, peer_that_comes_after_a_time_out_is_accepted_on_the_same_port)
{
    transceiver server(0, 1);
    const int port = server.port();
    ASSERT_FALSE(server.accept());
    ASSERT_EQ(server.port(), port);
    const peer late(port);
    EXPECT_TRUE(server.accept());
}

TEST_F(transceiver_test, signal_ends_the_accept)
{
    m_server.bind();
    const interruptions hangups(SIGHUP);
    EXPECT_FALSE(m_server.accept());
}

TEST_F(transceiver_test, peer_that_comes_after_a_signal_is_accepted_on_the_same_port)
{
    const int port = m_server.port();
    {
        const interruptions hangups(SIGHUP);
        ASSERT_FALSE(m_server.accept());
    }
    ASSERT_EQ(m_server.port(), port);
    const peer late(port);
    EXPECT_TRUE(m_server.accept());
}

TEST_F(transceiver_test, establish_binds_and_accepts)
{
    std::optional<peer> other;
    m_calls.before("accept", [&] { other.emplace(m_server.port()); });
    EXPECT_TRUE(m_server.establish());
    EXPECT_EQ(m_calls.lines_of("listen"), (lines{"listen #1 5", "listen #1 5"}));
}

TEST_F(transceiver_test, descriptor_of_a_server_is_that_of_the_accepted_connection)
{
    std::optional<peer> other;
    m_calls.before("accept", [&] { other.emplace(m_server.port()); });
    const int descriptor = m_server;
    EXPECT_GT(descriptor, 0);
    EXPECT_EQ(descriptor, m_calls.descriptor("#2"));
}

TEST_F(transceiver_test, descriptor_is_minus_1_when_nothing_could_be_accepted)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_EQ(static_cast<int>(m_server), -1);
}

TEST_F(transceiver_test, descriptor_is_minus_1_when_nothing_could_be_bound)
{
    m_calls.fail("bind", EADDRINUSE);
    EXPECT_EQ(static_cast<int>(m_server), -1);
}

TEST_F(transceiver_test, server_does_not_connect)
{
    EXPECT_FALSE(m_server.connect());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, server_asked_to_connect_logs_that_it_was_asked)
{
    m_server.connect();
    EXPECT_EQ(support::log_dialogue(), lines{"INFO connect"});
}

TEST_F(transceiver_test, connected_descriptor_0_counts_as_none)
{
    m_server.bind();
    m_calls.answer("accept", 0);
    m_calls.answer("fcntl", 0); // standard input stays as it is
    m_server.accept();
    m_calls.take_lines();
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines_of("socket"), lines{"socket AF_INET SOCK_STREAM 0 -> #3"});
}

TEST_F(transceiver_test, connected_descriptor_0_is_not_closed)
{
    m_server.bind();
    m_calls.answer("accept", 0);
    m_calls.answer("fcntl", 0); // standard input stays as it is
    m_server.accept();
    m_calls.take_lines();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines());
}

// Client form

TEST_F(client_transceiver, client_connects_step_by_step)
{
    transceiver client("localhost", m_listener.port(), kTimeout);
    EXPECT_TRUE(client.connect());
    EXPECT_EQ(m_calls.lines(), (lines{"socket AF_INET SOCK_STREAM 0 -> #2", "fcntl #2 F_SETFD FD_CLOEXEC"} +
                                all_options("#2") +
                                lines{"setsockopt #2 IPPROTO_TCP TCP_NODELAY 1", "gethostbyname localhost",
                                      "connect #2 127.0.0.1:" + std::to_string(m_listener.port())}));
}

TEST_F(client_transceiver, client_logs_the_connect_and_its_success)
{
    m_client.connect();
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", "INFO connect ok"}));
}

TEST_F(client_transceiver, client_connected_already_logs_the_connect_and_does_nothing)
{
    m_client.connect();
    support::open_log(1);
    m_calls.take_lines();
    EXPECT_TRUE(m_client.connect());
    EXPECT_EQ(m_calls.lines(), lines());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO connect"});
}

TEST_F(client_transceiver, client_socket_has_every_option)
{
    const int descriptor = m_client;
    EXPECT_EQ(int_option(descriptor, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(descriptor, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(time_option(descriptor, SO_RCVTIMEO), "300 s 0 us");
    EXPECT_EQ(time_option(descriptor, SO_SNDTIMEO), "300 s 0 us");
    EXPECT_EQ(int_option(descriptor, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(transceiver_test, client_does_not_bind)
{
    transceiver client("127.0.0.1", 1, kTimeout);
    EXPECT_FALSE(client.bind());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, client_does_not_accept)
{
    transceiver client("127.0.0.1", 1, kTimeout);
    EXPECT_FALSE(client.accept());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, port_of_a_client_is_the_one_to_connect_to)
{
    transceiver client("127.0.0.1", 4711, kTimeout);
    EXPECT_EQ(client.port(), 4711);
}

TEST_F(transceiver_test, client_without_a_socket_fails)
{
    m_calls.fail("socket", EMFILE);
    transceiver client("127.0.0.1", 1, kTimeout);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(m_calls.lines(), lines{"socket AF_INET SOCK_STREAM 0 -> -1"});
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", "INFO socket fails"}));
}

TEST_F(client_transceiver, client_option_that_fails_is_logged_and_no_more)
{
    m_calls.fail("setsockopt", ENOMEM, 1);
    EXPECT_TRUE(m_client.connect());
    EXPECT_EQ(support::log_dialogue(),
              (lines{"INFO connect", "ERROR ERROR: setsockopt failed", "INFO connect ok"}));
}

TEST_F(transceiver_test, host_that_nobody_knows_fails_the_connect)
{
    m_calls.fail("gethostbyname", 0);
    transceiver client("nobody.invalid", 1, kTimeout);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(m_calls.lines_of("connect"), lines());
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", "INFO gethostbyname fails"}));
}

TEST_F(transceiver_test, socket_of_a_failed_name_lookup_is_forgotten_and_not_closed)
{
    m_calls.fail("gethostbyname", 0);
    {
        transceiver client("nobody.invalid", 1, kTimeout);
        client.connect();
    }
    EXPECT_TRUE(is_open(m_calls.descriptor("#1")));
}

TEST_F(transceiver_test, refused_connection_fails_the_connect)
{
    transceiver nobody(0, kTimeout);
    const int port = nobody.port();
    nobody.close();
    transceiver client("127.0.0.1", port, kTimeout);
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", "INFO connect fails"}));
}

TEST_F(transceiver_test, socket_of_a_failed_connect_is_forgotten_and_not_closed)
{
    m_calls.fail("connect", ECONNREFUSED);
    {
        transceiver client("127.0.0.1", 1, kTimeout);
        client.connect();
    }
    EXPECT_TRUE(is_open(m_calls.descriptor("#1")));
}

TEST_F(client_transceiver, connect_after_a_failed_one_starts_with_a_new_socket)
{
    m_calls.fail("connect", ECONNREFUSED);
    m_client.connect();
    m_calls.take_lines();
    EXPECT_TRUE(m_client.connect());
    EXPECT_EQ(m_calls.lines().front(), "socket AF_INET SOCK_STREAM 0 -> #3");
}

TEST_F(transceiver_test, descriptor_of_a_client_that_cannot_connect_is_minus_1)
{
    m_calls.fail("connect", ECONNREFUSED);
    transceiver client("127.0.0.1", 1, kTimeout);
    EXPECT_EQ(static_cast<int>(client), -1);
}

TEST_F(client_transceiver, establish_of_a_client_connects)
{
    EXPECT_TRUE(m_client.establish());
}

TEST_F(client_transceiver, client_sends_and_receives_over_the_connection_that_it_makes_first)
{
    bytes received;
    std::thread serving([&] { received = m_listener.serve(4, bytes_of("pong")); });
    EXPECT_TRUE(m_client.send("ping", 4));
    std::array<char, 5> answer{};
    EXPECT_TRUE(m_client.recv(answer.data(), 4, false));
    serving.join();
    EXPECT_EQ(received, bytes_of("ping"));
    EXPECT_STREQ(answer.data(), "pong");
}

TEST_F(transceiver_test, client_that_cannot_connect_neither_sends_nor_receives)
{
    m_calls.fail("connect", ECONNREFUSED, 0);
    transceiver client("127.0.0.1", 1, kTimeout);
    std::array<char, 1> byte{};
    EXPECT_FALSE(client.send(byte.data(), 1));
    EXPECT_FALSE(client.recv(byte.data(), 1, false));
}

// Sending

TEST_F(connected_transceiver, send_brings_every_byte_to_the_peer)
{
    EXPECT_TRUE(m_server.send("hello", 5));
    EXPECT_EQ(other().receive(5), bytes_of("hello"));
}

TEST_F(connected_transceiver, send_goes_on_until_everything_is_written)
{
    m_calls.limit("write", 2);
    EXPECT_TRUE(m_server.send("hello", 5));
    EXPECT_EQ(m_calls.lines_of("write").size(), 3U);
    EXPECT_EQ(other().receive(5), bytes_of("hello"));
}

TEST_F(connected_transceiver, send_of_nothing_writes_nothing)
{
    EXPECT_TRUE(m_server.send(nullptr, 0));
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, send_of_nothing_waits_for_the_peer_all_the_same)
{
    std::optional<peer> other;
    m_calls.before("accept", [&] { other.emplace(m_server.port()); });
    EXPECT_TRUE(m_server.send(nullptr, 0));
    EXPECT_EQ(m_calls.lines_of("accept"), lines{"accept #1 -> #2"});
}

TEST_F(transceiver_test, send_of_nothing_fails_without_a_connection)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_FALSE(m_server.send(nullptr, 0));
}

class failing_write : public connected_transceiver, public testing::WithParamInterface<int> {};

TEST_P(failing_write, ends_the_send_without_another_try)
{
    m_calls.limit("write", 2);
    m_calls.fail("write", GetParam(), 2);
    EXPECT_FALSE(m_server.send("hello", 5));
    EXPECT_EQ(m_calls.lines_of("write").size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_write, testing::Values(EINTR, EAGAIN, EPIPE),
                         [](const auto& test) { return "with_errno_" + std::to_string(test.param); });

TEST_F(connected_transceiver, write_that_moves_nothing_ends_the_send)
{
    m_calls.answer("write", 0);
    EXPECT_FALSE(m_server.send("hello", 5));
    EXPECT_EQ(m_calls.lines_of("write").size(), 1U);
}

// Receiving

TEST_F(connected_transceiver, recv_brings_exactly_the_bytes_asked_for)
{
    other().send(bytes_of("hello, there"));
    std::array<char, 8> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 5, false));
    EXPECT_STREQ(buffer.data(), "hello");
}

TEST_F(connected_transceiver, recv_goes_on_until_everything_has_arrived)
{
    m_calls.before("read", [&] { other().send({'x'}); });
    std::array<char, 8> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 3, false));
    EXPECT_STREQ(buffer.data(), "xxx");
    EXPECT_EQ(m_calls.lines(), (lines{"read #3 3 -> 1", "read #3 2 -> 1", "read #3 1 -> 1"}));
}

TEST_F(connected_transceiver, recv_fails_when_the_stream_ends_early)
{
    other().send(bytes_of("hell"));
    other().close();
    std::array<char, 8> buffer{};
    EXPECT_FALSE(m_server.recv(buffer.data(), 5, false));
}

TEST_F(connected_transceiver, recv_of_nothing_reads_nothing)
{
    EXPECT_TRUE(m_server.recv(nullptr, 0, false));
    EXPECT_TRUE(m_server.recv(nullptr, 0, true));
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, recv_of_nothing_waits_for_the_peer_all_the_same)
{
    std::optional<peer> other;
    m_calls.before("accept", [&] { other.emplace(m_server.port()); });
    EXPECT_TRUE(m_server.recv(nullptr, 0, false));
    EXPECT_EQ(m_calls.lines_of("accept"), lines{"accept #1 -> #2"});
}

TEST_F(transceiver_test, recv_of_nothing_fails_without_a_connection)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_FALSE(m_server.recv(nullptr, 0, false));
}

class failing_read : public connected_transceiver, public testing::WithParamInterface<int> {};

TEST_P(failing_read, ends_the_recv_without_another_try)
{
    other().send(bytes_of("hello"));
    m_calls.limit("read", 2);
    m_calls.fail("read", GetParam(), 2);
    std::array<char, 8> buffer{};
    EXPECT_FALSE(m_server.recv(buffer.data(), 5, false));
    EXPECT_EQ(m_calls.lines_of("read").size(), 2U);
}

TEST_P(failing_read, ends_the_peek_without_another_try)
{
    other().send(bytes_of("hello"));
    m_calls.limit("recv", 2);
    m_calls.fail("recv", GetParam(), 2);
    std::array<char, 8> buffer{};
    EXPECT_FALSE(m_server.recv(buffer.data(), 5, true));
    EXPECT_EQ(m_calls.lines_of("recv").size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_read, testing::Values(EINTR, EAGAIN, ECONNRESET),
                         [](const auto& test) { return "with_errno_" + std::to_string(test.param); });

TEST_F(transceiver_test, recv_gives_up_after_the_time_out)
{
    transceiver server(0, 1);
    const peer silent(server.port());
    ASSERT_TRUE(server.accept());
    std::array<char, 1> byte{};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(server.recv(byte.data(), 1, false));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, kDeadline);
}

TEST_F(connected_transceiver, peek_shows_the_bytes_and_leaves_them_queued)
{
    other().send(bytes_of("hello"));
    std::array<char, 8> peeked{};
    std::array<char, 8> read{};
    EXPECT_TRUE(m_server.recv(peeked.data(), 5, true));
    EXPECT_TRUE(m_server.recv(read.data(), 5, false));
    EXPECT_STREQ(peeked.data(), "hello");
    EXPECT_STREQ(read.data(), "hello");
}

TEST_F(connected_transceiver, peek_in_several_calls_repeats_the_head_of_the_queue)
{
    other().send(bytes_of("hello"));
    m_calls.limit("recv", 2);
    std::array<char, 8> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 5, true));
    EXPECT_STREQ(buffer.data(), "heheh");
}

TEST_F(connected_transceiver, peek_fails_at_the_end_of_the_stream)
{
    other().close();
    std::array<char, 1> byte{};
    EXPECT_FALSE(m_server.recv(byte.data(), 1, true));
}

// The question whether something waits

TEST_F(connected_transceiver, can_recv_when_a_byte_is_queued)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    EXPECT_TRUE(m_server.can_recv());
}

TEST_F(connected_transceiver, can_recv_leaves_the_byte_queued)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    m_server.can_recv();
    std::array<char, 2> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 1, false));
    EXPECT_STREQ(buffer.data(), "x");
}

TEST_F(connected_transceiver, cannot_recv_when_nothing_is_queued)
{
    EXPECT_FALSE(m_server.can_recv());
}

TEST_F(connected_transceiver, cannot_recv_after_the_peer_closed)
{
    other().close();
    ASSERT_TRUE(has_arrived());
    EXPECT_FALSE(m_server.can_recv());
}

TEST_F(connected_transceiver, can_recv_asks_without_waiting_and_restores_the_flags)
{
    m_server.can_recv();
    EXPECT_EQ(m_calls.lines(), (lines{"fcntl #3 F_GETFL -> 2", "fcntl #3 F_SETFL non-blocking",
                                      "recv #3 1 MSG_PEEK -> -1", "fcntl #3 F_SETFL blocking"}));
}

TEST_F(connected_transceiver, can_recv_leaves_the_socket_blocking)
{
    m_server.can_recv();
    EXPECT_TRUE(is_blocking(m_server));
}

TEST_F(connected_transceiver, can_recv_leaves_a_socket_non_blocking_that_was)
{
    fcntl(m_server, F_SETFL, fcntl(m_server, F_GETFL) | O_NONBLOCK);
    m_server.can_recv();
    EXPECT_FALSE(is_blocking(m_server));
}

TEST_F(connected_transceiver, can_recv_is_logged)
{
    m_server.can_recv();
    EXPECT_EQ(support::log_dialogue(), lines{"INFO can_recv"});
}

TEST_F(connected_transceiver, cannot_recv_when_the_flags_cannot_be_read)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    m_calls.fail("fcntl", EIO, 1);
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(m_calls.lines().size(), 1U);
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", std::string("ERROR ") + std::strerror(EIO)}));
}

TEST_F(connected_transceiver, cannot_recv_when_the_flags_cannot_be_set)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    m_calls.fail("fcntl", EIO, 2);
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(m_calls.lines_of("recv"), lines());
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", std::string("ERROR ") + std::strerror(EIO)}));
}

TEST_F(connected_transceiver, can_recv_whether_or_not_the_flags_can_be_restored)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    m_calls.fail("fcntl", EIO, 3);
    EXPECT_TRUE(m_server.can_recv());
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", std::string("ERROR ") + std::strerror(EIO)}));
}

TEST_F(connected_transceiver, cannot_recv_when_the_look_itself_fails)
{
    m_calls.fail("recv", ECONNRESET);
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO can_recv"});
}

TEST_F(transceiver_test, cannot_recv_without_a_connection)
{
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", kNoSocket}));
}

TEST_F(transceiver_test, can_recv_makes_no_connection)
{
    m_server.can_recv();
    EXPECT_EQ(m_calls.lines(), lines{"fcntl -1 F_GETFL -> -1"});
}

TEST_F(transceiver_test, cannot_recv_on_descriptor_0)
{
    m_server.bind();
    m_calls.answer("accept", 0);
    m_calls.fail("setsockopt", ENOTSOCK, 0);
    m_server.accept();
    support::open_log(1);
    m_calls.take_lines();
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(m_calls.lines(), lines());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO can_recv"});
}

// The time-out

TEST_F(connected_transceiver, set_timeout_stores_and_applies_it)
{
    EXPECT_TRUE(m_server.set_timeout(7));
    EXPECT_EQ(m_server.get_timeout(), 7U);
    EXPECT_EQ(time_option(m_server, SO_RCVTIMEO), "7 s 0 us");
    EXPECT_EQ(time_option(m_server, SO_SNDTIMEO), "7 s 0 us");
}

TEST_F(connected_transceiver, set_timeout_of_0_sets_the_other_two_options)
{
    EXPECT_TRUE(m_server.set_timeout(0));
    EXPECT_EQ(m_calls.lines(),
              (lines{"setsockopt #3 SOL_SOCKET SO_REUSEADDR 1", "setsockopt #3 SOL_SOCKET SO_KEEPALIVE 0"}));
}

TEST_F(connected_transceiver, set_timeout_of_0_leaves_the_time_outs_unchanged)
{
    m_server.set_timeout(0);
    EXPECT_EQ(time_option(m_server, SO_RCVTIMEO), "300 s 0 us");
    EXPECT_EQ(time_option(m_server, SO_SNDTIMEO), "300 s 0 us");
}

TEST_F(connected_transceiver, set_timeout_of_0_clears_keep_alive_again)
{
    const int on = 1;
    setsockopt(m_server, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    m_server.set_timeout(0);
    EXPECT_EQ(int_option(m_server, SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST_F(connected_transceiver, set_timeout_that_fails_says_so)
{
    m_calls.fail("setsockopt", ENOMEM, 3);
    EXPECT_FALSE(m_server.set_timeout(7));
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

TEST_F(transceiver_test, set_timeout_without_a_connection_fails_and_stores_it)
{
    EXPECT_FALSE(m_server.set_timeout(7));
    EXPECT_EQ(m_server.get_timeout(), 7U);
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

// Closing

TEST_F(connected_transceiver, close_ends_the_peers_stream)
{
    m_server.close();
    EXPECT_TRUE(other().is_cut_off());
}

TEST_F(connected_transceiver, close_closes_the_connected_socket)
{
    const int descriptor = m_server;
    m_server.close();
    EXPECT_FALSE(is_open(descriptor));
}

TEST_F(connected_transceiver, second_close_does_nothing)
{
    m_server.close();
    m_calls.take_lines();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(connected_transceiver, close_that_fails_is_logged_as_an_error)
{
    m_calls.fail("close", EIO);
    m_server.close();
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: socket close failed"});
}

TEST_F(connected_transceiver, second_close_does_nothing_even_after_one_that_failed)
{
    m_calls.fail("close", EIO);
    m_server.close();
    m_calls.take_lines();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, close_closes_the_listening_socket)
{
    m_server.bind();
    m_calls.take_lines();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines{"close #1"});
}

TEST_F(transceiver_test, close_of_the_listening_socket_that_fails_is_logged_as_an_error)
{
    m_calls.fail("close", EIO);
    m_server.bind();
    m_server.close();
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: socket close failed"});
}

TEST_F(transceiver_test, close_without_sockets_does_nothing)
{
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, destruction_closes_the_listening_socket)
{
    {
        transceiver server(0, kTimeout);
        server.bind();
        m_calls.take_lines();
    }
    EXPECT_EQ(m_calls.lines(), lines{"close #1"});
}

TEST_F(transceiver_test, destruction_closes_the_connected_socket)
{
    std::optional<peer> other;
    {
        transceiver server(0, kTimeout);
        m_calls.before("accept", [&] { other.emplace(server.port()); });
        server.establish();
        m_calls.take_lines();
    }
    EXPECT_EQ(m_calls.lines(), lines{"close #2"});
}

TEST_F(transceiver_test, server_listens_on_the_same_port_again_after_close)
{
    const int port = m_server.port();
    m_server.close();
    EXPECT_EQ(m_server.port(), port);
    EXPECT_TRUE(peer(port).is_connected());
}

// The log

TEST_F(transceiver_test, every_line_names_its_unit)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    m_server.connect();
    m_server.can_recv();
    m_server.set_timeout(7);
    testing::internal::GetCapturedStderr();
    lines units;
    for (const support::log_line& line : support::log_lines())
        units.push_back(support::source_of(line.message));
    EXPECT_EQ(units, lines(4, "transceiver"));
}
