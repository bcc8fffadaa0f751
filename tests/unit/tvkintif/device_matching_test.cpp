#include <gtest/gtest.h>
#include <libusb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "fake_usb/checked_bus.h"
#include "support/dialogue.h"
#include "support/lines.h"
#include "tvkintif/src/usb.h"

using fake_usb::scanner_device;
using support::lines;
using support::text;
using namespace std::string_literals;

namespace {

/// The bus with a context, as the functions that match and open devices find it.
class device_matching : public testing::Test {
protected:
    void SetUp() override
    {
        libusb_init(&context);
        support::take_dialogue();
    }
    void TearDown() override
    {
        libusb_exit(context);
        bus.verify();
    }

    static std::string happened() { return text(support::take_dialogue()); }

    fake_usb::checked_bus bus;
    libusb_context* context = nullptr;
};

struct match_case {
    const char* name;
    std::optional<std::string> serial; ///< of the device 1a2b:3c4d
    std::uint16_t vendor_id;
    std::uint16_t product_id;
    std::string serial_asked_for;
    bool is_match;
    lines steps;
    std::pair<std::string, int> failure = {}; ///< of which function, with which error
};

const lines kDescribed = {"get_device_descriptor scanner -> 0"};

/// How the serial is read, with what reading it tells.
lines read_as(const std::string& answer)
{
    return kDescribed +
           lines{"open scanner -> 0", "get_string_descriptor_ascii scanner " + answer, "close scanner"};
}

const std::string kLongest(255, 'S');

class is_match_id : public device_matching, public testing::WithParamInterface<match_case> {};

TEST_P(is_match_id, judges_by_these_steps)
{
    const match_case& how = GetParam();
    fake_usb::device scanner = scanner_device();
    scanner.serial = how.serial;
    bus.plug(scanner);
    if (!how.failure.first.empty())
        bus.fail(how.failure.first, how.failure.second);
    libusb_device** list = nullptr;
    libusb_get_device_list(context, &list);
    support::take_dialogue();

    EXPECT_EQ(usb_transceiver::Is_matchID(how.vendor_id, how.product_id, how.serial_asked_for, list[0]),
              how.is_match);
    EXPECT_EQ(happened(), how.steps.text());
    libusb_free_device_list(list, 1);
}

INSTANTIATE_TEST_SUITE_P(
    , is_match_id,
    testing::Values(
        match_case{"same", "SN0042", 0x1a2b, 0x3c4d, "SN0042", true, read_as("3 -> 6")},
        match_case{"another_vendor", "SN0042", 0x1a2c, 0x3c4d, "SN0042", false, kDescribed},
        match_case{"another_product", "SN0042", 0x1a2b, 0x3c4e, "SN0042", false, kDescribed},
        match_case{"unreadable_device",
                   "SN0042",
                   0x1a2b,
                   0x3c4d,
                   "SN0042",
                   false,
                   {"get_device_descriptor scanner -> LIBUSB_ERROR_IO"},
                   {"get_device_descriptor", LIBUSB_ERROR_IO}},
        match_case{"refuses_to_open_whatever_the_serial",
                   "SN0042",
                   0x1a2b,
                   0x3c4d,
                   "another",
                   true,
                   kDescribed + lines{"open scanner -> LIBUSB_ERROR_ACCESS"},
                   {"open", LIBUSB_ERROR_ACCESS}},
        match_case{"other_letter_case", "SN0042", 0x1a2b, 0x3c4d, "sn0042", false, read_as("3 -> 6")},
        match_case{"begins_alike", "SN0042", 0x1a2b, 0x3c4d, "SN004", false, read_as("3 -> 6")},
        match_case{"with_its_terminator", "SN0042", 0x1a2b, 0x3c4d, "SN0042\0"s, true, read_as("3 -> 6")},
        match_case{"of_255_letters", kLongest, 0x1a2b, 0x3c4d, kLongest, true, read_as("3 -> 255")},
        match_case{"unreadable_serial_is_empty",
                   "SN0042",
                   0x1a2b,
                   0x3c4d,
                   "",
                   true,
                   read_as("3 -> LIBUSB_ERROR_PIPE"),
                   {"get_string_descriptor_ascii", LIBUSB_ERROR_PIPE}},
        match_case{"no_serial", std::nullopt, 0x1a2b, 0x3c4d, "SN0042", false,
                   read_as("0 -> LIBUSB_ERROR_INVALID_PARAM")}),
    [](const auto& test) { return test.param.name; });

TEST_F(device_matching, open_by_ids_stops_at_the_try_that_succeeds)
{
    bus.plug(scanner_device());
    bus.fail("open_device_with_vid_pid", LIBUSB_ERROR_BUSY).times(2);

    libusb_device_handle* handle = open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 5, 250);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(happened(), text({"open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 250",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 250",
                                "open_device_with_vid_pid 1a2b:3c4d -> scanner"}));
    libusb_close(handle);
}

TEST_F(device_matching, open_by_ids_without_tries_returns_null_without_a_call_or_pause)
{
    bus.plug(scanner_device());

    EXPECT_EQ(open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 0, 100), nullptr);
    EXPECT_EQ(open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, -1, 100), nullptr);
    EXPECT_EQ(happened(), "");
}

using device_matching_death = device_matching;

TEST_F(device_matching_death, open_by_ids_aborts_without_a_context_or_an_id_even_with_no_tries)
{
    EXPECT_DEATH(open_device_with_vid_pid(nullptr, 0x1a2b, 0x3c4d, 5, 100), "ctx && vid && pid");
    EXPECT_DEATH(open_device_with_vid_pid(context, 0, 0x3c4d, 5, 100), "ctx && vid && pid");
    EXPECT_DEATH(open_device_with_vid_pid(context, 0x1a2b, 0, 0, 100), "ctx && vid && pid");
}

} // namespace
