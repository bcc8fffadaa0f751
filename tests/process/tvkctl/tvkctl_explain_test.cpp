#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "process/tvkctl/explain_test.h"
#include "process/tvkctl/usb_paths.h"
#include "support/explained_refusal.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using nlohmann::json;

using tvkctl_explain_test = explain_test;

/// The outcome and the name of each check, a line for each: "failed       plugin".
std::string outcomes(const tvkctl_result& result)
{
    std::string text;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line.front() != ' ')
            text += line.substr(0, line.find(' ', 13)) + "\n";
    return text;
}

bool has_line(const tvkctl_result& result, const std::string& line)
{
    return ("\n" + result.out).find("\n" + line + "\n") != std::string::npos;
}

#define EXPECT_LINE(result, line) EXPECT_TRUE(has_line(result, line)) << (result).out

const std::string all_good_up_to_plugin = "ok           address\nok           bus\nok           rights\nok   "
                                          "        interface\nok           driver\nok           plugin\n";

TEST_F(tvkctl_explain_test, when_all_is_well_the_scanner_is_really_opened_and_closed)
{
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(outcomes(result), all_good_up_to_plugin + "ok           program\nok           open\n");
    EXPECT_LINE(result, "ok           open       the scanner was opened and closed again");
    // Twice loaded: by a child of tvkctl, which only looks, and by the program.
    EXPECT_EQ(usb_lines_about("plugin").text(),
              lines({"plugin_good loaded", "plugin_good unloaded", "plugin_good loaded", "plugin_good ctor",
                     "plugin_good dtor", "plugin_good unloaded"})
                  .text());
}

TEST_F(tvkctl_explain_test, an_invalid_address_is_20)
{
    const tvkctl_result result = explain("usb:1a2b");
    EXPECT_EQ(result.status, 20);
    EXPECT_LINE(result, "failed       address    field 2, the product id, is missing");
}

TEST_F(tvkctl_explain_test, a_device_that_is_not_there_is_21)
{
    const tvkctl_result result = explain("usb:1a2b:9999");
    EXPECT_EQ(result.status, 21);
    EXPECT_LINE(result, "failed       bus        no USB device is 1a2b:9999 (devices on the bus: 1)");
    EXPECT_LINE(result, "        - same vendor: 1a2b:3c4d at bus 1 device 1, no serial number");
}

TEST_F(tvkctl_explain_test, a_bus_that_cannot_be_looked_at_is_21)
{
    with_bus("fail init LIBUSB_ERROR_OTHER\n");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 21);
    EXPECT_LINE(result, "failed       bus        the USB devices cannot be enumerated: libusb_init answers "
                        "LIBUSB_ERROR_OTHER");
}

TEST_F(tvkctl_explain_test, a_serial_number_that_no_device_has_is_a_warning)
{
    const tvkctl_result result = explain("usb:1a2b:3c4d:SN42");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.find("warning      bus        no device has serial number \"SN42\""),
              result.out.find("warning      bus"));
}

TEST_F(tvkctl_explain_test, a_missing_node_is_22)
{
    fs::remove(node());
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 22);
    EXPECT_LINE(result, "failed       rights     /dev/bus/usb/001/001 does not exist");
}

TEST_F(tvkctl_explain_test, a_node_that_this_user_may_not_open_is_22)
{
    make_node(1, 1, 0, 0600);
    const tvkctl_result result = explain_as_nobody();
    if (IsSkipped())
        return;
    EXPECT_EQ(result.status, 22);
    EXPECT_LINE(result,
                "failed       rights     /dev/bus/usb/001/001 is -rw------- root:root, and this user may not "
                "open it for reading and writing");
    EXPECT_NE(result.out.find("' | sudo tee /etc/udev/rules.d/70-tvkintif-1a2b-3c4d.rules\n"),
              std::string::npos)
        << result.out;
}

