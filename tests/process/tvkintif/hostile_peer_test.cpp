// Front-ends that do their worst. What they send is compared with the model; what else they do must cost the
// program nothing.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include "common/process/unique_fd.h"
#include "process/tvkintif/model/player.h"
#include "support/proc_files.h"

namespace process_test {

using session_model::departure;
using session_model::logging;
using session_model::session;

namespace {

constexpr int kLateComers = 10'000;

session session_of(const bytes& stream, departure end)
{
    session result;
    result.bus = "device scanner 1a2b:3c4d\n";
    result.plugin = "plugin_good";
    result.plugin_file = kDefaultPlugin;
    result.log = logging::at_info;
    result.messages = {{"the stream", stream}};
    result.writes = {stream.size()};
    result.end = end;
    return result;
}

/// Somebody else who wants to connect, and goes away at once; 0 if the connection was made. One that comes
/// behind more than may wait gets no answer: he does not wait for it (SOCK_NONBLOCK).
int error_of_late_comer(int port, int flags = 0)
{
    const tarvik::unique_fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int result = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return result == 0 ? 0 : errno;
}

} // namespace

struct leaving {
    departure how;
    const char* name;
};

class peer_that : public session_model::player, public testing::WithParamInterface<leaving> {};
INSTANTIATE_TEST_SUITE_P(, peer_that,
                         testing::Values(leaving{departure::ends_stream, "half_closes"},
                                         leaving{departure::hangs_up, "hangs_up"},
                                         leaving{departure::resets, "resets"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(peer_that, leaves_before_any_byte_of_a_request_ends_the_program)
{
    const bytes request = send_request(pattern(8));
    for (const bytes& before : {bytes(), open_request()})
        for (std::ptrdiff_t size = 0; size < static_cast<std::ptrdiff_t>(request.size()); ++size)
            play(session_of(before + bytes(request.begin(), request.begin() + size), GetParam().how));
}

TEST_P(peer_that, announces_4_gibibytes_and_sends_some_ends_the_program)
{
    for (const std::uint32_t size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU})
        play(session_of(open_request() + bare_header(1, 6, size) + pattern(5000), GetParam().how));
}

using hostile_peer = program_test;

TEST_F(hostile_peer, that_is_silent_holds_the_port_and_costs_nothing)
{
    start_connected();
    wait_until_in(SYS_read);
    const std::size_t descriptors = support::open_descriptors(pid());
    const std::size_t memory = support::resident_memory(pid());
    const long processor_ticks = support::processor_ticks(pid());
    for (int i = 0; i < kLateComers && !HasFailure(); ++i)
        EXPECT_EQ(error_of_late_comer(port()), ECONNREFUSED) << "late comer " << i;
    EXPECT_EQ(support::open_descriptors(pid()), descriptors);
    EXPECT_LE(support::resident_memory(pid()), memory);
    EXPECT_EQ(support::processor_ticks(pid()), processor_ticks) << "hundredths of a second of processor time";
    hang_up();
    expect_end();
    expect_log(kAnnounced + kHungUp);
}

TEST_F(hostile_peer, that_comes_first_of_ten_thousand_is_served_and_the_others_leave_nothing_behind)
{
    with_mishap("raise accept " + std::to_string(SIGSTOP));
    start();
    wait_until_stopped();
    connect();
    for (int i = 0; i < kLateComers && !HasFailure(); ++i)
        EXPECT_EQ(error_of_late_comer(port(), SOCK_NONBLOCK), EINPROGRESS) << "late comer " << i;
    send_signal(SIGCONT);
    expect_answer(query_request(1), ok_reply({0, 0, 0, 0}));
    wait_until_in(SYS_read);
    EXPECT_EQ(support::open_descriptors(pid()), STDERR_FILENO + 2U) << "the standard ones and the connection";
    EXPECT_EQ(error_of_late_comer(port()), ECONNREFUSED);
    open();
    close_and_expect_end();
    expect_log(kAnnounced + request() + reply(4) + open_served() + kToldToClose);
}

} // namespace process_test
