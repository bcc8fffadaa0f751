#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "process/tvkctl/explain_test.h"
#include "process/tvkctl/tvkctl_test.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using nlohmann::json;

const std::string kPlugin = support::kPluginDirectory + "/libryo-mora-hk-t210.so";

class tvkctl_list_test : public tvkctl_test {
protected:
    static constexpr const char* kMouse = "device mouse 046d:c077\n"
                                          "  configuration 1\n"
                                          "    interface 0 03 01\n"
                                          "    endpoint 81 interrupt\n";
};

/// On a machine with device nodes.
using tvkctl_list_node_test = explain_test;

TEST_F(tvkctl_list_test, shows_address_name_and_plugin_of_each_usable_device)
{
    with_bus("device scanner 1a2b:3c4d serial SN 42\n"
             "  manufacturer Tarvik\n"
             "  product Model X\n"
             "device other 1a2b:0a72\n" +
             std::string(kMouse));
    const tvkctl_result result = run({"list"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "UDI                    NAME            PLUGIN                           STATE          "
              "NODE                  RIGHTS   MAY OPEN  DRIVER\n"
              "'usb:1a2b:3c4d:SN 42'  Tarvik Model X  libryo-mora-hk-t210.so           loadable       "
              "/dev/bus/usb/001/001  no node  no        -\n"
              "usb:1a2b:0a72          -               libquban-plugin-stellan-x440.so  not installed  "
              "/dev/bus/usb/001/002  no node  no        -\n");
}

TEST_F(tvkctl_list_test, all_shows_the_other_devices_as_well)
{
    with_bus(kMouse);
    EXPECT_EQ(run({"list", "--all"}).out,
              "UDI          NAME  PLUGIN  STATE  NODE                  RIGHTS   MAY OPEN  DRIVER\n"
              "(046d:c077)  -     -       -      /dev/bus/usb/001/001  no node  no        -\n");
}

TEST_F(tvkctl_list_test, json_holds_all_that_is_known)
{
    with_bus("device scanner 1a2b:3c4d serial SN42\n"
             "  manufacturer Tarvik\n"
             "  product Model X\n"
             "  place 3 7 2 1\n");
    const json expected = json::parse(R"({"devices": [{
        "udi": "usb:1a2b:3c4d:SN42", "vendor_id": "1a2b", "product_id": "3c4d",
        "serial": "SN42", "manufacturer": "Tarvik", "product": "Model X",
        "bus": 3, "address": 7, "port": "3-2.1",
        "interface": {"configuration": 1, "number": 0, "alternate": 0, "bulk_in": "0x81", "bulk_out": "0x02"},
        "plugin": {"path": "PLUGIN", "installed": true, "loadable": true, "problem": null},
        "node": {"path": "/dev/bus/usb/003/007", "exists": false},
        "kernel_driver": null, "warnings": []}]})");
    json document = json::parse(run({"list", "--json"}).out);
    json& path = document["devices"][0]["plugin"]["path"];
    EXPECT_TRUE(fs::equivalent(path.get<std::string>(), kPlugin)) << path;
    path = "PLUGIN";
    EXPECT_EQ(document, expected);
}

TEST_F(tvkctl_list_node_test, the_rights_of_a_node_are_reported)
{
    const tvkctl_result result = run({"list"});
    EXPECT_NE(result.out.find("/dev/bus/usb/001/001  -rw-rw-rw- root:root  yes       -\n"), std::string::npos)
        << result.out;
    EXPECT_EQ(json::parse(run({"list", "--json"}).out)["devices"][0]["node"], json::parse(R"({
        "path": "/dev/bus/usb/001/001", "exists": true, "owner": "root", "group": "root",
        "mode": "-rw-rw-rw-", "may_open": true})"));
}

TEST_F(tvkctl_list_test, devices_that_cannot_be_told_apart_are_warned_of_once)
{
    with_bus("device one 1a2b:3c4d\ndevice two 1a2b:3c4d\n");
    const tvkctl_result result = run({"list"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              "tvkctl: warning: usb:1a2b:3c4d fits /dev/bus/usb/001/001 and "
              "/dev/bus/usb/001/002: which of them is opened depends on their order on the bus\n");
}

TEST_F(tvkctl_list_test, a_plugin_that_cannot_be_loaded_is_warned_of)
{
    std::ofstream(kPlugin) << "no library";
    const tvkctl_result result = run({"list"});
    EXPECT_NE(result.out.find("not loadable"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("/libryo-mora-hk-t210.so cannot be loaded: not an ELF file\n"),
              std::string::npos)
        << result.err;
}

TEST_F(tvkctl_list_test, a_bus_without_scanners_is_not_an_error)
{
    with_bus(kMouse);
    const tvkctl_result result = run({"list"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "tvkctl: no device found that tvkintif could drive; tvkctl list --all shows the others\n");
    EXPECT_EQ(json::parse(run({"list", "--json"}).out), json::parse(R"({"devices": []})"));
}

TEST_F(tvkctl_list_test, a_bus_that_cannot_be_searched_has_a_status_of_its_own)
{
    with_bus("fail get_device_list LIBUSB_ERROR_NO_MEM\n");
    const tvkctl_result result = run({"list"});
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.err, "tvkctl: the USB devices cannot be enumerated: libusb_get_device_list answers "
                          "LIBUSB_ERROR_NO_MEM. Check that this machine has USB and that /dev/bus/usb and "
                          "/sys/bus/usb are there.\n");
}

TEST_F(tvkctl_list_test, a_full_disk_behind_standard_output_is_reported)
{
    const tvkctl_result result = run_in_shell("\"$TVKCTL\" list >/dev/full");
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err,
              "tvkctl: standard output cannot be written. Look for a full disk or a closed reader.\n");
}

TEST_F(tvkctl_list_test, colours_are_shown_on_a_terminal_unless_the_user_wants_none)
{
    REQUIRE_TERMINALS();
    start_on_terminal("list");
    const std::string coloured = wait().out;
    EXPECT_NE(coloured.find("\033[1mUDI\033[0m"), std::string::npos) << coloured;
    with_environment("NO_COLOR", "1");
    start_on_terminal("list");
    const std::string plain = wait().out;
    EXPECT_NE(plain.find("UDI"), std::string::npos) << plain;
    EXPECT_EQ(plain.find('\033'), std::string::npos) << plain;
}

} // namespace

} // namespace process_test
