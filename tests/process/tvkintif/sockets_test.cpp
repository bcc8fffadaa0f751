// The listening socket, its one connection, and what happens when the system refuses them.

#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "front_end/src/front_end_error.h"
#include "process/tvkintif/program_test.h"
#include "support/caught_error.h"
#include "support/log_reader.h"
#include "support/proc_files.h"
#include "support/wait_until.h"

namespace process_test {

using support::caught;
using tarvik::front_end_error;

class sockets : public program_test {
protected:
    void query() { expect_answer(query_request(1), ok_reply({0, 0, 0, 0})); }
};

namespace {

/// What "ls -l" found in /proc/self/fd, as "NUMBER -> WHAT" lines; of pipes and of paths in /proc only the
/// kind.
std::string listed_descriptors(const std::string& path)
{
    std::ifstream file(path);
    std::string all;
    for (std::string line; std::getline(file, line);) {
        const std::size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos)
            continue; // the total
        std::string entry = line.substr(line.rfind(' ', arrow - 1) + 1);
        for (const std::string kind : {" -> pipe", " -> /proc"})
            if (const std::size_t at = entry.find(kind); at != std::string::npos)
                entry.erase(at + kind.size());
        all += entry + "\n";
    }
    return all;
}

} // namespace

TEST_F(sockets, port_listens_on_the_loopback_address_alone)
{
    start();
    EXPECT_EQ(support::text(support::sockets_on(port())), "127.0.0.1 LISTEN\n");
    EXPECT_FALSE(support::has_ipv6_socket_on(port()));
    connect();
    close_and_expect_end();
}

TEST_F(sockets, second_front_end_is_refused_once_the_first_is_served)
{
    start_connected();
    query();
    const auto error = caught<front_end_error>([this] { support::raw_connection second(port()); });
    EXPECT_EQ(error.cause(), tarvik::failure::connection_refused) << error.what();
    close_and_expect_end();
}

TEST_F(sockets, front_end_that_queued_up_behind_the_first_is_cut_off)
{
    with_mishap("raise accept " + std::to_string(SIGSTOP));
    start();
    wait_until_stopped();
    connect();
    support::raw_connection second(port());
    send_signal(SIGCONT);
    query();
    const auto error = caught<front_end_error>([&] { second.read(1); });
    EXPECT_EQ(error.cause(), tarvik::failure::connection_lost) << error.what();
    close_and_expect_end();
}

TEST_F(sockets, calls_on_the_sockets_are_these_in_this_order)
{
    with_mishap("record sockets");
    start_connected();
    close_and_expect_end();
    expect_usb({"socket AF_INET SOCK_STREAM 0",
                "setsockopt listening SO_REUSEADDR 1",
                "setsockopt listening SO_KEEPALIVE 0",
                "setsockopt listening SO_RCVTIMEO 300 s 0 us",
                "setsockopt listening SO_SNDTIMEO 300 s 0 us",
                "bind listening 127.0.0.1:0",
                "getsockname listening",
                "listen listening 5",
                "listen listening 5",
                "accept listening",
                "setsockopt listening SO_REUSEADDR 1",
                "setsockopt listening SO_KEEPALIVE 0",
                "setsockopt listening SO_RCVTIMEO 300 s 0 us",
                "setsockopt listening SO_SNDTIMEO 300 s 0 us",
                "close listening",
                "setsockopt connected SO_REUSEADDR 1",
                "setsockopt connected SO_KEEPALIVE 0",
                "setsockopt connected SO_RCVTIMEO 300 s 0 us",
                "setsockopt connected SO_SNDTIMEO 300 s 0 us",
                "setsockopt connected TCP_NODELAY 1",
                "close connected",
                "end of process"});
}

TEST_F(sockets, program_started_by_a_plugin_inherits_no_descriptor_but_the_standard_ones)
{
    const std::string list = kScratchDirectory + "/descriptors";
    with_environment("DESCRIPTOR_LIST", list);
    with_plugin("plugin_starting_helper");
    start_connected();
    open();
    close_and_expect_end();
    // Beside the last one, which the listing program itself has open, exactly the standard ones.
    EXPECT_EQ(listed_descriptors(list), "0 -> /dev/null\n1 -> " + list + "\n2 -> pipe\n3 -> /proc\n");
}

TEST_F(sockets, accept_that_fails_is_tried_again_on_the_same_port)
{
    with_mishap("fail accept " + std::to_string(EAGAIN) + " 1"); // nobody came in time
    start();
    wait_until_in(SYS_accept);
    EXPECT_EQ(support::text(support::sockets_on(port())), "127.0.0.1 LISTEN\n");
    connect();
    close_and_expect_end();
    expect_log(kAnnounced + failed_to_read(kHeaderSize, "Bad file descriptor") + kToldToClose);
}

TEST_F(sockets, socket_that_cannot_be_made_is_tried_again_until_a_signal_comes)
{
    with_mishap("fail socket " + std::to_string(EMFILE) + " 1000000");
    start_in_vain();
    ASSERT_TRUE(support::wait_until(kPatience, [] { return support::log_dialogue().size() > 20; }));
    send_signal(SIGTERM);
    expect_end({0, "0\n"});
    const lines attempt = info({"bind socket fails"}) + failed_to_read(kHeaderSize, "Bad file descriptor");
    const lines beginning = info({"bind socket fails"}) + kAnnounced + attempt + attempt + attempt;
    const lines end = attempt + kLeft;
    const std::vector<std::string> log = support::log_dialogue();
    EXPECT_EQ(support::text({log.begin(), log.begin() + 14}), beginning.text());
    EXPECT_EQ(support::text({log.end() - 7, log.end()}), end.text());
}

struct port_trouble {
    const char* call; ///< that fails once
    int error;
    const char* words = ""; ///< on standard error
};

class sockets_without_a_port : public sockets, public testing::WithParamInterface<port_trouble> {};

TEST_P(sockets_without_a_port, are_logged_and_tried_again)
{
    with_mishap("fail " + std::string(GetParam().call) + " " + std::to_string(GetParam().error) + " 1");
    with_mishap("record sockets");
    start_in_vain();
    wait_until_in(SYS_accept);
    send_signal(SIGTERM);
    expect_end({0, "0\n", GetParam().words});
    expect_log(info({GetParam().call + std::string(" fails")}) + kAnnounced +
               failed_to_read(kHeaderSize, "Bad file descriptor") + kLeft);
    // A socket that came to nothing is neither closed nor used again.
    expect_usb_about("socket ", {"socket AF_INET SOCK_STREAM 0", "socket AF_INET SOCK_STREAM 0"});
    expect_usb_about("close ", {"close listening"});
}

INSTANTIATE_TEST_SUITE_P(, sockets_without_a_port,
                         testing::Values(port_trouble{"bind", EADDRINUSE},
                                         port_trouble{"getsockname", ENOBUFS, "No buffer space available\n"}),
                         [](const auto& test) { return test.param.call; });

TEST_F(sockets, options_that_cannot_be_set_are_errors_in_the_log_and_no_obstacle)
{
    with_mishap("fail setsockopt " + std::to_string(ENOPROTOOPT) + " 1000");
    start_connected();
    close_and_expect_end();
    // The listening socket when it is bound and before it is closed, the connection; the wish for no delay is
    // not logged.
    const lines error = {"ERROR ERROR: setsockopt failed"};
    expect_log(error + kAnnounced + error + error + kToldToClose);
}

} // namespace process_test
