// From the address to a started plugin on an open device, and each way in which that fails.

#include <csignal>

#include "process/tvkintif/program_test.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"

namespace process_test {

class opening : public program_test {
protected:
    /// An open that is refused, with everything that log and bus have to say about it.
    void expect_refused(const std::string& udi, const lines& log, const lines& bus)
    {
        start_connected();
        tell(open_request(udi));
        expect_reply(ng_reply());
        expect_end();
        expect_log(announced + open_refused(udi, log));
        expect_usb(bus);
    }

    void expect_invalid(const std::string& udi)
    {
        expect_refused(
            udi, {"INFO open " + udi, "INFO machine: invalid UDI '" + udi + "'", "INFO get pid fails"}, {});
    }

    void expect_lack(const std::string& entry_point)
    {
        with_plugin("plugin_without_" + entry_point);
        expect_refused("usb:1a2b:3c4d",
                       plugin_loaded("usb:1a2b:3c4d") + lines{"INFO interpreter function load errors",
                                                              "INFO interpreter : invalid symboles.",
                                                              "INFO open fails"},
                       {"plugin_without_" + entry_point + " loaded",
                        "plugin_without_" + entry_point + " unloaded", "end of process"});
    }

    void expect_served(const std::string& udi)
    {
        start_connected();
        open(udi);
        close();
        expect_end();
    }
};

namespace {

/// The dialogue of finding, choosing and claiming the device of a given name.
lines set_up(const std::string& name)
{
    return {"get_device " + name + " -> " + name,       "get_device_descriptor " + name + " -> 0",
            "get_configuration " + name + " -> 0 (1)",  "get_config_descriptor " + name + " 0 -> 0",
            "kernel_driver_active " + name + " 0 -> 0", "claim_interface " + name + " 0 -> 0",
            "free_config_descriptor " + name + " 0"};
}

lines closed(const std::string& name)
{
    return {"plugin_good dtor",
            "plugin_good unloaded",
            "release_interface " + name + " 0 -> 0",
            "close " + name,
            "exit",
            "end of process"};
}

const std::string two_alike = "device left 1a2b:3c4d serial SN1\ndevice right 1a2b:3c4d serial SN2\n";

/// `one` for each attempt of an open, with `between` between two of them.
lines all_attempts(const lines& one, const lines& between = {})
{
    return lines(support::repeated(scanner::kConnectionAttempts, one.all(), between.all()));
}

/// The search of one attempt, when it comes to nothing.
lines tries_in_vain()
{
    const std::string pause = "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds);
    return lines(support::repeated(usb_transceiver::kOpenTries,
                                   {"open_device_with_vid_pid 1a2b:3c4d -> null", pause}));
}

const lines pause = {"sleep " + std::to_string(scanner::kPauseSeconds)};

} // namespace

TEST_F(opening, device_is_found_by_its_serial_number)
{
    with_bus(two_alike);
    expect_served("usb:1a2b:3c4d:SN2");
    expect_log(
        announced + request(17) + lines{"INFO open usb:1a2b:3c4d:SN2"} + plugin_loaded("usb:1a2b:3c4d:SN2") +
        lines{"INFO usb_transceiver start", "INFO usb_transceiver open start",
              "INFO usb_transceiver open SN2", "INFO found device", "INFO usb_transceiver set_bulk_endpoints",
              "INFO connection open isSuccess = 1", "INFO break", "INFO send ok"} +
        reply() + told_to_close);
    expect_usb(lines{"plugin_good loaded", "init -> 0", "set_debug 3", "get_device_list -> 2",
                     "get_device_descriptor left -> 0", "open left -> 0",
                     "get_string_descriptor_ascii left 3 -> 3", "close left",
                     "get_device_descriptor right -> 0", "open right -> 0",
                     "get_string_descriptor_ascii right 3 -> 3", "close right", "open right -> 0",
                     "free_device_list unref"} +
               set_up("right") + lines{"plugin_good ctor"} + closed("right"));
}

TEST_F(opening, unknown_serial_number_falls_back_to_the_first_device_of_these_ids)
{
    with_bus(two_alike);
    expect_served("usb:1a2b:3c4d:SN3");
    expect_log(announced + request(17) + lines{"INFO open usb:1a2b:3c4d:SN3"} +
               plugin_loaded("usb:1a2b:3c4d:SN3") +
               lines{"INFO usb_transceiver start", "INFO usb_transceiver open start",
                     "INFO usb_transceiver open SN3", "INFO not found retry",
                     "INFO usb_transceiver set_bulk_endpoints", "INFO connection open isSuccess = 1",
                     "INFO break", "INFO send ok"} +
               reply() + told_to_close);
}

TEST_F(opening, bus_and_device_number_are_taken_for_a_serial_number)
{
    expect_served("usb:1a2b:3c4d:002:005");
    expect_log(announced + request(21) + lines{"INFO open usb:1a2b:3c4d:002:005"} +
               plugin_loaded("usb:1a2b:3c4d:002:005") +
               lines{"INFO usb_transceiver start", "INFO usb_transceiver open start",
                     "INFO usb_transceiver open 002", "INFO not found retry",
                     "INFO usb_transceiver set_bulk_endpoints", "INFO connection open isSuccess = 1",
                     "INFO break", "INFO send ok"} +
               reply() + told_to_close);
}

TEST_F(opening, address_with_its_terminator_in_the_payload_is_served)
{
    start_connected();
    tell(frame(0, 4, 0, text_bytes("usb:1a2b:3c4d") + bytes{0}));
    expect_reply(ok_reply());
    close();
    expect_end();
    expect_log(announced + request(14) + lines{"INFO open usb:1a2b:3c4d"} + plugin_loaded("usb:1a2b:3c4d") +
               lines{"INFO usb_transceiver start"} + opened_by_ids() + lines{"INFO send ok"} + reply() +
               told_to_close);
}

TEST_F(opening, address_with_hexadecimal_prefixes_is_served)
{
    expect_served("usb:0x1a2b:0X3C4D");
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(opening, address_with_another_prefix_is_refused)
{
    expect_invalid("net:1a2b:3c4d");
}

TEST_F(opening, address_in_capitals_is_refused)
{
    expect_invalid("USB:1a2b:3c4d");
}

TEST_F(opening, address_without_a_vendor_is_refused)
{
    expect_invalid("usb::3c4d");
}

TEST_F(opening, address_with_product_0_is_refused)
{
    expect_invalid("usb:1a2b:0");
}

TEST_F(opening, address_with_five_digits_is_refused)
{
    expect_invalid("usb:1a2b:13c4d");
}

TEST_F(opening, address_with_other_letters_is_refused)
{
    expect_invalid("usb:1a2b:3c4g");
}

TEST_F(opening, address_of_percent_signs_is_logged_as_it_is)
{
    expect_invalid("%s%n%d usb:%x");
}

// Plugins.

TEST_F(opening, product_with_a_plugin_of_its_own_is_served_by_that)
{
    with_no_plugin(); // so that no other can be loaded
    with_plugin("plugin_good", plugin_name(0x0A71));
    with_bus("device scanner 1a2b:0a71\n");
    expect_served("usb:1a2b:0a71");
    expect_log(announced + open_served("usb:1a2b:0a71", plugin_name(0x0A71)) + told_to_close);
}

TEST_F(opening, plugin_that_is_missing_refuses_the_open_before_usb_is_touched)
{
    with_no_plugin();
    expect_refused("usb:1a2b:3c4d",
                   plugin_loaded("usb:1a2b:3c4d") +
                       lines{"INFO interpreter load fails " + lib_path(kDefaultPlugin) +
                                 ": cannot open shared object file: No such file or directory",
                             "INFO interpreter : load failed.", "INFO open fails"},
                   {});
}

TEST_F(opening, plugin_without_a_ctor_refuses_the_open)
{
    expect_lack("ctor");
}

TEST_F(opening, plugin_without_a_dtor_refuses_the_open)
{
    expect_lack("dtor");
}

TEST_F(opening, plugin_without_a_reader_refuses_the_open)
{
    expect_lack("reader");
}

TEST_F(opening, plugin_without_a_writer_refuses_the_open)
{
    expect_lack("writer");
}

TEST_F(opening, plugin_that_refuses_to_start_leaves_the_device_closed_and_is_not_stopped)
{
    with_plugin("plugin_refusing");
    expect_refused("usb:1a2b:3c4d",
                   plugin_loaded("usb:1a2b:3c4d") + lines{"INFO usb_transceiver start"} + opened_by_ids() +
                       lines{"INFO usb ctor failer."},
                   usb_opened("plugin_refusing") + lines{"release_interface scanner 0 -> 0", "close scanner",
                                                         "exit", "plugin_refusing unloaded",
                                                         "end of process"});
}

TEST_F(opening, plugin_with_a_function_that_exists_nowhere_is_loaded_as_long_as_it_is_not_called)
{
    with_plugin("plugin_calling_nobody");
    expect_served("usb:1a2b:3c4d");
    expect_usb(usb_opened("plugin_calling_nobody") + usb_closed("plugin_calling_nobody"));
}

TEST_F(opening, plugin_that_crashes_takes_the_process_with_it_and_the_next_one_works)
{
    with_plugin("plugin_crashing_in_ctor");
    start_connected();
    tell(open_request());
    EXPECT_EQ(program().wait_for_exit(kPatience), tarvik::exit_status::killed_by(SIGABRT));
    EXPECT_EQ(to_hex(wire().read_to_end(kPatience)), "");
    with_plugin("plugin_good");
    expect_served("usb:1a2b:3c4d");
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
    EXPECT_EQ(usb_lines_about("plugin_telling_environment finds ").text(),
              lines({"plugin_telling_environment finds GLIMMERON_FIRMWARE_DIR=/usr/share/tarvik/",
                     "plugin_telling_environment finds QUBAN_FIRMWARE_DIR=/usr/share/tarvik/",
                     "plugin_telling_environment finds MORA_FIRMWARE_DIR=/usr/share/tarvik/",
                     "plugin_telling_environment finds QUBAN_FW_DIR=/usr/share/tarvik/"})
                  .text());
}

// Devices.

TEST_F(opening, device_that_is_missing_is_looked_for_in_all_attempts_with_pauses_between)
{
    with_bus("clock recorded\n");
    expect_refused(
        "usb:1a2b:3c4d",
        plugin_loaded("usb:1a2b:3c4d") + lines{"INFO usb_transceiver start"} + all_attempts(not_opened()) +
            lines{"INFO retry finish", "INFO usb connection failer.", "INFO open fails"},
        lines{"plugin_good loaded", "init -> 0", "set_debug 3"} + all_attempts(tries_in_vain(), pause) +
            lines{"exit", "plugin_good unloaded", "end of process"});
}

TEST_F(opening, device_that_appears_before_the_third_attempt_is_opened)
{
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\n" + appears_at_attempt(3));
    expect_served("usb:1a2b:3c4d");
    expect_log(announced + request(13) + lines{"INFO open usb:1a2b:3c4d"} + plugin_loaded("usb:1a2b:3c4d") +
               lines{"INFO usb_transceiver start"} + not_opened() + not_opened() + opened_by_ids() +
               lines{"INFO send ok"} + reply() + told_to_close);
    EXPECT_EQ(usb_lines_about("sleep").text(), (pause + pause).text());
}

TEST_F(opening, device_without_a_usable_interface_is_closed_again_after_each_attempt)
{
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\nconfiguration 1\ninterface 0 ff 00\nendpoint "
             "81\nendpoint 02\n");
    const lines attempt = {"INFO usb_transceiver open start", "INFO usb_transceiver open ",
                           "INFO usb_transceiver set_bulk_endpoints",
                           "INFO usb_transceiver set_bulk_endpoints fails",
                           "INFO connection open isSuccess = 0"};
    const lines usb_attempt = {"open_device_with_vid_pid 1a2b:3c4d -> scanner",
                               "get_device scanner -> scanner",
                               "get_device_descriptor scanner -> 0",
                               "get_configuration scanner -> 0 (1)",
                               "get_config_descriptor scanner 0 -> 0",
                               "free_config_descriptor scanner 0",
                               "close scanner"};
    expect_refused(
        "usb:1a2b:3c4d",
        plugin_loaded("usb:1a2b:3c4d") + lines{"INFO usb_transceiver start"} + all_attempts(attempt) +
            lines{"INFO retry finish", "INFO usb connection failer.", "INFO open fails"},
        lines{"plugin_good loaded", "init -> 0", "set_debug 3"} + all_attempts(usb_attempt, pause) +
            lines{"exit", "plugin_good unloaded", "end of process"});
}

TEST_F(opening, kernel_driver_is_detached_for_the_session_and_given_back)
{
    with_bus("device scanner 1a2b:3c4d\nkernel_driver 0\n");
    expect_served("usb:1a2b:3c4d");
    EXPECT_EQ(usb_lines_about("detach").text(), "detach_kernel_driver scanner 0 -> 0\n");
    EXPECT_EQ(usb_lines_about("attach").text(), "attach_kernel_driver scanner 0 -> 0\n");
}

TEST_F(opening, interface_that_somebody_else_has_claimed_refuses_the_open_and_gives_the_driver_back)
{
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\nkernel_driver 0\nfail claim_interface "
             "LIBUSB_ERROR_BUSY\n");
    start_connected();
    tell(open_request());
    expect_reply(ng_reply());
    expect_end();
    const lines five_times = {"attach_kernel_driver scanner 0 -> 0", "attach_kernel_driver scanner 0 -> 0",
                              "attach_kernel_driver scanner 0 -> 0", "attach_kernel_driver scanner 0 -> 0",
                              "attach_kernel_driver scanner 0 -> 0"};
    EXPECT_EQ(usb_lines_about("attach").text(), five_times.text());
}