TEST_F(tvkctl_explain_test, a_device_without_usable_interface_is_23)
{
    with_bus("device scanner 1a2b:3c4d\n  place 1 1 1\n  configuration 1\n  interface 0\n  endpoint 81\n");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 23);
    EXPECT_LINE(result, "        - configuration 1, interface 0, setting 0: no bulk endpoint to the device");
}

TEST_F(tvkctl_explain_test, an_interface_that_another_process_has_claimed_is_24)
{
    bind_driver("1-1:1.0", "usbfs");
    const int held = open(node().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(held, 0);
    const tvkctl_result result = explain();
    close(held);
    EXPECT_EQ(result.status, 24);
    EXPECT_LINE(result, "failed       driver     another process has claimed interface 0");
    EXPECT_LINE(result,
                "        - tvkctl_tests (process " + std::to_string(getpid()) + ") has the device open");
}

TEST_F(tvkctl_explain_test, a_kernel_driver_is_a_warning)
{
    bind_driver("1-1:1.0", "usblp");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 0);
    EXPECT_LINE(result, "warning      driver     kernel driver usblp is bound to interface 0");
}

TEST_F(tvkctl_explain_test, a_driver_that_cannot_be_found_out_does_not_end_the_diagnosis)
{
    with_bus("device scanner 1a2b:3c4d\n  place 1 1 2\n"); // of which sysfs knows nothing
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 0);
    EXPECT_LINE(result, "not checked  driver     /sys does not tell which driver is bound to the interface");
}

TEST_F(tvkctl_explain_test, json_has_a_word_for_each_outcome)
{
    bind_driver("1-1:1.0", "usblp");
    EXPECT_EQ(json::parse(explain(kUdi, {"--json"}).out)["checks"][4]["outcome"], "warning");
    with_bus("device scanner 1a2b:3c4d\n  place 1 1 2\n");
    EXPECT_EQ(json::parse(explain(kUdi, {"--json"}).out)["checks"][4]["outcome"], "not checked");
}

TEST_F(tvkctl_explain_test, a_plugin_with_a_flaw_is_a_warning)
{
    with_plugin_file(support::read_file(PLUGIN_WITH_FLAW));
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 0);
    EXPECT_LINE(result,
                "warning      plugin     " + plugin_file() + " can be loaded and has the four entry points");
    EXPECT_LINE(result, "        - stack: asks for an executable stack, for the whole process");
    EXPECT_LINE(result, "        tvkctl check-plugin " + plugin_file());
}

TEST_F(tvkctl_explain_test, a_plugin_that_is_missing_is_25)
{
    support::remove_plugins();
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "failed       plugin     " + plugin_file() + " is not there");
}

TEST_F(tvkctl_explain_test, the_plugin_is_that_of_the_product)
{
    with_bus("device scanner 1a2b:0a71\n  place 1 1 1\n");
    const tvkctl_result result = explain("usb:1a2b:0a71");
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "        - product 0a71 is served by libqvintZ4.so");
}

TEST_F(tvkctl_explain_test, a_plugin_that_is_not_a_library_is_25)
{
    with_plugin_file("no library at all\n");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_EQ(outcomes(result), "ok           address\nok           bus\nok           rights\nok           "
                                "interface\nok           driver\n"
                                "failed       plugin\n");
}

TEST_F(tvkctl_explain_test, a_plugin_that_this_user_may_not_read_is_25)
{
    ASSERT_EQ(chmod(plugin_file().c_str(), 0600), 0);
    const tvkctl_result result = explain_as_nobody();
    if (IsSkipped())
        return;
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "failed       plugin     " + plugin_file() + " is closed to nobody");
    EXPECT_LINE(result, "        sudo chmod o+r " + plugin_file());
}

TEST_F(tvkctl_explain_test, a_plugin_for_another_machine_is_25)
{
    constexpr std::size_t machine_field = 18; // of the ELF header
    constexpr char another_machine = 22;      // IBM S/390, on which nobody runs this test
    std::string content = support::read_file(support::built_plugin("plugin_good"));
    ASSERT_GT(content.size(), machine_field);
    content[machine_field] = another_machine;
    content[machine_field + 1] = 0;
    with_plugin_file(content);
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "failed       plugin     " + plugin_file() + " cannot be loaded");
    EXPECT_NE(result.out.find("        - machine: "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("        install the plugin that is built for "), std::string::npos)
        << result.out;
}

