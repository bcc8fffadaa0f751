// Which interface of a device is used, and which of its endpoints.
#include <optional>
#include <string>

#include "target/rival/interface_claim.h"
#include "target/scenarios/host_device.h"
#include "target/scenarios/scanner_session.h"

using expected::attempt;
using expected::planned_open;
using target::host_device;
using target::interface_claim;
using virtual_scanner::command_code;

namespace {

class interfaces : public target::scanner_session {
protected:
    static constexpr const char* kProgramsDriver = "usbfs";

    /// The scanner answers only on the interface and the endpoints that are the right ones.
    void expect_an_answer()
    {
        command(command_code::identify);
        EXPECT_EQ(answer_to(command_code::identify).size(), 64U);
    }

    /// Of a device with two interfaces the second is the scanner's.
    void expect_second_interface(const std::string& device_file)
    {
        plug_in(device_file);
        open(kByIds);
        const host_device device("idProduct", "3c4d");
        EXPECT_EQ(device.driver(0), "");
        EXPECT_EQ(device.driver(1), kProgramsDriver);
        expect_an_answer();
        close();
    }
};

} // namespace

TEST_F(interfaces, one_of_another_class_is_passed_over)
{
    expect_second_interface("wrong_class");
}

TEST_F(interfaces, one_with_another_protocol_is_passed_over)
{
    expect_second_interface("wrong_protocol");
}

TEST_F(interfaces, one_with_a_single_bulk_endpoint_is_passed_over)
{
    expect_second_interface("half_interface");
}

TEST_F(interfaces, last_bulk_endpoint_of_each_direction_is_used)
{
    plug_in("many_endpoints");
    open(kByIds);
    expect_an_answer();
    close();
}

TEST_F(interfaces, one_that_another_process_has_cannot_be_claimed_until_that_lets_go)
{
    plug_in("plain");
    std::optional<interface_claim> another(std::in_place, host_device("idProduct", "3c4d").node(), 0);
    begin_to_open(kByIds);
    wait_for_failed_attempts(1);
    another.reset();
    planned_open what{kByIds};
    what.attempts = {attempt::finds_no_interface, attempt::reaches_it};
    end_opening(what);
    expect_an_answer();
    close();
}

TEST_F(interfaces, configuration_1_is_made_active_when_another_one_is)
{
    plug_in("two_configurations");
    const host_device device("idProduct", "3c4d");
    device.configure(2);
    open(kByIds);
    EXPECT_EQ(device.attribute("bConfigurationValue"), "1");
    EXPECT_EQ(device.driver(0), kProgramsDriver);
    expect_an_answer();
    close();
}
