#include "tvkctl/src/diagnosis/diagnosis.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_usb/checked_bus.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "support/temporary_folder.h"
#include "tvkctl/src/machine/accounts.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

namespace fs = std::filesystem;
using texts = std::vector<std::string>;

texts texts_of(const std::vector<advice>& next)
{
    texts all;
    for (const advice& what : next)
        all.push_back(what.text);
    return all;
}

TEST(address_check_test, ids_are_reported)
{
    check_context context{"usb:1a2b:3c4d", {}};
    const check_result result = check_address(context);
    EXPECT_EQ(result.came_out, outcome::ok);
    EXPECT_EQ(result.summary, "vendor 1a2b, product 3c4d, any serial number");
}

TEST(address_check_test, a_serial_number_is_reported)
{
    check_context context{"usb:0x1a2b:a71:SN 42", {}};
    EXPECT_EQ(check_address(context).summary, "vendor 1a2b, product 0a71, serial number \"SN 42\"");
}

/// What is said of an address that cannot be used.
std::string flaw_of(const std::string& udi)
{
    check_context context{udi, {}};
    const check_result result = check_address(context);
    EXPECT_EQ(result.came_out, outcome::failed) << udi;
    EXPECT_EQ(result.why.word, "malformed");
    std::string all = result.summary;
    for (const std::string& line : result.evidence)
        all += "; " + line;
    return all;
}

TEST(address_check_test, the_field_that_is_wrong_is_named)
{
    EXPECT_EQ(flaw_of("1a2b:3c4d"), "it does not begin with usb: in lower case");
    EXPECT_EQ(flaw_of("USB:1a2b:3c4d"), "it does not begin with usb: in lower case");
    EXPECT_EQ(flaw_of("usb:1a2b"), "field 2, the product id, is missing");
    EXPECT_EQ(flaw_of("usb::3c4d"), "field 1, the vendor id, is missing");
    EXPECT_EQ(flaw_of("usb:1a2b:3c4g"),
              "field 2, the product id, is \"3c4g\" and not 1 to 4 hexadecimal digits other than 0");
    EXPECT_EQ(flaw_of("usb:13c4d:3c4d"),
              "field 1, the vendor id, is \"13c4d\" and not 1 to 4 hexadecimal digits other than 0");
    EXPECT_EQ(flaw_of("usb:1a2b:0"),
              "field 2, the product id, is \"0\" and not 1 to 4 hexadecimal digits other than 0");
}

TEST(address_check_test, every_wrong_field_is_named)
{
    EXPECT_EQ(flaw_of("usb:x:"),
              "field 1, the vendor id, is \"x\" and not 1 to 4 hexadecimal digits other than "
              "0; field 2, the product id, is missing");
}

TEST(address_check_test, bus_and_device_are_warned_of)
{
    check_context context{"usb:1a2b:3c4d:1f:5", {}};
    const check_result result = check_address(context);
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "location_ignored");
    EXPECT_EQ(result.evidence.front(), "bus 1f and device 5 are read, but choose no device");
}

TEST(address_check_test, fields_beyond_the_last_are_warned_of)
{
    check_context context{"usb:1a2b:3c4d:1:5:6", {}};
    EXPECT_EQ(check_address(context).evidence.back(), "what follows field 4 is ignored");
}

class bus_check_test : public testing::Test {
protected:
    void plug(const std::string& name, std::uint16_t vendor, std::uint16_t product, const std::string& serial)
    {
        fake_usb::device device = fake_usb::scanner_device();
        device.name = name;
        device.vendor_id = vendor;
        device.product_id = product;
        if (!serial.empty())
            device.serial = serial;
        device.address = ++addresses;
        bus.plug(device);
    }
    check_result look(const std::string& udi)
    {
        context = check_context{udi, {folder / "dev", folder / "sys", folder / "proc", ""}};
        return check_bus(context);
    }

    temporary_folder folder;
    std::uint8_t addresses = 0;
    check_context context;
    fake_usb::checked_bus bus;
};

