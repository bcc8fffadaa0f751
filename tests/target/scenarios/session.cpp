#include "target/scenarios/scanner_session.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;
using virtual_scanner::fault_kind;
using virtual_scanner::text_at;

namespace {

class session : public target::scanner_session {};

} // namespace

TEST_F(session, passes_a_command_to_the_scanner_and_its_answer_back)
{
    plug_in("plain");
    open(kByIds);
    command(command_code::identify);
    const bytes identity = answer_to(command_code::identify);
    ASSERT_EQ(identity.size(), 64U);
    EXPECT_EQ(text_at(identity, 0, 32), "Virtual scanner");
    EXPECT_EQ(text_at(identity, 48, 16), kSerial);
    close();
}

TEST_F(session, refuses_a_receive_that_stalls_and_serves_the_next_one)
{
    plug_in("plain");
    open(kByIds);
    arm(fault_kind::stall_in);
    command(command_code::identify);
    receive_from_a_stall(virtual_scanner::kBlockSize);
    EXPECT_EQ(answer_to(command_code::identify).size(), 64U);
    EXPECT_EQ(status().stalls_done, 1U);
    close();
}

TEST_F(session, refuses_a_send_that_stalls_and_serves_the_next_one)
{
    plug_in("plain");
    open(kByIds);
    arm(fault_kind::stall_out);
    send_into_a_stall(encoded(command_code::status));
    EXPECT_EQ(status().commands_served, 1U) << "the refused command must not have reached the scanner";
    EXPECT_EQ(status().stalls_done, 1U);
    close();
}

TEST_F(session, opens_sends_receives_recovers_from_a_stall_and_closes)
{
    plug_in("plain");
    open(kBySerial, kSerial);
    expect_pattern(target::kMebibyte);
    arm(fault_kind::stall_in);
    command(command_code::identify);
    receive_from_a_stall(virtual_scanner::kBlockSize);
    EXPECT_EQ(answer_to(command_code::identify).size(), 64U);
    expect_pattern(target::kMebibyte);
    close();
}
