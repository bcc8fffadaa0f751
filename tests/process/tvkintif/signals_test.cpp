// SIGTERM, SIGINT and SIGHUP only ask for the end; SIGPIPE does not count.

#include <signal.h>
#include <sys/syscall.h>

#include "process/held_transfer.h"
#include "process/tvkintif/program_test.h"
#include "support/log_reader.h"
#include "support/proc_files.h"
#include "support/wait_until.h"

namespace process_test {

namespace {

const std::string write_call = "INFO ipc connection wrute get called = ";

} // namespace

class signals : public program_test {
protected:
    static constexpr std::uint32_t kMoreThanSocketsHold = 32'000'000;

    void wait_until_pending(int number)
    {
        ASSERT_TRUE(support::wait_until(
            kPatience,
            [&] { return (support::signals_in(pid(), "ShdPnd") & support::signal_set({number})) != 0; }))
            << "signal " << number << " is not held back";
    }

    void start_idle_in_a_read()
    {
        start_connected();
        tell(query_request(1));
        expect_reply(ok_reply({0, 0, 0, 0}));
        wait_until_in(SYS_read);
    }

    /// The signal comes in a read and is held back until the next request has been read.
    void expect_held_back_until_a_request(int number)
    {
        start_idle_in_a_read();
        send_signal(number);
        wait_until_pending(number);
        tell(query_request(2));
        expect_reply(ok_reply({0, 0, 0, 0}));
        expect_end();
        expect_log(announced + request() + reply(4) + request() + reply(4) + left);
    }

    void expect_held_back_until_the_connection_ends(int number)
    {
        start_idle_in_a_read();
        send_signal(number);
        wait_until_pending(number);
        hang_up();
        expect_end();
        expect_log(announced + request() + reply(4) + hung_up);
    }

    void expect_accept_given_up(int number)
    {
        start();
        wait_until_in(SYS_accept);
        send_signal(number);
        expect_end();
        expect_log(announced + failed_to_read(20, "Bad file descriptor") + left);
    }

    /// The program stands still in the middle of a reply's payload.
    void wait_in_a_write()
    {
        start_connected();
        open();
        tell(recv_request(kMoreThanSocketsHold));
        wait_for_log_end(put(20) + lines{write_call + std::to_string(kMoreThanSocketsHold)});
        wait_until_in(SYS_write);
    }

    /// Waits until the call for the whole payload has returned with a part of it.
    void wait_until_writing_the_rest()
    {
        ASSERT_TRUE(support::wait_until(kPatience, [&] {
            const std::string last = support::log_dialogue().back();
            return last.rfind(write_call, 0) == 0 &&
                   last != write_call + std::to_string(kMoreThanSocketsHold);
        })) << "the write is not cut short";
    }

    void expect_whole_reply_and_end()
    {
        expect_reply(ok_reply(device_bytes(kMoreThanSocketsHold)));
        expect_end();
    }

    lines log_with_whole_reply()
    {
        return announced + open_served() + request() + reply(kMoreThanSocketsHold) + left;
    }

    void expect_held_back_until_the_reply_is_written(int number)
    {
        wait_in_a_write();
        send_signal(number);
        wait_until_pending(number);
        expect_whole_reply_and_end();
        expect_log(log_with_whole_reply()); // in one call: only a signal that gets through cuts it up
    }

    /// The signal comes between the first attempt to open the device and the second, which succeeds.
    void expect_pause_cut_short(int number)
    {
        // A pause that is not cut outlasts the test.
        with_bus("clock slow\ndevice scanner 1a2b:3c4d\n" + appears_at_attempt(2));
        start_connected();
        tell(open_request());
        wait_for_log_end(not_opened());
        wait_until_in(SYS_clock_nanosleep);
        send_signal(number);
        expect_reply(ok_reply());
        expect_end();
        expect_log(announced + request(13) + lines{"INFO open usb:1a2b:3c4d"} +
                   plugin_loaded("usb:1a2b:3c4d") + lines{"INFO usb_transceiver start"} + not_opened() +
                   opened_by_ids() + lines{"INFO send ok"} + reply() + left);
    }

    /// The signal comes while the program is busy with the device.
    void expect_request_in_hand_finished(int number)
    {
        held_transfer held;
        with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 hold " + held.path() + "\n");
        start_connected();
        open();
        tell(recv_request(6));
        ASSERT_TRUE(held.is_reached());
        send_signal(number);
        held.release();
        expect_reply(ok_reply(device_bytes(6)));
        expect_end();
        expect_log(announced + open_served() + request() + reply(6) + left);
        expect_usb(usb_opened() +
                   lines{"plugin_good reader 6", "bulk_transfer scanner 0x81 6 60000 -> 0 (6)"} +
                   usb_closed());
    }

