#include <gtest/gtest.h>
#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tvkintif/src/usb.h"
#include "unit/tvkintif/watched_test.h"

using fake_usb::alt_setting;
using fake_usb::configuration;
using fake_usb::endpoint;
using fake_usb::ends_with;
using fake_usb::scanner_device;
using namespace std::string_literals;

namespace {

const std::string by_ids = "usb:1a2b:3c4d";
const std::string by_serial = "usb:1a2b:3c4d:SN0042";

// What always happens, step by step.

const lines construction = {"INFO usb_transceiver start", "init -> 0", "set_debug 3"};

const lines ids_search = {"INFO usb_transceiver open start", "INFO usb_transceiver open ",
                          "open_device_with_vid_pid 1a2b:3c4d -> scanner"};

const lines try_in_vain = {"open_device_with_vid_pid 1a2b:3c4d -> null",
                           "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds)};

/// What is asked first of a device on which configuration number `active` is in use.
lines questions(int active)
{
    return {"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> scanner",
            "get_device_descriptor scanner -> 0",
            "get_configuration scanner -> 0 (" + std::to_string(active) + ")"};
}

const lines first_configuration = {"get_config_descriptor scanner 0 -> 0"};

const lines interface_0_chosen = {"kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> 0",
                                  "free_config_descriptor scanner 0"};

const lines interface_0_given_up = {"kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> 0",
                                    "release_interface scanner 0 -> 0", "free_config_descriptor scanner 0"};

const lines no_interface_chosen = {"close scanner", "INFO usb_transceiver set_bulk_endpoints fails"};

const lines interface_0_released = {"release_interface scanner 0 -> 0", "close scanner"};

/// Shows what the class keeps to itself.
class open_book : public usb_transceiver {
public:
    using usb_transceiver::m_handle;
    using usb_transceiver::m_isKernelDriverDetached;
    using usb_transceiver::m_nBulkIn;
    using usb_transceiver::m_nBulkOut;
    using usb_transceiver::m_nConfiguration;
    using usb_transceiver::m_nInterface;
    using usb_transceiver::m_nProductId;
    using usb_transceiver::m_nVendorId;
    using usb_transceiver::sm_ctx;
    using usb_transceiver::sm_isInitialized;
    using usb_transceiver::sm_nConnectionCount;
    using usb_transceiver::sm_nDefaultTimeout;
};

static_assert(usb_transceiver::kOpenTries == 5 && usb_transceiver::kOpenPauseMicroseconds == 100);
static_assert(std::has_virtual_destructor_v<usb_transceiver>);
static_assert(!std::is_copy_constructible_v<usb_transceiver> && !std::is_copy_assignable_v<usb_transceiver>);

/// One connection, on a bus that the test fills.
class usb_test : public watched_test {
protected:
    void TearDown() override
    {
        usb.reset();
        watched_test::TearDown();
    }

    void connect() { usb = std::make_unique<open_book>(); }

    /// A connection on a bus with these devices, its construction forgotten.
    template <typename... Devices>
    void connect_to(const Devices&... devices)
    {
        (bus.plug(devices), ...);
        connect();
        forget_what_happened();
    }

    std::unique_ptr<open_book> usb;
};

// The shared context.

TEST_F(usb_test, construction_initialises_libusb_and_sets_its_message_level)
{
    connect();

    EXPECT_EQ(happened(), text({construction}));
    EXPECT_NE(open_book::sm_ctx, nullptr);
    EXPECT_TRUE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 1);
}

TEST_F(usb_test, destruction_of_the_only_object_gives_the_context_back)
{
    connect_to();
    usb.reset();

    EXPECT_EQ(happened(), "exit\n");
    EXPECT_EQ(open_book::sm_ctx, nullptr);
    EXPECT_FALSE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 0);
}

TEST_F(usb_test, two_objects_share_one_context_until_the_second_is_destroyed)
{
    connect();
    auto second = std::make_unique<usb_transceiver>();
    EXPECT_EQ(happened(), text({construction, {"INFO usb_transceiver start"}}));
    EXPECT_EQ(open_book::sm_nConnectionCount, 2);

    usb.reset();
    EXPECT_EQ(happened(), "");
    EXPECT_NE(open_book::sm_ctx, nullptr);

    second.reset();
    EXPECT_EQ(happened(), "exit\n");
}

TEST_F(usb_test, an_object_after_all_others_are_gone_initialises_a_fresh_context)
{
    connect();
    usb.reset();
    forget_what_happened();
    connect();

    EXPECT_EQ(happened(), text({construction}));
}

TEST_F(usb_test, construction_leaves_the_object_closed_and_its_members_at_their_initial_values)
{
    connect();

    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(usb->m_handle, nullptr);
    EXPECT_EQ(usb->m_nVendorId, 0);
    EXPECT_EQ(usb->m_nProductId, 0);
    EXPECT_EQ(usb->m_nConfiguration, -1);
    EXPECT_EQ(usb->m_nInterface, -1);
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(usb->m_nBulkIn, -1);
    EXPECT_EQ(usb->m_nBulkOut, -1);
    EXPECT_EQ(open_book::sm_nDefaultTimeout, 60000);
}

TEST_F(usb_test, construction_throws_the_name_of_the_error_when_libusb_cannot_be_initialised)
{
    bus.fail("init", LIBUSB_ERROR_OTHER);

    try {
        connect();
        FAIL() << "constructed";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "libusb_init: LIBUSB_ERROR_OTHER");
    }
}

TEST_F(usb_test, failed_initialisation_is_logged_and_leaves_nothing_behind)
{
    bus.fail("init", LIBUSB_ERROR_NO_MEM);

    EXPECT_THROW(connect(), std::runtime_error);
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver start", "init -> LIBUSB_ERROR_NO_MEM",
                                 "INFO libusb error = LIBUSB_ERROR_NO_MEM"}}));
    EXPECT_EQ(open_book::sm_ctx, nullptr);
    EXPECT_FALSE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 0);
}

