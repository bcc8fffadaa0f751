#include "tvkintif/src/transceiver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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

constexpr unsigned int kTimeout = 300;
constexpr const char* kNoSocket = "ERROR Bad file descriptor";

static_assert(!std::is_copy_constructible_v<transceiver> && !std::is_copy_assignable_v<transceiver>);

lines options_without_time_out(const std::string& descriptor)
{
    const std::string start = "setsockopt " + descriptor + " SOL_SOCKET ";
    return {start + "SO_REUSEADDR 1", start + "SO_KEEPALIVE 0"};
}

lines time_outs(const std::string& descriptor, unsigned int seconds)
{
    const std::string start = "setsockopt " + descriptor + " SOL_SOCKET ";
    const std::string end = " " + std::to_string(seconds) + " s";
    return {start + "SO_RCVTIMEO" + end, start + "SO_SNDTIMEO" + end};
}

lines all_options(const std::string& descriptor, unsigned int seconds = kTimeout)
{
    return options_without_time_out(descriptor) + time_outs(descriptor, seconds);
}

/// How a new socket begins.
lines made(const std::string& name)
{
    return {"socket AF_INET SOCK_STREAM 0 -> " + name, "fcntl " + name + " F_SETFD FD_CLOEXEC"};
}

/// What bind() does to ask for `port`.
lines binding(int port, const std::string& name = "#1")
{
    return made(name) + all_options(name) +
           lines{"bind " + name + " 127.0.0.1:" + std::to_string(port), "getsockname " + name,
                 "listen " + name + " 5"};
}

bool is_open(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

bool is_blocking(int descriptor)
{
    return (fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0;
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

    /// Connects a peer as soon as the server waits for one.
    void have_a_peer_come()
    {
        m_calls.before("accept", [this, port = m_server.port()] { m_late.emplace(port); });
        m_calls.take_lines();
    }

    /// Has these functions, called next, hand out or take descriptor 0; standard input stays as it is.
    void play_descriptor_0(const std::vector<std::string>& functions)
    {
        for (const std::string& function : functions)
            m_calls.answer(function, 0);
        m_calls.fail("setsockopt", ENOTSOCK, 0);
    }

    system_calls m_calls;
    transceiver m_server{0, kTimeout};
    std::optional<peer> m_late;
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
    EXPECT_EQ(transceiver(0, 7).get_timeout(), 7U);
    EXPECT_EQ(transceiver("localhost", 1, 8).get_timeout(), 8U);
    EXPECT_EQ(m_calls.lines(), lines());
}

// Server form: listening

TEST_F(transceiver_test, bind_makes_the_listening_socket_step_by_step)
{
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), binding(0));
}

TEST_F(transceiver_test, bind_without_a_time_out_sets_none)
{
    transceiver server(0, 0);
    server.bind();
    EXPECT_EQ(m_calls.lines_of("setsockopt"), options_without_time_out("#1"));
}

TEST_F(transceiver_test, bind_asks_for_the_port_that_it_was_given)
{
    m_calls.fail("bind", EADDRINUSE); // whether this machine has it to spare is another matter
    transceiver server(4711, kTimeout);
    EXPECT_EQ(server.port(), 4711);
    EXPECT_EQ(m_calls.lines_of("bind"), lines{"bind #1 127.0.0.1:4711 -> -1"});
}

TEST_F(transceiver_test, port_asked_again_is_the_same_without_a_new_socket)
{
    const int port = m_server.port();
    EXPECT_GT(port, 0);
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
    m_calls.fail("listen", EADDRINUSE);
    have_a_peer_come();
    EXPECT_TRUE(m_server.accept());
}

TEST_F(transceiver_test, socket_that_cannot_be_made_fails_the_bind_and_is_not_used_further)
{
    m_calls.fail("socket", EMFILE);
    EXPECT_FALSE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), lines{"socket AF_INET SOCK_STREAM 0 -> -1"});
    EXPECT_EQ(support::log_dialogue(), lines{"INFO bind socket fails"});
}

struct failing_step {
    const char* call;
    const char* line;
    std::string complaint; ///< on standard error
};

class failing_bind : public transceiver_test, public testing::WithParamInterface<failing_step> {
protected:
    static bool bind(transceiver& server)
    {
        testing::internal::CaptureStderr();
        const bool ok = server.bind();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().complaint);
        return ok;
    }
};

TEST_P(failing_bind, is_logged_and_its_socket_forgotten_and_not_closed)
{
    m_calls.fail(GetParam().call, EADDRINUSE);
    {
        transceiver server(0, kTimeout);
        EXPECT_FALSE(bind(server));
    }
    EXPECT_EQ(support::log_dialogue(), lines{GetParam().line});
    EXPECT_TRUE(is_open(m_calls.descriptor("#1")));
}

