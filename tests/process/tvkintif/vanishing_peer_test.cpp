// Front-ends that go away at the wrong moment. None of them may keep the process or the device.

#include <sys/syscall.h>

#include <algorithm>

#include "process/held_transfer.h"
#include "process/tvkintif/program_test.h"
#include "support/log_reader.h"
#include "support/proc_files.h"
#include "support/wait_until.h"

namespace process_test {

class vanishing_peer : public program_test {
protected:
    /// Waits until the program's end of the connection knows of the reset.
    void wait_until_reset()
    {
        ASSERT_TRUE(support::wait_until(kPatience, [this] { return support::sockets_on(port()).empty(); }))
            << "the connection is still there";
    }

    /// Ends the connection the hard way.
    void reset()
    {
        wire().end_with_reset();
        hang_up();
    }

    /// Brings the program to the point where a reply of `size` bytes is due as soon as `held` is released.
    void wait_in_recv(held_transfer& held, std::uint32_t size)
    {
        with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 hold " + held.path() + "\n");
        start_connected();
        open();
        tell(recv_request(size));
        ASSERT_TRUE(held.is_reached());
    }
};

namespace {

const std::string kWasReset = "Connection reset by peer";
const std::string kPipeBroken = "Broken pipe";

lines ended_after(std::size_t moved, std::size_t size)
{
    return got_part(0, moved, size) + info({"do_cleanup 1"}) + kLeft;
}

} // namespace

TEST_F(vanishing_peer, half_a_header_has_no_reply_and_ends_the_process)
{
    start_connected();
    tell(from_hex("00000001 00000008 0000"));
    wire().half_close();
    expect_end();
    expect_log(kAnnounced + got_part(10, 0, kHeaderSize) + ended_after(10, kHeaderSize));
}

TEST_F(vanishing_peer, half_a_payload_has_no_reply_and_reaches_no_plugin)
{
    start_connected();
    open();
    tell(bare_header(1, 6, 8) + from_hex("010203"));
    wire().half_close();
    expect_end();
    expect_log(kAnnounced + open_served() + got(kHeaderSize) + got_part(3, 0, 8) + ended_after(3, 8));
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(vanishing_peer, half_closed_connection_still_gets_its_last_reply)
{
    start_connected();
    tell(query_request(2));
    wire().half_close();
    expect_reply(ok_reply({0, 0, 0, 0}));
    expect_end();
    expect_log(kAnnounced + request() + reply(4) + kHungUp);
}

TEST_F(vanishing_peer, reset_between_requests_is_a_failed_read_and_then_the_end_of_the_stream)
{
    start_connected();
    open();
    wait_until_in(SYS_read);
    reset();
    expect_end();
    expect_log(kAnnounced + open_served() + failed_to_read(kHeaderSize, kWasReset) + kHungUp);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(vanishing_peer, reset_in_a_payload_is_a_failed_read_and_then_the_end_of_the_stream)
{
    start_connected();
    open();
    tell(bare_header(1, 6, 8));
    wait_for_log_end(got(kHeaderSize) + reading(8));
    wait_until_in(SYS_read);
    reset();
    expect_end();
    expect_log(kAnnounced + open_served() + got(kHeaderSize) + failed_to_read(8, kWasReset) + kHungUp);
}

TEST_F(vanishing_peer, close_request_right_before_the_end_is_carried_out)
{
    start_connected();
    open();
    close();
    hang_up();
    expect_end();
    expect_log(kAnnounced + open_served() + kToldToClose);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(vanishing_peer, reply_to_nobody_is_a_failed_write_without_its_payload)
{
    held_transfer held;
    wait_in_recv(held, 64);
    reset();
    wait_until_reset();
    held.release();
    expect_end();
    expect_log(kAnnounced + open_served() + request() + failed_to_write(kHeaderSize, kWasReset) + kHungUp);
    expect_usb_about("plugin_good", {"plugin_good loaded", "plugin_good ctor", "plugin_good reader 64",
                                     "plugin_good dtor", "plugin_good unloaded"});
}

TEST_F(vanishing_peer, broken_pipe_raises_no_signal_that_ends_the_process)
{
    held_transfer held;
    wait_in_recv(held, 64);
    wire().half_close(); // a peer that had ended its stream before is what makes it a broken pipe
    reset();
    wait_until_reset();
    held.release();
    expect_end();
    expect_log(kAnnounced + open_served() + request() + failed_to_write(kHeaderSize, kPipeBroken) + kHungUp);
}

TEST_F(vanishing_peer, reset_in_the_middle_of_a_large_reply_fails_the_write)
{
    constexpr std::uint32_t kMoreThanSocketsHold = 32'000'000;
    start_connected();
    open();
    tell(recv_request(kMoreThanSocketsHold));
    wait_until_in(SYS_write);
    reset();
    expect_end();
    const std::vector<std::string> log = support::log_dialogue();
    const auto is_in_log = [&](const std::string& line) { return std::count(log.begin(), log.end(), line); };
    EXPECT_EQ(is_in_log("INFO write failed: " + kWasReset), 1);
    EXPECT_EQ(is_in_log("INFO ipc connection wrte  bail rv = -1"), 1);
    EXPECT_EQ(is_in_log("INFO End Run"), 1);
    expect_usb_about("close scanner", {"close scanner"});
}

} // namespace process_test