TEST_F(usb_test, construction_tries_again_after_a_failed_initialisation)
{
    bus.fail("init", LIBUSB_ERROR_OTHER).times(1);
    EXPECT_THROW(connect(), std::runtime_error);
    forget_what_happened();
    connect();

    EXPECT_EQ(happened(), text({construction}));
    EXPECT_EQ(open_book::sm_nConnectionCount, 1);
}

// Addresses.

TEST_F(usb_test, getpid_yields_the_product_id_without_libusb_or_log)
{
    EXPECT_EQ(usb_transceiver::getpid("usb:1a2b:0a71"), 0x0A71);
    EXPECT_EQ(happened(), "");
}

TEST_F(usb_test, getpid_yields_the_greatest_product_id_as_a_positive_number)
{
    EXPECT_EQ(usb_transceiver::getpid("usb:1a2b:ffff"), 0xFFFF);
}

class usb_test_with_invalid_udi : public usb_test, public testing::WithParamInterface<std::string> {};

TEST_P(usb_test_with_invalid_udi, getpid_yields_minus_1_and_logs_the_udi)
{
    EXPECT_EQ(usb_transceiver::getpid(GetParam()), -1);
    EXPECT_EQ(happened(), "INFO machine: invalid UDI '" + GetParam() + "'\n");
}

TEST_P(usb_test_with_invalid_udi, open_fails_and_touches_nothing)
{
    connect_to(scanner_device());

    EXPECT_FALSE(usb->open(GetParam()));
    EXPECT_EQ(happened(), "INFO machine: invalid UDI '" + GetParam() + "'\n");
    EXPECT_FALSE(usb->is_open());
}

INSTANTIATE_TEST_SUITE_P(such_as, usb_test_with_invalid_udi,
                         testing::Values("usb:1a2b:0", "usb:0:3c4d", "usb:1a2b", "USB:1a2b:3c4d",
                                         "net:1a2b:3c4d:SN0042", "", "%s%n"));

// The search for the device.

TEST_F(usb_test, open_without_a_serial_opens_the_first_device_with_the_ids)
{
    connect_to(scanner_device());

    EXPECT_TRUE(usb->open(by_ids));
    EXPECT_TRUE(usb->is_open());
    EXPECT_EQ(happened(), text({ids_search, questions(1), first_configuration, interface_0_chosen}));
}

TEST_F(usb_test, open_without_a_serial_makes_all_tries_with_pauses_and_fails_when_there_is_no_device)
{
    connect_to();

    EXPECT_FALSE(usb->open(by_ids));
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open "},
                                support::repeated(usb_transceiver::kOpenTries, try_in_vain),
                                {"INFO usb_transceiver open fails"}}));
}

TEST_F(usb_test, open_without_a_serial_finds_a_device_that_appears_at_the_third_try)
{
    fake_usb::device late = scanner_device();
    late.appears_at_search = 3;
    connect_to(late);

    EXPECT_TRUE(usb->open(by_ids));
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open "},
                                support::repeated(2, try_in_vain),
                                {"open_device_with_vid_pid 1a2b:3c4d -> scanner"},
                                questions(1),
                                first_configuration,
                                interface_0_chosen}));
}

/// Two scanners of one model, told apart by their serial.
class usb_test_with_twins : public usb_test {
protected:
    static fake_usb::device twin(const std::string& name, const std::string& serial)
    {
        fake_usb::device scanner = scanner_device();
        scanner.name = name;
        scanner.serial = serial;
        return scanner;
    }

    static lines examined(const std::string& name)
    {
        return {"get_device_descriptor " + name + " -> 0", "open " + name + " -> 0",
                "get_string_descriptor_ascii " + name + " 3 -> 6", "close " + name};
    }

    static lines chosen(const std::string& name)
    {
        return {"INFO usb_transceiver set_bulk_endpoints",   "get_device " + name + " -> " + name,
                "get_device_descriptor " + name + " -> 0",   "get_configuration " + name + " -> 0 (1)",
                "get_config_descriptor " + name + " 0 -> 0", "kernel_driver_active " + name + " 0 -> 0",
                "claim_interface " + name + " 0 -> 0",       "free_config_descriptor " + name + " 0"};
    }

    /// What the device of the serial is opened with, once examined.
    lines found(const std::string& name) const
    {
        return lines{"INFO found device", "open " + name + " -> 0"} + list_freed + chosen(name);
    }

    const lines serial_search = {"INFO usb_transceiver open start", "INFO usb_transceiver open SN0042",
                                 "get_device_list -> 2"};
    const lines list_freed = {"free_device_list unref"};
};

TEST_F(usb_test_with_twins, open_by_serial_opens_the_first_in_the_list_and_looks_no_further)
{
    connect_to(twin("left", "SN0042"), twin("right", "SN0043"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search, examined("left"), found("left")}));
}

TEST_F(usb_test_with_twins, open_by_serial_opens_the_second_in_the_list)
{
    connect_to(twin("left", "SN0041"), twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search, examined("left"), examined("right"), found("right")}));
}

TEST_F(usb_test_with_twins, open_by_serial_passes_over_devices_with_other_ids_without_opening_them)
{
    fake_usb::device stranger = twin("left", "SN0042");
    stranger.product_id = 0x3c4e;
    connect_to(stranger, twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(),
              text({serial_search, {"get_device_descriptor left -> 0"}, examined("right"), found("right")}));
}

