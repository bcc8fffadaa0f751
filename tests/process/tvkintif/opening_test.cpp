// From the address to a started plugin on an open device, and each way in which that fails.

#include <csignal>

#include "process/tvkintif/program_test.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"

namespace process_test {

namespace {

const lines pause = {"sleep " + std::to_string(scanner::kPauseSeconds)};

} // namespace

class opening : public program_test {
protected:
    /// An open that is refused, with everything that log and bus have to say about it.
    void expect_refused(const std::string& udi, const lines& log, const lines& bus)
    {
        start_connected();
        expect_answer(open_request(udi), ng_reply());
        expect_end();
        expect_log(announced + open_refused(udi, log));
        expect_usb(bus);
    }

    /// A session with a device that is reached in the end.
    void expect_served(const std::string& udi)
    {
        start_connected();
        open(udi);
        close_and_expect_end();
    }

    /// The same, with its whole log.
    void expect_served(const planned_open& what)
    {
        expect_served(what.udi);
        expect_log(announced + open_served(what) + told_to_close);
    }

    /// A device that is never reached, of which each attempt leaves `usb` in the dialogue.
    void expect_given_up(attempt each, const lines& usb)
    {
        const planned_open what = vain_opening("usb:1a2b:3c4d", each);
        start_connected();
        expect_answer(open_request(what.udi), ng_reply());
        expect_end();
        expect_log(announced + open_served(what) + left);
        expect_usb(lines{"plugin_good loaded", "init -> 0", "set_debug 3"} +
                   lines(support::repeated(scanner::kConnectionAttempts, usb.all(), pause.all())) +
                   lines{"exit", "plugin_good unloaded", "end of process"});
    }
};

namespace {

const std::string two_alike = "device left 1a2b:3c4d serial SN1\ndevice right 1a2b:3c4d serial SN2\n";

} // namespace

TEST_F(opening, device_is_found_by_its_serial_number)
{
    with_bus(two_alike);
    expect_served(planned_open{"usb:1a2b:3c4d:SN2", "SN2"});
    expect_usb({"plugin_good loaded",
                "init -> 0",
                "set_debug 3",
                "get_device_list -> 2",
                "get_device_descriptor left -> 0",
                "open left -> 0",
                "get_string_descriptor_ascii left 3 -> 3",
                "close left",
                "get_device_descriptor right -> 0",
                "open right -> 0",
                "get_string_descriptor_ascii right 3 -> 3",
                "close right",
                "open right -> 0",
                "free_device_list unref",
                "get_device right -> right",
                "get_device_descriptor right -> 0",
                "get_configuration right -> 0 (1)",
                "get_config_descriptor right 0 -> 0",
                "kernel_driver_active right 0 -> 0",
                "claim_interface right 0 -> 0",
                "free_config_descriptor right 0",
                "plugin_good ctor",
                "plugin_good dtor",
                "plugin_good unloaded",
                "release_interface right 0 -> 0",
                "close right",
                "exit",
                "end of process"});
}

TEST_F(opening, unknown_serial_number_falls_back_to_the_first_device_of_these_ids)
{
    with_bus(two_alike);
    expect_served(planned_open{"usb:1a2b:3c4d:SN3", "SN3", serial_search::misses_it});
}

TEST_F(opening, bus_and_device_number_are_taken_for_a_serial_number)
{
    expect_served(planned_open{"usb:1a2b:3c4d:002:005", "002", serial_search::misses_it});
}

TEST_F(opening, address_with_its_terminator_in_the_payload_is_served)
{
    const planned_open what{"usb:1a2b:3c4d"};
    start_connected();
    expect_answer(frame(0, 4, 0, text_bytes(what.udi) + bytes{0}), ok_reply());
    close_and_expect_end();
    expect_log(announced + request(what.udi.size() + 1) + open_handled(what) + reply() + told_to_close);
}

TEST_F(opening, address_with_hexadecimal_prefixes_is_served)
{
    expect_served("usb:0x1a2b:0X3C4D");
    expect_usb(usb_opened() + usb_closed());
}

struct named_text {
    const char* name;
    std::string text;
};

void PrintTo(const named_text& each, std::ostream* out)
{
    *out << each.name;
}

const auto name_of_text = [](const auto& test) { return test.param.name; };

class invalid_address : public opening, public testing::WithParamInterface<named_text> {};

TEST_P(invalid_address, is_refused_and_logged_as_it_is)
{
    const std::string& udi = GetParam().text;
    expect_refused(
        udi, info({"open " + udi, "open " + udi, "machine: invalid UDI '" + udi + "'", "get pid fails"}), {});
}

INSTANTIATE_TEST_SUITE_P(, invalid_address,
                         testing::Values(named_text{"with_another_prefix", "net:1a2b:3c4d"},
                                         named_text{"in_capitals", "USB:1a2b:3c4d"},
                                         named_text{"without_a_vendor", "usb::3c4d"},
                                         named_text{"with_product_0", "usb:1a2b:0"},
                                         named_text{"with_five_digits", "usb:1a2b:13c4d"},
                                         named_text{"with_other_letters", "usb:1a2b:3c4g"},
                                         named_text{"of_percent_signs", "%s%n%d usb:%x"}),
                         name_of_text);

// Plugins.

TEST_F(opening, product_with_a_plugin_of_its_own_is_served_by_that)
{
    with_no_plugin(); // so that no other can be loaded
    with_plugin("plugin_good", plugin_name(0x0A71));
    with_bus("device scanner 1a2b:0a71\n");
    planned_open what{"usb:1a2b:0a71"};
    what.plugin = plugin_name(0x0A71);
    expect_served(what);
}

class entry_point : public opening, public testing::WithParamInterface<std::string> {};
INSTANTIATE_TEST_SUITE_P(, entry_point, testing::Values("ctor", "dtor", "reader", "writer"),
                         [](const auto& test) { return test.param; });

TEST_P(entry_point, that_a_plugin_lacks_refuses_the_open)
{
    const std::string plugin = "plugin_without_" + GetParam();
    with_plugin(plugin);
    expect_refused("usb:1a2b:3c4d",
                   plugin_loaded("usb:1a2b:3c4d") + info({"interpreter function load errors",
                                                          "interpreter : invalid symboles.", "open fails"}),
                   {plugin + " loaded", plugin + " unloaded", "end of process"});
}

TEST_P(entry_point, that_crashes_takes_the_process_with_it_and_the_next_one_works)
{
    with_plugin("plugin_crashing_in_" + GetParam());
    start_connected();
    tell(open_request());
    if (GetParam() != "ctor") {
        expect_reply(ok_reply());
        tell(GetParam() == "reader"   ? recv_request(1)
             : GetParam() == "writer" ? send_request({1})
                                      : close_request());
    }
    EXPECT_EQ(program().wait_for_exit(kPatience), tarvik::exit_status::killed_by(SIGABRT));
    EXPECT_EQ(to_hex(wire().read_to_end()), "") << "a reply";
    with_plugin("plugin_good");
    expect_served("usb:1a2b:3c4d");
}

TEST_F(opening, plugin_that_is_missing_refuses_the_open_before_usb_is_touched)
{
    with_no_plugin();
    expect_refused("usb:1a2b:3c4d",
                   plugin_loaded("usb:1a2b:3c4d") +
                       info({"interpreter load fails " + lib_path(kDefaultPlugin) +
                                 ": cannot open shared object file: No such file or directory",
                             "interpreter : load failed.", "open fails"}),
                   {});
}

TEST_F(opening, plugin_that_refuses_to_start_leaves_the_device_closed_and_is_not_stopped)
{
    with_plugin("plugin_refusing");
    expect_refused(
        "usb:1a2b:3c4d",
        plugin_loaded("usb:1a2b:3c4d") + device_tried({"usb:1a2b:3c4d"}) + info({"usb ctor failer."}),
        usb_opened("plugin_refusing") + lines{"release_interface scanner 0 -> 0", "close scanner", "exit",
                                              "plugin_refusing unloaded", "end of process"});
}

TEST_F(opening, plugin_with_a_function_that_exists_nowhere_is_loaded_as_long_as_it_is_not_called)
{
    with_plugin("plugin_calling_nobody");
    expect_served("usb:1a2b:3c4d");
    expect_usb(usb_opened("plugin_calling_nobody") + usb_closed("plugin_calling_nobody"));
}

TEST_F(opening, plugin_that_answers_any_other_number_has_started)
{
    with_plugin("plugin_odd");
    expect_served("usb:1a2b:3c4d");
    expect_usb(usb_opened("plugin_odd") + usb_closed("plugin_odd"));
}

TEST_F(opening, plugin_can_talk_to_the_device_while_it_starts_and_while_it_is_stopped)
{
    with_plugin("plugin_talking");
    expect_served("usb:1a2b:3c4d");
    const lines talk = {"bulk_transfer scanner 0x02 1 60000 -> 0 (1)", "plugin_talking sent 1"};
    expect_usb(usb_opened("plugin_talking") + talk + lines{"plugin_talking dtor"} + talk +
               lines{"plugin_talking unloaded", "release_interface scanner 0 -> 0", "close scanner", "exit",
                     "end of process"});
}

TEST_F(opening, plugin_finds_its_firmware_directories_in_the_environment)
{
    with_plugin("plugin_telling_environment");
    with_environment("QUBAN_FW_DIR", "/elsewhere/");
    expect_served("usb:1a2b:3c4d");
    expect_usb_about("plugin_telling_environment finds ",
                     {"plugin_telling_environment finds GLIMMERON_FIRMWARE_DIR=/usr/share/tarvik/",
                      "plugin_telling_environment finds QUBAN_FIRMWARE_DIR=/usr/share/tarvik/",
                      "plugin_telling_environment finds MORA_FIRMWARE_DIR=/usr/share/tarvik/",
                      "plugin_telling_environment finds QUBAN_FW_DIR=/usr/share/tarvik/"});
}

// Devices.

TEST_F(opening, device_that_is_missing_is_looked_for_in_all_attempts_with_pauses_between)
{
    with_bus("clock recorded\n");
    const std::string short_pause = "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds);
    expect_given_up(attempt::finds_no_device,
                    lines(support::repeated(usb_transceiver::kOpenTries,
                                            {"open_device_with_vid_pid 1a2b:3c4d -> null", short_pause})));
}

TEST_F(opening, device_that_appears_before_the_third_attempt_is_opened)
{
    planned_open what{"usb:1a2b:3c4d"};
    what.attempts = {attempt::finds_no_device, attempt::finds_no_device, attempt::reaches_it};
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\n" + appears_at_attempt(3));
    expect_served(what);
    expect_usb_about("sleep", pause + pause);
}

TEST_F(opening, device_without_a_usable_interface_is_closed_again_after_each_attempt)
{
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\nconfiguration 1\ninterface 0 ff 00\nendpoint "
             "81\nendpoint 02\n");
    expect_given_up(attempt::finds_no_interface,
                    {"open_device_with_vid_pid 1a2b:3c4d -> scanner", "get_device scanner -> scanner",
                     "get_device_descriptor scanner -> 0", "get_configuration scanner -> 0 (1)",
                     "get_config_descriptor scanner 0 -> 0", "free_config_descriptor scanner 0",
                     "close scanner"});
}