TEST_P(failing_bind, is_followed_by_one_with_a_new_socket)
{
    m_calls.fail(GetParam().call, EADDRINUSE);
    bind(m_server);
    m_calls.take_lines();
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines(), binding(0, "#2"));
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_bind,
                         testing::Values(failing_step{"bind", "INFO bind fails", ""},
                                         failing_step{"getsockname", "INFO getsockname fails",
                                                      std::string(std::strerror(EADDRINUSE)) + "\n"}),
                         [](const auto& test) { return std::string(test.param.call); });

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

class failing_option : public transceiver_test, public testing::WithParamInterface<int> {};

TEST_P(failing_option, ends_the_setting_of_options_as_an_error_and_not_the_bind)
{
    m_calls.fail("setsockopt", ENOMEM, GetParam());
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines_of("setsockopt").size(), static_cast<std::size_t>(GetParam()));
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_option, testing::Values(1, 2, 3, 4),
                         [](const auto& test) { return "number_" + std::to_string(test.param); });

TEST_F(transceiver_test, close_on_exec_that_cannot_be_set_does_not_fail_the_bind)
{
    m_calls.fail("fcntl", EINVAL);
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, listening_descriptor_0_is_used_but_counts_as_none)
{
    play_descriptor_0({"socket", "bind", "getsockname", "accept"});
    EXPECT_TRUE(m_server.bind());
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(m_calls.lines_of("accept"), lines{"accept #1 -> #2"});
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines_of("socket").size(), 2U);
}

// Server form: accepting

TEST_F(transceiver_test, accept_without_a_listening_socket_fails_at_once)
{
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(m_calls.lines(), lines());
}

TEST_F(transceiver_test, accept_takes_the_peer_and_closes_the_listening_socket_step_by_step)
{
    have_a_peer_come();
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(m_calls.lines(),
              (lines{"listen #1 5", "accept #1 -> #2", "fcntl #2 F_SETFD FD_CLOEXEC"} + all_options("#1") +
               lines{"close #1"} + all_options("#2") + lines{"setsockopt #2 IPPROTO_TCP TCP_NODELAY 1"}));
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(connected_transceiver, accept_and_bind_do_nothing_more)
{
    EXPECT_TRUE(m_server.bind());
    EXPECT_TRUE(m_server.accept());
    EXPECT_TRUE(m_server.establish());
    EXPECT_EQ(m_calls.lines(), lines());
}

struct option_of_accept {
    int number; ///< of the call that fails
    lines log;
};

class failing_option_of_accept : public transceiver_test,
                                 public testing::WithParamInterface<option_of_accept> {};

TEST_P(failing_option_of_accept, is_logged_at_most)
{
    have_a_peer_come();
    m_calls.fail("setsockopt", ENOMEM, GetParam().number);
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), GetParam().log);
}

// Four for either socket, then the delay of small writes.
INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_option_of_accept,
                         testing::Values(option_of_accept{1, {"ERROR ERROR: setsockopt failed"}},
                                         option_of_accept{5, {"ERROR ERROR: setsockopt failed"}},
                                         option_of_accept{9, {}}),
                         [](const auto& test) { return "number_" + std::to_string(test.param.number); });

