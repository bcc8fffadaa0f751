// tvkctl on the machine that it is made for. What it prints is compared whole, but for what differs from one
// plugging-in to the next.
#include <gtest/gtest.h>

#include <elf.h>

#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "common/process/child_process.h"
#include "front_end/src/front_end.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/pages.h"
#include "support/private_paths.h"
#include "target/scanner/command_set.h"
#include "target/scenarios/guest.h"
#include "target/scenarios/host_device.h"
#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_process.h"
#include "target/scenarios/scanner_session.h"
#include "tvkctl/src/commands/exit_code.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using target::guest;
using target::kProgram;
using target::kShippedPlugin;
using target::plugin_folder;
using target::test_plugin;

constexpr tarvik::milliseconds kLimit{40'000};
constexpr const char* kByIds = "usb:1a2b:3c4d";
const std::string kScannedFile = "/run/scanned.raw";

struct result {
    int status = -1;
    std::string out = {};
    std::string err = {};
};

/// Without what is another each time (places on the bus, times, dates), or the plugin's own affair.
std::string settled(std::string text)
{
    const std::pair<const char*, const char*> variables[] = {
        {"/dev/bus/usb/[0-9]{3}/[0-9]{3}", "/dev/bus/usb/BUS/DEV"},
        {"at bus [0-9]+ device [0-9]+", "at bus BUS device DEV"},
        {"devices on the bus: [0-9]+", "devices on the bus: COUNT"},
        {"less than 0\\.001 s|[0-9]+\\.[0-9]{3} s", "TIME"},
        {"_[0-9]{8}\\.log", "_DATE.log"},
        {"[0-9]+ for reading, [0-9]+ for writing", "TRANSFERS"},
        {"address 0x[0-9a-f]+", "address 0xNUMBER"},
        {"\\+0x[0-9a-f]+", "+0xNUMBER"},
    };
    for (const auto& [pattern, name] : variables)
        text = std::regex_replace(text, std::regex(pattern), name);
    return text;
}

tarvik::launch command(const std::vector<std::string>& arguments)
{
    tarvik::launch how{"/usr/bin/tvkctl"};
    how.arguments = arguments;
    how.errors = tarvik::launch::standard_error::capture;
    return how;
}

/// Runs tvkctl to its end.
result run(const std::vector<std::string>& arguments)
{
    tarvik::child_process process(command(arguments));
    const tarvik::exit_status status = process.wait_for_exit(kLimit);
    EXPECT_EQ(status.end, tarvik::exit_status::how::exited) << status.text();
    return {status.number, settled(process.standard_output(kLimit)), settled(process.standard_error())};
}

result explain(const std::string& udi = kByIds, std::vector<std::string> options = {})
{
    options.insert(options.begin(), {"explain", udi});
    return run(options);
}

/// The shipped plugin with another machine in its header.
std::string plugin_of_another_machine()
{
    const std::string path = "/run/plugin_of_another_machine.so";
    fs::copy_file(kShippedPlugin, path, fs::copy_options::overwrite_existing);
    target::change_byte(path, offsetof(Elf32_Ehdr, e_machine), EM_386);
    return path;
}

/// Every scenario begins with the shipped plugins, an empty log that takes INFO, and nothing on the bus.
class tools : public testing::Test {
protected:
    tools()
    {
        support::make_log_directory();
        plugin_folder::restore();
    }

    /// Returns when udev's daemon too has done its part with the nodes.
    void plug_in(const std::string& device_file)
    {
        m_scanner.emplace(device_file);
        target::wait_for_node_rights();
    }

    static void expect(const result& came, int status, const std::string& out, const std::string& err = "")
    {
        EXPECT_EQ(came.status, status);
        EXPECT_EQ(came.out, out);
        EXPECT_EQ(came.err, err);
    }

    /// All checks but the last are well, and what is said of that ends the output.
    static void expect_failed(const result& came, const std::string& end)
    {
        EXPECT_NE(came.status, 0);
        EXPECT_EQ(std::regex_replace(came.out, std::regex("^(ok [^\n]*\n)+"), ""), end);
        EXPECT_EQ(came.err, "");
    }

    static void expect_part(const std::string& whole, const std::string& part)
    {
        EXPECT_NE(whole.find(part), std::string::npos) << whole << "---- lacks\n" << part;
    }

private:
    std::optional<target::scanner_process> m_scanner;
};

} // namespace