TEST_F(bus_check_test, the_device_is_described)
{
    plug("one", 0x1a2b, 0x3c4d, "SN42");
    const check_result result = look("usb:1a2b:3c4d:SN42");
    EXPECT_EQ(result.came_out, outcome::ok);
    EXPECT_EQ(result.summary, "1a2b:3c4d at bus 1 device 1, serial number \"SN42\"");
    EXPECT_EQ(context.device, &context.devices.front());
}

TEST_F(bus_check_test, the_name_of_the_device_is_reported)
{
    fake_usb::device device = fake_usb::scanner_device();
    device.manufacturer = "Tarvik";
    device.product = "Model X";
    bus.plug(device);
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_NE(result.summary.find("\"Tarvik\", \"Model X\""), std::string::npos) << result.summary;
}

TEST_F(bus_check_test, an_empty_bus_is_reported)
{
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.came_out, outcome::failed);
    EXPECT_EQ(result.why.word, "absent");
    EXPECT_EQ(result.summary, "no USB device is 1a2b:3c4d (devices on the bus: 0)");
}

TEST_F(bus_check_test, near_misses_are_reported)
{
    plug("one", 0x1a2b, 0x9999, "");
    plug("two", 0x7777, 0x3c4d, "");
    plug("three", 0x7777, 0x8888, "");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.summary, "no USB device is 1a2b:3c4d (devices on the bus: 3)");
    EXPECT_EQ(result.evidence, (texts{"same vendor: 1a2b:9999 at bus 1 device 1, no serial number",
                                      "same product id, other vendor: 7777:3c4d at bus 1 device 2, no serial "
                                      "number"}));
}

TEST_F(bus_check_test, a_serial_number_that_no_device_has_is_warned_of)
{
    plug("one", 0x1a2b, 0x3c4d, "SN1");
    plug("two", 0x1a2b, 0x3c4d, "SN2");
    const check_result result = look("usb:1a2b:3c4d:sn2");
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "other_serial");
    EXPECT_EQ(result.summary,
              "no device has serial number \"sn2\": the program opens the first with these ids, "
              "1a2b:3c4d at bus 1 device 1, serial number \"SN1\"");
    EXPECT_EQ(result.evidence.size(), 2U);
}

TEST_F(bus_check_test, the_device_with_the_serial_number_is_chosen)
{
    plug("one", 0x1a2b, 0x3c4d, "SN1");
    plug("two", 0x1a2b, 0x3c4d, "SN2");
    EXPECT_EQ(look("usb:1a2b:3c4d:SN2").came_out, outcome::ok);
    EXPECT_EQ(context.device->serial, "SN2");
}

TEST_F(bus_check_test, several_devices_without_serial_number_in_the_address_are_warned_of)
{
    plug("one", 0x1a2b, 0x3c4d, "SN1");
    plug("two", 0x1a2b, 0x3c4d, "SN2");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.why.word, "ambiguous");
    EXPECT_EQ(
        result.summary,
        "2 devices fit; the program opens the first, 1a2b:3c4d at bus 1 device 1, serial number \"SN1\"");
    EXPECT_EQ(texts_of(result.next), (texts{"name the one that is meant by its serial number", ""}));
    EXPECT_EQ(result.next.back().step, tool_step::list_devices);
}

TEST_F(bus_check_test, devices_that_cannot_be_told_apart_are_warned_of)
{
    plug("one", 0x1a2b, 0x3c4d, "");
    plug("two", 0x1a2b, 0x3c4d, "");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.why.word, "ambiguous");
    EXPECT_EQ(texts_of(result.next),
              texts{"unplug all but the one that is meant: they cannot be told apart"});
}

TEST_F(bus_check_test, a_location_where_the_first_device_is_is_accepted)
{
    plug("one", 0x1a2b, 0x3c4d, "");
    EXPECT_EQ(look("usb:1a2b:3c4d:1:1").came_out, outcome::ok);
}

