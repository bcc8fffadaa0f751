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

/// How a check came out, its cause, and what it says: "failed absent: no USB device is ...".
std::string told(const check_result& result)
{
    const std::string cause(result.why.word);
    return name_of(result.came_out) + (cause.empty() ? "" : " " + cause) + ": " + result.summary;
}

/// The same with its evidence.
std::string told_of_address(const std::string& udi)
{
    check_context context{udi, {}};
    const check_result result = check_address(context);
    std::string all = told(result);
    for (const std::string& line : result.evidence)
        all += "; " + line;
    return all;
}

TEST(address_check_test, ids_and_a_serial_number_are_reported)
{
    EXPECT_EQ(told_of_address("usb:1a2b:3c4d"), "ok: vendor 1a2b, product 3c4d, any serial number");
    EXPECT_EQ(told_of_address("usb:0x1a2b:a71:SN 42"),
              "ok: vendor 1a2b, product 0a71, serial number \"SN 42\"");
}

TEST(address_check_test, every_field_that_is_wrong_is_named)
{
    const std::string no_id = " and not 1 to 4 hexadecimal digits other than 0";
    const std::pair<const char*, std::string> wrong_addresses[] = {
        {"1a2b:3c4d", "it does not begin with usb: in lower case"},
        {"USB:1a2b:3c4d", "it does not begin with usb: in lower case"},
        {"usb:1a2b", "field 2, the product id, is missing"},
        {"usb::3c4d", "field 1, the vendor id, is missing"},
        {"usb:1a2b:3c4g", "field 2, the product id, is \"3c4g\"" + no_id},
        {"usb:13c4d:3c4d", "field 1, the vendor id, is \"13c4d\"" + no_id},
        {"usb:1a2b:0", "field 2, the product id, is \"0\"" + no_id},
        {"usb:x:", "field 1, the vendor id, is \"x\"" + no_id + "; field 2, the product id, is missing"},
    };
    for (const auto& [udi, flaws] : wrong_addresses)
        EXPECT_EQ(told_of_address(udi), "failed malformed: " + flaws);
}