TEST_F(usb_test_with_twins, open_by_serial_falls_back_to_the_ids_when_no_device_has_the_serial)
{
    connect_to(twin("left", "SN0041"), twin("right", "SN0043"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search,
                                examined("left"),
                                examined("right"),
                                list_freed,
                                {"INFO not found retry", "open_device_with_vid_pid 1a2b:3c4d -> left"},
                                chosen("left")}));
}

TEST_F(usb_test_with_twins, open_by_serial_goes_on_with_the_next_device_when_the_found_one_cannot_be_opened)
{
    fake_usb::device locked = twin("left", "SN0041"); // cannot be asked for its serial, so it counts as found
    locked.open_error = LIBUSB_ERROR_ACCESS;
    connect_to(locked, twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search,
                                {"get_device_descriptor left -> 0", "open left -> LIBUSB_ERROR_ACCESS",
                                 "INFO found device", "open left -> LIBUSB_ERROR_ACCESS"},
                                examined("right"),
                                found("right")}));
}

TEST_F(usb_test_with_twins, open_by_serial_takes_a_device_that_only_opens_the_second_time)
{
    bus.fail("open", LIBUSB_ERROR_BUSY).of("left").times(1);
    connect_to(twin("left", "SN0041"), twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search,
                                {"get_device_descriptor left -> 0", "open left -> LIBUSB_ERROR_BUSY",
                                 "INFO found device", "open left -> 0"},
                                list_freed,
                                chosen("left")}));
}

TEST_F(usb_test_with_twins, open_by_serial_goes_on_when_an_open_succeeds_without_a_handle)
{
    bus.fail("open", LIBUSB_SUCCESS).of("left").from_call(2);
    connect_to(twin("left", "SN0042"), twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({serial_search,
                                examined("left"),
                                {"INFO found device", "open left -> 0"},
                                examined("right"),
                                found("right")}));
}

TEST_F(usb_test_with_twins, open_by_serial_falls_back_to_the_ids_when_the_devices_cannot_be_listed)
{
    bus.fail("get_device_list", LIBUSB_ERROR_NO_MEM);
    connect_to(twin("left", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open SN0042",
                                 "get_device_list -> LIBUSB_ERROR_NO_MEM", "INFO not found retry",
                                 "open_device_with_vid_pid 1a2b:3c4d -> left"},
                                chosen("left")}));
}

TEST_F(usb_test_with_twins, open_by_serial_fails_on_an_empty_bus_with_its_empty_list_freed)
{
    connect_to();

    EXPECT_FALSE(usb->open(by_serial));
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open SN0042",
                                 "get_device_list -> 0"},
                                list_freed,
                                {"INFO not found retry"},
                                support::repeated(usb_transceiver::kOpenTries, try_in_vain),
                                {"INFO usb_transceiver open fails"}}));
}

TEST_F(usb_test_with_twins, open_by_serial_accepts_a_serial_with_its_terminator)
{
    connect_to(twin("left", "SN0041"), twin("right", "SN0042"));

    EXPECT_TRUE(usb->open(by_serial + "\0"s));
    EXPECT_EQ(happened(), text({serial_search, examined("left"), examined("right"), found("right")}));
}

TEST_F(usb_test_with_twins, open_with_bus_and_device_number_takes_the_bus_number_for_a_serial)
{
    connect_to(twin("left", "SN0041"));

    EXPECT_TRUE(usb->open("usb:1a2b:3c4d:002:005"));
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open 002",
                                 "get_device_list -> 1"},
                                examined("left"),
                                list_freed,
                                {"INFO not found retry", "open_device_with_vid_pid 1a2b:3c4d -> left"},
                                chosen("left")}));
}

// The choice of the interface.

alt_setting setting(std::uint8_t number, std::vector<endpoint> endpoints)
{
    alt_setting result;
    result.interface_number = number;
    result.endpoints = std::move(endpoints);
    return result;
}

const endpoint bulk_in = {0x81};
const endpoint bulk_out = {0x02};

/// Has the right endpoints and the wrong class.
alt_setting printer()
{
    alt_setting result = setting(0, {bulk_in, bulk_out});
    result.interface_class = LIBUSB_CLASS_PRINTER;
    return result;
}

/// A device with these interfaces in its only configuration.
fake_usb::device with_interfaces(std::vector<fake_usb::usb_interface> interfaces)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations[0].interfaces = std::move(interfaces);
    return scanner;
}

/// Opens by ids and expects what comes after the device was found.
class usb_test_of_choice : public usb_test {
protected:
    bool open(const fake_usb::device& device)
    {
        connect_to(device);
        return usb->open(by_ids);
    }

    static std::string expected(const lines& questions, const lines& then)
    {
        return text({ids_search, questions, then});
    }
    /// An open that succeeds, or fails, with `steps` once the first configuration was read.
    static std::string chosen_after(const lines& steps)
    {
        return expected(questions(1), first_configuration + steps);
    }
    static std::string refused_after(const lines& steps)
    {
        return expected(questions(1), first_configuration + steps + no_interface_chosen);
    }
};

TEST_F(usb_test_of_choice, open_keeps_what_it_chose)
{
    fake_usb::device scanner = with_interfaces({{setting(4, {{0x83}, {0x05}})}});
    scanner.configurations[0].value = 1;

    EXPECT_TRUE(open(scanner));
    EXPECT_EQ(usb->m_nConfiguration, 1);
    EXPECT_EQ(usb->m_nInterface, 4);
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(usb->m_nBulkIn, 0x83);
    EXPECT_EQ(usb->m_nBulkOut, 0x05);
}

