#include "front_end/src/front_end.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "support/caught_error.h"
#include "support/scripted_peer.h"

using namespace std::chrono_literals;
using support::from_hex;
using support::pattern;
using tarvik::byte_view;
using tarvik::bytes;
using tarvik::exit_status;
using tarvik::failure;
using tarvik::front_end;
using tarvik::kPieceSize;
using tarvik::launch;
using tarvik::reply;

namespace {

template <typename Action>
tarvik::front_end_error error_of(Action action)
{
    return support::caught<tarvik::front_end_error>(action);
}

constexpr auto kSoon = 10s;

const bytes kOk = from_hex("00000001 00000000 00000000 00000000 00000000");
const bytes kNg = from_hex("00000001 00000000 ffffffff 00000000 00000000");
const bytes kNak = from_hex("00000001 00000000 ffffffff 00000001 00000000 15");

launch shell(const std::string& script)
{
    launch how;
    how.path = "/bin/sh";
    how.arguments = {"-c", script};
    how.errors = launch::standard_error::capture;
    return how;
}

/// A program that announces `port`, where a scripted peer plays its part, and then does what `script` says.
launch program_on(int port, const std::string& script = "exec sleep 600")
{
    return shell("echo " + std::to_string(port) + "; " + script);
}

std::string head(std::uint32_t code, std::uint32_t size, std::uint32_t value)
{
    return word(1) + word(code) + word(0) + word(size) + word(value);
}

bytes recv_request(std::uint32_t count)
{
    return from_hex(head(7, 0, count));
}

bytes joined(bytes first, const bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

bytes ok_with(const bytes& payload)
{
    const auto size = static_cast<std::uint32_t>(payload.size());
    return joined(from_hex(word(1) + word(0) + word(0) + word(size) + word(0)), payload);
}

/// A front-end that is connected to a peer which goes through `steps`.
class talk {
public:
    explicit talk(std::vector<peer_step> steps) : m_peer(std::move(steps)), m_front_end(m_peer.port())
    {
        m_front_end.connect();
    }

    front_end* operator->() { return &m_front_end; }

private:
    scripted_peer m_peer;
    front_end m_front_end; ///< ends first, which is what the peer waits for
};

/// Receives into memory and counts the pieces.
struct collected {
    void operator()(byte_view piece)
    {
        data.insert(data.end(), piece.begin(), piece.end());
        largest = std::max(largest, piece.size);
    }

    bytes data;
    std::size_t largest = 0;
};

std::set<int> open_descriptors()
{
    std::set<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        numbers.insert(std::stoi(entry.path().filename()));
    return numbers;
}

} // namespace

// Starting

TEST(front_end_start, takes_the_port_from_the_first_line)
{
    const front_end program(shell("echo 40001; exec sleep 600"));
    EXPECT_EQ(program.port(), 40001);
}

TEST(front_end_start, early_exit_is_reported_with_its_status)
{
    const auto error = error_of([] { front_end program(shell("exit 3")); });
    EXPECT_STREQ(error.what(),
                 "read the port line of /bin/sh: expected a port from 1 to 65535, got no line and "
                 "then exit status 3");
}

TEST(front_end_start, early_death_is_reported_with_its_signal)
{
    const auto error = error_of([] { front_end program(shell("kill -KILL $$")); });
    EXPECT_EQ(error.came(), "no line and then signal 9 (Killed)");
}

TEST(front_end_start, early_exit_is_reported_with_the_captured_standard_error)
{
    const auto error = error_of([] { front_end program(shell("echo no library >&2; exit 127")); });
    EXPECT_EQ(error.came(), "no line and then exit status 127; its standard error: \"no library\\x0a\"");
}

TEST(front_end_start, line_without_its_end_is_an_early_exit)
{
    const auto error = error_of([] { front_end program(shell("printf 40001")); });
    EXPECT_EQ(error.cause(), failure::exited_early);
}

TEST(front_end_start, minus_1_is_reported_with_the_exit_status)
{
    const auto error = error_of([] { front_end program(shell("echo -1; exit 1")); });
    EXPECT_EQ(error.came(), "-1 and then exit status 1");
}

TEST(front_end_start, minus_1_is_a_refusal)
{
    const auto error = error_of([] { front_end program(shell("echo -1; exit 1")); });
    EXPECT_EQ(error.cause(), failure::start_refused);
}

TEST(front_end_start, end_of_output_of_a_program_that_runs_on_is_reported)
{
    const auto error = error_of([] { front_end program(shell("exec >&-; exec sleep 600"), 200ms); });
    EXPECT_EQ(error.came(), "no line and then the end of its output while it runs on");
}

TEST(front_end_start, silence_is_reported_when_time_is_up)
{
    const auto error = error_of([] { front_end program(shell("exec sleep 600"), 50ms); });
    EXPECT_EQ(error.came(), "nothing within 50 ms");
}

TEST(front_end_start, half_a_line_is_reported_when_time_is_up)
{
    // Time starts to count when the program executes, so what it prints at once is there in time.
    const auto error = error_of([] { front_end program(shell("printf 400; exec sleep 600"), 2s); });
    EXPECT_EQ(error.came(), "\"400\" within 2000 ms");
}

TEST(front_end_start, endless_line_is_reported_by_its_head)
{
    const auto error =
        error_of([] { front_end program(shell("head -c 1000 /dev/zero | tr '\\0' 7; exec sleep 600")); });
    EXPECT_EQ(error.came(), "\"" + std::string(32, '7') + "\" and more");
}

class port_line_that_is_no_port : public testing::TestWithParam<const char*> {};

TEST_P(port_line_that_is_no_port, is_quoted)
{
    launch how;
    how.path = "/bin/echo";
    how.arguments = {GetParam()};
    const auto error = error_of([&] { front_end program(how); });
    EXPECT_EQ(error.came(), tarvik::in_quotes(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(front_end_start, port_line_that_is_no_port,
                         testing::Values("", "0", "65536", "-2", "+5", " 5", "5 ", "0x50", "99999999999",
                                         "port 5", "5\r"));

TEST(front_end_start, largest_port_is_taken)
{
    const front_end program(shell("echo 65535; exec sleep 600"));
    EXPECT_EQ(program.port(), 65535);
}

TEST(front_end_start, program_that_cannot_be_executed_is_reported)
{
    const auto error = error_of([] { front_end program(launch{"/nowhere/program"}); });
    EXPECT_EQ(error.cause(), failure::start_failed);
}

// Connecting

TEST(front_end_connect, refusal_by_a_program_that_has_ended_tells_how_it_ended)
{
    const bound_socket silent;
    front_end program(program_on(silent.port(), "exit 4"));
    const auto error = error_of([&] { program.connect(); });
    EXPECT_EQ(error.came(), "Connection refused; the program ended with exit status 4");
}

TEST(front_end_connect, refusal_by_a_program_that_runs_is_reported_as_it_is)
{
    const bound_socket silent;
    front_end program(program_on(silent.port()));
    const auto error = error_of([&] { program.connect(); });
    EXPECT_EQ(error.came(), "Connection refused");
}

TEST(front_end_connect, request_without_a_connection_is_a_programming_error)
{
    front_end attached(40001);
    EXPECT_THROW(attached.query(1), std::logic_error);
}

TEST(front_end_connect, disconnect_ends_the_connection)
{
    scripted_peer peer({expects_end()});
    front_end attached(peer.port());
    attached.connect();
    attached.disconnect();
    EXPECT_THROW(attached.query(1), std::logic_error);
}

TEST(front_end_connect, descriptors_are_closed_by_exec)
{
    const std::set<int> before = open_descriptors();
    const bound_socket queue;
    listen(queue.descriptor(), 1);
    front_end program(program_on(queue.port()));
    program.connect();
    for (const int number : open_descriptors()) {
        const int flags = fcntl(number, F_GETFD);
        const bool is_listing = flags == -1; // the descriptor that read the directory has gone since
        EXPECT_TRUE(before.count(number) == 1 || is_listing || flags == FD_CLOEXEC) << number;
    }
}

// Requests

TEST(front_end_open, sends_the_address_with_code_4)
{
    talk session({expects(from_hex("00000001 00000004 00000000 00000003 00000000 616263")), answers(kOk)});
    EXPECT_TRUE(session->open("abc"));
}

TEST(front_end_open, returns_ng)
{
    talk session({expects(from_hex(head(4, 1, 0) + "61")), answers(kNg)});
    EXPECT_EQ(session->open("a").kind, reply::verdict::ng);
}

TEST(front_end_open, reply_must_carry_id_1)
{
    talk session({expects(from_hex(head(4, 1, 0) + "61")),
                  answers(from_hex("00000002 00000000 00000000 00000000 00000000"))});
    const auto error = error_of([&] { session->open("a"); });
    EXPECT_STREQ(error.what(),
                 "open \"a\": expected a reply with id 1, got a header with id 2, code 0, error 0, "
                 "size 0, value 0");
}

TEST(front_end_send, sends_the_bytes_with_code_6)
{
    talk session({expects(from_hex("00000001 00000006 00000000 00000002 00000000 00ff")), answers(kOk)});
    EXPECT_TRUE(session->send(from_hex("00ff")));
}

TEST(front_end_send, header_and_payload_go_out_together)
{
    unsigned int segments = 0;
    bool is_known = true;
    const auto counts_segments = [&](peer_side& side) {
        tcp_info info = {};
        socklen_t length = sizeof info;
        is_known = getsockopt(side.descriptor(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
                   length > offsetof(tcp_info, tcpi_data_segs_in);
        segments = info.tcpi_data_segs_in;
    };
    {
        talk session({expects(from_hex(head(6, 2, 0) + "00ff")), counts_segments, answers(kOk)});
        session->send(from_hex("00ff"));
    }
    if (!is_known)
        GTEST_SKIP()
            << "the segments of a connection are not counted here (an emulator?); run it on the host";
    EXPECT_EQ(segments, 1u);
}

TEST(front_end_send, moves_a_payload_larger_than_the_kernel_buffers)
{
    const bytes much = pattern(8'000'000);
    talk session({expects(from_hex(head(6, 8'000'000, 0))), expects(much), answers(kOk)});
    EXPECT_TRUE(session->send(much));
}

TEST(front_end_send, without_bytes_sends_a_bare_header)
{
    talk session({expects(from_hex(head(6, 0, 0))), answers(kNg)});
    EXPECT_EQ(session->send({}).kind, reply::verdict::ng);
}

TEST(front_end_recv, asks_with_code_7_and_the_count_as_value)
{
    talk session(
        {expects(from_hex("00000001 00000007 00000000 00000000 00000200")), answers(ok_with(pattern(512)))});
    EXPECT_EQ(session->recv(512).payload, pattern(512));
}

TEST(front_end_recv, returns_a_payload_of_many_pieces_whole)
{
    const bytes much = pattern(3 * kPieceSize + 1);
    talk session({expects(recv_request(3 * kPieceSize + 1)), answers(ok_with(much))});
    EXPECT_EQ(session->recv(3 * kPieceSize + 1).payload, much);
}

TEST(front_end_query, asks_with_code_8_and_the_selector_as_value)
{
    talk session({expects(from_hex("00000001 00000008 00000000 00000000 00000002")),
                  answers(ok_with(from_hex("00000000")))});
    EXPECT_EQ(session->query(2).payload, from_hex("00000000"));
}

TEST(front_end_close, sends_code_5_and_waits_for_nothing)
{
    talk session({expects(from_hex("00000001 00000005 00000000 00000000 00000000"))});
    session->close();
}

TEST(front_end_send, payload_that_no_size_field_can_tell_is_refused)
{
    constexpr std::uint64_t size = std::uint64_t{1} << 32;
    if (size > std::numeric_limits<std::size_t>::max())
        GTEST_SKIP() << "no payload can be that large on this machine";
    const byte_view huge(nullptr, static_cast<std::size_t>(size));
    EXPECT_THROW(tarvik::size_field(huge), std::length_error);
}

// Replies

TEST(front_end_reply, nak_has_its_byte_as_payload)
{
    talk session({expects(recv_request(5)), answers(kNak)});
    EXPECT_EQ(session->recv(5).payload, from_hex("15"));
}

TEST(front_end_reply, ng_has_no_payload)
{
    talk session({expects(recv_request(5)), answers(kNg)});
    EXPECT_EQ(session->recv(5).payload, bytes());
}

TEST(front_end_reply, ok_with_fewer_bytes_than_asked_for_is_unexpected)
{
    talk session({expects(recv_request(5)), answers(ok_with(pattern(4)))});
    const auto error = error_of([&] { session->recv(5); });
    EXPECT_EQ(error.expected(), "an ok with 5 payload bytes");
}

TEST(front_end_reply, failure_without_a_byte_of_nak_is_unexpected)
{
    talk session(
        {expects(recv_request(5)), answers(from_hex("00000001 00000000 ffffffff 00000001 00000000 06"))});
    const auto error = error_of([&] { session->recv(5); });
    EXPECT_EQ(error.came(), "the byte 6");
}

class malformed_reply : public testing::TestWithParam<const char*> {};

TEST_P(malformed_reply, is_unexpected)
{
    talk session({expects(from_hex(head(4, 1, 0) + "61")), answers(from_hex(GetParam()))});
    const auto error = error_of([&] { session->open("a"); });
    EXPECT_EQ(error.cause(), failure::unexpected_reply);
}

INSTANTIATE_TEST_SUITE_P(
    front_end_reply, malformed_reply,
    testing::Values("00000001 00000008 00000000 00000000 00000000", // a code
                    "00000001 00000000 00000000 00000000 00000001", // a value
                    "00000001 00000000 00000001 00000000 00000000", // an error of its own
                    "00000001 00000000 fffffffe 00000000 00000000",
                    "00000001 00000000 ffffffff 00000002 00000000")); // too long for a nak

TEST(front_end_reply, end_of_the_stream_in_the_header_is_reported_with_its_place)
{
    talk session({expects(recv_request(5)), answers(from_hex("00000001 00000000 0000")), closes()});
    const auto error = error_of([&] { session->recv(5); });
    EXPECT_STREQ(error.what(),
                 "recv 5 bytes: expected a reply's header of 20 bytes, got the end of the stream "
                 "after 10 bytes");
}

TEST(front_end_reply, end_of_the_stream_in_the_payload_is_reported_with_its_place)
{
    bytes torn = ok_with(pattern(100'000));
    torn.resize(20 + 70'000);
    talk session({expects(recv_request(100'000)), answers(torn), closes()});
    const auto error = error_of([&] { session->recv(100'000); });
    EXPECT_STREQ(error.what(),
                 "recv 100000 bytes: expected a reply's payload of 100000 bytes, got the end of "
                 "the stream after 70000 bytes");
}

TEST(front_end_reply, silence_is_reported_when_time_is_up)
{
    talk session({expects(recv_request(5))});
    const auto error = error_of([&] { session->recv(5, 50ms); });
    EXPECT_EQ(error.came(), "0 bytes and nothing more within 50 ms");
}

TEST(front_end_reply, end_of_the_stream_tells_how_the_program_ended)
{
    scripted_peer peer({expects(recv_request(5)), closes()});
    front_end program(program_on(peer.port(), "kill -SEGV $$"));
    program.connect();
    const auto error = error_of([&] { program.recv(5); });
    EXPECT_EQ(error.came(),
              "the end of the stream after 0 bytes; the program ended with signal 11 (Segmentation "
              "fault)");
}

// Receiving in several requests

TEST(front_end_stream, asks_for_the_rest_in_the_last_request)
{
    const bytes all = pattern(25);
    talk session({expects(recv_request(10)), answers(ok_with(bytes(all.begin(), all.begin() + 10))),
                  expects(recv_request(10)), answers(ok_with(bytes(all.begin() + 10, all.begin() + 20))),
                  expects(recv_request(5)), answers(ok_with(bytes(all.begin() + 20, all.end())))});
    collected result;
    session->recv(25, 10, std::ref(result));
    EXPECT_EQ(result.data, all);
}

TEST(front_end_stream, counts_what_was_received)
{
    talk session({expects(recv_request(10)), answers(ok_with(pattern(10))), expects(recv_request(1)),
                  answers(ok_with(pattern(1)))});
    collected result;
    EXPECT_EQ(session->recv(11, 10, std::ref(result)).count, 11u);
}

TEST(front_end_stream, hands_on_a_large_request_in_small_pieces)
{
    talk session({expects(recv_request(200'000)), answers(ok_with(pattern(200'000)))});
    collected result;
    session->recv(200'000, 200'000, std::ref(result));
    EXPECT_EQ(result.largest, kPieceSize);
}

TEST(front_end_stream, ends_at_the_first_request_that_fails)
{
    talk session(
        {expects(recv_request(10)), answers(ok_with(pattern(10))), expects(recv_request(10)), answers(kNg)});
    collected result;
    const auto end = session->recv(30, 10, std::ref(result));
    EXPECT_TRUE(end.count == 10 && end.last == reply::verdict::ng) << end.count << " " << end.last;
}

TEST(front_end_stream, keeps_the_byte_of_a_nak_out_of_the_data)
{
    talk session({expects(recv_request(1)), answers(kNak)});
    collected result;
    session->recv(1, 1, std::ref(result));
    EXPECT_EQ(result.data, bytes());
}

TEST(front_end_stream, hands_on_what_came_before_the_stream_ended)
{
    bytes torn = ok_with(pattern(100'000));
    torn.resize(20 + 70'000);
    talk session({expects(recv_request(100'000)), answers(torn), closes()});
    collected result;
    error_of([&] { session->recv(100'000, 100'000, std::ref(result)); });
    EXPECT_EQ(result.data, pattern(70'000));
}

TEST(front_end_stream, failure_tells_the_offset_of_its_request)
{
    talk session(
        {expects(recv_request(10)), answers(ok_with(pattern(10))), expects(recv_request(2)), closes()});
    collected result;
    const auto error = error_of([&] { session->recv(12, 10, std::ref(result)); });
    EXPECT_EQ(error.step(), "recv 2 bytes at offset 10");
}

TEST(front_end_stream, passes_on_what_the_sink_throws)
{
    talk session({expects(recv_request(1)), answers(ok_with(pattern(1)))});
    const auto full_disk = [](byte_view) { throw std::domain_error("disk full"); };
    EXPECT_THROW(session->recv(1, 1, full_disk), std::domain_error);
}

TEST(front_end_stream, of_nothing_asks_nothing)
{
    talk session({expects_end()});
    collected result;
    EXPECT_EQ(session->recv(0, 10, std::ref(result)).count, 0u);
}

TEST(front_end_stream, requests_of_no_bytes_are_a_programming_error)
{
    talk session({expects_end()});
    collected result;
    EXPECT_THROW(session->recv(10, 0, std::ref(result)), std::invalid_argument);
}

// Ending

TEST(front_end_finish, returns_the_exit_status)
{
    front_end program(shell("echo 40001; exit 6"));
    EXPECT_EQ(program.finish(kSoon), exit_status::exited(6));
}

TEST(front_end_finish, ends_the_connection_first)
{
    scripted_peer peer({expects_end()});
    front_end program(program_on(peer.port(), "exit 0"));
    program.connect();
    program.finish(kSoon);
    EXPECT_THROW(program.query(1), std::logic_error);
}

TEST(front_end_finish, of_a_program_that_does_not_end_gives_up_at_its_deadline)
{
    front_end program(shell("echo 40001; exec sleep 600"));
    EXPECT_EQ(error_of([&] { program.finish(20ms); }).cause(), failure::timed_out);
}

TEST(front_end_finish, of_an_attached_process_has_no_status)
{
    front_end attached(40001);
    EXPECT_EQ(attached.finish(), std::nullopt);
}

TEST(front_end_finish, process_of_somebody_else_is_out_of_reach)
{
    front_end attached(40001);
    EXPECT_THROW(attached.process(), std::logic_error);
}

TEST(front_end_destructor, tells_the_program_to_end_before_it_kills)
{
    const auto file = std::filesystem::temp_directory_path() / ("front_end_test." + std::to_string(getpid()));
    {
        front_end program(shell("sleep 600 & trap \"kill $!; echo told > " + file.string() +
                                "; exit 0\" TERM; echo 40001; wait"));
    }
    std::string word;
    std::ifstream(file) >> word;
    std::filesystem::remove(file);
    EXPECT_EQ(word, "told");
}

TEST(front_end_destructor, kills_a_program_that_does_not_listen)
{
    pid_t pid = 0;
    {
        front_end program(shell("trap '' TERM; echo 40001; exec sleep 600"));
        pid = program.process().pid();
    }
    EXPECT_TRUE(kill(pid, 0) == -1 && errno == ESRCH);
}

// Errors

class every_failure : public testing::TestWithParam<failure> {};

TEST_P(every_failure, comes_with_advice)
{
    EXPECT_STRNE(tarvik::front_end_error(GetParam(), "", "", "").advice(), "");
}

INSTANTIATE_TEST_SUITE_P(front_end_error, every_failure,
                         testing::Values(failure::start_failed, failure::exited_early, failure::start_refused,
                                         failure::bad_port_line, failure::timed_out,
                                         failure::connection_refused, failure::connect_failed,
                                         failure::end_of_stream, failure::connection_lost, failure::wrong_id,
                                         failure::unexpected_reply));

TEST(text_in_quotes, shows_control_bytes_as_numbers)
{
    EXPECT_EQ(tarvik::in_quotes(from_hex("41 00 7f ff")), "\"A\\x00\\x7f\\xff\"");
}

TEST(text_in_quotes, is_cut_when_it_is_long)
{
    EXPECT_EQ(tarvik::in_quotes(std::string(201, 'a')), "\"" + std::string(200, 'a') + "\"...");
}

TEST(reply_verdict, names_are_those_of_the_protocol)
{
    std::ostringstream names;
    names << reply::verdict::ok << " " << reply::verdict::ng << " " << reply::verdict::nak;
    EXPECT_EQ(names.str(), "ok ng nak");
}
