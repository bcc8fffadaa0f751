#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <libusb.h>

#include <array>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_usb/bus.h"
#include "fake_usb/checked_bus.h"
#include "fake_usb/script.h"
#include "support/dialogue.h"
#include "support/temporary_folder.h"

using fake_usb::scanner_device;
using support::text;
using lines = std::vector<std::string>;

namespace {

/// A program at the fake bus, written as the program under test might be.
class fake_usb_test : public testing::Test {
protected:
    void SetUp() override { support::take_dialogue(); }

    /// Context, device, open handle.
    void open_scanner()
    {
        libusb_init(&context);
        handle = libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d);
    }
    /// The same, and interface 0 claimed.
    void begin_session()
    {
        open_scanner();
        libusb_claim_interface(handle, 0);
    }
    void end_session()
    {
        libusb_release_interface(handle, 0);
        libusb_close(handle);
        libusb_exit(context);
    }

    void list_devices()
    {
        libusb_init(&context);
        libusb_get_device_list(context, &list);
    }
    libusb_config_descriptor* read_configuration() const
    {
        libusb_config_descriptor* descriptor = nullptr;
        libusb_get_config_descriptor(libusb_get_device(handle), 0, &descriptor);
        return descriptor;
    }
    int transfer(unsigned char address, int size)
    {
        buffer.assign(static_cast<std::size_t>(size), 0xEE);
        moved = -5;
        return libusb_bulk_transfer(handle, address, buffer.data(), size, &moved, 60000);
    }

    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
    libusb_device** list = nullptr;
    std::vector<unsigned char> buffer;
    int moved = 0;
};

class fake_usb_at_a_bus : public fake_usb_test {
protected:
    /// Plugs in a scanner and opens it.
    void open_scanner_like(const fake_usb::device& description)
    {
        bus.plug(description);
        open_scanner();
    }

    fake_usb::bus bus;
};

class fake_usb_at_a_scanner : public fake_usb_at_a_bus {
protected:
    fake_usb_at_a_scanner() { bus.plug(scanner_device()); }
};

fake_usb::device scanner_with_driver()
{
    fake_usb::device scanner = scanner_device();
    scanner.kernel_drivers = {0};
    return scanner;
}

TEST_F(fake_usb_at_a_scanner, records_a_session_call_by_call_with_its_results)
{
    begin_session();
    libusb_set_debug(context, 3);
    transfer(0x02, 3);
    transfer(0x81, 4);
    end_session();

    EXPECT_EQ(
        text({"init -> 0", "open_device_with_vid_pid 1a2b:3c4d -> scanner", "claim_interface scanner 0 -> 0",
              "set_debug 3", "bulk_transfer scanner 0x02 3 60000 -> 0 (3)",
              "bulk_transfer scanner 0x81 4 60000 -> 0 (4)", "release_interface scanner 0 -> 0",
              "close scanner", "exit"}),
        text(support::dialogue()));
}

TEST_F(fake_usb_at_a_scanner, finds_what_a_session_has_not_given_back)
{
    libusb_init(&context);
    EXPECT_EQ(bus.leftovers(), lines{"context"});
    handle = libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d);
    EXPECT_EQ(bus.leftovers(), (lines{"context", "handle of scanner", "1 references to scanner"}));
    libusb_claim_interface(handle, 0);
    EXPECT_EQ(bus.leftovers(), (lines{"context", "handle of scanner", "claim of scanner interface 0",
                                      "1 references to scanner"}));
    libusb_config_descriptor* const descriptor = read_configuration();
    end_session();
    EXPECT_EQ(bus.leftovers(), lines{"configuration descriptor scanner 0"});
    libusb_free_config_descriptor(descriptor);
    EXPECT_EQ(bus.leftovers(), lines());
    EXPECT_EQ(bus.misuses(), lines());
}

TEST_F(fake_usb_at_a_scanner, finds_the_device_list_left_behind_and_the_references_of_one_freed_without_them)
{
    list_devices();
    EXPECT_EQ(bus.leftovers(), (lines{"context", "device list of 1", "1 references to scanner"}));
    libusb_free_device_list(list, 0);
    EXPECT_EQ(bus.leftovers(), (lines{"context", "1 references to scanner"}));
}

TEST_F(fake_usb_at_a_bus, finds_the_kernel_driver_that_was_not_attached_again)
{
    open_scanner_like(scanner_with_driver());
    libusb_detach_kernel_driver(handle, 0);
    libusb_close(handle);
    libusb_exit(context);

    EXPECT_EQ(bus.leftovers(), lines{"detached kernel driver of scanner interface 0"});
}

