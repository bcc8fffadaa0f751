// The device goes away under an open session.
#include "target/scenarios/scanner_session.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;
using virtual_scanner::fault_kind;

namespace {

class unplug : public target::scanner_session {
protected:
    /// The device comes back, and a new program works with it.
    void expect_the_next_session_to_work()
    {
        scanner().plug("plain");
        open(kByIds);
        EXPECT_EQ(identified_serial(), kSerial);
        close();
    }
};

} // namespace

TEST_F(unplug, of_an_idle_scanner_fails_what_comes_after_and_the_session_closes)
{
    plug_in("plain");
    open(kByIds);
    EXPECT_EQ(identified_serial(), kSerial);
    scanner().unplug("plain");
    send_to_nobody(encoded(command_code::identify));
    receive_from_nobody(virtual_scanner::kBlockSize);
    close();
    expect_the_next_session_to_work();
}

TEST_F(unplug, and_back_does_not_revive_the_session)
{
    plug_in("plain");
    open(kByIds);
    scanner().unplug("plain");
    scanner().plug("plain");
    send_to_nobody(encoded(command_code::identify));
    close();
}

TEST_F(unplug, in_a_read_fails_it_and_the_session_closes)
{
    constexpr std::uint32_t kGiven = 300 * 1024;
    plug_in("plain");
    open(kByIds);
    arm(fault_kind::unplug_in_read, kGiven);
    command(command_code::read_pattern, target::kMebibyte);
    receive(virtual_scanner::kBlockSize);
    receive_from_one_that_leaves(target::kMebibyte, kGiven);
    close();
    expect_the_next_session_to_work();
}

TEST_F(unplug, in_a_write_fails_it_and_the_session_closes)
{
    constexpr std::size_t kSent = std::size_t{40} * 1024;
    constexpr std::uint32_t kTaken = 20 * 1024;
    plug_in("plain");
    open(kByIds);
    arm(fault_kind::unplug_in_write, kTaken);
    send_to_one_that_leaves(encoded(command_code::echo, 0, bytes(kSent)), kTaken);
    close();
    expect_the_next_session_to_work();
}
