#include <gtest/gtest.h>
#include <libusb.h>

#include <cstdint>
#include <string>

#include "fake_usb/checked_bus.h"
#include "support/dialogue.h"
#include "tvkintif/src/usb.h"

using fake_usb::scanner_device;
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
        if (list != nullptr)
            libusb_free_device_list(list, 1);
        libusb_exit(context);
        bus.verify();
    }

    void plug_in(const char* serial)
    {
        fake_usb::device scanner = scanner_device();
        if (serial != nullptr)
            scanner.serial = serial;
        bus.plug(scanner);
    }

    bool matches(std::uint16_t vid, std::uint16_t pid, const std::string& serial)
    {
        libusb_get_device_list(context, &list);
        support::take_dialogue();
        return usb_transceiver::Is_matchID(vid, pid, serial, list[0]);
    }

    static std::string happened() { return text(support::take_dialogue()); }

    fake_usb::checked_bus bus;
    libusb_context* context = nullptr;
    libusb_device** list = nullptr;
};

TEST_F(device_matching, is_match_id_accepts_the_same_ids_and_serial_and_closes_its_handle)
{
    plug_in("SN0042");

    EXPECT_TRUE(matches(0x1a2b, 0x3c4d, "SN0042"));
    EXPECT_EQ(happened(), text({"get_device_descriptor scanner -> 0", "open scanner -> 0",
                                "get_string_descriptor_ascii scanner 3 -> 6", "close scanner"}));
}

TEST_F(device_matching, is_match_id_refuses_another_vendor_without_opening)
{
    plug_in("SN0042");

    EXPECT_FALSE(matches(0x1a2c, 0x3c4d, "SN0042"));
    EXPECT_EQ(happened(), "get_device_descriptor scanner -> 0\n");
}

TEST_F(device_matching, is_match_id_refuses_another_product_without_opening)
{
    plug_in("SN0042");

    EXPECT_FALSE(matches(0x1a2b, 0x3c4e, "SN0042"));
    EXPECT_EQ(happened(), "get_device_descriptor scanner -> 0\n");
}

TEST_F(device_matching, is_match_id_refuses_a_device_whose_descriptor_cannot_be_read)
{
    plug_in("SN0042");
    bus.fail("get_device_descriptor", LIBUSB_ERROR_IO);

    EXPECT_FALSE(matches(0x1a2b, 0x3c4d, "SN0042"));
    EXPECT_EQ(happened(), "get_device_descriptor scanner -> LIBUSB_ERROR_IO\n");
}

TEST_F(device_matching, is_match_id_accepts_a_device_with_the_ids_that_refuses_to_open_whatever_the_serial)
{
    plug_in("SN0042");
    bus.fail("open", LIBUSB_ERROR_ACCESS);

    EXPECT_TRUE(matches(0x1a2b, 0x3c4d, "another"));
    EXPECT_EQ(happened(),
              text({"get_device_descriptor scanner -> 0", "open scanner -> LIBUSB_ERROR_ACCESS"}));
}

TEST_F(device_matching, is_match_id_refuses_a_serial_that_differs_only_in_letter_case)
{
    plug_in("SN0042");

    EXPECT_FALSE(matches(0x1a2b, 0x3c4d, "sn0042"));
}

TEST_F(device_matching, is_match_id_refuses_a_serial_that_only_begins_alike)
{
    plug_in("SN0042");

    EXPECT_FALSE(matches(0x1a2b, 0x3c4d, "SN004"));
}

TEST_F(device_matching, is_match_id_accepts_a_serial_that_carries_its_terminator)
{
    plug_in("SN0042");

    EXPECT_TRUE(matches(0x1a2b, 0x3c4d, "SN0042\0"s));
}

TEST_F(device_matching, is_match_id_reads_a_serial_of_255_characters_whole)
{
    const std::string longest(255, 'S');
    plug_in(longest.c_str());

    EXPECT_TRUE(matches(0x1a2b, 0x3c4d, longest));
}

TEST_F(device_matching, is_match_id_takes_an_unreadable_serial_for_an_empty_one)
{
    plug_in("SN0042");
    bus.fail("get_string_descriptor_ascii", LIBUSB_ERROR_PIPE);

    EXPECT_TRUE(matches(0x1a2b, 0x3c4d, ""));
}

TEST_F(device_matching, is_match_id_refuses_a_device_without_serial_and_closes_its_handle)
{
    plug_in(nullptr);

    EXPECT_FALSE(matches(0x1a2b, 0x3c4d, "SN0042"));
    EXPECT_EQ(happened(),
              text({"get_device_descriptor scanner -> 0", "open scanner -> 0",
                    "get_string_descriptor_ascii scanner 0 -> LIBUSB_ERROR_INVALID_PARAM", "close scanner"}));
}

TEST_F(device_matching, open_by_ids_returns_the_handle_at_once_when_the_device_is_there)
{
    plug_in(nullptr);

    libusb_device_handle* handle = open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 5, 100);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(happened(), "open_device_with_vid_pid 1a2b:3c4d -> scanner\n");
    libusb_close(handle);
}

TEST_F(device_matching, open_by_ids_tries_5_times_and_pauses_after_each_when_there_is_no_device)
{
    EXPECT_EQ(open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 5, 100), nullptr);
    EXPECT_EQ(happened(), text({"open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 100",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 100",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 100",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 100",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 100"}));
}

TEST_F(device_matching, open_by_ids_stops_at_the_try_that_succeeds)
{
    plug_in(nullptr);
    bus.fail("open_device_with_vid_pid", LIBUSB_ERROR_BUSY).times(2);

    libusb_device_handle* handle = open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 5, 250);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(happened(), text({"open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 250",
                                "open_device_with_vid_pid 1a2b:3c4d -> null", "usleep 250",
                                "open_device_with_vid_pid 1a2b:3c4d -> scanner"}));
    libusb_close(handle);
}

TEST_F(device_matching, open_by_ids_with_no_tries_returns_null_without_a_call_or_pause)
{
    plug_in(nullptr);

    EXPECT_EQ(open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, 0, 100), nullptr);
    EXPECT_EQ(happened(), "");
}

TEST_F(device_matching, open_by_ids_with_negative_tries_returns_null_without_a_call_or_pause)
{
    plug_in(nullptr);

    EXPECT_EQ(open_device_with_vid_pid(context, 0x1a2b, 0x3c4d, -1, 100), nullptr);
    EXPECT_EQ(happened(), "");
}

using device_matching_death = device_matching;

TEST_F(device_matching_death, open_by_ids_aborts_without_a_context)
{
    EXPECT_DEATH(open_device_with_vid_pid(nullptr, 0x1a2b, 0x3c4d, 5, 100), "ctx && vid && pid");
}

TEST_F(device_matching_death, open_by_ids_aborts_without_a_vendor_id)
{
    EXPECT_DEATH(open_device_with_vid_pid(context, 0, 0x3c4d, 5, 100), "ctx && vid && pid");
}

TEST_F(device_matching_death, open_by_ids_aborts_without_a_product_id_even_with_no_tries)
{
    EXPECT_DEATH(open_device_with_vid_pid(context, 0x1a2b, 0, 0, 100), "ctx && vid && pid");
}

} // namespace