TEST_F(fake_usb_test, checked_bus_fails_the_test_for_a_thing_left_behind)
{
    EXPECT_NONFATAL_FAILURE(
        {
            fake_usb::checked_bus bus;
            libusb_context* forgotten = nullptr;
            libusb_init(&forgotten);
        },
        "left behind on the USB bus: context");
}

TEST_F(fake_usb_test, checked_bus_fails_the_test_for_a_misuse)
{
    EXPECT_NONFATAL_FAILURE(
        {
            fake_usb::checked_bus bus;
            libusb_exit(nullptr);
        },
        "libusb was misused: exit: the context is not alive");
}

TEST_F(fake_usb_at_a_scanner, reports_each_misuse_of_a_handle)
{
    EXPECT_EQ(libusb_reset_device(nullptr), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(bus.take_misuses(), lines{"reset_device null: the handle is null"});
    open_scanner();
    EXPECT_EQ(transfer(0x81, 4), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(bus.take_misuses(),
              lines{"bulk_transfer scanner 0x81 4 60000: no claimed interface has this endpoint"});
    libusb_claim_interface(handle, 0);
    EXPECT_EQ(libusb_release_interface(handle, 1), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(bus.take_misuses(), lines{"release_interface scanner 1: the interface is not claimed"});
    EXPECT_EQ(libusb_attach_kernel_driver(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(bus.take_misuses(), lines{"attach_kernel_driver scanner 0: the interface is still claimed"});
    libusb_close(handle);
    EXPECT_EQ(bus.take_misuses(), lines{"close scanner: interface 0 is still claimed"});
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(bus.take_misuses(), lines{"claim_interface scanner 0: the handle is not open"});
    libusb_close(handle);
    EXPECT_EQ(bus.take_misuses(), lines{"close scanner: the handle is not open"});
}

TEST_F(fake_usb_at_a_scanner, reports_each_misuse_of_a_context)
{
    bus.fail("init", LIBUSB_ERROR_OTHER).times(1);
    libusb_init(&context);
    libusb_exit(context);
    EXPECT_EQ(bus.take_misuses(), lines{"exit: the context is not alive"});
    open_scanner();
    libusb_exit(context);
    EXPECT_EQ(bus.take_misuses(), lines{"exit: a handle of scanner is still open"});
    libusb_exit(context);
    EXPECT_EQ(bus.take_misuses(), lines{"exit: the context is not alive"});
}

TEST_F(fake_usb_at_a_scanner, reports_each_misuse_of_what_is_on_loan)
{
    list_devices();
    libusb_device* const device = list[0];
    handle = libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d);
    libusb_config_descriptor* const descriptor = read_configuration();
    libusb_free_config_descriptor(descriptor);
    libusb_free_config_descriptor(descriptor);
    EXPECT_EQ(bus.take_misuses(), lines{"free_config_descriptor: no such descriptor is on loan"});
    libusb_close(handle);
    libusb_free_device_list(list, 1);
    libusb_free_device_list(list, 1);
    EXPECT_EQ(bus.take_misuses(), lines{"free_device_list unref: no such list is on loan"});
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(bus.take_misuses(), lines{"open scanner: nobody holds a reference to the device"});
}

TEST_F(fake_usb_at_a_scanner, shares_a_claim_until_it_is_released)
{
    const temporary_folder folder;
    bus.share_claims(folder.path());
    begin_session();
    libusb_device_handle* const other = libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d);
    EXPECT_EQ(libusb_claim_interface(other, 0), LIBUSB_ERROR_BUSY);
    libusb_release_interface(handle, 0);
    EXPECT_EQ(libusb_claim_interface(other, 0), LIBUSB_SUCCESS);
    libusb_release_interface(other, 0);
    libusb_close(other);
    libusb_close(handle);
    libusb_exit(context);
    EXPECT_EQ(bus.leftovers(), lines{});
}

TEST_F(fake_usb_test, aborts_when_libusb_is_called_without_a_bus)
{
    EXPECT_DEATH(libusb_init(&context), "fake_usb: libusb was called while no bus exists");
}

TEST_F(fake_usb_at_a_bus, refuses_a_claim_while_a_kernel_driver_is_bound)
{
    open_scanner_like(scanner_with_driver());

    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_kernel_driver_active(handle, 0), 1);
    EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(libusb_kernel_driver_active(handle, 0), 0);
    EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
}

TEST_F(fake_usb_at_a_scanner, fails_the_calls_that_it_was_told_to_fail)
{
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).from_call(2).times(2);
    begin_session();

    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_SUCCESS);
}