TEST_F(bus_check_test, a_location_where_another_device_is_is_warned_of)
{
    plug("one", 0x1a2b, 0x3c4d, "");
    plug("two", 0x1a2b, 0x3c4d, "");
    const check_result result = look("usb:1a2b:3c4d:1:2");
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "other_location");
    EXPECT_EQ(result.evidence, texts{"the address names bus 1 device 2"});
}

/// The checks after that of the bus, on a device that is made up.
class device_check_test : public testing::Test {
protected:
    device_check_test()
    {
        device.vendor_id = 0x1a2b;
        device.product_id = 0x3c4d;
        device.port_path = "1-1";
        device.active_configuration = 1;
        device.configurations = {{1, {setting(0)}}};
        device.node.path = folder / "node";
        device.node.exists = true;
        device.node.owner = {0, "root"};
        device.node.group = {0, "root"};
        device.node.mode = S_IFCHR | 0600;
        context.device = &device;
        context.machine.sysfs = folder / "sys";
        context.machine.processes = folder / "proc";
        folder.append("node", "");
    }

    static usb_setting setting(int number, std::vector<usb_endpoint> endpoints = {{0x81, 2}, {0x02, 2}})
    {
        return {number, 0, 0xff, 0, 0xff, std::move(endpoints)};
    }

    void bind(int interface_number, const std::string& driver)
    {
        const fs::path place = folder / ("sys/bus/usb/devices/1-1:1." + std::to_string(interface_number));
        fs::create_directories(place);
        fs::create_symlink("../drivers/" + driver, place / "driver");
    }

    void hold_by(pid_t process, const std::string& name)
    {
        const std::string place = "proc/" + std::to_string(process);
        fs::create_directories(folder / (place + "/fd"));
        folder.append(place + "/comm", name + "\n");
        fs::create_symlink(device.node.path, folder / (place + "/fd/3"));
    }

    check_result check_driver_of_usable()
    {
        EXPECT_NE(check_interface(context).came_out, outcome::failed);
        return check_driver(context);
    }

    temporary_folder folder;
    usb_device device;
    check_context context{"usb:1a2b:3c4d", {}};
};

using rights_check_test = device_check_test;

TEST_F(rights_check_test, a_node_that_this_user_may_open_is_good)
{
    device.node.may_open = true;
    const check_result result = check_rights(context);
    EXPECT_EQ(result.came_out, outcome::ok);
    EXPECT_EQ(result.summary, device.node.path + " is crw------- root:root, open to this user");
}

TEST_F(rights_check_test, a_node_that_is_closed_comes_with_the_rule_that_opens_it)
{
    const check_result result = check_rights(context);
    EXPECT_EQ(result.came_out, outcome::failed);
    EXPECT_EQ(result.why.word, "no_rights");
    const std::string rule = R"(SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}=="1a2b")";
    const std::string command = result.next.front().text;
    EXPECT_EQ(command.rfind("echo '" + rule, 0), 0U) << command;
    EXPECT_NE(command.find("' | sudo tee /etc/udev/rules.d/70-tvkintif-1a2b-3c4d.rules"), std::string::npos)
        << command;
    EXPECT_EQ(result.evidence.front().rfind("this user is " + user_of(geteuid()).name, 0), 0U);
}

TEST_F(rights_check_test, a_missing_node_is_reported)
{
    device.node.exists = false;
    const check_result result = check_rights(context);
    EXPECT_EQ(result.why.word, "no_node");
    EXPECT_EQ(result.summary, device.node.path + " does not exist");
}

using interface_check_test = device_check_test;

TEST_F(interface_check_test, the_interface_and_its_endpoints_are_reported)
{
    const check_result result = check_interface(context);
    EXPECT_EQ(result.came_out, outcome::ok);
    EXPECT_EQ(result.summary, "interface 0 with bulk endpoints 81 in and 02 out");
}

