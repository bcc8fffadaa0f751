#include <sys/syscall.h>

#include <csignal>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "support/proc_files.h"
#include "support/wait_until.h"
#include "target/scenarios/scanner_session.h"

using virtual_scanner::command_code;

namespace {

/// Sessions that somebody ends in the middle: whatever happens, the scanner is free for the next program.
class endings : public target::scanner_session {
protected:
    static constexpr std::uint32_t kCount = 4096; // given in one piece

    void send_signal(int number) { ASSERT_TRUE(program().process().signal(number)); }

    /// A receive that the scanner is about to answer, but does not before it is released.
    void begin_held_receive()
    {
        command(command_code::read_pattern, kCount);
        answer_block(command_code::read_pattern);
        scanner().hold();
        begin_receive(kCount);
    }

    void expect_transfer_answered_and_the_end(int signal_number)
    {
        plug_in("plain");
        open(kByIds);
        begin_held_receive();
        send_signal(signal_number);
        scanner().release();
        EXPECT_EQ(end_receive(kCount), virtual_scanner::pattern(kCount));
        end_program();
    }

    /// libusb has a thread of its own, and that may take a signal which the read holds back. Either way the
    /// read goes on.
    void expect_held_back_until_a_request(int signal_number)
    {
        plug_in("plain");
        open(kByIds);
        wait_until_idle();
        send_signal(signal_number);
        command(command_code::identify);
        end_program();
    }

    void expect_end_without_a_front_end(int signal_number)
    {
        start();
        const pid_t pid = program().process().pid();
        ASSERT_TRUE(
            support::wait_until(target::kStepLimit, [&] { return support::is_waiting_in(pid, SYS_accept); }));
        send_signal(signal_number);
        log().failed_read(20, "Bad file descriptor");
        end_program();
    }

    void expect_next_program_to_work()
    {
        open(kByIds);
        EXPECT_EQ(status().commands_served, 0U) << "nothing of the killed program's may reach the scanner";
        close();
    }
};

} // namespace

TEST_F(endings, front_end_killed_in_a_transfer_lets_it_finish_and_ends_the_program)
{
    plug_in("plain");
    start();
    scanner().hold();
    tarvik::launch how;
    how.path = "/usr/bin/tvkctl";
    how.arguments = {"run", "--connect", std::to_string(program().port()), kByIds, "send \"anything\""};
    tarvik::child_process front_end(how);
    log().request(std::string(kByIds).size());
    log().open({kByIds});
    log().reply(0);
    log().request(std::string("anything").size());
    wait_until_in_a_transfer();
    front_end.signal(SIGKILL);
    EXPECT_EQ(front_end.wait_for_exit(target::kStepLimit), tarvik::exit_status::killed_by(SIGKILL));
    scanner().release();
    log().reply(0);
    log().hung_up();
    end_program();
}

TEST_F(endings, front_end_gone_in_a_receive_gets_no_data_and_the_program_ends)
{
    plug_in("plain");
    open(kByIds);
    begin_held_receive();
    program().disconnect();
    scanner().release();
    log().reply(0);
    log().failed_write(kCount, "Broken pipe");
    log().hung_up();
    end_program();
}

TEST_F(endings, program_killed_in_a_receive_leaves_the_scanner_to_the_next_one)
{
    plug_in("plain");
    open(kByIds);
    begin_receive(virtual_scanner::kBlockSize);
    send_signal(SIGKILL);
    end_program(tarvik::exit_status::killed_by(SIGKILL));
    expect_next_program_to_work();
}

TEST_F(endings, answer_that_a_killed_program_did_not_take_goes_to_the_next_one)
{
    plug_in("plain");
    open(kByIds);
    begin_held_receive();
    send_signal(SIGKILL);
    end_program(tarvik::exit_status::killed_by(SIGKILL));
    scanner().release();
    open(kByIds);
    EXPECT_EQ(receive(kCount), virtual_scanner::pattern(kCount));
    close();
}

TEST_F(endings, program_killed_in_a_send_leaves_the_scanner_to_the_next_one)
{
    plug_in("plain");
    open(kByIds);
    scanner().hold();
    begin_send(encoded(command_code::identify));
    send_signal(SIGKILL);
    end_program(tarvik::exit_status::killed_by(SIGKILL));
    scanner().release();
    expect_next_program_to_work();
}

TEST_F(endings, sigterm_in_a_transfer_ends_the_program_after_the_reply)
{
    expect_transfer_answered_and_the_end(SIGTERM);
}

TEST_F(endings, sigint_in_a_transfer_ends_the_program_after_the_reply)
{
    expect_transfer_answered_and_the_end(SIGINT);
}

TEST_F(endings, sighup_in_a_transfer_ends_the_program_after_the_reply)
{
    expect_transfer_answered_and_the_end(SIGHUP);
}

TEST_F(endings, sigterm_in_a_send_ends_the_program_after_the_reply)
{
    plug_in("plain");
    open(kByIds);
    scanner().hold();
    begin_send(encoded(command_code::identify));
    send_signal(SIGTERM);
    scanner().release();
    end_send();
    end_program();
}

TEST_F(endings, sigterm_in_a_read_is_held_back_until_the_next_request_is_served)
{
    expect_held_back_until_a_request(SIGTERM);
}

TEST_F(endings, sigint_in_a_read_is_held_back_until_the_next_request_is_served)
{
    expect_held_back_until_a_request(SIGINT);
}

TEST_F(endings, sighup_in_a_read_ends_the_program_at_once)
{
    plug_in("plain");
    open(kByIds);
    wait_until_idle();
    send_signal(SIGHUP);
    log().failed_read(20, "Interrupted system call");
    end_program();
}

TEST_F(endings, sigterm_before_the_connection_ends_the_program_at_once)
{
    expect_end_without_a_front_end(SIGTERM);
}

TEST_F(endings, sigint_before_the_connection_ends_the_program_at_once)
{
    expect_end_without_a_front_end(SIGINT);
}

TEST_F(endings, sighup_before_the_connection_ends_the_program_at_once)
{
    expect_end_without_a_front_end(SIGHUP);
}