    void expect_stays_ignored(int number)
    {
        with_ignored(number);
        start_idle_in_a_read();
        EXPECT_EQ(support::signals_in(pid(), "SigIgn") & support::signal_set({SIGTERM, SIGINT, SIGHUP}),
                  support::signal_set({number}));
        send_signal(number);
        tell(query_request(1));
        expect_reply(ok_reply({0, 0, 0, 0}));
        tell(query_request(1)); // one more than a signal that counts would let pass
        expect_reply(ok_reply({0, 0, 0, 0}));
        close();
        expect_end();
    }
};

TEST_F(signals, sigterm_sigint_and_sighup_are_handled_and_sigpipe_is_ignored)
{
    start_idle_in_a_read();
    const std::uint64_t all = support::signal_set({SIGTERM, SIGINT, SIGHUP, SIGPIPE});
    EXPECT_EQ(support::signals_in(pid(), "SigCgt") & all, support::signal_set({SIGTERM, SIGINT, SIGHUP}));
    EXPECT_EQ(support::signals_in(pid(), "SigIgn") & all, support::signal_set({SIGPIPE}));
    close();
    expect_end();
}

TEST_F(signals, sigterm_and_sigint_alone_are_blocked_in_a_read)
{
    start_idle_in_a_read();
    EXPECT_EQ(support::signals_in(pid(), "SigBlk"), support::signal_set({SIGTERM, SIGINT}));
    close();
    expect_end();
}

TEST_F(signals, sigterm_and_sigint_alone_are_blocked_in_a_write)
{
    wait_in_a_write();
    EXPECT_EQ(support::signals_in(pid(), "SigBlk"), support::signal_set({SIGTERM, SIGINT}));
    expect_reply(ok_reply(device_bytes(kMoreThanSocketsHold)));
    close();
    expect_end();
}

TEST_F(signals, none_is_blocked_while_the_front_end_is_awaited)
{
    start();
    wait_until_in(SYS_accept);
    EXPECT_EQ(support::signals_in(pid(), "SigBlk"), 0U);
    connect();
    close();
    expect_end();
}

TEST_F(signals, none_is_blocked_in_a_transfer_with_the_device)
{
    held_transfer held;
    with_bus("device scanner 1a2b:3c4d\ntransfer scanner 02 hold " + held.path() + "\n");
    start_connected();
    open();
    tell(send_request({1}));
    ASSERT_TRUE(held.is_reached());
    EXPECT_EQ(support::signals_in(pid(), "SigBlk"), 0U);
    held.release();
    expect_reply(ok_reply());
    close();
    expect_end();
}

TEST_F(signals, sigterm_in_a_read_waits_for_the_next_request)
{
    expect_held_back_until_a_request(SIGTERM);
}

TEST_F(signals, sigint_in_a_read_waits_for_the_next_request)
{
    expect_held_back_until_a_request(SIGINT);
}

TEST_F(signals, sigterm_in_a_read_waits_for_the_end_of_the_connection)
{
    expect_held_back_until_the_connection_ends(SIGTERM);
}

TEST_F(signals, sigint_in_a_read_waits_for_the_end_of_the_connection)
{
    expect_held_back_until_the_connection_ends(SIGINT);
}

TEST_F(signals, sigterm_between_header_and_payload_lets_the_request_be_served)
{
    start_connected();
    open();
    tell(bare_header(1, 6, 3));
    wait_for_log_end(got(20) + lines{"INFO ipc connection read get called = 3"});
    wait_until_in(SYS_read);
    send_signal(SIGTERM);
    wait_until_pending(SIGTERM);
    tell(from_hex("010203"));
    expect_reply(ok_reply());
    expect_end();
    expect_log(announced + open_served() + request(3) + reply() + left);
}

TEST_F(signals, sigterm_in_a_write_ends_the_program_after_that_reply)
{
    expect_held_back_until_the_reply_is_written(SIGTERM);
}

TEST_F(signals, sigint_in_a_write_ends_the_program_after_that_reply)
{
    expect_held_back_until_the_reply_is_written(SIGINT);
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
    expect_log(announced + request() + reply(4) + failed_to_read(20, "Interrupted system call") + left);
}

TEST_F(signals, sighup_in_a_payload_drops_the_request_and_ends_the_process)
{
    start_connected();
    open();
    tell(bare_header(1, 6, 3));
    wait_for_log_end(got(20) + lines{"INFO ipc connection read get called = 3"});
    wait_until_in(SYS_read);
    send_signal(SIGHUP);
    expect_end();
    expect_log(announced + open_served() + got(20) + failed_to_read(3, "Interrupted system call") + left);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(signals, sigterm_while_the_front_end_is_awaited_ends_the_process)
{
    expect_accept_given_up(SIGTERM);
}

TEST_F(signals, sigint_while_the_front_end_is_awaited_ends_the_process)
{
    expect_accept_given_up(SIGINT);
}

TEST_F(signals, sighup_while_the_front_end_is_awaited_ends_the_process)
{
    expect_accept_given_up(SIGHUP);
}

TEST_F(signals, sigterm_before_the_loop_begins_leaves_it_at_once)
{
    with_mishap("raise listen " + std::to_string(SIGTERM));
    start();
    expect_end();
    expect_log(announced + left);
}

TEST_F(signals, sigterm_in_a_device_transfer_lets_the_request_be_answered)
{
    expect_request_in_hand_finished(SIGTERM);
}

TEST_F(signals, sigint_in_a_device_transfer_lets_the_request_be_answered)
{
    expect_request_in_hand_finished(SIGINT);
}

TEST_F(signals, sighup_in_a_device_transfer_lets_the_request_be_answered)
{
    expect_request_in_hand_finished(SIGHUP);
}

TEST_F(signals, sigterm_in_a_pause_between_attempts_cuts_it_short_and_the_open_goes_on)
{
    expect_pause_cut_short(SIGTERM);
}

TEST_F(signals, sigint_in_a_pause_between_attempts_cuts_it_short_and_the_open_goes_on)
{
    expect_pause_cut_short(SIGINT);
}

TEST_F(signals, sighup_in_a_pause_between_attempts_cuts_it_short_and_the_open_goes_on)
{
    expect_pause_cut_short(SIGHUP);
}

TEST_F(signals, sigterm_that_the_parent_ignores_stays_ignored)
{
    expect_stays_ignored(SIGTERM);
}

TEST_F(signals, sigint_that_the_parent_ignores_stays_ignored)
{
    expect_stays_ignored(SIGINT);
}

TEST_F(signals, sighup_that_the_parent_ignores_stays_ignored)
{
    expect_stays_ignored(SIGHUP);
}

} // namespace process_test