TEST_F(fake_usb_at_a_scanner, fails_the_calls_on_one_device_only)
{
    fake_usb::device other = scanner_device();
    other.name = "other";
    bus.plug(other);
    bus.fail("open", LIBUSB_ERROR_ACCESS).of("other");
    list_devices();

    EXPECT_EQ(libusb_open(list[0], &handle), LIBUSB_SUCCESS);
    EXPECT_EQ(libusb_open(list[1], &handle), LIBUSB_ERROR_ACCESS);
}

TEST_F(fake_usb_at_a_scanner, refuses_to_fail_a_function_that_it_does_not_play)
{
    EXPECT_THROW(bus.fail("libusb_open", LIBUSB_ERROR_ACCESS), std::invalid_argument);
    EXPECT_THROW(bus.before_call("opne", 1, [] {}), std::invalid_argument);
}

TEST_F(fake_usb_at_a_scanner, records_a_call_out_of_which_a_hook_throws)
{
    bus.before_call("init", 2, [] { throw std::runtime_error("no memory"); });
    libusb_init(&context);

    EXPECT_THROW(libusb_init(&context), std::runtime_error);
    EXPECT_EQ(text({"init -> 0", "init -> throws"}), text(support::dialogue()));
}

TEST_F(fake_usb_at_a_bus, shows_a_device_from_the_search_on_at_which_it_appears)
{
    fake_usb::device scanner = scanner_device();
    scanner.appears_at_search = 3;
    bus.plug(scanner);
    libusb_init(&context);

    EXPECT_EQ(libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d), nullptr);
    EXPECT_EQ(libusb_get_device_list(context, &list), 0);
    EXPECT_NE(libusb_open_device_with_vid_pid(context, 0x1a2b, 0x3c4d), nullptr);
}

TEST_F(fake_usb_at_a_scanner, answers_no_device_after_the_unplugging_and_asks_nothing_back)
{
    begin_session();
    bus.unplug("scanner");

    EXPECT_EQ(transfer(0x81, 4), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(moved, -5);
    end_session();
    EXPECT_EQ(text(bus.leftovers()), "");
}

TEST_F(fake_usb_at_a_scanner, gives_the_pattern_on_without_a_seam_between_transfers)
{
    begin_session();
    transfer(0x81, 300);
    EXPECT_EQ(fake_usb::pattern_byte(299), buffer[299]);

    transfer(0x81, 2);
    EXPECT_EQ(buffer, (std::vector<unsigned char>{fake_usb::pattern_byte(300), fake_usb::pattern_byte(301)}));
}

TEST_F(fake_usb_at_a_scanner, brings_the_scripted_bytes_and_says_how_many)
{
    bus.script("scanner", 0x81, fake_usb::brings({1, 2}));
    begin_session();

    EXPECT_EQ(transfer(0x81, 3), LIBUSB_SUCCESS);
    EXPECT_EQ(moved, 2);
    EXPECT_EQ(buffer, (std::vector<unsigned char>{1, 2, 0xEE}));
}

TEST_F(fake_usb_at_a_scanner, overflows_when_more_arrives_than_was_asked_for)
{
    bus.script("scanner", 0x81, fake_usb::brings({1, 2}));
    begin_session();

    EXPECT_EQ(transfer(0x81, 1), LIBUSB_ERROR_OVERFLOW);
}

TEST_F(fake_usb_at_a_scanner, keeps_what_was_written)
{
    bus.script("scanner", 0x02, fake_usb::ends_with(LIBUSB_ERROR_TIMEOUT, 2));
    begin_session();

    EXPECT_EQ(transfer(0x02, 3), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(moved, 2);
    EXPECT_EQ(bus.written("scanner", 0x02), (std::vector<unsigned char>{0xEE, 0xEE}));
}

TEST_F(fake_usb_at_a_scanner, keeps_a_stalled_endpoint_halted_until_the_halt_is_cleared)
{
    bus.script("scanner", 0x81, fake_usb::ends_with(LIBUSB_ERROR_PIPE, 0));
    begin_session();

    EXPECT_EQ(transfer(0x81, 1), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(transfer(0x81, 1), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_clear_halt(handle, 0x81), LIBUSB_SUCCESS);
    EXPECT_EQ(transfer(0x81, 1), LIBUSB_SUCCESS);
}

TEST_F(fake_usb_at_a_scanner, leaves_the_count_alone_when_it_refuses_a_transfer)
{
    bus.script("scanner", 0x81, fake_usb::refused_with(LIBUSB_ERROR_NO_MEM));
    begin_session();

    EXPECT_EQ(transfer(0x81, 1), LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(moved, -5);
}

TEST_F(fake_usb_at_a_bus, reports_the_number_of_endpoints_with_a_null_array_when_told_so)
{
    fake_usb::device scanner = scanner_device();
    scanner.configurations[0].interfaces[0][0].is_endpoint_array_null = true;
    open_scanner_like(scanner);
    const libusb_interface_descriptor& shown = read_configuration()->interface[0].altsetting[0];

    EXPECT_EQ(shown.bNumEndpoints, 2);
    EXPECT_EQ(shown.endpoint, nullptr);
}

TEST_F(fake_usb_at_a_bus, shows_configurations_interfaces_settings_and_endpoints_as_described)
{
    fake_usb::alt_setting second;
    second.interface_number = 4;
    second.interface_class = 7;
    second.endpoints = {{0x83, LIBUSB_TRANSFER_TYPE_INTERRUPT}};
    fake_usb::device scanner = scanner_device();
    scanner.configurations[0].value = 9;
    scanner.configurations[0].interfaces.push_back({fake_usb::alt_setting{4}, second});
    open_scanner_like(scanner);
    const libusb_config_descriptor* const descriptor = read_configuration();

    EXPECT_EQ(descriptor->bConfigurationValue, 9);
    ASSERT_EQ(descriptor->bNumInterfaces, 2);
    ASSERT_EQ(descriptor->interface[1].num_altsetting, 2);
    const libusb_interface_descriptor& shown = descriptor->interface[1].altsetting[1];
    EXPECT_EQ(shown.bInterfaceNumber, 4);
    EXPECT_EQ(shown.bInterfaceClass, 7);
    ASSERT_EQ(shown.bNumEndpoints, 1);
    EXPECT_EQ(shown.endpoint[0].bEndpointAddress, 0x83);
    EXPECT_EQ(shown.endpoint[0].bmAttributes, LIBUSB_TRANSFER_TYPE_INTERRUPT);
}

TEST_F(fake_usb_at_a_bus, reads_the_serial_number_as_libusb_does)
{
    fake_usb::device scanner = scanner_device();
    scanner.serial = "SN0042";
    open_scanner_like(scanner);
    std::array<unsigned char, 5> room{};

    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 3, room.data(), static_cast<int>(room.size())), 4);
    EXPECT_EQ((std::array<unsigned char, 5>{'S', 'N', '0', '0', 0}), room);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 0, room.data(), 5), LIBUSB_ERROR_INVALID_PARAM);
}