TEST_F(interface_check_test, each_setting_tells_what_it_lacks)
{
    usb_setting printer = setting(0);
    printer.interface_class = 7;
    printer.interface_protocol = 2;
    device.configurations = {
        {1, {printer, setting(1, {{0x81, 2}}), setting(2, {{0x02, 2}}), setting(3, {{0x81, 3}})}}};
    const check_result result = check_interface(context);
    EXPECT_EQ(result.came_out, outcome::failed);
    EXPECT_EQ(result.why.word, "no_interface");
    EXPECT_EQ(
        result.evidence,
        (texts{"configuration 1, interface 0, setting 0: class 07 and protocol 02 where ff and ff are needed",
               "configuration 1, interface 1, setting 0: no bulk endpoint to the device",
               "configuration 1, interface 2, setting 0: no bulk endpoint from the device",
               "configuration 1, interface 3, setting 0: no bulk endpoint"}));
}

TEST_F(interface_check_test, a_device_without_readable_descriptors_is_reported)
{
    device.configurations.clear();
    EXPECT_EQ(check_interface(context).why.word, "no_descriptors");
}

TEST_F(interface_check_test, another_configuration_than_1_is_warned_of)
{
    device.configurations = {{2, {setting(0)}}};
    const check_result result = check_interface(context);
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "other_configuration");
}

TEST_F(interface_check_test, an_alternate_setting_is_warned_of)
{
    device.configurations.front().settings.front().alternate = 1;
    EXPECT_EQ(check_interface(context).why.word, "alternate_setting");
}

using driver_check_test = device_check_test;

TEST_F(driver_check_test, a_free_interface_is_good)
{
    const check_result result = check_driver_of_usable();
    EXPECT_EQ(result.came_out, outcome::ok);
    EXPECT_EQ(result.summary, "interface 0 is free");
}

TEST_F(driver_check_test, a_kernel_driver_is_warned_of)
{
    bind(0, "usblp");
    const check_result result = check_driver_of_usable();
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "kernel_driver");
    EXPECT_EQ(result.summary, "kernel driver usblp is bound to interface 0");
}

TEST_F(driver_check_test, a_claim_of_another_process_names_the_process)
{
    bind(0, "usbfs");
    hold_by(4711, "front-end");
    const check_result result = check_driver_of_usable();
    EXPECT_EQ(result.came_out, outcome::failed);
    EXPECT_EQ(result.why.word, "claimed");
    EXPECT_EQ(result.summary, "another process has claimed interface 0");
    EXPECT_EQ(result.evidence, texts{"front-end (process 4711) has the device open"});
    EXPECT_EQ(texts_of(result.next), texts{"kill 4711   # ends front-end"});
}

TEST_F(driver_check_test, a_claim_on_an_interface_that_is_tried_first_counts)
{
    device.configurations = {{1, {setting(0, {{0x81, 2}}), setting(1)}}};
    bind(0, "usbfs");
    EXPECT_EQ(check_driver_of_usable().summary, "another process has claimed interface 0");
}

TEST_F(driver_check_test, a_claim_on_an_interface_that_is_never_tried_does_not_count)
{
    device.configurations = {{1, {setting(0), setting(1)}}};
    bind(1, "usbfs");
    EXPECT_EQ(check_driver_of_usable().came_out, outcome::ok);
}

TEST_F(driver_check_test, a_claim_by_an_unseen_process_asks_for_more_rights)
{
    bind(0, "usbfs");
    const std::vector<advice> next = check_driver_of_usable().next;
    EXPECT_EQ(texts_of(next), texts{"sees the processes of all users"});
    EXPECT_EQ(next.at(0).step, tool_step::explain_as_root);
    EXPECT_EQ(next.at(0).parameter, "usb:1a2b:3c4d");
}

TEST_F(driver_check_test, a_process_that_only_has_the_device_open_is_warned_of)
{
    hold_by(4711, "lsusb");
    const check_result result = check_driver_of_usable();
    EXPECT_EQ(result.came_out, outcome::warning);
    EXPECT_EQ(result.why.word, "held");
}

TEST_F(driver_check_test, this_process_does_not_count_as_another)
{
    hold_by(getpid(), "tvkctl");
    EXPECT_EQ(check_driver_of_usable().came_out, outcome::ok);
}