TEST_F(usb_test_of_choice, interface_is_claimed_by_its_number_not_by_its_position)
{
    EXPECT_TRUE(open(with_interfaces({{setting(4, {bulk_in, bulk_out})}})));
    EXPECT_EQ(happened(),
              chosen_after({"kernel_driver_active scanner 4 -> 0", "claim_interface scanner 4 -> 0",
                            "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, open_fails_when_the_handle_has_no_device)
{
    bus.fail("get_device", 0);

    EXPECT_FALSE(open(scanner_device()));
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(happened(), expected({"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> null"},
                                   no_interface_chosen));
}

TEST_F(usb_test_of_choice, open_fails_when_the_device_descriptor_cannot_be_read)
{
    bus.fail("get_device_descriptor", LIBUSB_ERROR_IO);

    EXPECT_FALSE(open(scanner_device()));
    EXPECT_EQ(happened(),
              expected({"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> scanner",
                        "get_device_descriptor scanner -> LIBUSB_ERROR_IO"},
                       no_interface_chosen));
}

TEST_F(usb_test_of_choice, open_fails_when_the_active_configuration_cannot_be_read)
{
    bus.fail("get_configuration", LIBUSB_ERROR_NO_DEVICE);

    EXPECT_FALSE(open(scanner_device()));
    EXPECT_EQ(happened(), expected({"INFO usb_transceiver set_bulk_endpoints",
                                    "get_device scanner -> scanner", "get_device_descriptor scanner -> 0",
                                    "get_configuration scanner -> LIBUSB_ERROR_NO_DEVICE"},
                                   no_interface_chosen));
}

TEST_F(usb_test_of_choice, open_fails_when_the_configuration_descriptor_cannot_be_read)
{
    bus.fail("get_config_descriptor", LIBUSB_ERROR_NOT_FOUND);

    EXPECT_FALSE(open(scanner_device()));
    EXPECT_EQ(happened(),
              expected(questions(1), lines{"get_config_descriptor scanner 0 -> LIBUSB_ERROR_NOT_FOUND"} +
                                         no_interface_chosen));
}

TEST_F(usb_test_of_choice, open_looks_at_no_further_configuration_after_an_unreadable_one)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations.push_back({2, scanner.configurations[0].interfaces});
    bus.fail("get_config_descriptor", LIBUSB_ERROR_IO).times(1);

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(), expected(questions(1), lines{"get_config_descriptor scanner 0 -> LIBUSB_ERROR_IO"} +
                                                     no_interface_chosen));
}

TEST_F(usb_test_of_choice, open_fails_on_a_device_without_configurations)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations.clear();

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(), expected(questions(1), no_interface_chosen));
}

TEST_F(usb_test_of_choice, configuration_1_is_set_when_another_is_active_whatever_the_first_one_s_value)
{
    fake_usb::device scanner = scanner_device();
    const auto interfaces = scanner.configurations[0].interfaces;
    scanner.configurations = {{2, interfaces}, {1, interfaces}, {3, interfaces}};
    scanner.active_configuration = 3;

    EXPECT_TRUE(open(scanner));
    EXPECT_EQ(usb->m_nConfiguration, 2);
    EXPECT_EQ(happened(),
              expected(questions(3),
                       first_configuration + lines{"set_configuration scanner 1 -> 0"} + interface_0_chosen));
}

TEST_F(usb_test_of_choice, active_configuration_is_compared_as_first_read_for_all_configurations)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations = {{1, {{printer()}}}, {4, {}}, {2, scanner.configurations[0].interfaces}};
    scanner.active_configuration = 2;

    EXPECT_TRUE(open(scanner));
    EXPECT_EQ(
        happened(),
        expected(questions(2), {"get_config_descriptor scanner 0 -> 0", "set_configuration scanner 1 -> 0",
                                "free_config_descriptor scanner 0", "get_config_descriptor scanner 1 -> 0",
                                "set_configuration scanner 1 -> 0", "free_config_descriptor scanner 1",
                                "get_config_descriptor scanner 2 -> 0", "kernel_driver_active scanner 0 -> 0",
                                "claim_interface scanner 0 -> 0", "free_config_descriptor scanner 2"}));
}

TEST_F(usb_test_of_choice, open_fails_when_configuration_1_cannot_be_set_and_looks_no_further)
{
    fake_usb::device scanner = scanner_device();
    const auto interfaces = scanner.configurations[0].interfaces;
    scanner.configurations = {{1, interfaces}, {2, interfaces}};
    scanner.active_configuration = 2;
    bus.fail("set_configuration", LIBUSB_ERROR_BUSY);

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(), expected(questions(2), first_configuration +
                                                     lines{"set_configuration scanner 1 -> LIBUSB_ERROR_BUSY",
                                                           "free_config_descriptor scanner 0"} +
                                                     no_interface_chosen));
}

TEST_F(usb_test_of_choice, second_configuration_is_searched_when_the_first_has_no_fitting_interface)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations = {{1, {{printer()}}}, {2, scanner.configurations[0].interfaces}};

    EXPECT_TRUE(open(scanner));
    EXPECT_EQ(usb->m_nConfiguration, 2);
    EXPECT_EQ(happened(),
              chosen_after({"free_config_descriptor scanner 0", "get_config_descriptor scanner 1 -> 0",
                            "set_configuration scanner 1 -> 0", "kernel_driver_active scanner 0 -> 0",
                            "claim_interface scanner 0 -> 0", "free_config_descriptor scanner 1"}));
}

