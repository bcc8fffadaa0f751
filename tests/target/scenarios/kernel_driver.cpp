// A kernel driver on the scanner's interface gives way to the program, and comes back.
#include <csignal>
#include <string>

#include "target/scenarios/host_device.h"
#include "target/scenarios/scanner_session.h"

using expected::attempt;
using expected::planned_open;
using target::host_device;

namespace {

class kernel_driver : public target::scanner_session {
protected:
    static constexpr const char* kAddress = "usb:1a2b:5e1a";
    static constexpr const char* kDriver = "usbserial_generic";
    static constexpr const char* kProgramsDriver = "usbfs";
    static constexpr const char* kRival = "/usr/lib/target-tests/rival.so";

    static host_device device() { return {"idProduct", "5e1a"}; }
};

} // namespace

TEST_F(kernel_driver, is_detached_for_the_session_and_bound_again_by_its_close)
{
    plug_in("serial_port");
    ASSERT_EQ(device().driver(0), kDriver);
    open(kAddress);
    EXPECT_EQ(device().driver(0), kProgramsDriver);
    close();
    EXPECT_EQ(device().driver(0), kDriver);
}

TEST_F(kernel_driver, is_bound_again_after_a_failed_claim)
{
    preload(kRival);
    plug_in("serial_port");
    ASSERT_EQ(device().driver(0), kDriver);
    begin_to_open(kAddress);
    wait_for_failed_attempts(1);
    EXPECT_EQ(device().driver(0), kDriver);
    planned_open what{kAddress};
    what.attempts = {attempt::finds_no_interface, attempt::reaches_it};
    end_opening(what);
    EXPECT_EQ(device().driver(0), kProgramsDriver);
    close();
    EXPECT_EQ(device().driver(0), kDriver);
}

TEST_F(kernel_driver, is_bound_again_after_a_setting_without_both_endpoints)
{
    plug_in("serial_ports");
    ASSERT_EQ(device().driver(0), kDriver);
    ASSERT_EQ(device().driver(1), kDriver);
    open(kAddress);
    EXPECT_EQ(device().driver(0), kDriver);
    EXPECT_EQ(device().driver(1), kProgramsDriver);
    close();
    EXPECT_EQ(device().driver(0), kDriver);
    EXPECT_EQ(device().driver(1), kDriver);
}

TEST_F(kernel_driver, keeps_the_configuration_that_it_works_in)
{
    plug_in("busy_configuration");
    device().configure(2);
    ASSERT_EQ(device().driver(0), kDriver);
    begin_to_open(kAddress);
    wait_for_failed_attempts(1);
    EXPECT_EQ(device().attribute("bConfigurationValue"), "2");
    EXPECT_EQ(device().driver(0), kDriver);
    device().configure(1);
    planned_open what{kAddress};
    what.attempts = {attempt::finds_no_interface, attempt::reaches_it};
    end_opening(what);
    close();
}

TEST_F(kernel_driver, stays_away_after_the_program_is_killed_until_the_device_is_plugged_in_again)
{
    plug_in("serial_port");
    open(kAddress);
    wait_until_idle();
    log() += expected::reading(expected::kHeaderSize);
    ASSERT_TRUE(program().process().signal(SIGKILL));
    end_program(tarvik::exit_status::killed_by(SIGKILL));
    EXPECT_EQ(device().driver(0), "");
    open(kAddress);
    close();
    EXPECT_EQ(device().driver(0), "");
    scanner().unplug("serial_port");
    scanner().plug("serial_port");
    EXPECT_EQ(device().driver(0), kDriver);
}
