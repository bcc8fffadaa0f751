#include <gtest/gtest.h>
#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <functional>
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

const std::string kByIds = "usb:1a2b:3c4d";
const std::string kBySerial = "usb:1a2b:3c4d:SN0042";

// What always happens, step by step.

const lines kConstruction = {"INFO usb_transceiver start", "init -> 0", "set_debug 3"};

const lines kIdsSearch = {"INFO usb_transceiver open start", "INFO usb_transceiver open ",
                          "open_device_with_vid_pid 1a2b:3c4d -> scanner"};

const lines kTryInVain = {"open_device_with_vid_pid 1a2b:3c4d -> null",
                          "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds)};

/// What is asked first of a device on which configuration number `active` is in use.
lines questions(int active)
{
    return {"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> scanner",
            "get_device_descriptor scanner -> 0",
            "get_configuration scanner -> 0 (" + std::to_string(active) + ")"};
}

lines read(int configuration)
{
    return {"get_config_descriptor scanner " + std::to_string(configuration) + " -> 0"};
}

lines freed(int configuration)
{
    return {"free_config_descriptor scanner " + std::to_string(configuration)};
}

lines claimed(int interface)
{
    const std::string number = std::to_string(interface);
    return {"kernel_driver_active scanner " + number + " -> 0",
            "claim_interface scanner " + number + " -> 0"};
}

lines given_up(int interface)
{
    return claimed(interface) + lines{"release_interface scanner " + std::to_string(interface) + " -> 0"};
}

lines released(int interface)
{
    return {"release_interface scanner " + std::to_string(interface) + " -> 0", "close scanner"};
}

/// As far as the first configuration, which is the active one.
const lines kSearched = questions(1) + read(0);

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

TEST_F(usb_test, construction_initialises_libusb_and_leaves_the_object_closed)
{
    connect();

    EXPECT_EQ(happened(), text({kConstruction}));
    EXPECT_NE(open_book::sm_ctx, nullptr);
    EXPECT_TRUE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 1);
    EXPECT_EQ(open_book::sm_nDefaultTimeout, 60000);
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(usb->m_handle, nullptr);
    EXPECT_EQ(usb->m_nVendorId, 0);
    EXPECT_EQ(usb->m_nProductId, 0);
    EXPECT_EQ(usb->m_nConfiguration, -1);
    EXPECT_EQ(usb->m_nInterface, -1);
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(usb->m_nBulkIn, -1);
    EXPECT_EQ(usb->m_nBulkOut, -1);
}

TEST_F(usb_test, two_objects_share_one_context_until_the_second_is_destroyed)
{
    connect();
    auto second = std::make_unique<usb_transceiver>();
    EXPECT_EQ(happened(), text({kConstruction, {"INFO usb_transceiver start"}}));
    EXPECT_EQ(open_book::sm_nConnectionCount, 2);

    usb.reset();
    EXPECT_EQ(happened(), "");
    EXPECT_NE(open_book::sm_ctx, nullptr);

    second.reset();
    EXPECT_EQ(happened(), "exit\n");
}

TEST_F(usb_test, an_object_after_all_others_are_gone_initialises_a_fresh_context)
{
    connect_to();
    usb.reset();
    EXPECT_EQ(happened(), "exit\n");
    EXPECT_EQ(open_book::sm_ctx, nullptr);
    EXPECT_FALSE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 0);

    connect();
    EXPECT_EQ(happened(), text({kConstruction}));
}

TEST_F(usb_test, failed_initialisation_is_logged_and_leaves_nothing_behind)
{
    bus.fail("init", LIBUSB_ERROR_NO_MEM).times(1);
    try {
        connect();
        FAIL() << "constructed";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "libusb_init: LIBUSB_ERROR_NO_MEM");
    }
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver start", "init -> LIBUSB_ERROR_NO_MEM",
                                 "INFO libusb error = LIBUSB_ERROR_NO_MEM"}}));
    EXPECT_EQ(open_book::sm_ctx, nullptr);
    EXPECT_FALSE(open_book::sm_isInitialized);
    EXPECT_EQ(open_book::sm_nConnectionCount, 0);

    connect();
    EXPECT_EQ(happened(), text({kConstruction}));
    EXPECT_EQ(open_book::sm_nConnectionCount, 1);
}