TEST_F(usb_test_of_choice, interface_of_another_class_is_never_considered)
{
    EXPECT_FALSE(open(with_interfaces({{printer()}})));
    EXPECT_EQ(happened(), refused_after({"free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, second_interface_is_taken_when_the_first_is_not_vendor_specific)
{
    EXPECT_TRUE(open(with_interfaces({{printer()}, {setting(1, {bulk_in, bulk_out})}})));
    EXPECT_EQ(happened(),
              chosen_after({"kernel_driver_active scanner 1 -> 0", "claim_interface scanner 1 -> 0",
                            "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, first_fitting_interface_is_taken_and_no_further_one_touched)
{
    EXPECT_TRUE(
        open(with_interfaces({{setting(0, {bulk_in, bulk_out})}, {setting(1, {bulk_in, bulk_out})}})));
    EXPECT_EQ(happened(), chosen_after(interface_0_chosen));
}

TEST_F(usb_test_of_choice, bulk_in_without_bulk_out_is_released_and_open_fails)
{
    EXPECT_FALSE(open(with_interfaces({{setting(0, {bulk_in})}})));
    EXPECT_EQ(happened(), refused_after(interface_0_given_up));
}

TEST_F(usb_test_of_choice, bulk_out_without_bulk_in_is_released_and_open_fails)
{
    EXPECT_FALSE(open(with_interfaces({{setting(0, {bulk_out})}})));
    EXPECT_EQ(happened(), refused_after(interface_0_given_up));
}

TEST_F(usb_test_of_choice, bulk_in_without_bulk_out_gets_its_kernel_driver_back)
{
    fake_usb::device scanner = with_interfaces({{setting(0, {bulk_in})}});
    scanner.kernel_drivers = {0};

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(),
              refused_after({"kernel_driver_active scanner 0 -> 1", "detach_kernel_driver scanner 0 -> 0",
                             "claim_interface scanner 0 -> 0", "release_interface scanner 0 -> 0",
                             "attach_kernel_driver scanner 0 -> 0", "free_config_descriptor scanner 0"}));
    EXPECT_TRUE(bus.is_kernel_driver_bound("scanner", 0));
}

TEST_F(usb_test_of_choice, endpoints_of_two_interfaces_are_not_put_together)
{
    EXPECT_FALSE(open(with_interfaces({{setting(0, {bulk_in})}, {setting(1, {bulk_out})}})));
    EXPECT_FALSE(usb->is_open());
}

TEST_F(usb_test_of_choice, second_setting_of_an_interface_is_taken_when_the_first_lacks_an_endpoint)
{
    EXPECT_TRUE(open(with_interfaces({{setting(0, {bulk_in}), setting(0, {{0x84}, {0x05}})}})));
    EXPECT_EQ(usb->m_nBulkIn, 0x84);
    EXPECT_EQ(usb->m_nBulkOut, 0x05);
    EXPECT_EQ(happened(),
              chosen_after(lines{"kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> 0",
                                 "release_interface scanner 0 -> 0"} +
                           interface_0_chosen));
}

TEST_F(usb_test_of_choice, kernel_driver_goes_and_comes_back_between_two_settings_of_an_interface)
{
    fake_usb::device scanner = with_interfaces({{setting(0, {}), setting(0, {bulk_in, bulk_out})}});
    scanner.kernel_drivers = {0};

    EXPECT_TRUE(open(scanner));
    EXPECT_TRUE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(happened(),
              chosen_after({"kernel_driver_active scanner 0 -> 1", "detach_kernel_driver scanner 0 -> 0",
                            "claim_interface scanner 0 -> 0", "release_interface scanner 0 -> 0",
                            "attach_kernel_driver scanner 0 -> 0", "kernel_driver_active scanner 0 -> 1",
                            "detach_kernel_driver scanner 0 -> 0", "claim_interface scanner 0 -> 0",
                            "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, kernel_driver_of_a_refused_interface_is_not_remembered_for_the_chosen_one)
{
    fake_usb::device scanner = with_interfaces({{setting(0, {bulk_in})}, {setting(1, {bulk_in, bulk_out})}});
    scanner.kernel_drivers = {0};

    EXPECT_TRUE(open(scanner));
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
}

TEST_F(usb_test_of_choice, setting_whose_endpoint_array_is_null_has_none)
{
    alt_setting broken = setting(0, {bulk_in, bulk_out});
    broken.is_endpoint_array_null = true;

    EXPECT_FALSE(open(with_interfaces({{broken}})));
    EXPECT_EQ(happened(), refused_after(interface_0_given_up));
}

TEST_F(usb_test_of_choice, kernel_driver_is_detached_for_the_session_and_attached_again_by_close)
{
    fake_usb::device scanner = scanner_device();
    scanner.kernel_drivers = {0};

    EXPECT_TRUE(open(scanner));
    EXPECT_TRUE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(happened(),
              chosen_after({"kernel_driver_active scanner 0 -> 1", "detach_kernel_driver scanner 0 -> 0",
                            "claim_interface scanner 0 -> 0", "free_config_descriptor scanner 0"}));

    usb->close();
    EXPECT_EQ(happened(), text({{"release_interface scanner 0 -> 0", "attach_kernel_driver scanner 0 -> 0",
                                 "close scanner"}}));
    EXPECT_TRUE(bus.is_kernel_driver_bound("scanner", 0));
}

TEST_F(usb_test_of_choice, failed_question_for_the_kernel_driver_counts_as_no_driver)
{
    bus.fail("kernel_driver_active", LIBUSB_ERROR_NOT_SUPPORTED);

    EXPECT_TRUE(open(scanner_device()));
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(happened(),
              chosen_after({"kernel_driver_active scanner 0 -> LIBUSB_ERROR_NOT_SUPPORTED",
                            "claim_interface scanner 0 -> 0", "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, answer_other_than_1_to_the_question_for_the_kernel_driver_counts_as_no_driver)
{
    bus.fail("kernel_driver_active", 2);

    EXPECT_TRUE(open(scanner_device()));
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
}

TEST_F(usb_test_of_choice, open_fails_at_once_when_the_kernel_driver_cannot_be_detached)
{
    fake_usb::device scanner =
        with_interfaces({{setting(0, {bulk_in, bulk_out})}, {setting(1, {bulk_in, bulk_out})}});
    scanner.kernel_drivers = {0};
    bus.fail("detach_kernel_driver", LIBUSB_ERROR_ACCESS);

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(), refused_after({"kernel_driver_active scanner 0 -> 1",
                                         "detach_kernel_driver scanner 0 -> LIBUSB_ERROR_ACCESS",
                                         "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, open_fails_at_once_when_the_interface_cannot_be_claimed)
{
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).times(1);

    EXPECT_FALSE(
        open(with_interfaces({{setting(0, {bulk_in, bulk_out})}, {setting(1, {bulk_in, bulk_out})}})));
    EXPECT_EQ(happened(), refused_after({"kernel_driver_active scanner 0 -> 0",
                                         "claim_interface scanner 0 -> LIBUSB_ERROR_BUSY",
                                         "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, failed_claim_after_a_refused_interface_leaves_the_object_closed)
{
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).from_call(2);

    EXPECT_FALSE(open(with_interfaces({{setting(0, {bulk_in})}, {setting(1, {bulk_in, bulk_out})}})));
    EXPECT_EQ(happened(),
              refused_after({"kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> 0",
                             "release_interface scanner 0 -> 0", "kernel_driver_active scanner 1 -> 0",
                             "claim_interface scanner 1 -> LIBUSB_ERROR_BUSY",
                             "free_config_descriptor scanner 0"}));
}

TEST_F(usb_test_of_choice, failed_claim_gives_the_kernel_driver_back)
{
    fake_usb::device scanner = scanner_device();
    scanner.kernel_drivers = {0};
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY);

    EXPECT_FALSE(open(scanner));
    EXPECT_EQ(happened(),
              refused_after({"kernel_driver_active scanner 0 -> 1", "detach_kernel_driver scanner 0 -> 0",
                             "claim_interface scanner 0 -> LIBUSB_ERROR_BUSY",
                             "attach_kernel_driver scanner 0 -> 0", "free_config_descriptor scanner 0"}));
    EXPECT_TRUE(bus.is_kernel_driver_bound("scanner", 0));
}

TEST_F(usb_test_of_choice, object_can_be_opened_after_a_failed_open)
{
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).times(1);

    EXPECT_FALSE(open(scanner_device()));
    EXPECT_TRUE(usb->open(by_ids));
}

// Transfers.

class usb_test_of_transfers : public usb_test {
protected:
    void SetUp() override
    {
        usb_test::SetUp();
        if (IsSkipped())
            return;
        connect_to(scanner_device());
        ASSERT_TRUE(usb->open(by_ids));
        forget_what_happened();
    }

    int read(int size)
    {
        buffer.assign(static_cast<std::size_t>(size), 0xEE);
        return usb->read(buffer.data(), size);
    }
    int write(std::vector<unsigned char> bytes)
    {
        return usb->write(bytes.data(), static_cast<int>(bytes.size()));
    }

    std::vector<unsigned char> buffer;
};

TEST_F(usb_test_of_transfers, write_is_one_bulk_transfer_of_all_bytes)
{
    EXPECT_EQ(write({1, 0, 255}), 3);
    EXPECT_EQ(happened(), "bulk_transfer scanner 0x02 3 60000 -> 0 (3)\n");
    EXPECT_EQ(bus.written("scanner", 0x02), (std::vector<unsigned char>{1, 0, 255}));
}

TEST_F(usb_test_of_transfers, read_is_one_bulk_transfer_into_the_caller_s_buffer)
{
    bus.script("scanner", 0x81, fake_usb::brings({1, 0, 255}));

    EXPECT_EQ(read(3), 3);
    EXPECT_EQ(happened(), "bulk_transfer scanner 0x81 3 60000 -> 0 (3)\n");
    EXPECT_EQ(buffer, (std::vector<unsigned char>{1, 0, 255}));
}

TEST_F(usb_test_of_transfers, a_mebibyte_is_read_in_one_piece)
{
    constexpr int kMebibyte = 1024 * 1024;

    EXPECT_EQ(read(kMebibyte), kMebibyte);
    EXPECT_EQ(happened(), "bulk_transfer scanner 0x81 1048576 60000 -> 0 (1048576)\n");
    for (std::size_t i = 0; i < buffer.size(); ++i)
        ASSERT_EQ(fake_usb::pattern_byte(i), buffer[i]) << "at " << i;
}

TEST_F(usb_test_of_transfers, transfers_of_nothing_are_still_transfers)
{
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(write({}), 0);
    EXPECT_EQ(happened(), text({{"bulk_transfer scanner 0x81 0 60000 -> 0 (0)",
                                 "bulk_transfer scanner 0x02 0 60000 -> 0 (0)"}}));
}

TEST_F(usb_test_of_transfers, short_read_is_logged_and_its_count_returned)
{
    bus.script("scanner", 0x81, fake_usb::brings({1, 2}));

    EXPECT_EQ(read(5), 2);
    EXPECT_EQ(happened(), text({{"bulk_transfer scanner 0x81 5 60000 -> 0 (2)",
                                 "INFO usb read : transferred 2 of 5 bytes"}}));
    EXPECT_EQ(buffer, (std::vector<unsigned char>{1, 2, 0xEE, 0xEE, 0xEE}));
}

TEST_F(usb_test_of_transfers, empty_packet_is_read_as_0_bytes)
{
    bus.script("scanner", 0x81, fake_usb::brings({}));

    EXPECT_EQ(read(5), 0);
    EXPECT_EQ(happened(), text({{"bulk_transfer scanner 0x81 5 60000 -> 0 (0)",
                                 "INFO usb read : transferred 0 of 5 bytes"}}));
}

TEST_F(usb_test_of_transfers, short_write_is_logged_and_its_count_returned)
{
    bus.script("scanner", 0x02, ends_with(LIBUSB_SUCCESS, 2));

    EXPECT_EQ(write({1, 2, 3}), 2);
    EXPECT_EQ(happened(), text({{"bulk_transfer scanner 0x02 3 60000 -> 0 (2)",
                                 "INFO usb write : transferred 2 of 3 bytes"}}));
}

TEST_F(usb_test_of_transfers, write_that_stalls_before_any_byte_logs_three_lines_and_clears_the_halt)
{
    bus.script("scanner", 0x02, ends_with(LIBUSB_ERROR_PIPE, 0));

    EXPECT_EQ(write({1, 2, 3}), 0);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x02 3 60000 -> LIBUSB_ERROR_PIPE (0)",
                     "INFO usb write : transferred 0 of 3 bytes", "clear_halt scanner 0x02 -> 0",
                     "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb write : LIBUSB_ERROR_PIPE"}}));
}

TEST_F(usb_test_of_transfers, read_that_stalls_midway_clears_the_halt_and_returns_what_came)
{
    bus.script("scanner", 0x81, ends_with(LIBUSB_ERROR_PIPE, 2));

    EXPECT_EQ(read(5), 2);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x81 5 60000 -> LIBUSB_ERROR_PIPE (2)",
                     "INFO usb read : transferred 2 of 5 bytes", "clear_halt scanner 0x81 -> 0",
                     "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb read : LIBUSB_ERROR_PIPE"}}));
}

TEST_F(usb_test_of_transfers, next_read_works_after_a_stall)
{
    bus.script("scanner", 0x81, ends_with(LIBUSB_ERROR_PIPE, 0));
    read(5);

    EXPECT_EQ(read(5), 5);
}

TEST_F(usb_test_of_transfers, next_write_works_after_a_stall)
{
    bus.script("scanner", 0x02, ends_with(LIBUSB_ERROR_PIPE, 0));
    write({1});

    EXPECT_EQ(write({1}), 1);
}

TEST_F(usb_test_of_transfers, failed_clearing_of_a_halt_changes_nothing_in_log_and_result)
{
    bus.script("scanner", 0x02, ends_with(LIBUSB_ERROR_PIPE, 0));
    bus.fail("clear_halt", LIBUSB_ERROR_NO_DEVICE);

    EXPECT_EQ(write({1, 2, 3}), 0);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x02 3 60000 -> LIBUSB_ERROR_PIPE (0)",
                     "INFO usb write : transferred 0 of 3 bytes",
                     "clear_halt scanner 0x02 -> LIBUSB_ERROR_NO_DEVICE",
                     "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb write : LIBUSB_ERROR_PIPE"}}));
}

TEST_F(usb_test_of_transfers, read_that_times_out_is_logged_and_returns_what_came_before)
{
    bus.script("scanner", 0x81, ends_with(LIBUSB_ERROR_TIMEOUT, 4));

    EXPECT_EQ(read(5), 4);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x81 5 60000 -> LIBUSB_ERROR_TIMEOUT (4)",
                     "INFO usb read : transferred 4 of 5 bytes", "INFO usb read : LIBUSB_ERROR_TIMEOUT"}}));
}

TEST_F(usb_test_of_transfers, write_that_times_out_is_logged_and_returns_what_went_before)
{
    bus.script("scanner", 0x02, ends_with(LIBUSB_ERROR_TIMEOUT, 1));

    EXPECT_EQ(write({1, 2}), 1);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x02 2 60000 -> LIBUSB_ERROR_TIMEOUT (1)",
                     "INFO usb write : transferred 1 of 2 bytes", "INFO usb write : LIBUSB_ERROR_TIMEOUT"}}));
}