TEST_F(driver_check_test, without_sysfs_the_driver_is_not_checked)
{
    device.active_configuration.reset();
    EXPECT_EQ(check_driver_of_usable().came_out, outcome::not_checked);
}

class plugin_check_test : public device_check_test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::remove_plugins();
        install("plugin_good");
    }
    void TearDown() override
    {
        if (m_isSomebody) {
            ASSERT_EQ(setresuid(0, 0, 0), 0) << "later tests would run as somebody";
        }
    }

    static void install(const std::string& plugin)
    {
        support::install_plugin(plugin, "libryo-mora-hk-t210.so");
    }
    static std::string file() { return lib_path(plugin_name(0x3c4d)); }

    /// Looks as a user who is not root.
    check_result look_as_somebody()
    {
        m_isSomebody = getuid() == 0 && setresuid(kSomebody, kSomebody, 0) == 0;
        if (!m_isSomebody)
            []() { GTEST_SKIP() << "needs root, whom nothing is closed to, to become another user"; }();
        return m_isSomebody ? check_installed_plugin(context) : check_result{};
    }

    static constexpr uid_t kSomebody = 54321;

private:
    bool m_isSomebody = false;
};

TEST_F(plugin_check_test, a_plugin_that_can_be_loaded_is_good)
{
    EXPECT_EQ(check_installed_plugin(context).summary,
              file() + " can be loaded and has the four entry points");
}

TEST_F(plugin_check_test, a_plugin_that_is_closed_to_the_user_tells_how_to_open_it)
{
    fs::permissions(file(), fs::perms::owner_all);
    const check_result result = look_as_somebody();
    if (IsSkipped())
        return;
    EXPECT_EQ(result.why.word, "no_permission");
    EXPECT_EQ(result.summary, file() + " is closed to 54321");
    EXPECT_EQ(texts_of(result.next), texts{"sudo chmod o+r " + file()});
}

TEST_F(plugin_check_test, a_folder_that_is_closed_to_the_user_tells_how_to_open_it)
{
    const std::string closed = fs::path(file()).parent_path();
    fs::permissions(closed, fs::perms::owner_all);
    const check_result result = look_as_somebody();
    if (IsSkipped())
        return;
    EXPECT_EQ(result.why.word, "no_permission");
    EXPECT_EQ(result.summary, closed + " is closed to 54321");
    EXPECT_EQ(texts_of(result.next), texts{"sudo chmod o+x " + closed});
}

TEST_F(plugin_check_test, an_empty_folder_is_reported)
{
    support::remove_plugins();
    EXPECT_EQ(check_installed_plugin(context).evidence.back(), "its folder is empty or missing");
}

TEST_F(plugin_check_test, a_plugin_that_hangs_when_it_is_loaded_is_given_up)
{
    install("plugin_hanging_when_loaded");
    context.load_timeout = std::chrono::seconds(1);
    const check_result result = check_installed_plugin(context);
    EXPECT_EQ(result.why.word, "hang");
    EXPECT_EQ(result.summary, file() + " hangs when it is loaded");
    EXPECT_EQ(result.evidence.front(), "given up after 1 s");
}

TEST_F(plugin_check_test, a_plugin_that_throws_an_exception_when_it_is_loaded_is_reported)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own dlopen() lets no exception pass: such a plugin ends the process";
#endif
    install("plugin_throwing_when_loaded");
    const check_result result = check_installed_plugin(context);
    EXPECT_EQ(result.why.word, "crash");
    EXPECT_EQ(result.summary, file() + " throws an exception when it is loaded");
}

TEST_F(plugin_check_test, a_plugin_that_crashes_when_it_is_unloaded_is_reported)
{
    install("plugin_crashing_when_unloaded");
    const check_result result = check_installed_plugin(context);
    EXPECT_EQ(result.why.word, "crash");
    EXPECT_EQ(result.summary, file() + " ends the process when it is unloaded");
}

} // namespace

} // namespace tarvik::tvkctl