TEST_F(tvkctl_explain_test, a_plugin_whose_library_is_missing_is_25)
{
    with_plugin("plugin_needing_absent_library");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result,
                "        - the loader says: libabsent_when_loaded.so: cannot open shared object file: No "
                "such file or directory");
}

TEST_F(tvkctl_explain_test, a_plugin_without_an_entry_point_is_25)
{
    with_plugin("plugin_without_reader");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "failed       plugin     " + plugin_file() + " lacks interpreter_reader");
}

TEST_F(tvkctl_explain_test, a_plugin_that_crashes_when_it_is_loaded_is_25)
{
    with_plugin("plugin_crashing_when_loaded");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 25);
    EXPECT_LINE(result, "failed       plugin     " + plugin_file() + " ends the process when it is loaded");
}

TEST_F(tvkctl_explain_test, a_program_that_is_not_there_is_26)
{
    const tvkctl_result result = explain(kUdi, {"--program", scratch("none")});
    EXPECT_EQ(result.status, 26);
    EXPECT_EQ(outcomes(result), all_good_up_to_plugin + "failed       program\n");
}

TEST_F(tvkctl_explain_test, a_program_that_cannot_be_found_is_26)
{
    with_environment("PATH", "/nonexistent");
    const tvkctl_result result = run_launch(launch_of(lonely_tvkctl(), {"explain", kUdi}));
    EXPECT_EQ(result.status, 26);
    EXPECT_LINE(result, "failed       program    there is no tvkintif beside tvkctl or in PATH");
    EXPECT_LINE(result, "        install it, or say where it is with --program FILE");
}

TEST_F(tvkctl_explain_test, the_program_is_found_in_path)
{
    with_environment("PATH", "/nonexistent:" + fs::path(tvkintif_path).parent_path().string());
    const tvkctl_result result = run_launch(launch_of(lonely_tvkctl(), {"explain", kUdi}));
    EXPECT_EQ(result.status, 0);
    EXPECT_LINE(result, "ok           program    " + tvkintif_path + " starts, prints a port and accepts");
}

TEST_F(tvkctl_explain_test, a_program_that_prints_no_number_is_26)
{
    const tvkctl_result result = explain(kUdi, {"--program", program_that("echo hello"), "--json"});
    EXPECT_EQ(result.status, 26);
    EXPECT_EQ(json::parse(result.out)["checks"].back()["cause"], "bad_port_line");
}

TEST_F(tvkctl_explain_test, a_program_that_gives_no_port_is_26)
{
    const tvkctl_result result = explain(kUdi, {"--program", program_that("echo -1")});
    EXPECT_EQ(result.status, 26);
    EXPECT_NE(result.out.find("got -1 and then exit status 0"), std::string::npos) << result.out;
}

TEST_F(tvkctl_explain_test, a_program_that_ends_early_is_26_with_its_words)
{
    const tvkctl_result result = explain(kUdi, {"--program", program_that("echo no bus >&2; exit 3")});
    EXPECT_EQ(result.status, 26);
    EXPECT_NE(result.out.find("exit status 3; its standard error: \"no bus"), std::string::npos)
        << result.out;
}

TEST_F(tvkctl_explain_test, a_port_on_which_nobody_waits_is_26)
{
    const tvkctl_result result = explain(kUdi, {"--program", program_that("echo 1; exec sleep 60")});
    EXPECT_EQ(result.status, 26);
    EXPECT_NE(result.out.find("connect to port 1"), std::string::npos) << result.out;
}

TEST_F(tvkctl_explain_test, an_open_that_is_refused_without_log_tells_how_to_get_one)
{
    with_plugin("plugin_refusing");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_LINE(result, "failed       open       the open is answered with ng");
    EXPECT_LINE(result, "        - the log would tell the reason, but /tmp/velnor/tvkintif does not exist");
    EXPECT_LINE(result, "        tvkctl log on");
}