TEST_F(usb_test_of_transfers, error_after_all_bytes_is_logged_by_name_alone)
{
    bus.script("scanner", 0x81, ends_with(LIBUSB_ERROR_OVERFLOW, 5));

    EXPECT_EQ(read(5), 5);
    EXPECT_EQ(happened(), text({{"bulk_transfer scanner 0x81 5 60000 -> LIBUSB_ERROR_OVERFLOW (5)",
                                 "INFO usb read : LIBUSB_ERROR_OVERFLOW"}}));
}

TEST_F(usb_test_of_transfers, read_that_libusb_does_not_even_submit_returns_0)
{
    bus.script("scanner", 0x81, fake_usb::refused_with(LIBUSB_ERROR_NO_MEM));

    EXPECT_EQ(read(5), 0);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x81 5 60000 -> LIBUSB_ERROR_NO_MEM (-)",
                     "INFO usb read : transferred 0 of 5 bytes", "INFO usb read : LIBUSB_ERROR_NO_MEM"}}));
}

TEST_F(usb_test_of_transfers, write_that_libusb_does_not_even_submit_returns_0)
{
    bus.script("scanner", 0x02, fake_usb::refused_with(LIBUSB_ERROR_IO));

    EXPECT_EQ(write({1}), 0);
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x02 1 60000 -> LIBUSB_ERROR_IO (-)",
                     "INFO usb write : transferred 0 of 1 bytes", "INFO usb write : LIBUSB_ERROR_IO"}}));
}