// Addresses.

TEST_F(usb_test, getpid_yields_the_product_id_as_a_positive_number_without_libusb_or_log)
{
    EXPECT_EQ(usb_transceiver::getpid("usb:1a2b:0a71"), 0x0A71);
    EXPECT_EQ(usb_transceiver::getpid("usb:1a2b:ffff"), 0xFFFF);
    EXPECT_EQ(happened(), "");
}

TEST_F(usb_test, invalid_address_is_logged_and_nothing_touched)
{
    connect_to(scanner_device());
    for (const std::string invalid : {"usb:1a2b:0", "usb:0:3c4d", "", "%s%n"}) {
        const std::string logged = "INFO machine: invalid UDI '" + invalid + "'\n";
        EXPECT_EQ(usb_transceiver::getpid(invalid), -1);
        EXPECT_EQ(happened(), logged);
        EXPECT_FALSE(usb->open(invalid));
        EXPECT_EQ(happened(), logged);
        EXPECT_FALSE(usb->is_open());
    }
}

// The search for the device.

TEST_F(usb_test, open_without_a_serial_opens_the_first_device_with_the_ids)
{
    connect_to(scanner_device());

    EXPECT_TRUE(usb->open(kByIds));
    EXPECT_TRUE(usb->is_open());
    EXPECT_EQ(happened(), text({kIdsSearch, kSearched, claimed(0), freed(0)}));
}

TEST_F(usb_test, open_without_a_serial_makes_all_tries_with_pauses_and_fails_when_there_is_no_device)
{
    connect_to();

    EXPECT_FALSE(usb->open(kByIds));
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open "},
                                support::repeated(usb_transceiver::kOpenTries, kTryInVain),
                                {"INFO usb_transceiver open fails"}}));
}

TEST_F(usb_test, open_without_a_serial_finds_a_device_that_appears_at_the_third_try)
{
    fake_usb::device late = scanner_device();
    late.appears_at_search = 3;
    connect_to(late);

    EXPECT_TRUE(usb->open(kByIds));
    EXPECT_EQ(happened(), text({{"INFO usb_transceiver open start", "INFO usb_transceiver open "},
                                support::repeated(2, kTryInVain),
                                {"open_device_with_vid_pid 1a2b:3c4d -> scanner"},
                                kSearched,
                                claimed(0),
                                freed(0)}));
}

fake_usb::device twin(const std::string& name, const std::string& serial)
{
    fake_usb::device scanner = scanner_device();
    scanner.name = name;
    scanner.serial = serial;
    return scanner;
}

fake_usb::device of_another_product(fake_usb::device scanner)
{
    scanner.product_id = 0x3c4e;
    return scanner;
}

/// Cannot be asked for its serial, so it counts as found.
fake_usb::device locked(fake_usb::device scanner)
{
    scanner.open_error = LIBUSB_ERROR_ACCESS;
    return scanner;
}

fake_usb::device without_interfaces(fake_usb::device scanner)
{
    scanner.configurations[0].interfaces.clear();
    return scanner;
}

lines examined(const std::string& name)
{
    return {"get_device_descriptor " + name + " -> 0", "open " + name + " -> 0",
            "get_string_descriptor_ascii " + name + " 3 -> 6", "close " + name};
}

lines chosen(const std::string& name)
{
    return {"INFO usb_transceiver set_bulk_endpoints",   "get_device " + name + " -> " + name,
            "get_device_descriptor " + name + " -> 0",   "get_configuration " + name + " -> 0 (1)",
            "get_config_descriptor " + name + " 0 -> 0", "kernel_driver_active " + name + " 0 -> 0",
            "claim_interface " + name + " 0 -> 0",       "free_config_descriptor " + name + " 0"};
}

const lines kListFreed = {"free_device_list unref"};

/// What the device of the serial is opened with, once examined.
lines found(const std::string& name)
{
    return lines{"INFO found device", "open " + name + " -> 0"} + kListFreed + chosen(name);
}

lines serial_search(const std::string& answer, const std::string& serial = "SN0042")
{
    return {"INFO usb_transceiver open start", "INFO usb_transceiver open " + serial,
            "get_device_list -> " + answer};
}