TEST_F(transceiver_test, failed_accept_exchanges_the_listening_socket_for_another_one_on_its_port)
{
    const int port = m_server.port();
    m_calls.take_lines();
    m_calls.fail("accept", ECONNABORTED);
    EXPECT_FALSE(m_server.accept());
    EXPECT_EQ(m_calls.lines(),
              (lines{"listen #1 5", "accept #1 -> -1"} + all_options("#1") + made("#2") + all_options("#2") +
               // Nothing between these two, or somebody else might get the port.
               lines{"close #1", "bind #2 127.0.0.1:" + std::to_string(port), "listen #2 5"}));
    EXPECT_EQ(support::log_dialogue(), lines());
    EXPECT_FALSE(m_server.has_timed_out());
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

TEST_F(transceiver_test, listening_socket_that_closes_badly_after_the_accept_is_not_logged)
{
    have_a_peer_come();
    m_calls.fail("close", EIO);
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(transceiver_test, peer_that_comes_after_a_time_out_is_accepted_on_the_same_port)
{
    transceiver server(0, 1);
    const int port = server.port();
    ASSERT_FALSE(server.accept());
    EXPECT_TRUE(server.has_timed_out());
    ASSERT_EQ(server.port(), port);
    const peer late(port);
    EXPECT_TRUE(server.accept());
    EXPECT_FALSE(server.has_timed_out());
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

TEST_F(transceiver_test, descriptor_of_a_server_is_that_of_the_connection_that_it_makes_first)
{
    m_calls.before("accept", [this] { m_late.emplace(m_server.port()); });
    const int descriptor = m_server;
    EXPECT_GT(descriptor, 0);
    EXPECT_EQ(descriptor, m_calls.descriptor("#2"));
    EXPECT_EQ(m_calls.lines_of("listen"), (lines{"listen #1 5", "listen #1 5"}));
}

TEST_F(transceiver_test, descriptor_is_minus_1_when_nothing_could_be_bound_or_accepted)
{
    m_calls.fail("bind", EADDRINUSE);
    EXPECT_EQ(static_cast<int>(m_server), -1);
    m_calls.fail("accept", EMFILE);
    EXPECT_EQ(static_cast<int>(m_server), -1);
}

TEST_F(transceiver_test, server_does_not_connect_but_logs_that_it_was_asked)
{
    EXPECT_FALSE(m_server.connect());
    EXPECT_EQ(m_calls.lines(), lines());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO connect"});
}

TEST_F(transceiver_test, connected_descriptor_0_counts_as_none)
{
    m_server.bind();
    play_descriptor_0({"accept", "fcntl"});
    EXPECT_TRUE(m_server.accept());
    EXPECT_EQ(m_calls.lines_of("fcntl").back(), "fcntl #2 F_SETFD FD_CLOEXEC");
    EXPECT_FALSE(m_server.accept());
    m_calls.take_lines();
    EXPECT_FALSE(m_server.can_recv());
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines());
    EXPECT_TRUE(m_server.bind());
    EXPECT_EQ(m_calls.lines_of("socket"), lines{"socket AF_INET SOCK_STREAM 0 -> #3"});
}

// Client form

TEST_F(client_transceiver, client_connects_step_by_step)
{
    transceiver client("localhost", m_listener.port(), kTimeout);
    EXPECT_TRUE(client.connect());
    EXPECT_EQ(m_calls.lines(), (made("#2") + all_options("#2") +
                                lines{"setsockopt #2 IPPROTO_TCP TCP_NODELAY 1", "gethostbyname localhost",
                                      "connect #2 127.0.0.1:" + std::to_string(m_listener.port())}));
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", "INFO connect ok"}));
}

TEST_F(client_transceiver, client_connected_already_does_nothing_but_log_a_further_connect)
{
    m_client.connect();
    support::open_log(1);
    m_calls.take_lines();
    EXPECT_TRUE(m_client.connect());
    EXPECT_FALSE(m_client.bind());
    EXPECT_FALSE(m_client.accept());
    EXPECT_EQ(m_calls.lines(), lines());
    EXPECT_EQ(support::log_dialogue(), lines{"INFO connect"});
}

TEST_F(client_transceiver, client_takes_the_first_of_several_addresses_and_tries_no_other)
{
    m_calls.answer("gethostbyname", 3);
    m_calls.fail("connect", ECONNREFUSED);
    EXPECT_FALSE(m_client.connect());
    EXPECT_EQ(m_calls.lines_of("connect"),
              lines{"connect #2 127.0.0.1:" + std::to_string(m_listener.port()) + " -> -1"});
}

TEST_F(transceiver_test, client_neither_binds_nor_accepts)
{
    transceiver client("127.0.0.1", 4711, kTimeout);
    EXPECT_FALSE(client.bind());
    EXPECT_FALSE(client.accept());
    EXPECT_EQ(client.port(), 4711);
    EXPECT_EQ(m_calls.lines(), lines());
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

class failing_connect : public client_transceiver, public testing::WithParamInterface<failing_step> {};

TEST_P(failing_connect, is_logged_and_its_socket_forgotten_and_not_closed)
{
    m_calls.fail(GetParam().call, ECONNREFUSED);
    {
        transceiver client("127.0.0.1", 1, kTimeout);
        EXPECT_EQ(static_cast<int>(client), -1);
        EXPECT_FALSE(client.can_recv());
    }
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO connect", GetParam().line, "INFO can_recv", kNoSocket}));
    EXPECT_TRUE(is_open(m_calls.descriptor("#2")));
}

TEST_P(failing_connect, is_followed_by_one_with_a_new_socket)
{
    m_calls.fail(GetParam().call, ECONNREFUSED);
    EXPECT_FALSE(m_client.connect());
    m_calls.fail(GetParam().call, ECONNREFUSED);
    std::array<char, 1> byte{};
    EXPECT_FALSE(m_client.recv(byte.data(), 1, false));
    EXPECT_TRUE(m_client.connect());
    EXPECT_EQ(m_calls.lines_of("socket").back(), "socket AF_INET SOCK_STREAM 0 -> #4");
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_connect,
                         testing::Values(failing_step{"gethostbyname", "INFO gethostbyname fails", ""},
                                         failing_step{"connect", "INFO connect fails", ""}),
                         [](const auto& test) { return std::string(test.param.call); });

TEST_F(client_transceiver, client_sends_over_the_connection_that_it_makes_first)
{
    bytes received;
    std::thread serving([&] { received = m_listener.serve(4, {}); });
    EXPECT_TRUE(m_client.send("ping", 4));
    serving.join();
    EXPECT_EQ(received, bytes_of("ping"));
}

TEST_F(client_transceiver, client_receives_over_the_connection_that_it_makes_first)
{
    std::thread serving([&] { m_listener.serve(0, bytes_of("pong")); });
    std::array<char, 5> answer{};
    EXPECT_TRUE(m_client.recv(answer.data(), 4, true));
    EXPECT_TRUE(m_client.can_recv());
    serving.join();
    EXPECT_STREQ(answer.data(), "pong");
}

TEST_F(client_transceiver, client_s_descriptor_0_counts_as_none)
{
    play_descriptor_0({"socket", "fcntl", "connect"});
    EXPECT_TRUE(m_client.connect());
    EXPECT_TRUE(m_client.connect());
    EXPECT_EQ(m_calls.lines_of("socket").size(), 2U);
}

// Sending and receiving

struct transfer {
    const char* name;
    const char* call; ///< that moves the bytes
    bool (*make)(transceiver& end, char* buffer, unsigned int length);
};

const auto kTransfers = testing::Values(
    transfer{"send", "write", [](transceiver& end, char* data, unsigned int n) { return end.send(data, n); }},
    transfer{"recv", "read",
             [](transceiver& end, char* data, unsigned int n) { return end.recv(data, n, false); }},
    transfer{"peek", "recv",
             [](transceiver& end, char* data, unsigned int n) { return end.recv(data, n, true); }});
const auto name_of_transfer = [](const auto& test) { return std::string(test.param.name); };

class transfer_of_nothing : public transceiver_test, public testing::WithParamInterface<transfer> {};

TEST_P(transfer_of_nothing, waits_for_the_peer_and_moves_nothing)
{
    have_a_peer_come();
    EXPECT_TRUE(GetParam().make(m_server, nullptr, 0));
    EXPECT_EQ(m_calls.lines_of("accept"), lines{"accept #1 -> #2"});
    EXPECT_EQ(m_calls.lines_of(GetParam().call), lines());
}

TEST_P(transfer_of_nothing, fails_without_a_connection)
{
    m_calls.fail("accept", EMFILE);
    EXPECT_FALSE(GetParam().make(m_server, nullptr, 0));
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, transfer_of_nothing, kTransfers, name_of_transfer);

class failing_transfer : public connected_transceiver, public testing::WithParamInterface<transfer> {
protected:
    void SetUp() override
    {
        connected_transceiver::SetUp();
        if (!IsSkipped())
            other().send(bytes_of("hello, there"));
    }
    bool make_with_5_bytes() { return GetParam().make(m_server, m_buffer.data(), 5); }

    std::array<char, 8> m_buffer{};
};

TEST_P(failing_transfer, ends_without_another_try)
{
    m_calls.limit(GetParam().call, 2);
    for (const int error : {EINTR, EAGAIN, EPIPE, ECONNRESET}) {
        m_calls.take_lines();
        m_calls.fail(GetParam().call, error, 2);
        EXPECT_FALSE(make_with_5_bytes()) << std::strerror(error);
        EXPECT_EQ(m_calls.lines_of(GetParam().call).size(), 2U) << std::strerror(error);
    }
}

TEST_P(failing_transfer, is_one_whose_call_moves_nothing)
{
    m_calls.answer(GetParam().call, 0);
    EXPECT_FALSE(make_with_5_bytes());
    EXPECT_EQ(m_calls.lines_of(GetParam().call).size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_transfer, kTransfers, name_of_transfer);

TEST_F(connected_transceiver, send_goes_on_until_everything_is_written)
{
    m_calls.limit("write", 2);
    EXPECT_TRUE(m_server.send("hello", 5));
    EXPECT_EQ(m_calls.lines(), (lines{"write #3 5 -> 2", "write #3 3 -> 2", "write #3 1 -> 1"}));
    EXPECT_EQ(other().receive(5), bytes_of("hello"));
}

TEST_F(connected_transceiver, recv_goes_on_until_everything_has_arrived)
{
    m_calls.before("read", [&] { other().send({'x'}); });
    std::array<char, 8> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 3, false));
    EXPECT_STREQ(buffer.data(), "xxx");
    EXPECT_EQ(m_calls.lines(), (lines{"read #3 3 -> 1", "read #3 2 -> 1", "read #3 1 -> 1"}));
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

// The question whether something waits

TEST_F(connected_transceiver, can_recv_when_a_byte_is_queued_and_leaves_it_there)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    EXPECT_TRUE(m_server.can_recv());
    std::array<char, 2> buffer{};
    EXPECT_TRUE(m_server.recv(buffer.data(), 1, false));
    EXPECT_STREQ(buffer.data(), "x");
}

TEST_F(connected_transceiver, cannot_recv_after_the_peer_closed)
{
    other().close();
    ASSERT_TRUE(has_arrived());
    EXPECT_FALSE(m_server.can_recv());
}

TEST_F(connected_transceiver, can_recv_asks_without_waiting_and_restores_the_flags)
{
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(m_calls.lines(), (lines{"fcntl #3 F_GETFL -> 2", "fcntl #3 F_SETFL non-blocking",
                                      "recv #3 1 MSG_PEEK -> -1", "fcntl #3 F_SETFL blocking"}));
    EXPECT_EQ(support::log_dialogue(), lines{"INFO can_recv"});
}

TEST_F(connected_transceiver, can_recv_leaves_a_socket_non_blocking_that_was)
{
    fcntl(m_server, F_SETFL, fcntl(m_server, F_GETFL) | O_NONBLOCK);
    m_server.can_recv();
    EXPECT_FALSE(is_blocking(m_server));
}

struct step_of_can_recv {
    int number;
    bool is_answered;
    std::size_t calls;
};

class failing_flags : public connected_transceiver, public testing::WithParamInterface<step_of_can_recv> {};

TEST_P(failing_flags, of_a_descriptor_are_logged)
{
    other().send({'x'});
    ASSERT_TRUE(has_arrived());
    m_calls.fail("fcntl", EIO, GetParam().number);
    EXPECT_EQ(m_server.can_recv(), GetParam().is_answered);
    EXPECT_EQ(m_calls.lines().size(), GetParam().calls);
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", std::string("ERROR ") + std::strerror(EIO)}));
}

INSTANTIATE_TEST_SUITE_P(transceiver_test, failing_flags,
                         testing::Values(step_of_can_recv{1, false, 1}, step_of_can_recv{2, false, 2},
                                         step_of_can_recv{3, true, 4}),
                         [](const auto& test) { return "at_call_" + std::to_string(test.param.number); });

TEST_F(transceiver_test, can_recv_makes_no_connection)
{
    EXPECT_FALSE(m_server.can_recv());
    EXPECT_EQ(m_calls.lines(), lines{"fcntl -1 F_GETFL -> -1"});
    EXPECT_EQ(support::log_dialogue(), (lines{"INFO can_recv", kNoSocket}));
}

// The time-out

TEST_F(connected_transceiver, set_timeout_stores_and_applies_it)
{
    EXPECT_TRUE(m_server.set_timeout(7));
    EXPECT_EQ(m_server.get_timeout(), 7U);
    EXPECT_EQ(m_calls.lines(), all_options("#3", 7));
}

TEST_F(connected_transceiver, set_timeout_of_0_leaves_the_time_outs_unchanged)
{
    EXPECT_TRUE(m_server.set_timeout(0));
    EXPECT_EQ(m_calls.lines(), options_without_time_out("#3"));
}

TEST_F(transceiver_test, set_timeout_without_a_connection_fails_and_stores_it)
{
    EXPECT_FALSE(m_server.set_timeout(7));
    EXPECT_EQ(m_server.get_timeout(), 7U);
    EXPECT_EQ(support::log_dialogue(), lines{"ERROR ERROR: setsockopt failed"});
}

// Closing

TEST_F(connected_transceiver, close_closes_the_connected_socket_once)
{
    m_server.close();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines{"close #3"});
    EXPECT_EQ(support::log_dialogue(), lines());
}

TEST_F(connected_transceiver, close_that_fails_is_logged_as_an_error_and_not_tried_again)
{
    m_calls.fail("close", EIO);
    m_server.close();
    m_server.close();
    EXPECT_EQ(m_calls.lines(), lines{"close #3 -> -1"});
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