TEST_F(usb_test_of_transfers, unplugged_device_ends_a_read_and_is_closed_in_order)
{
    bus.unplug("scanner");

    EXPECT_EQ(read(5), 0);
    EXPECT_TRUE(usb->is_open());
    usb->close();
    EXPECT_EQ(happened(),
              text({{"bulk_transfer scanner 0x81 5 60000 -> LIBUSB_ERROR_NO_DEVICE (-)",
                     "INFO usb read : transferred 0 of 5 bytes", "INFO usb read : LIBUSB_ERROR_NO_DEVICE",
                     "release_interface scanner 0 -> LIBUSB_ERROR_NO_DEVICE", "close scanner"}}));
}

TEST_F(usb_test_of_transfers, transfers_use_the_endpoints_of_the_chosen_setting)
{
    usb->close();
    bus.unplug("scanner");
    fake_usb::device other = with_interfaces({{setting(0, {{0x86}, {0x07}})}});
    other.name = "other";
    bus.plug(other);
    ASSERT_TRUE(usb->open(by_ids));
    forget_what_happened();

    read(1);
    write({1});
    EXPECT_EQ(happened(), text({{"bulk_transfer other 0x86 1 60000 -> 0 (1)",
                                 "bulk_transfer other 0x07 1 60000 -> 0 (1)"}}));
}