/// What the first device with the ids is opened with when no device has the serial.
lines found_by_ids(const std::string& name)
{
    return lines{"INFO not found retry", "open_device_with_vid_pid 1a2b:3c4d -> " + name} + chosen(name);
}

void nothing_first(fake_usb::bus&) {}
const auto name_of_case = [](const auto& test) { return test.param.name; };

struct search_case {
    const char* name;
    std::vector<fake_usb::device> devices;
    lines steps;
    std::string address = kBySerial;
    std::function<void(fake_usb::bus&)> before = nothing_first;
    bool is_opened = true;
};

class search_by_serial : public usb_test, public testing::WithParamInterface<search_case> {};

TEST_P(search_by_serial, takes_these_steps)
{
    for (const fake_usb::device& each : GetParam().devices)
        bus.plug(each);
    connect();
    forget_what_happened();
    GetParam().before(bus);

    EXPECT_EQ(usb->open(GetParam().address), GetParam().is_opened);
    EXPECT_EQ(happened(), text({GetParam().steps}));
}

const std::vector<search_case> kSearches = {
    {"first_in_the_list",
     {twin("left", "SN0042"), twin("right", "SN0043")},
     serial_search("2") + examined("left") + found("left")},
    {"second_in_the_list",
     {twin("left", "SN0041"), twin("right", "SN0042")},
     serial_search("2") + examined("left") + examined("right") + found("right")},
    {"serial_with_its_terminator",
     {twin("left", "SN0041"), twin("right", "SN0042")},
     serial_search("2") + examined("left") + examined("right") + found("right"),
     kBySerial + "\0"s},
    {"other_ids_are_not_even_opened",
     {of_another_product(twin("left", "SN0042")), twin("right", "SN0042")},
     serial_search("2") + lines{"get_device_descriptor left -> 0"} + examined("right") + found("right")},
    {"ids_when_nobody_has_the_serial",
     {twin("left", "SN0041"), twin("right", "SN0043")},
     serial_search("2") + examined("left") + examined("right") + kListFreed + found_by_ids("left")},
    {"next_when_the_found_one_cannot_be_opened",
     {locked(twin("left", "SN0041")), twin("right", "SN0042")},
     serial_search("2") +
         lines{"get_device_descriptor left -> 0", "open left -> LIBUSB_ERROR_ACCESS", "INFO found device",
               "open left -> LIBUSB_ERROR_ACCESS"} +
         examined("right") + found("right")},
    {"one_that_only_opens_the_second_time",
     {twin("left", "SN0041"), twin("right", "SN0042")},
     serial_search("2") + lines{"get_device_descriptor left -> 0", "open left -> LIBUSB_ERROR_BUSY"} +
         found("left"),
     kBySerial,
     [](fake_usb::bus& bus) { bus.fail("open", LIBUSB_ERROR_BUSY).of("left").times(1); }},
    {"next_when_an_open_succeeds_without_a_handle",
     {twin("left", "SN0042"), twin("right", "SN0042")},
     serial_search("2") + examined("left") + lines{"INFO found device", "open left -> 0"} +
         examined("right") + found("right"),
     kBySerial,
     [](fake_usb::bus& bus) { bus.fail("open", LIBUSB_SUCCESS).of("left").from_call(2); }},
    {"ids_when_the_devices_cannot_be_listed",
     {twin("left", "SN0042")},
     serial_search("LIBUSB_ERROR_NO_MEM") + found_by_ids("left"),
     kBySerial,
     [](fake_usb::bus& bus) { bus.fail("get_device_list", LIBUSB_ERROR_NO_MEM); }},
    {"bus_number_is_taken_for_a_serial",
     {twin("left", "SN0041")},
     serial_search("1", "002") + examined("left") + kListFreed + found_by_ids("left"),
     "usb:1a2b:3c4d:002:005"},
    {"empty_list_is_freed",
     {},
     serial_search("0") + kListFreed + lines{"INFO not found retry"} +
         support::repeated(usb_transceiver::kOpenTries, kTryInVain) +
         lines{"INFO usb_transceiver open fails"},
     kBySerial,
     nothing_first,
     false},
    {"ids_are_not_tried_when_the_found_one_has_no_interface",
     {without_interfaces(twin("left", "SN0042")), twin("right", "SN0043")},
     serial_search("2") + examined("left") + lines{"INFO found device", "open left -> 0"} + kListFreed +
         lines{"INFO usb_transceiver set_bulk_endpoints", "get_device left -> left",
               "get_device_descriptor left -> 0", "get_configuration left -> 0 (1)",
               "get_config_descriptor left 0 -> 0", "free_config_descriptor left 0", "close left",
               "INFO usb_transceiver set_bulk_endpoints fails"},
     kBySerial,
     nothing_first,
     false},
};