TEST_F(opening, libusb_that_cannot_be_initialised_refuses_the_open)
{
    with_bus("fail init LIBUSB_ERROR_OTHER\n");
    expect_refused(
        "usb:1a2b:3c4d",
        plugin_loaded("usb:1a2b:3c4d") + lines{"INFO usb_transceiver start",
                                               "INFO libusb error = LIBUSB_ERROR_OTHER",
                                               "INFO libusb_init: LIBUSB_ERROR_OTHER", "INFO open fails"},
        {"plugin_good loaded", "init -> LIBUSB_ERROR_OTHER", "plugin_good unloaded", "end of process"});
}

TEST_F(opening, exception_of_no_known_kind_refuses_the_open_and_leaves_nothing_behind)
{
    with_bus("device scanner 1a2b:3c4d\nthrow_number get_device 1\n");
    start_connected();
    tell(open_request());
    expect_reply(ng_reply());
    expect_end();
    expect_log(announced +
               open_refused("usb:1a2b:3c4d",
                            plugin_loaded("usb:1a2b:3c4d") +
                                lines{"INFO usb_transceiver start", "INFO usb_transceiver open start",
                                      "INFO usb_transceiver open ", "INFO usb_transceiver set_bulk_endpoints",
                                      "INFO unknown exception", "INFO open fails"}));
}

} // namespace process_test