TEST_F(opening, kernel_driver_is_detached_for_the_session_and_given_back)
{
    with_bus("device scanner 1a2b:3c4d\nkernel_driver 0\n");
    expect_served("usb:1a2b:3c4d");
    expect_usb_about("detach", {"detach_kernel_driver scanner 0 -> 0"});
    expect_usb_about("attach", {"attach_kernel_driver scanner 0 -> 0"});
}

TEST_F(opening, interface_that_somebody_else_has_claimed_refuses_the_open_and_gives_the_driver_back)
{
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\nkernel_driver 0\nfail claim_interface "
             "LIBUSB_ERROR_BUSY\n");
    start_connected();
    expect_answer(open_request(), ng_reply());
    expect_end();
    expect_usb_about("attach", lines(std::vector<std::string>(scanner::kConnectionAttempts,
                                                              "attach_kernel_driver scanner 0 -> 0")));
}

TEST_F(opening, libusb_that_cannot_be_initialised_refuses_the_open)
{
    with_bus("fail init LIBUSB_ERROR_OTHER\n");
    expect_refused(
        "usb:1a2b:3c4d",
        plugin_loaded("usb:1a2b:3c4d") + info({"usb_transceiver start", "libusb error = LIBUSB_ERROR_OTHER",
                                               "libusb_init: LIBUSB_ERROR_OTHER", "open fails"}),
        {"plugin_good loaded", "init -> LIBUSB_ERROR_OTHER", "plugin_good unloaded", "end of process"});
}

TEST_F(opening, exception_of_no_known_kind_refuses_the_open_and_leaves_nothing_behind)
{
    with_bus("device scanner 1a2b:3c4d\nthrow_number get_device 1\n");
    start_connected();
    expect_answer(open_request(), ng_reply());
    expect_end();
    expect_log(
        announced +
        open_refused("usb:1a2b:3c4d",
                     plugin_loaded("usb:1a2b:3c4d") +
                         info({"usb_transceiver start", "usb_transceiver open start", "usb_transceiver open ",
                               "usb_transceiver set_bulk_endpoints", "unknown exception", "open fails"})));
}

} // namespace process_test
