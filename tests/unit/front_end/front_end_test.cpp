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
using support::operator+;
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
constexpr std::uint32_t kFailed = 0xFFFFFFFF;

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

bytes header(std::uint32_t id, std::uint32_t code, std::uint32_t error, std::uint32_t size,
             std::uint32_t value)
{
    return from_hex(word(id) + word(code) + word(error) + word(size) + word(value));
}

bytes recv_request(std::uint32_t count)
{
    return header(1, 7, 0, 0, count);
}

bytes ok_with(const bytes& payload)
{
    return header(1, 0, 0, static_cast<std::uint32_t>(payload.size()), 0) + payload;
}

bytes cut(bytes all, std::size_t size)
{
    all.resize(size);
    return all;
}

/// A front-end that is connected to a peer which goes through `steps`.
class talk {
public:
    explicit talk(std::vector<peer_step> steps) : m_peer(std::move(steps)), m_frontEnd(m_peer.port())
    {
        m_frontEnd.connect();
    }

    front_end* operator->() { return &m_frontEnd; }

private:
    scripted_peer m_peer;
    front_end m_frontEnd; ///< ends first, which is what the peer waits for
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
    for (const int port : {40001, 65535})
        EXPECT_EQ(front_end(program_on(port)).port(), port);
}

struct failed_start {
    const char* name;
    std::string script;
    failure cause;
    std::string came;
    std::chrono::milliseconds limit = kSoon;
};

class program_that_starts_wrongly : public testing::TestWithParam<failed_start> {};

TEST_P(program_that_starts_wrongly, is_reported_with_what_came_instead_of_a_port)
{
    const auto error = error_of([] { front_end program(shell(GetParam().script), GetParam().limit); });
    EXPECT_EQ(error.cause(), GetParam().cause);
    EXPECT_EQ(error.step(), "read the port line of /bin/sh");
    EXPECT_EQ(error.came(), GetParam().came);
}

const failed_start kFailedStarts[] = {
    {"early_exit", "exit 3", failure::exited_early, "no line and then exit status 3"},
    {"early_death", "kill -KILL $$", failure::exited_early, "no line and then signal 9 (Killed)"},
    {"early_exit_with_standard_error", "echo no library >&2; exit 127", failure::exited_early,
     "no line and then exit status 127; its standard error: \"no library\\x0a\""},
    {"early_exit_in_the_line", "printf 40001; exit 3", failure::exited_early,
     "\"40001\" and then exit status 3"},
    {"minus_1", "echo -1; exit 1", failure::start_refused, "-1 and then exit status 1"},
    {"end_of_output_alone", "exec >&-; exec sleep 600", failure::exited_early,
     "no line and then the end of its output while it runs on", 200ms},
    {"silence", "exec sleep 600", failure::timed_out, "nothing within 50 ms", 50ms},
    // Time starts to count when the program executes, so what it prints at once is there in time.
    {"half_a_line", "printf 400; exec sleep 600", failure::timed_out, "\"400\" within 2000 ms", 2s},
    {"endless_line", "head -c 1000 /dev/zero | tr '\\0' 7; exec sleep 600", failure::bad_port_line,
     "\"" + std::string(32, '7') + "\" and more"},
};

INSTANTIATE_TEST_SUITE_P(front_end_start, program_that_starts_wrongly, testing::ValuesIn(kFailedStarts),
                         [](const auto& test) { return test.param.name; });

class port_line_that_is_no_port : public testing::TestWithParam<const char*> {};