INSTANTIATE_TEST_SUITE_P(, search_by_serial, testing::ValuesIn(kSearches), name_of_case);

// The choice of the interface.

const endpoint kBulkIn = {0x81};
const endpoint kBulkOut = {0x02};

alt_setting setting(std::uint8_t number, std::vector<endpoint> endpoints = {kBulkIn, kBulkOut})
{
    alt_setting result;
    result.interface_number = number;
    result.endpoints = std::move(endpoints);
    return result;
}

/// Has the right endpoints and the wrong class.
alt_setting printer(std::uint8_t number = 0)
{
    alt_setting result = setting(number);
    result.interface_class = LIBUSB_CLASS_PRINTER;
    return result;
}

alt_setting with_null_endpoints()
{
    alt_setting result = setting(0);
    result.is_endpoint_array_null = true;
    return result;
}

using interfaces = std::vector<fake_usb::usb_interface>;
const interfaces kUsable = scanner_device().configurations[0].interfaces;
const interfaces kUseless = {{printer()}};

fake_usb::device with_configurations(int active, std::vector<configuration> configurations)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations = std::move(configurations);
    scanner.active_configuration = active;
    return scanner;
}

/// A device with these interfaces in its only configuration.
fake_usb::device with_interfaces(interfaces all)
{
    return with_configurations(1, {{1, std::move(all)}});
}

/// The same with a kernel driver bound to interface 0.
fake_usb::device with_driver(interfaces all)
{
    fake_usb::device scanner = with_interfaces(std::move(all));
    scanner.kernel_drivers = {0};
    return scanner;
}

std::function<void(fake_usb::bus&)> fails(const std::string& function, int error, int from_call = 1)
{
    return [=](fake_usb::bus& bus) { bus.fail(function, error).from_call(from_call).times(1); };
}

const lines kDriverDetached = {"kernel_driver_active scanner 0 -> 1", "detach_kernel_driver scanner 0 -> 0"};
const lines kDriverAttached = {"release_interface scanner 0 -> 0", "attach_kernel_driver scanner 0 -> 0"};
const lines kClaimed0 = {"claim_interface scanner 0 -> 0"};
const lines kConfiguration1Set = {"set_configuration scanner 1 -> 0"};
const lines kDeviceAsked = {"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> scanner"};
const lines kOpenRefused = {"close scanner", "INFO usb_transceiver set_bulk_endpoints fails"};
const lines kClosed = {"close scanner"};

struct choice_case {
    const char* name;
    fake_usb::device device;
    lines steps;     ///< after the device was found
    lines then = {}; ///< of close(); none: the open fails
    std::function<void(fake_usb::bus&)> before = nothing_first;
};

class choice_of_the_interface : public usb_test, public testing::WithParamInterface<choice_case> {};

TEST_P(choice_of_the_interface, takes_these_steps_and_close_takes_them_back)
{
    connect_to(GetParam().device);
    GetParam().before(bus);
    const bool is_opened = !GetParam().then.empty();

    EXPECT_EQ(usb->open(kByIds), is_opened);
    EXPECT_EQ(happened(), text({kIdsSearch, GetParam().steps, is_opened ? lines() : kOpenRefused}));
    EXPECT_EQ(usb->is_open(), is_opened);
    usb->close();
    EXPECT_EQ(happened(), text({GetParam().then}));
}