TEST_F(tools, list_shows_address_names_plugin_node_rights_and_driver)
{
    plug_in("plain");
    expect(run({"list"}), 0,
           "UDI                   NAME                    PLUGIN                  STATE     NODE             "
           "     "
           "RIGHTS                MAY OPEN  DRIVER\n"
           "usb:1a2b:3c4d:SN0042  Tarvik Virtual scanner  libryo-mora-hk-t210.so  loadable  "
           "/dev/bus/usb/BUS/DEV  crw-rw-r-- root:root  yes       -\n");
}

TEST_F(tools, list_shows_the_kernel_driver_on_the_interface)
{
    plug_in("serial_port");
    const json devices = json::parse(run({"list", "--json"}).out).at("devices");
    ASSERT_EQ(devices.size(), 1U);
    EXPECT_EQ(devices.front().at("kernel_driver"), "usbserial_generic");
}

TEST_F(tools, list_shows_a_user_without_rights_that_it_may_not_open)
{
    plug_in("plain");
    const guest acting;
    const json devices = json::parse(run({"list", "--json"}).out).at("devices");
    ASSERT_EQ(devices.size(), 1U);
    EXPECT_EQ(devices.front().at("node").at("may_open"), false);
}

TEST_F(tools, run_receives_a_mebibyte_into_a_file_with_every_byte_right)
{
    plug_in("plain");
    fs::remove(kScannedFile);
    const result came = run({"run", kByIds, "send 56534331 0300 0700 00001000 00000000", "recv 16",
                             "recv 1MiB > " + kScannedFile});
    EXPECT_EQ(came.status, 0) << came.err;
    const std::string data = support::read_file(kScannedFile);
    EXPECT_TRUE(virtual_scanner::bytes(data.begin(), data.end()) == virtual_scanner::pattern(1024 * 1024))
        << data.size() << " bytes, or others";
}

TEST_F(tools, explain_opens_and_closes_when_all_is_well)
{
    plug_in("plain");
    const result came = explain();
    EXPECT_EQ(came.status, 0) << came.out;
    for (const std::string& summary :
         {std::string(
              "1a2b:3c4d at bus BUS device DEV, \"Tarvik\", \"Virtual scanner\", serial number \"SN0042\""),
          std::string("/dev/bus/usb/BUS/DEV is crw-rw-r-- root:root, open to this user"),
          std::string("interface 0 with bulk endpoints 81 in and 02 out"),
          kShippedPlugin + " can be loaded and has the four entry points",
          kProgram + std::string(" starts, prints a port and accepts"),
          std::string("the scanner was opened and closed again")})
        expect_part(came.out, "  " + summary + "\n");
}

TEST_F(tools, explain_gives_a_user_without_rights_the_udev_rule)
{
    plug_in("plain");
    const guest acting;
    expect_failed(
        explain(),
        R"(failed       rights     /dev/bus/usb/BUS/DEV is crw-rw-r-- root:root, and this user may not open it for reading and writing
        - this user is guest (1000), in group guest scanner
      Next:
        echo 'SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}=="1a2b", ATTR{idProduct}=="3c4d", GROUP="scanner", MODE="0660", TAG+="uaccess"' | sudo tee /etc/udev/rules.d/70-tvkintif-1a2b-3c4d.rules
        sudo udevadm control --reload
        plug the scanner in again
)");
}

TEST_F(tools, explain_warns_of_a_kernel_driver_and_opens)
{
    plug_in("serial_port");
    const result came = explain("usb:1a2b:5e1a");
    EXPECT_EQ(came.status, 0);
    expect_part(came.out,
                "warning      driver     kernel driver usbserial_generic is bound to interface 0\n");
}

TEST_F(tools, explain_names_the_process_that_has_the_device)
{
    plug_in("plain");
    tarvik::front_end holder(tarvik::launch{kProgram});
    holder.connect(kLimit);
    ASSERT_TRUE(holder.open(kByIds, kLimit));
    const std::string pid = std::to_string(holder.process().pid());
    expect_failed(explain(), "failed       driver     another process has claimed interface 0\n"
                             "        - tvkintif (process " +
                                 pid +
                                 ") has the device open\n"
                                 "      Next:\n"
                                 "        kill " +
                                 pid + "   # ends tvkintif\n");
}

TEST_F(tools, explain_reports_a_plugin_for_another_machine)
{
    plug_in("plain");
    const plugin_folder plugins(plugin_of_another_machine(), kDefaultPlugin);
    expect_failed(explain(), "failed       plugin     " + kShippedPlugin +
                                 " cannot be loaded\n"
                                 "        - the loader says: " +
                                 kShippedPlugin +
                                 ": cannot open shared object file: No such file or directory\n"
                                 "        - machine: x86; a process there runs on ARM\n"
                                 "      Next:\n"
                                 "        install the plugin that is built for 32-bit ARM, hard float\n"
                                 "        tvkctl check-plugin " +
                                 kShippedPlugin + "\n");
}