TEST_P(port_line_that_is_no_port, is_quoted)
{
    launch how;
    how.path = "/bin/echo";
    how.arguments = {GetParam()};
    EXPECT_EQ(error_of([&] { front_end program(how); }).came(), tarvik::in_quotes(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(front_end_start, port_line_that_is_no_port,
                         testing::Values("", "0", "65536", "-2", "+5", " 5", "5 ", "0x50", "99999999999",
                                         "port 5", "5\r"));

TEST(front_end_start, program_that_cannot_be_executed_is_reported)
{
    const auto error = error_of([] { front_end program(launch{"/nowhere/program"}); });
    EXPECT_EQ(error.cause(), failure::start_failed);
}

// Connecting

TEST(front_end_connect, refusal_tells_how_a_program_ended_that_no_longer_runs)
{
    const bound_socket silent;
    front_end ended(program_on(silent.port(), "exit 4"));
    EXPECT_EQ(error_of([&] { ended.connect(); }).came(),
              "Connection refused; the program ended with exit status 4");
    front_end running(program_on(silent.port()));
    EXPECT_EQ(error_of([&] { running.connect(); }).came(), "Connection refused");
}

TEST(front_end_connect, request_without_a_connection_is_a_programming_error)
{
    scripted_peer peer({expects_end()});
    front_end attached(peer.port());
    EXPECT_THROW(attached.query(1), std::logic_error);
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

TEST(front_end_request, has_its_code_its_value_and_its_payload)
{
    talk session({expects(from_hex("00000001 00000004 00000000 00000003 00000000 616263")), answers(kOk),
                  expects(from_hex("00000001 00000006 00000000 00000002 00000000 00ff")), answers(kOk),
                  expects(from_hex("00000001 00000006 00000000 00000000 00000000")), answers(kNg),
                  expects(from_hex("00000001 00000007 00000000 00000000 00000200")),
                  answers(ok_with(pattern(512))),
                  expects(from_hex("00000001 00000008 00000000 00000000 00000002")),
                  answers(ok_with(from_hex("00000000"))),
                  expects(from_hex("00000001 00000005 00000000 00000000 00000000"))});
    EXPECT_TRUE(session->open("abc"));
    EXPECT_TRUE(session->send(from_hex("00ff")));
    EXPECT_EQ(session->send({}).kind, reply::verdict::ng);
    EXPECT_EQ(session->recv(512).payload, pattern(512));
    EXPECT_EQ(session->query(2).payload, from_hex("00000000"));
    session->close(); // for which there is no reply
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
        talk session({expects(header(1, 6, 0, 2, 0) + from_hex("00ff")), counts_segments, answers(kOk)});
        session->send(from_hex("00ff"));
    }
    if (!is_known)
        GTEST_SKIP()
            << "the segments of a connection are not counted here (an emulator?); run it on the host";
    EXPECT_EQ(segments, 1U);
}

TEST(front_end_send, moves_a_payload_larger_than_the_kernel_buffers)
{
    const bytes much = pattern(8'000'000);
    talk session({expects(header(1, 6, 0, 8'000'000, 0)), expects(much), answers(kOk)});
    EXPECT_TRUE(session->send(much));
}

TEST(front_end_recv, returns_a_payload_of_many_pieces_whole)
{
    const bytes much = pattern(3 * kPieceSize + 1);
    talk session({expects(recv_request(3 * kPieceSize + 1)), answers(ok_with(much))});
    EXPECT_EQ(session->recv(3 * kPieceSize + 1).payload, much);
}

TEST(front_end_send, payload_that_no_size_field_can_tell_is_refused)
{
    constexpr std::uint64_t kSize = std::uint64_t{1} << 32;
    if (kSize > std::numeric_limits<std::size_t>::max())
        GTEST_SKIP() << "no payload can be that large on this machine";
    const byte_view huge(nullptr, static_cast<std::size_t>(kSize));
    EXPECT_THROW(tarvik::size_field(huge), std::length_error);
}

// Replies

TEST(front_end_reply, that_is_nak_has_its_byte_as_payload_and_one_that_is_ng_has_none)
{
    talk session({expects(recv_request(5)), answers(kNak), expects(recv_request(5)), answers(kNg)});
    EXPECT_EQ(session->recv(5).payload, from_hex("15"));
    EXPECT_EQ(session->recv(5).payload, bytes());
}

struct wrong_reply {
    const char* name;
    bytes answer; ///< to a request for 100000 bytes; the stream ends behind it
    failure cause;
    std::string expected;
    std::string came;
};

class wrong_replies : public testing::TestWithParam<wrong_reply> {};

TEST_P(wrong_replies, are_reported_with_what_was_expected_and_what_came)
{
    talk session({expects(recv_request(100'000)), answers(GetParam().answer), closes()});
    const auto error = error_of([&] { session->recv(100'000); });
    EXPECT_EQ(error.cause(), GetParam().cause);
    EXPECT_EQ(error.step(), "recv 100000 bytes");
    EXPECT_EQ(error.expected(), GetParam().expected);
    EXPECT_EQ(error.came(), GetParam().came);
}

const wrong_reply kWrongReplies[] = {
    {"another_id", header(2, 0, 0, 0, 0), failure::wrong_id, "a reply with id 1",
     "a header with id 2, code 0, error 0, size 0, value 0"},
    {"a_code", header(1, 8, 0, 0, 0), failure::unexpected_reply, "an ok, ng or nak",
     "a header with id 1, code 8, error 0, size 0, value 0"},
    {"a_value", header(1, 0, 0, 0, 1), failure::unexpected_reply, "an ok, ng or nak",
     "a header with id 1, code 0, error 0, size 0, value 1"},
    {"another_error", header(1, 0, 1, 0, 0), failure::unexpected_reply, "an ok, ng or nak",
     "a header with id 1, code 0, error 1, size 0, value 0"},
    {"another_negative_error", header(1, 0, 0xFFFFFFFE, 0, 0), failure::unexpected_reply, "an ok, ng or nak",
     "a header with id 1, code 0, error -2, size 0, value 0"},
    {"too_long_for_a_nak", header(1, 0, kFailed, 2, 0), failure::unexpected_reply, "an ok, ng or nak",
     "a header with id 1, code 0, error -1, size 2, value 0"},
    {"failure_without_the_byte_of_nak", header(1, 0, kFailed, 1, 0) + bytes{6}, failure::unexpected_reply,
     "the byte 21 as a nak's payload", "the byte 6"},
    {"fewer_bytes_than_asked_for", ok_with(pattern(4)), failure::unexpected_reply,
     "an ok with 100000 payload bytes", "a header with id 1, code 0, error 0, size 4, value 0"},
    {"end_in_the_header", cut(kOk, 10), failure::end_of_stream, "a reply's header of 20 bytes",
     "the end of the stream after 10 bytes"},
    {"end_in_the_payload", cut(ok_with(pattern(100'000)), 20 + 70'000), failure::end_of_stream,
     "a reply's payload of 100000 bytes", "the end of the stream after 70000 bytes"},
};

INSTANTIATE_TEST_SUITE_P(front_end_reply, wrong_replies, testing::ValuesIn(kWrongReplies),
                         [](const auto& test) { return test.param.name; });

TEST(front_end_reply, that_does_not_come_to_an_open_is_reported_with_the_address)
{
    talk session({expects(header(1, 4, 0, 1, 0) + from_hex("61")), closes()});
    EXPECT_EQ(error_of([&] { session->open("a"); }).step(), "open \"a\"");
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

TEST(front_end_stream, asks_for_the_rest_in_the_last_request_and_counts_all)
{
    const bytes all = pattern(25);
    talk session({expects(recv_request(10)), answers(ok_with(bytes(all.begin(), all.begin() + 10))),
                  expects(recv_request(10)), answers(ok_with(bytes(all.begin() + 10, all.begin() + 20))),
                  expects(recv_request(5)), answers(ok_with(bytes(all.begin() + 20, all.end())))});
    collected result;
    EXPECT_EQ(session->recv(25, 10, std::ref(result)).count, 25U);
    EXPECT_EQ(result.data, all);
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
    talk session(
        {expects(recv_request(100'000)), answers(cut(ok_with(pattern(100'000)), 20 + 70'000)), closes()});
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

TEST(front_end_stream, of_nothing_asks_nothing_and_in_requests_of_no_bytes_is_a_programming_error)
{
    talk session({expects_end()});
    collected result;
    EXPECT_EQ(session->recv(0, 10, std::ref(result)).count, 0U);
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

TEST(front_end_finish, of_an_attached_process_has_no_status_and_the_process_is_out_of_reach)
{
    front_end attached(40001);
    EXPECT_EQ(attached.finish(), std::nullopt);
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

TEST(text_in_quotes, shows_control_bytes_as_numbers_and_is_cut_when_it_is_long)
{
    EXPECT_EQ(tarvik::in_quotes(from_hex("41 00 7f ff")), "\"A\\x00\\x7f\\xff\"");
    EXPECT_EQ(tarvik::in_quotes(std::string(201, 'a')), "\"" + std::string(200, 'a') + "\"...");
}

TEST(reply_verdict, names_are_those_of_the_protocol)
{
    std::ostringstream names;
    names << reply::verdict::ok << " " << reply::verdict::ng << " " << reply::verdict::nak;
    EXPECT_EQ(names.str(), "ok ng nak");
}
