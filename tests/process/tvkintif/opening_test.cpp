// From the address to a started plugin on an open device, and each way in which that fails.

#include <csignal>

#include "process/tvkintif/program_test.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"

namespace process_test {

namespace {

const lines kPause = {"sleep " + std::to_string(scanner::kPauseSeconds)};

} // namespace

class opening : public program_test {
protected:
    /// An open that is refused, with everything that log and bus have to say about it.
    void expect_refused(const std::string& udi, const lines& log, const lines& bus)
    {
        start_connected();
        expect_answer(open_request(udi), ng_reply());
        expect_end();
        expect_log(kAnnounced + open_refused(udi, log));
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
        expect_log(kAnnounced + open_served(what) + kToldToClose);
    }
};

namespace {

const std::string kTwoAlike = "device left 1a2b:3c4d serial SN1\ndevice right 1a2b:3c4d serial SN2\n";

} // namespace

TEST_F(opening, device_is_found_by_its_serial_number)
{
    with_bus(kTwoAlike);
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

TEST_F(opening, invalid_address_is_refused_and_logged_as_it_is)
{
    const std::string udi = "%s%n%d usb:%x";
    expect_refused(
        udi, info({"open " + udi, "open " + udi, "machine: invalid UDI '" + udi + "'", "get pid fails"}), {});
}

TEST_F(opening, product_with_a_plugin_of_its_own_is_served_by_that)
{
    with_no_plugin(); // so that no other can be loaded
    with_plugin("plugin_good", plugin_name(0x0A71));
    with_bus("device scanner 1a2b:0a71\n");
    planned_open what{"usb:1a2b:0a71"};
    what.plugin = plugin_name(0x0A71);
    expect_served(what);
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
    const planned_open what = vain_opening("usb:1a2b:3c4d", attempt::finds_no_device);
    const std::string short_pause = "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds);
    const lines searches = support::repeated(usb_transceiver::kOpenTries,
                                             {"open_device_with_vid_pid 1a2b:3c4d -> null", short_pause});
    with_bus("clock recorded\n");
    start_connected();
    expect_answer(open_request(what.udi), ng_reply());
    expect_end();
    expect_log(kAnnounced + open_served(what) + kLeft);
    expect_usb(lines{"plugin_good loaded", "init -> 0", "set_debug 3"} +
               support::repeated(scanner::kConnectionAttempts, searches, kPause) +
               lines{"exit", "plugin_good unloaded", "end of process"});
}

TEST_F(opening, device_that_appears_before_the_third_attempt_is_opened)
{
    planned_open what{"usb:1a2b:3c4d"};
    what.attempts = {attempt::finds_no_device, attempt::finds_no_device, attempt::reaches_it};
    with_bus("clock recorded\ndevice scanner 1a2b:3c4d\n" + appears_at_attempt(3));
    expect_served(what);
    expect_usb_about("sleep", kPause + kPause);
}

} // namespace process_test