TEST_F(tvkctl_explain_test, an_open_that_is_refused_tells_the_log_of_that_open_alone)
{
    support::make_log_directory();
    with_plugin("plugin_refusing");
    explain();
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    const std::string told = result.out.substr(result.out.find("        - the log tells:\n"));
    EXPECT_EQ(told, support::explained_refusal(plugin_file()));
}

TEST_F(tvkctl_explain_test, a_log_that_takes_only_errors_is_reported)
{
    support::make_log_directory(3);
    with_plugin("plugin_refusing");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_LINE(result, "        - the reason is logged at INFO, and the log takes only ERROR and above");
    EXPECT_LINE(result, "        tvkctl log on --level INFO");
}

TEST_F(tvkctl_explain_test, a_device_that_vanishes_before_the_open_is_27)
{
    support::make_log_directory();
    with_bus("device scanner 1a2b:3c4d\n  place 1 1 1\nfail open_device_with_vid_pid LIBUSB_ERROR_NO_DEVICE\n"
             "clock recorded\n");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_LINE(result,
                "        the device vanished or refused to be opened: unplug it and plug it in again");
}

TEST_F(tvkctl_explain_test, a_claim_that_fails_is_27)
{
    support::make_log_directory();
    with_bus(
        "device scanner 1a2b:3c4d\n  place 1 1 1\nfail claim_interface LIBUSB_ERROR_BUSY\nclock recorded\n");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_LINE(
        result,
        "        the device was opened, but its interface could not be claimed: end what else uses it");
}

TEST_F(tvkctl_explain_test, a_plugin_that_crashes_at_its_start_is_27)
{
    with_plugin("plugin_crashing_in_ctor");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_NE(result.out.find("signal 6 (Aborted)"), std::string::npos) << result.out;
    EXPECT_LINE(result, "        tvkctl check-plugin --run " + plugin_file());
}

TEST_F(tvkctl_explain_test, a_plugin_that_crashes_at_its_end_is_27)
{
    with_plugin("plugin_crashing_in_dtor");
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 27);
    EXPECT_LINE(
        result,
        "failed       open       the scanner was opened, but when it was closed the program ended with "
        "signal 6 (Aborted)");
}

TEST_F(tvkctl_explain_test, json_has_each_check)
{
    with_plugin("plugin_without_reader");
    const tvkctl_result result = explain(kUdi, {"--json"});
    EXPECT_EQ(result.status, 25);
    const json document = json::parse(result.out);
    EXPECT_EQ(document["udi"], kUdi);
    EXPECT_EQ(document["opens"], false);
    EXPECT_EQ(document["exit_status"], 25);
    ASSERT_EQ(document["checks"].size(), 6U);
    EXPECT_EQ(document["checks"][0], json::parse(R"({"check": "address", "outcome": "ok", "cause": null,
        "summary": "vendor 1a2b, product 3c4d, any serial number", "evidence": [], "next": []})"));
    const json& failed = document["checks"][5];
    EXPECT_EQ(failed["check"], "plugin");
    EXPECT_EQ(failed["outcome"], "failed");
    EXPECT_EQ(failed["cause"], "missing_entry_point");
    EXPECT_EQ(failed["next"].back(), "tvkctl check-plugin " + plugin_file());
}

TEST_F(tvkctl_explain_test, json_says_that_all_is_well)
{
    const json document = json::parse(explain(kUdi, {"--json"}).out);
    EXPECT_EQ(document["opens"], true);
    EXPECT_EQ(document["exit_status"], 0);
    EXPECT_EQ(document["checks"].size(), 8U);
}

TEST_F(tvkctl_explain_test, a_missing_address_is_a_usage_error)
{
    const tvkctl_result result = run({"explain"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "tvkctl: UDI is required. See tvkctl explain --help.\n");
}

} // namespace

} // namespace process_test
