// SIGTERM, SIGINT and SIGHUP only ask for the end; SIGPIPE does not count.

#include <signal.h>
#include <sys/syscall.h>

#include "process/held_transfer.h"
#include "process/tvkintif/program_test.h"
#include "support/log_reader.h"
#include "support/proc_files.h"
#include "support/wait_until.h"

namespace process_test {

class signals : public program_test {
protected:
    static constexpr std::uint32_t kMoreThanSocketsHold = 32'000'000;

    std::uint64_t blocked() { return support::signals_in(pid(), "SigBlk"); }

    void wait_until_pending(int number)
    {
        ASSERT_TRUE(support::wait_until(
            kPatience,
            [&] { return (support::signals_in(pid(), "ShdPnd") & support::signal_set({number})) != 0; }))
            << "signal " << number << " is not held back";
    }

    /// Sends it again and again, each time when the one before was delivered.
    void send_three_times(int number)
    {
        for (int i = 0; i < 3; ++i) {
            send_signal(number);
            ASSERT_TRUE(support::wait_until(kPatience, [&] {
                return (support::signals_in(pid(), "ShdPnd") & support::signal_set({number})) == 0;
            }));
        }
    }

    void expect_query_answered() { expect_answer(query_request(1), ok_reply({0, 0, 0, 0})); }

    void start_idle_in_a_read()
    {
        start_connected();
        expect_query_answered();
        wait_until_in(SYS_read);
    }

    /// The program has read the header of a send and waits for its payload of three bytes.
    void wait_in_a_payload()
    {
        start_connected();
        open();
        tell(bare_header(1, 6, 3));
        wait_for_log_end(got(kHeaderSize) + reading(3));
        wait_until_in(SYS_read);
    }

    /// The program stands still in the middle of a reply's payload.
    void wait_in_a_write()
    {
        start_connected();
        open();
        tell(recv_request(kMoreThanSocketsHold));
        wait_for_log_end(put(kHeaderSize) + writing(kMoreThanSocketsHold));
        wait_until_in(SYS_write);
    }

    /// Waits until the call for the whole payload has returned with a part of it.
    void wait_until_writing_the_rest()
    {
        const std::string whole = writing(kMoreThanSocketsHold).front();
        const std::string any = whole.substr(0, whole.rfind(' '));
        ASSERT_TRUE(support::wait_until(kPatience, [&] {
            const std::string last = support::log_dialogue().back();
            return last.rfind(any, 0) == 0 && last != whole;
        })) << "the write is not cut short";
    }

    void expect_whole_reply_and_end()
    {
        expect_reply(ok_reply(device_bytes(kMoreThanSocketsHold)));
        expect_end();
    }

    lines log_with_whole_reply()
    {
        return kAnnounced + open_served() + request() + reply(kMoreThanSocketsHold) + kLeft;
    }