const std::vector<choice_case> kInterfaces = {
    {"claimed_by_its_number", with_interfaces({{setting(4)}}), kSearched + claimed(4) + freed(0),
     released(4)},
    {"with_the_greatest_number", with_interfaces({{setting(255)}}), kSearched + claimed(255) + freed(0),
     released(255)},
    {"of_another_class", with_interfaces(kUseless), kSearched + freed(0)},
    {"behind_one_of_another_class", with_interfaces({{printer()}, {setting(1)}}),
     kSearched + claimed(1) + freed(0), released(1)},
    {"whose_first_setting_is_of_another_class", with_interfaces({{printer(), setting(0)}}),
     kSearched + claimed(0) + freed(0), released(0)},
    {"first_that_fits", with_interfaces({{setting(0)}, {setting(1)}}), kSearched + claimed(0) + freed(0),
     released(0)},
    {"with_ten_endpoints",
     with_interfaces({{setting(0, {{0x83, 3},
                                   {0x84, 3},
                                   {0x85, 3},
                                   {0x86, 3},
                                   {0x87, 3},
                                   {0x88, 3},
                                   {0x03, 3},
                                   {0x04, 3},
                                   kBulkIn,
                                   kBulkOut})}}),
     kSearched + claimed(0) + freed(0), released(0)},
    {"with_bulk_in_alone", with_interfaces({{setting(0, {kBulkIn})}}), kSearched + given_up(0) + freed(0)},
    {"with_bulk_out_alone", with_interfaces({{setting(0, {kBulkOut})}}), kSearched + given_up(0) + freed(0)},
    {"whose_endpoint_array_is_null", with_interfaces({{with_null_endpoints()}}),
     kSearched + given_up(0) + freed(0)},
    {"endpoints_of_two", with_interfaces({{setting(0, {kBulkIn})}, {setting(1, {kBulkOut})}}),
     kSearched + given_up(0) + given_up(1) + freed(0)},
    {"whose_second_setting_fits", with_interfaces({{setting(0, {kBulkIn}), setting(0)}}),
     kSearched + given_up(0) + claimed(0) + freed(0), released(0)},
    {"held_by_another_process",
     with_interfaces({{setting(0)}, {setting(1)}}),
     kSearched +
         lines{"kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> LIBUSB_ERROR_BUSY"} +
         freed(0),
     {},
     fails("claim_interface", LIBUSB_ERROR_BUSY)},
    {"held_by_another_process_behind_one_without_endpoints",
     with_interfaces({{setting(0, {kBulkIn})}, {setting(1)}}),
     kSearched + given_up(0) +
         lines{"kernel_driver_active scanner 1 -> 0", "claim_interface scanner 1 -> LIBUSB_ERROR_BUSY"} +
         freed(0),
     {},
     fails("claim_interface", LIBUSB_ERROR_BUSY, 2)},
};

const std::vector<choice_case> kKernelDrivers = {
    {"away_for_the_session", with_driver(kUsable), kSearched + kDriverDetached + kClaimed0 + freed(0),
     kDriverAttached + kClosed},
    {"back_when_an_endpoint_is_missing", with_driver({{setting(0, {kBulkIn})}}),
     kSearched + kDriverDetached + kClaimed0 + kDriverAttached + freed(0)},
    {"back_between_two_settings", with_driver({{setting(0, {}), setting(0)}}),
     kSearched + kDriverDetached + kClaimed0 + kDriverAttached + kDriverDetached + kClaimed0 + freed(0),
     kDriverAttached + kClosed},
    {"of_a_refused_interface_is_not_remembered", with_driver({{setting(0, {kBulkIn})}, {setting(1)}}),
     kSearched + kDriverDetached + kClaimed0 + kDriverAttached + claimed(1) + freed(0), released(1)},
    {"that_cannot_be_asked_for", scanner_device(),
     kSearched + lines{"kernel_driver_active scanner 0 -> LIBUSB_ERROR_NOT_SUPPORTED"} + kClaimed0 + freed(0),
     released(0), fails("kernel_driver_active", LIBUSB_ERROR_NOT_SUPPORTED)},
    {"answered_for_by_another_number", scanner_device(),
     kSearched + lines{"kernel_driver_active scanner 0 -> 2"} + kClaimed0 + freed(0), released(0),
     fails("kernel_driver_active", 2)},
    {"that_cannot_be_detached",
     with_driver({{setting(0)}, {setting(1)}}),
     kSearched +
         lines{"kernel_driver_active scanner 0 -> 1",
               "detach_kernel_driver scanner 0 -> LIBUSB_ERROR_ACCESS"} +
         freed(0),
     {},
     fails("detach_kernel_driver", LIBUSB_ERROR_ACCESS)},
    {"back_after_a_failed_claim",
     with_driver(kUsable),
     kSearched + kDriverDetached +
         lines{"claim_interface scanner 0 -> LIBUSB_ERROR_BUSY", "attach_kernel_driver scanner 0 -> 0"} +
         freed(0),
     {},
     fails("claim_interface", LIBUSB_ERROR_BUSY)},
};