/// The text form.
class fake_usb_script_test : public fake_usb_at_a_bus {
protected:
    fake_usb::script_options load(const std::string& script)
    {
        std::istringstream input(script);
        return load_script(input, "bus.txt", bus);
    }
};

TEST_F(fake_usb_script_test, plugs_in_a_ready_made_scanner)
{
    load("# one scanner\n\n  device scanner 1a2b:3c4d serial SN 0042 # with a blank\n");
    begin_session();
    std::array<unsigned char, 16> serial{};
    libusb_get_string_descriptor_ascii(handle, 3, serial.data(), 16);
    end_session();

    EXPECT_EQ(text({"init -> 0", "open_device_with_vid_pid 1a2b:3c4d -> scanner",
                    "claim_interface scanner 0 -> 0", "get_string_descriptor_ascii scanner 3 -> 8",
                    "release_interface scanner 0 -> 0", "close scanner", "exit"}),
              text(support::dialogue()));
}

TEST_F(fake_usb_script_test, describes_a_device_in_detail)
{
    load("device odd 1a2b:3c4d\n"
         "  configuration 2\n"
         "    interface 5 07 01\n"
         "      endpoint 83 interrupt\n"
         "    setting\n"
         "      endpoint 84\n"
         "      null_endpoints\n"
         "  active_configuration 2\n"
         "  kernel_driver 5\n");
    open_scanner();
    const libusb_config_descriptor* const descriptor = read_configuration();

    const libusb_interface_descriptor* settings = descriptor->interface[0].altsetting;
    EXPECT_EQ(descriptor->bConfigurationValue, 2);
    EXPECT_EQ(settings[0].bInterfaceNumber, 5);
    EXPECT_EQ(settings[0].bInterfaceClass, 7);
    EXPECT_EQ(settings[0].bInterfaceProtocol, 1);
    EXPECT_EQ(settings[0].endpoint[0].bmAttributes, LIBUSB_TRANSFER_TYPE_INTERRUPT);
    EXPECT_EQ(settings[1].bInterfaceNumber, 5);
    EXPECT_EQ(settings[1].bInterfaceProtocol, 0xFF);
    EXPECT_EQ(settings[1].endpoint, nullptr);
    EXPECT_EQ(libusb_kernel_driver_active(handle, 5), 1);
}