TEST(address_check_test, bus_and_device_and_fields_beyond_the_last_are_warned_of)
{
    const std::string warning =
        "warning location_ignored: vendor 1a2b, product 3c4d, serial number \"1f\"; bus 1f and device 5 are "
        "read, but choose no device; field 3 is looked for as a serial number; when no device has it, the "
        "ids decide";
    EXPECT_EQ(told_of_address("usb:1a2b:3c4d:1f:5"), warning);
    EXPECT_EQ(told_of_address("usb:1a2b:3c4d:1f:5:6"), warning + "; what follows field 4 is ignored");
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
    /// What no id tells apart.
    void plug_two(const std::string& first_serial, const std::string& second_serial)
    {
        plug("one", 0x1a2b, 0x3c4d, first_serial);
        plug("two", 0x1a2b, 0x3c4d, second_serial);
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
    EXPECT_EQ(told(look("usb:1a2b:3c4d:SN42")), "ok: 1a2b:3c4d at bus 1 device 1, serial number \"SN42\"");
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

TEST_F(bus_check_test, a_missing_device_is_reported_with_near_misses)
{
    EXPECT_EQ(told(look("usb:1a2b:3c4d")),
              "failed absent: no USB device is 1a2b:3c4d (devices on the bus: 0)");
    plug("one", 0x1a2b, 0x9999, "");
    plug("two", 0x7777, 0x3c4d, "");
    plug("three", 0x7777, 0x8888, "");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.summary, "no USB device is 1a2b:3c4d (devices on the bus: 3)");
    EXPECT_EQ(result.evidence, (texts{"same vendor: 1a2b:9999 at bus 1 device 1, no serial number",
                                      "same product id, other vendor: 7777:3c4d at bus 1 device 2, no serial "
                                      "number"}));
}

TEST_F(bus_check_test, a_serial_number_chooses_its_device_and_one_that_no_device_has_is_warned_of)
{
    plug_two("SN1", "SN2");
    EXPECT_EQ(look("usb:1a2b:3c4d:SN2").came_out, outcome::ok);
    EXPECT_EQ(context.device->serial, "SN2");
    const check_result result = look("usb:1a2b:3c4d:sn2");
    EXPECT_EQ(told(result),
              "warning other_serial: no device has serial number \"sn2\": the program opens the "
              "first with these ids, 1a2b:3c4d at bus 1 device 1, serial number \"SN1\"");
    EXPECT_EQ(result.evidence.size(), 2U);
}

TEST_F(bus_check_test, several_devices_without_serial_number_in_the_address_are_warned_of)
{
    plug_two("SN1", "SN2");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(told(result),
              "warning ambiguous: 2 devices fit; the program opens the first, 1a2b:3c4d at bus 1 "
              "device 1, serial number \"SN1\"");
    EXPECT_EQ(texts_of(result.next), (texts{"name the one that is meant by its serial number", ""}));
    EXPECT_EQ(result.next.back().step, tool_step::list_devices);
}

TEST_F(bus_check_test, devices_that_cannot_be_told_apart_are_warned_of)
{
    plug_two("", "");
    const check_result result = look("usb:1a2b:3c4d");
    EXPECT_EQ(result.why.word, "ambiguous");
    EXPECT_EQ(texts_of(result.next),
              texts{"unplug all but the one that is meant: they cannot be told apart"});
}

TEST_F(bus_check_test, a_location_where_the_first_device_is_is_accepted_and_another_one_warned_of)
{
    plug_two("", "");
    EXPECT_EQ(look("usb:1a2b:3c4d:1:1").came_out, outcome::ok);
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

TEST_F(rights_check_test, a_node_is_reported_that_this_user_may_open_or_that_is_missing)
{
    device.node.may_open = true;
    EXPECT_EQ(told(check_rights(context)),
              "ok: " + device.node.path + " is crw------- root:root, open to this user");
    device.node.exists = false;
    EXPECT_EQ(told(check_rights(context)), "failed no_node: " + device.node.path + " does not exist");
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

using interface_check_test = device_check_test;

TEST_F(interface_check_test, the_interface_and_its_endpoints_are_reported)
{
    EXPECT_EQ(told(check_interface(context)), "ok: interface 0 with bulk endpoints 81 in and 02 out");
}

TEST_F(interface_check_test, what_the_program_may_not_cope_with_is_told_by_its_cause)
{
    device.configurations.front().settings.front().alternate = 1;
    EXPECT_EQ(check_interface(context).why.word, "alternate_setting");
    device.configurations = {{2, {setting(0)}}};
    EXPECT_EQ(check_interface(context).came_out, outcome::warning);
    EXPECT_EQ(check_interface(context).why.word, "other_configuration");
    device.configurations.clear();
    EXPECT_EQ(check_interface(context).why.word, "no_descriptors");
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

using driver_check_test = device_check_test;

TEST_F(driver_check_test, a_free_interface_is_good_and_a_kernel_driver_warned_of)
{
    EXPECT_EQ(told(check_driver_of_usable()), "ok: interface 0 is free");
    bind(0, "usblp");
    EXPECT_EQ(told(check_driver_of_usable()),
              "warning kernel_driver: kernel driver usblp is bound to interface 0");
}

TEST_F(driver_check_test, a_claim_of_another_process_names_the_process)
{
    bind(0, "usbfs");
    hold_by(4711, "front-end");
    const check_result result = check_driver_of_usable();
    EXPECT_EQ(told(result), "failed claimed: another process has claimed interface 0");
    EXPECT_EQ(result.evidence, texts{"front-end (process 4711) has the device open"});
    EXPECT_EQ(texts_of(result.next), texts{"kill 4711   # ends front-end"});
}

TEST_F(driver_check_test,
       a_claim_counts_on_an_interface_that_is_tried_first_and_not_on_one_that_is_never_tried)
{
    bind(0, "usbfs");
    device.configurations = {{1, {setting(0, {{0x81, 2}}), setting(1)}}};
    EXPECT_EQ(check_driver_of_usable().summary, "another process has claimed interface 0");
    device.configurations = {{1, {setting(1), setting(0)}}};
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

TEST_F(driver_check_test, a_process_that_only_has_the_device_open_is_warned_of_unless_it_is_this_one)
{
    hold_by(getpid(), "tvkctl");
    EXPECT_EQ(check_driver_of_usable().came_out, outcome::ok);
    hold_by(4711, "lsusb");
    EXPECT_EQ(check_driver_of_usable().came_out, outcome::warning);
    EXPECT_EQ(check_driver_of_usable().why.word, "held");
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

TEST_F(plugin_check_test, a_plugin_that_can_be_loaded_is_good_and_an_empty_folder_reported)
{
    EXPECT_EQ(told(check_installed_plugin(context)),
              "ok: " + file() + " can be loaded and has the four entry points");
    support::remove_plugins();
    EXPECT_EQ(check_installed_plugin(context).evidence.back(), "its folder is empty or missing");
}

/// What a user who is not root may not read, and the right that opens it.
class closed_to_the_user : public plugin_check_test,
                           public testing::WithParamInterface<std::pair<std::string, std::string>> {};

TEST_P(closed_to_the_user, tells_how_to_open_it)
{
    const auto& [closed, right] = GetParam();
    fs::permissions(closed, fs::perms::owner_all);
    const check_result result = look_as_somebody();
    if (IsSkipped())
        return;
    EXPECT_EQ(told(result), "failed no_permission: " + closed + " is closed to 54321");
    EXPECT_EQ(texts_of(result.next), texts{"sudo chmod o+" + right + " " + closed});
}

INSTANTIATE_TEST_SUITE_P(, closed_to_the_user,
                         testing::Values(std::pair(lib_path(plugin_name(0x3c4d)), "r"),
                                         std::pair(fs::path(lib_path(plugin_name(0x3c4d))).parent_path(),
                                                   "x")));

TEST_F(plugin_check_test, a_plugin_that_hangs_when_it_is_loaded_is_given_up)
{
    install("plugin_hanging_when_loaded");
    context.load_timeout = std::chrono::seconds(1);
    const check_result result = check_installed_plugin(context);
    EXPECT_EQ(told(result), "failed hang: " + file() + " hangs when it is loaded");
    EXPECT_EQ(result.evidence.front(), "given up after 1 s");
}

TEST_F(plugin_check_test, a_plugin_that_throws_an_exception_when_it_is_loaded_is_reported)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own dlopen() lets no exception pass: such a plugin ends the process";
#endif
    install("plugin_throwing_when_loaded");
    EXPECT_EQ(told(check_installed_plugin(context)),
              "failed crash: " + file() + " throws an exception when it is loaded");
}

TEST_F(plugin_check_test, a_plugin_that_crashes_when_it_is_unloaded_is_reported)
{
    install("plugin_crashing_when_unloaded");
    EXPECT_EQ(told(check_installed_plugin(context)),
              "failed crash: " + file() + " ends the process when it is unloaded");
}

} // namespace

} // namespace tarvik::tvkctl