const std::vector<choice_case> kConfigurations = {
    {"of_a_handle_without_device",
     scanner_device(),
     {"INFO usb_transceiver set_bulk_endpoints", "get_device scanner -> null"},
     {},
     fails("get_device", 0)},
    {"of_an_unreadable_device",
     scanner_device(),
     kDeviceAsked + lines{"get_device_descriptor scanner -> LIBUSB_ERROR_IO"},
     {},
     fails("get_device_descriptor", LIBUSB_ERROR_IO)},
    {"unknown_which_is_active",
     scanner_device(),
     kDeviceAsked +
         lines{"get_device_descriptor scanner -> 0", "get_configuration scanner -> LIBUSB_ERROR_NO_DEVICE"},
     {},
     fails("get_configuration", LIBUSB_ERROR_NO_DEVICE)},
    {"none", with_configurations(1, {}), questions(1)},
    {"unreadable_and_none_behind_it",
     with_configurations(1, {{1, kUsable}, {2, kUsable}}),
     questions(1) + lines{"get_config_descriptor scanner 0 -> LIBUSB_ERROR_IO"},
     {},
     fails("get_config_descriptor", LIBUSB_ERROR_IO)},
    {"set_to_1_whatever_the_first_one_s_value",
     with_configurations(3, {{2, kUsable}, {1, kUsable}, {3, kUsable}}),
     questions(3) + read(0) + kConfiguration1Set + claimed(0) + freed(0), released(0)},
    {"set_to_1_when_none_is_active", with_configurations(0, {{1, kUsable}}),
     questions(0) + read(0) + kConfiguration1Set + claimed(0) + freed(0), released(0)},
    {"compared_with_the_active_one_as_first_read",
     with_configurations(2, {{1, kUseless}, {4, {}}, {2, kUsable}}),
     questions(2) + read(0) + kConfiguration1Set + freed(0) + read(1) + kConfiguration1Set + freed(1) +
         read(2) + claimed(0) + freed(2),
     released(0)},
    {"that_cannot_be_set_and_none_behind_it",
     with_configurations(2, {{1, kUsable}, {2, kUsable}}),
     questions(2) + read(0) + lines{"set_configuration scanner 1 -> LIBUSB_ERROR_BUSY"} + freed(0),
     {},
     fails("set_configuration", LIBUSB_ERROR_BUSY)},
    {"sixth", with_configurations(2, {{2, {}}, {3, {}}, {4, {}}, {5, {}}, {6, {}}, {1, kUsable}}),
     questions(2) + read(0) + freed(0) + read(1) + kConfiguration1Set + freed(1) + read(2) +
         kConfiguration1Set + freed(2) + read(3) + kConfiguration1Set + freed(3) + read(4) +
         kConfiguration1Set + freed(4) + read(5) + kConfiguration1Set + claimed(0) + freed(5),
     released(0)},
};

INSTANTIATE_TEST_SUITE_P(interface, choice_of_the_interface, testing::ValuesIn(kInterfaces), name_of_case);
INSTANTIATE_TEST_SUITE_P(driver, choice_of_the_interface, testing::ValuesIn(kKernelDrivers), name_of_case);
INSTANTIATE_TEST_SUITE_P(configuration, choice_of_the_interface, testing::ValuesIn(kConfigurations),
                         name_of_case);