// Closing.

TEST_F(usb_test_of_transfers, close_releases_the_interface_and_closes_the_handle)
{
    usb->close();

    EXPECT_EQ(happened(), text({interface_0_released}));
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(usb->m_nConfiguration, -1);
    EXPECT_EQ(usb->m_nInterface, -1);
    EXPECT_EQ(usb->m_nBulkIn, -1);
    EXPECT_EQ(usb->m_nBulkOut, -1);
}

TEST_F(usb_test_of_choice, close_keeps_the_flag_of_the_kernel_driver_and_the_next_open_rewrites_it)
{
    fake_usb::device scanner = scanner_device();
    scanner.kernel_drivers = {0};
    EXPECT_TRUE(open(scanner));
    usb->close();
    EXPECT_TRUE(usb->m_isKernelDriverDetached);

    bus.unplug("scanner");
    fake_usb::device other = with_interfaces({{printer()}});
    other.name = "other";
    bus.plug(other);
    EXPECT_FALSE(usb->open(by_ids));
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
}

TEST_F(usb_test_of_transfers, second_close_does_nothing)
{
    usb->close();
    forget_what_happened();
    usb->close();

    EXPECT_EQ(happened(), "");
}

TEST_F(usb_test, close_of_an_object_never_opened_does_nothing)
{
    connect_to();
    usb->close();

    EXPECT_EQ(happened(), "");
}

TEST_F(usb_test_of_transfers, destruction_closes_before_it_gives_the_context_back)
{
    usb.reset();

    EXPECT_EQ(happened(), text({interface_0_released, {"exit"}}));
}

TEST_F(usb_test_of_transfers, destruction_beside_another_object_closes_and_keeps_the_context)
{
    const usb_transceiver other;
    forget_what_happened();
    usb.reset();

    EXPECT_EQ(happened(), text({interface_0_released}));
}

TEST_F(usb_test_of_transfers, closed_object_can_be_opened_again)
{
    usb->close();
    forget_what_happened();

    EXPECT_TRUE(usb->open(by_ids));
    EXPECT_EQ(happened(), text({ids_search, questions(1), first_configuration, interface_0_chosen}));
}

TEST_F(usb_test_of_transfers, open_does_not_fill_in_the_ids_so_that_close_resets_no_device)
{
    EXPECT_EQ(usb->m_nVendorId, 0);
    EXPECT_EQ(usb->m_nProductId, 0);
}

TEST_F(usb_test_of_transfers, close_resets_the_device_of_some_models_before_all_else)
{
    usb->m_nProductId = 0x0A71;
    usb->close();

    EXPECT_EQ(happened(),
              text({{"INFO libusb reset device", "reset_device scanner -> 0"}, interface_0_released}));
    usb->m_nProductId = 0;
}

TEST_F(usb_test_of_transfers, close_resets_no_device_of_another_model)
{
    usb->m_nProductId = 0x0A70;
    usb->close();

    EXPECT_EQ(happened(), text({interface_0_released}));
    usb->m_nProductId = 0;
}

TEST_F(usb_test_of_transfers, failed_reset_does_not_keep_close_from_closing)
{
    bus.fail("reset_device", LIBUSB_ERROR_NOT_FOUND);
    usb->m_nProductId = 0x0A71;
    usb->close();

    EXPECT_EQ(happened(),
              text({{"INFO libusb reset device", "reset_device scanner -> LIBUSB_ERROR_NOT_FOUND"},
                    interface_0_released}));
    usb->m_nProductId = 0;
}

TEST_F(usb_test, close_resets_such_a_model_without_asking_whether_it_is_open)
{
    connect_to();
    usb->m_nProductId = 0x0A8C;
    usb->close();

    EXPECT_EQ(bus.take_misuses(), lines{"reset_device null: the handle is null"});
    EXPECT_EQ(happened(), text({{"INFO libusb reset device", "MISUSE: reset_device null: the handle is null",
                                 "reset_device null -> LIBUSB_ERROR_NO_DEVICE"}}));
    usb->m_nProductId = 0;
}

// The log.

TEST_F(usb_test, every_line_is_logged_as_coming_from_usb)
{
    testing::internal::CaptureStderr(); // the verbose form is copied there
    support::open_log(0);
    bus.plug(scanner_device());
    bus.script("scanner", 0x81, ends_with(LIBUSB_ERROR_PIPE, 0));
    connect();
    usb->open(by_serial);
    unsigned char byte = 0;
    usb->read(&byte, 1);
    usb_transceiver::getpid("");
    usb.reset();
    testing::internal::GetCapturedStderr();

    lines messages;
    for (const support::log_line& line : support::log_lines()) {
        EXPECT_EQ(support::source_of(line.message), "usb") << line.message;
        messages.push_back(line.level + " " + support::without_source(line.message));
    }
    EXPECT_EQ(text({{"INFO usb_transceiver start", "INFO usb_transceiver open start",
                     "INFO usb_transceiver open SN0042", "INFO not found retry",
                     "INFO usb_transceiver set_bulk_endpoints", "INFO usb read : transferred 0 of 1 bytes",
                     "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb read : LIBUSB_ERROR_PIPE",
                     "INFO machine: invalid UDI ''"}}),
              text({messages}));
}

} // namespace