    /// The program is in a transfer with the device, which is to move 6 bytes.
    void wait_in_a_transfer(held_transfer& held)
    {
        with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 hold " + held.path() + "\n");
        start_connected();
        open();
        tell(recv_request(6));
        ASSERT_TRUE(held.is_reached());
    }
};

TEST_F(signals, sigterm_sigint_and_sighup_are_handled_and_sigpipe_is_ignored)
{
    start_idle_in_a_read();
    const std::uint64_t all = support::signal_set({SIGTERM, SIGINT, SIGHUP, SIGPIPE});
    EXPECT_EQ(support::signals_in(pid(), "SigCgt") & all, support::signal_set({SIGTERM, SIGINT, SIGHUP}));
    EXPECT_EQ(support::signals_in(pid(), "SigIgn") & all, support::signal_set({SIGPIPE}));
    close_and_expect_end();
}

TEST_F(signals, sigterm_and_sigint_alone_are_blocked_in_a_read)
{
    start_idle_in_a_read();
    EXPECT_EQ(blocked(), support::signal_set({SIGTERM, SIGINT}));
    close_and_expect_end();
}

TEST_F(signals, sigterm_and_sigint_alone_are_blocked_in_a_write)
{
    wait_in_a_write();
    EXPECT_EQ(blocked(), support::signal_set({SIGTERM, SIGINT}));
    expect_reply(ok_reply(device_bytes(kMoreThanSocketsHold)));
    close_and_expect_end();
}

TEST_F(signals, none_is_blocked_while_the_front_end_is_awaited)
{
    start();
    wait_until_in(SYS_accept);
    EXPECT_EQ(blocked(), 0U);
    connect();
    close_and_expect_end();
}

TEST_F(signals, none_is_blocked_in_a_transfer_with_the_device)
{
    held_transfer held;
    wait_in_a_transfer(held);
    EXPECT_EQ(blocked(), 0U);
    held.release();
    expect_reply(ok_reply(device_bytes(6)));
    close_and_expect_end();
}

TEST_F(signals, sighup_in_a_write_that_has_moved_bytes_ends_the_program_after_that_reply)
{
    wait_in_a_write();
    send_signal(SIGHUP);
    wait_until_writing_the_rest();
    expect_whole_reply_and_end();
    expect_log_with_whole_transfers(log_with_whole_reply());
}

TEST_F(signals, sighup_in_a_read_ends_it_and_the_process)
{
    start_idle_in_a_read();
    send_signal(SIGHUP);
    expect_end();
    expect_log(kAnnounced + request() + reply(4) + failed_to_read(kHeaderSize, "Interrupted system call") +
               kLeft);
}

TEST_F(signals, sighup_in_a_payload_drops_the_request_and_ends_the_process)
{
    wait_in_a_payload();
    send_signal(SIGHUP);
    expect_end();
    expect_log(kAnnounced + open_served() + got(kHeaderSize) + failed_to_read(3, "Interrupted system call") +
               kLeft);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(signals, sigterm_before_the_loop_begins_leaves_it_at_once)
{
    with_mishap("raise listen " + std::to_string(SIGTERM));
    start();
    expect_end();
    expect_log(kAnnounced + kLeft);
}

struct named_signal {
    int number;
    const char* name;
};

void PrintTo(const named_signal& each, std::ostream* out)
{
    *out << each.name;
}

class any_signal : public signals, public testing::WithParamInterface<named_signal> {};
class held_signal : public any_signal {};

const auto name_of_signal = [](const auto& test) { return std::string(test.param.name); };
INSTANTIATE_TEST_SUITE_P(, any_signal,
                         testing::Values(named_signal{SIGTERM, "sigterm"}, named_signal{SIGINT, "sigint"},
                                         named_signal{SIGHUP, "sighup"}),
                         name_of_signal);
INSTANTIATE_TEST_SUITE_P(, held_signal,
                         testing::Values(named_signal{SIGTERM, "sigterm"}, named_signal{SIGINT, "sigint"}),
                         name_of_signal);

TEST_P(held_signal, in_a_read_waits_for_the_next_request)
{
    start_idle_in_a_read();
    send_signal(GetParam().number);
    wait_until_pending(GetParam().number);
    expect_query_answered();
    expect_end();
    expect_log(kAnnounced + request() + reply(4) + request() + reply(4) + kLeft);
}

TEST_P(held_signal, in_a_read_waits_for_the_end_of_the_connection)
{
    start_idle_in_a_read();
    send_signal(GetParam().number);
    wait_until_pending(GetParam().number);
    hang_up();
    expect_end();
    expect_log(kAnnounced + request() + reply(4) + kHungUp);
}

TEST_P(held_signal, between_header_and_payload_lets_the_request_be_served)
{
    wait_in_a_payload();
    send_signal(GetParam().number);
    wait_until_pending(GetParam().number);
    expect_answer(from_hex("010203"), ok_reply());
    expect_end();
    expect_log(kAnnounced + open_served() + request(3) + reply() + kLeft);
}

TEST_P(held_signal, in_a_write_ends_the_program_after_that_reply)
{
    wait_in_a_write();
    send_signal(GetParam().number);
    wait_until_pending(GetParam().number);
    expect_whole_reply_and_end();
    expect_log(log_with_whole_reply()); // in one call: only a signal that gets through cuts it up
}

TEST_P(any_signal, while_the_front_end_is_awaited_ends_the_process)
{
    start();
    wait_until_in(SYS_accept);
    send_signal(GetParam().number);
    expect_end();
    expect_log(kAnnounced + failed_to_read(kHeaderSize, "Bad file descriptor") + kLeft);
}

TEST_P(any_signal, in_a_device_transfer_lets_the_request_be_answered)
{
    held_transfer held;
    wait_in_a_transfer(held);
    send_three_times(GetParam().number); // the second would end a program whose handler had reset itself
    held.release();
    expect_reply(ok_reply(device_bytes(6)));
    expect_end();
    expect_log(kAnnounced + open_served() + request() + reply(6) + kLeft);
    expect_usb(usb_opened() + lines{"plugin_good reader 6", "bulk_transfer scanner 0x81 6 60000 -> 0 (6)"} +
               usb_closed());
}

TEST_P(any_signal, in_a_pause_between_attempts_cuts_it_short_and_the_open_goes_on)
{
    // A pause that is not cut outlasts the test.
    with_bus("clock slow\ndevice scanner 1a2b:3c4d\n" + appears_at_attempt(2));
    planned_open what{"usb:1a2b:3c4d"};
    start_connected();
    tell(open_request(what.udi));
    wait_for_log_end(tried(what, attempt::finds_no_device));
    wait_until_in(SYS_clock_nanosleep);
    send_signal(GetParam().number);
    expect_reply(ok_reply());
    expect_end();
    what.attempts = {attempt::finds_no_device, attempt::reaches_it};
    expect_log(kAnnounced + open_served(what) + kLeft);
}

TEST_P(any_signal, that_the_parent_ignores_stays_ignored)
{
    with_ignored(GetParam().number);
    start_idle_in_a_read();
    EXPECT_EQ(support::signals_in(pid(), "SigIgn") & support::signal_set({SIGTERM, SIGINT, SIGHUP}),
              support::signal_set({GetParam().number}));
    send_signal(GetParam().number);
    expect_query_answered();
    expect_query_answered(); // one more than a signal that counts would let pass
    close_and_expect_end();
}

} // namespace process_test