TEST_F(usb_test, open_keeps_what_it_chose_and_close_forgets_it)
{
    connect_to(with_configurations(1, {{1, {{printer(200)}}}, {2, {{setting(200, {{0x83}, {0x05}})}}}}));

    EXPECT_TRUE(usb->open(kByIds));
    EXPECT_EQ(usb->m_nConfiguration, 2);
    EXPECT_EQ(usb->m_nInterface, 200);
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
    EXPECT_EQ(usb->m_nBulkIn, 0x83);
    EXPECT_EQ(usb->m_nBulkOut, 0x05);

    usb->close();
    EXPECT_FALSE(usb->is_open());
    EXPECT_EQ(usb->m_nConfiguration, -1);
    EXPECT_EQ(usb->m_nInterface, -1);
    EXPECT_EQ(usb->m_nBulkIn, -1);
    EXPECT_EQ(usb->m_nBulkOut, -1);
}

TEST_F(usb_test, object_can_be_opened_after_a_failed_open)
{
    connect_to(scanner_device());
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).times(1);

    EXPECT_FALSE(usb->open(kByIds));
    EXPECT_TRUE(usb->open(kByIds));
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
        ASSERT_TRUE(usb->open(kByIds));
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

/// Of 5 bytes, which goes alike in both directions.
struct transfer_case {
    const char* name;
    fake_usb::transfer script;
    int moved;
    std::string outcome;
    lines then = {}; ///< # stands for the endpoint, @ for read or write
    std::function<void(fake_usb::bus&)> before = nothing_first;
};

struct direction {
    const char* verb;
    std::uint8_t endpoint;
};

std::string filled_in(std::string all, const std::string& gap, const std::string& text)
{
    for (std::size_t at = all.find(gap); at != std::string::npos; at = all.find(gap))
        all.replace(at, gap.size(), text);
    return all;
}

class transfer_of_5_bytes : public usb_test_of_transfers, public testing::WithParamInterface<transfer_case> {
protected:
    void expect(const direction& way, const std::function<int()>& move)
    {
        bus.script("scanner", way.endpoint, GetParam().script);
        GetParam().before(bus);
        EXPECT_EQ(move(), GetParam().moved);
        const lines all = lines{"bulk_transfer scanner # 5 60000 -> " + GetParam().outcome} + GetParam().then;
        EXPECT_EQ(happened(), filled_in(filled_in(all.text(), "#", way.endpoint == 0x81 ? "0x81" : "0x02"),
                                        "@", way.verb));
    }
};

TEST_P(transfer_of_5_bytes, is_one_call_and_logs_what_goes_wrong_when_reading)
{
    expect({"read", 0x81}, [this] { return read(5); });
}

TEST_P(transfer_of_5_bytes, is_one_call_and_logs_what_goes_wrong_when_writing)
{
    expect({"write", 0x02}, [this] { return write({1, 2, 3, 4, 5}); });
}

const std::vector<transfer_case> kTransfers = {
    {"whole", ends_with(LIBUSB_SUCCESS, 5), 5, "0 (5)"},
    {"short", ends_with(LIBUSB_SUCCESS, 2), 2, "0 (2)", {"INFO usb @ : transferred 2 of 5 bytes"}},
    {"empty", ends_with(LIBUSB_SUCCESS, 0), 0, "0 (0)", {"INFO usb @ : transferred 0 of 5 bytes"}},
    {"stalled_at_once",
     ends_with(LIBUSB_ERROR_PIPE, 0),
     0,
     "LIBUSB_ERROR_PIPE (0)",
     {"INFO usb @ : transferred 0 of 5 bytes", "clear_halt scanner # -> 0",
      "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb @ : LIBUSB_ERROR_PIPE"}},
    {"stalled_half_way",
     ends_with(LIBUSB_ERROR_PIPE, 2),
     2,
     "LIBUSB_ERROR_PIPE (2)",
     {"INFO usb @ : transferred 2 of 5 bytes", "clear_halt scanner # -> 0",
      "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb @ : LIBUSB_ERROR_PIPE"}},
    {"stalled_for_good",
     ends_with(LIBUSB_ERROR_PIPE, 0),
     0,
     "LIBUSB_ERROR_PIPE (0)",
     {"INFO usb @ : transferred 0 of 5 bytes", "clear_halt scanner # -> LIBUSB_ERROR_NO_DEVICE",
      "INFO clearing halt: LIBUSB_ERROR_PIPE", "INFO usb @ : LIBUSB_ERROR_PIPE"},
     fails("clear_halt", LIBUSB_ERROR_NO_DEVICE)},
    {"timed_out",
     ends_with(LIBUSB_ERROR_TIMEOUT, 4),
     4,
     "LIBUSB_ERROR_TIMEOUT (4)",
     {"INFO usb @ : transferred 4 of 5 bytes", "INFO usb @ : LIBUSB_ERROR_TIMEOUT"}},
    {"failed_after_all_bytes",
     ends_with(LIBUSB_ERROR_OVERFLOW, 5),
     5,
     "LIBUSB_ERROR_OVERFLOW (5)",
     {"INFO usb @ : LIBUSB_ERROR_OVERFLOW"}},
    {"not_even_submitted",
     fake_usb::refused_with(LIBUSB_ERROR_NO_MEM),
     0,
     "LIBUSB_ERROR_NO_MEM (-)",
     {"INFO usb @ : transferred 0 of 5 bytes", "INFO usb @ : LIBUSB_ERROR_NO_MEM"}},
};