TEST_F(fake_usb_script_test, scripts_failures_transfers_exceptions_and_unplugging)
{
    load("device scanner 1a2b:3c4d\n"
         "fail clear_halt LIBUSB_ERROR_OTHER of scanner from_call 2 times 1\n"
         "throw reset_device 1 out of the blue\n"
         "throw_number set_debug 1\n"
         "unplug scanner set_configuration 1\n"
         "transfer scanner 81 bytes 0aff\n"
         "transfer scanner 81 result LIBUSB_ERROR_TIMEOUT count 1\n"
         "transfer scanner 02 result -9 untouched\n");
    begin_session();

    EXPECT_EQ(libusb_clear_halt(handle, 0x81), 0);
    EXPECT_EQ(libusb_clear_halt(handle, 0x81), LIBUSB_ERROR_OTHER);
    EXPECT_THROW(libusb_reset_device(handle), std::runtime_error);
    EXPECT_THROW(libusb_set_debug(context, 3), int);
    EXPECT_EQ(transfer(0x81, 2), 0);
    EXPECT_EQ(buffer, (std::vector<unsigned char>{0x0A, 0xFF}));
    EXPECT_EQ(transfer(0x81, 2), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(moved, 1);
    EXPECT_EQ(transfer(0x02, 2), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(moved, -5);
    EXPECT_EQ(libusb_set_configuration(handle, 1), LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(fake_usb_script_test, records_the_clock_only_when_told_so)
{
    EXPECT_FALSE(load("device scanner 1a2b:3c4d\n").is_clock_recorded);
    EXPECT_TRUE(load("clock recorded\n").is_clock_recorded);
    EXPECT_FALSE(load("clock slow\n").is_clock_recorded);
}

TEST_F(fake_usb_script_test, slows_the_clock_only_when_told_so)
{
    EXPECT_FALSE(load("clock recorded\n").is_clock_slow);
    EXPECT_TRUE(load("clock slow\n").is_clock_slow);
}

struct bad_script {
    const char* name;
    const char* script;
    const char* complaint;
};

class fake_usb_bad_script_test : public fake_usb_script_test,
                                 public testing::WithParamInterface<bad_script> {};

TEST_P(fake_usb_bad_script_test, is_refused_with_line_and_reason)
{
    try {
        load(std::string("device scanner 1a2b:3c4d\n") + GetParam().script + "\n");
        FAIL() << "accepted: " << GetParam().script;
    } catch (const std::invalid_argument& problem) {
        EXPECT_EQ(problem.what(), std::string("bus.txt:2: ") + GetParam().complaint +
                                      " (the statements are listed in fake_usb/script.h)");
    }
}

INSTANTIATE_TEST_SUITE_P(
    each, fake_usb_bad_script_test,
    testing::Values(
        bad_script{"unknown_statement", "plug it", "no such statement: plug"},
        bad_script{"unknown_function", "fail opne LIBUSB_ERROR_IO",
                   "fake_usb: no function libusb_opne is played here; see known_functions() in bus.cpp"},
        bad_script{"unknown_result", "fail open LIBUSB_ERROR",
                   "fake_usb: libusb has no result called LIBUSB_ERROR"},
        bad_script{"unknown_device", "transfer printer 81",
                   "fake_usb: no device called 'printer' was plugged in"},
        bad_script{"unknown_condition", "fail open -1 always", "no such condition: always"},
        bad_script{"unknown_transfer_property", "transfer scanner 81 slowly",
                   "no such property of a transfer: slowly"},
        bad_script{"number_that_is_none", "kernel_driver zero", "the interface number is not a number: zero"},
        bad_script{"interface_without_configuration", "interface 0", "no configuration to say this of"},
        bad_script{"endpoint_without_interface", "endpoint 81", "no interface to say this of"},
        bad_script{"bytes_that_are_none", "transfer scanner 81 bytes 0g",
                   "not pairs of hexadecimal digits: 0g"},
        bad_script{"ids_that_are_none", "device other scanner", "not VVVV:PPPP: scanner"},
        bad_script{"missing_word", "device", "the name is missing"},
        bad_script{"words_too_many", "kernel_driver 0 1", "not understood: 1"}),
    [](const auto& chosen) { return chosen.param.name; });

} // namespace