namespace {

/// What check-plugin says of the file of a good plugin.
std::string good_file(const std::string& path, const std::string& judged_for)
{
    return path + ", judged for " + judged_for +
           " (32-bit ARM, hard float)\n"
           "ok           kind                shared library\n"
           "ok           class               32-bit, little-endian\n"
           "ok           machine             ARM\n"
           "ok           float ABI           hard float\n"
           "ok           libraries           libc.so.6, ld-linux-armhf.so.3\n"
           "ok           glibc               2.4 or newer; there is 2.36\n"
           "ok           versions            every library has the versions that are needed\n"
           "ok           interpreter_ctor    function, exported\n"
           "ok           interpreter_dtor    function, exported\n"
           "ok           interpreter_reader  function, exported\n"
           "ok           interpreter_writer  function, exported\n"
           "ok           symbols             all that it uses are in libraries that it names\n"
           "ok           stack               not executable\n"
           "ok           relocations         none in the code\n";
}

/// What it says of a session with such a device, and of the two functions that move bytes.
std::string good_run(const std::string& device, const std::string& moved = "returned 1 after TIME")
{
    return "\n"
           "run with a device that " +
           device +
           "\n"
           "ok           load                returned after TIME\n"
           "ok           interpreter_ctor    returned 1 after TIME\n"
           "ok           interpreter_writer  " +
           moved +
           "\n"
           "ok           interpreter_reader  " +
           moved +
           "\n"
           "ok           interpreter_dtor    returned after TIME\n"
           "ok           unload              returned after TIME\n"
           "ok           transfers           TRANSFERS\n";
}

} // namespace

TEST_F(tools, check_plugin_finds_the_shipped_plugin_good)
{
    expect(run({"check-plugin", kShippedPlugin}), 0, good_file(kShippedPlugin, "armhf"));
}

TEST_F(tools, check_plugin_takes_the_shipped_plugin_through_three_sessions)
{
    const std::string failed = "returned 0 after TIME: failed, as it may without a device";
    expect(run({"check-plugin", kShippedPlugin, "--run"}), 0,
           good_file(kShippedPlugin, "native") + good_run("moves all bytes") +
               good_run("moves half of the bytes") + good_run("moves nothing", failed));
}

TEST_F(tools, check_plugin_tells_where_a_plugin_crashed)
{
    const std::string crash =
        "ended the process: signal 6 (Aborted), at address 0xNUMBER of libc.so.6, probably "
        "called from interpreter_reader+0xNUMBER (address 0xNUMBER of aborting.so)";
    const std::string path = test_plugin("aborting");
    const result came = run({"check-plugin", path, "--run"});
    EXPECT_EQ(came.status, static_cast<int>(tarvik::tvkctl::exit_code::plugin_crashed));
    EXPECT_EQ(came.err, "tvkctl: " + path + ": interpreter_reader: " + crash +
                            ". Find the line with addr2line -fe FILE ADDRESS.\n");
    expect_part(came.out, "run with a device that moves nothing\n");
}

namespace {

/// Where the user of the guide stands: a folder with a good plugin and one that crashes.
fs::path folder_of_the_guide()
{
    const fs::path folder = "/run/guide";
    fs::remove_all(folder);
    fs::create_directory(folder);
    fs::copy_file(kShippedPlugin, folder / "good.so");
    fs::copy_file(test_plugin("aborting"), folder / "crashing.so");
    return folder;
}

/// The commands of an example with what they print to the user "guest".
std::string played(const support::page_part& shown, const fs::path& folder)
{
    const guest acting;
    std::string text;
    for (const std::string& typed : support::commands_of(shown)) {
        tarvik::launch how{"/bin/sh", {"-c", typed + " 2>&1"}};
        how.working_directory = folder;
        tarvik::child_process process(how);
        process.wait_for_exit(kLimit);
        text += "$ " + typed + "\n" + process.standard_output(kLimit);
    }
    return text;
}

} // namespace

/// The other examples are compared where no ARM machine is needed.
TEST_F(tools, print_what_the_plugin_guide_shows)
{
    const fs::path folder = folder_of_the_guide();
    std::size_t count = 0;
    for (const support::page_part& shown : support::examples_of("/usr/share/doc/tvkintif/tvkctl.md")) {
        if (shown.name != "check-plugin")
            continue;
        EXPECT_EQ(settled(shown.text), settled(played(shown, folder)));
        ++count;
    }
    EXPECT_EQ(count, 2U);
}