INSTANTIATE_TEST_SUITE_P(, transfer_of_5_bytes, testing::ValuesIn(kTransfers), name_of_case);

TEST_F(usb_test_of_transfers, bytes_pass_unchanged_between_the_caller_s_buffer_and_the_device)
{
    bus.script("scanner", 0x81, fake_usb::brings({1, 0, 255}));

    EXPECT_EQ(read(5), 3);
    EXPECT_EQ(buffer, (std::vector<unsigned char>{1, 0, 255, 0xEE, 0xEE}));
    EXPECT_EQ(write({1, 0, 255}), 3);
    EXPECT_EQ(bus.written("scanner", 0x02), (std::vector<unsigned char>{1, 0, 255}));
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
    ASSERT_TRUE(usb->open(kByIds));
    forget_what_happened();

    read(1);
    write({1});
    EXPECT_EQ(happened(), text({{"bulk_transfer other 0x86 1 60000 -> 0 (1)",
                                 "bulk_transfer other 0x07 1 60000 -> 0 (1)"}}));
}

// Closing.

TEST_F(usb_test, close_keeps_the_flag_of_the_kernel_driver_and_the_next_open_rewrites_it)
{
    connect_to(with_driver(kUsable));
    EXPECT_TRUE(usb->open(kByIds));
    usb->close();
    EXPECT_TRUE(usb->m_isKernelDriverDetached);

    bus.unplug("scanner");
    fake_usb::device other = with_interfaces(kUseless);
    other.name = "other";
    bus.plug(other);
    EXPECT_FALSE(usb->open(kByIds));
    EXPECT_FALSE(usb->m_isKernelDriverDetached);
}

TEST_F(usb_test, close_of_a_closed_object_does_nothing)
{
    connect_to();
    usb->close();

    EXPECT_EQ(happened(), "");
}

TEST_F(usb_test_of_transfers, destruction_closes_before_it_gives_the_context_back)
{
    usb.reset();

    EXPECT_EQ(happened(), text({released(0), {"exit"}}));
}

TEST_F(usb_test_of_transfers, closed_object_can_be_opened_again)
{
    usb->close();
    forget_what_happened();

    EXPECT_TRUE(usb->open(kByIds));
    EXPECT_EQ(happened(), text({kIdsSearch, kSearched, claimed(0), freed(0)}));
}

TEST_F(usb_test_of_transfers, open_does_not_fill_in_the_ids_so_that_close_resets_no_device)
{
    EXPECT_EQ(usb->m_nVendorId, 0);
    EXPECT_EQ(usb->m_nProductId, 0);
}

TEST_F(usb_test_of_transfers, close_resets_the_device_of_some_models_before_all_else_and_need_not_succeed)
{
    bus.fail("reset_device", LIBUSB_ERROR_NOT_FOUND);
    usb->m_nProductId = 0x0A71;
    usb->close();

    EXPECT_EQ(
        happened(),
        text({{"INFO libusb reset device", "reset_device scanner -> LIBUSB_ERROR_NOT_FOUND"}, released(0)}));
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
    usb->open(kBySerial);
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
