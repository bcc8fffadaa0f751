#include <csignal>
#include <string>

#include "common/process/child_process.h"
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
    log() += expected::request(std::string(kByIds).size());
    log() += expected::open_handled({kByIds});
    log() += expected::reply();
    log() += expected::request(std::string("anything").size());
    wait_until_in_a_transfer();
    front_end.signal(SIGKILL);
    EXPECT_EQ(front_end.wait_for_exit(target::kStepLimit), tarvik::exit_status::killed_by(SIGKILL));
    scanner().release();
    log() += expected::reply();
    log() += expected::kStreamEnded;
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
    plug_in("plain");
    open(kByIds);
    begin_held_receive();
    send_signal(SIGTERM);
    scanner().release();
    EXPECT_EQ(end_receive(kCount), virtual_scanner::pattern(kCount));
    end_program();
}

TEST_F(endings, sigterm_in_a_read_is_held_back_until_the_next_request_is_served)
{
    plug_in("plain");
    open(kByIds);
    wait_until_idle();
    // libusb has a thread of its own, which may take a signal that the read holds back. Either way the read
    // goes on.
    send_signal(SIGTERM);
    command(command_code::identify);
    end_program();
}

TEST_F(endings, sighup_in_a_read_ends_the_program_at_once)
{
    plug_in("plain");
    open(kByIds);
    wait_until_idle();
    send_signal(SIGHUP);
    log() += expected::failed_to_read(expected::kHeaderSize, "Interrupted system call");
    end_program();
}
