// The virtual scanner itself, seen from the bus: each fault does what COMMANDS.md says, and each device file
// becomes the devices that it describes. What the program makes of them is for the other suites.
#include <gtest/gtest.h>
#include <libusb.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/wait_until.h"
#include "target/scanner/command_set.h"
#include "target/scenarios/scanner_process.h"
#include "target/scenarios/usb_host.h"

using target::transfer;
using virtual_scanner::answer_status;
using virtual_scanner::bytes;
using virtual_scanner::command_code;
using virtual_scanner::fault_kind;
using virtual_scanner::pattern;
using virtual_scanner::text_at;

namespace {

constexpr std::uint16_t kVendor = 0x1A2B;
constexpr std::uint16_t kPlain = 0x3C4D;
constexpr std::uint16_t kTag = 3;
constexpr std::uint32_t kData = 8192;
constexpr std::chrono::milliseconds kSoon{10'000};
constexpr const char* kDeviceFiles = "/usr/share/virtual-scanner/";
/// For a transfer that is to find nothing.
constexpr unsigned kShortTimeoutMs = 200;
/// For one that is to stop in the middle, which a busy machine takes its time to reach.
constexpr unsigned kLongerTimeoutMs = 1000;

class bus : public testing::Test {
protected:
    void become(const std::string& device_file) { m_scanner.emplace(device_file); }
    void close() { m_host.reset(); }
    void open(std::uint16_t product = kPlain, int interface = 0)
    {
        m_host.emplace(kVendor, product, interface);
    }

    /// A plain one, unless it was told to become another.
    target::scanner_process& scanner()
    {
        if (!m_scanner)
            become("plain");
        return *m_scanner;
    }
    target::usb_host& host()
    {
        scanner();
        if (!m_host)
            open();
        return *m_host;
    }

    static bytes command(command_code code, std::uint32_t argument = 0, const bytes& payload = {})
    {
        return virtual_scanner::encode_with_payload({code, kTag, argument, 0}, payload);
    }

    static bytes answer(command_code code, std::uint32_t length, answer_status status = answer_status::ok)
    {
        const auto block = virtual_scanner::encode({code, kTag, status, length});
        return {block.begin(), block.end()};
    }

    transfer send_read_pattern() { return host().write(command(command_code::read_pattern, kData)); }

    void expect_block() { expect_done(host().read(16), answer(command_code::read_pattern, kData)); }

    void expect_data(std::uint32_t length = kData, int asked_for = kData)
    {
        expect_block();
        expect_done(host().read(asked_for), pattern(length));
    }

    void expect_served(std::uint32_t length = kData)
    {
        expect_done(send_read_pattern());
        expect_data(length);
    }

    /// The device, plugged in again, works.
    void expect_served_after_replugging()
    {
        scanner().plug("plain");
        open();
        expect_served();
    }

    static void expect_done(const transfer& came, const bytes& data = {})
    {
        EXPECT_EQ(came.result, LIBUSB_SUCCESS) << libusb_error_name(came.result);
        EXPECT_TRUE(came.data == data) << came.data.size() << " bytes, not " << data.size() << ", or others";
    }

    static void expect_failed(const transfer& came, int result, int moved = 0)
    {
        EXPECT_EQ(came.result, result) << libusb_error_name(came.result);
        EXPECT_EQ(came.moved, moved);
    }

    /// The order cannot be obeyed, and the answer says why not.
    static void expect_refused(const std::function<void()>& order, const std::string& reason)
    {
        try {
            order();
            ADD_FAILURE() << "obeyed, and not refused: " << reason;
        } catch (const std::runtime_error& refusal) {
            EXPECT_NE(std::string(refusal.what()).find("failed: " + reason), std::string::npos)
                << refusal.what();
        }
    }

    /// Which of the two it is depends on whether the host has noticed that the device is gone.
    static void expect_lost(const transfer& came, int moved)
    {
        EXPECT_TRUE(came.result == LIBUSB_ERROR_IO || came.result == LIBUSB_ERROR_NO_DEVICE)
            << libusb_error_name(came.result);
        EXPECT_EQ(came.moved, moved);
    }

    /// Whether what is on the bus is what a file with one device for each of its ids describes.
    void expect_as_described(const std::string& device_file)
    {
        const std::string path = kDeviceFiles + device_file + ".device";
        std::ifstream text(path);
        become(device_file);
        for (const auto& device : virtual_scanner::read_devices(text, path)) {
            EXPECT_EQ(target::described_on_bus(device.vendor, device.product),
                      std::vector<std::string>{target::described_in_file(device)})
                << device.name;
        }
    }

    static bool is_there() { return target::is_on_bus(kVendor, kPlain); }
    static bool is_gone() { return !is_there(); }

    static bool diary_has(const std::string& text)
    {
        return target::scanner_process::diary().find(text) != std::string::npos;
    }

private:
    std::optional<target::scanner_process> m_scanner;
    std::optional<target::usb_host> m_host;
};

} // namespace

TEST_F(bus, stalls_out_until_the_host_clears_the_halt)
{
    scanner().arm("plain", "stall-out");
    expect_failed(send_read_pattern(), LIBUSB_ERROR_PIPE);
    expect_failed(send_read_pattern(), LIBUSB_ERROR_PIPE);
    host().clear_halt_out();
    expect_served();
}

TEST_F(bus, stalls_in_until_the_host_clears_the_halt)
{
    scanner().arm("plain", "stall-in");
    expect_done(send_read_pattern());
    expect_failed(host().read(16), LIBUSB_ERROR_PIPE);
    host().clear_halt_in();
    expect_data();
}

TEST_F(bus, stalls_out_again_after_each_clearing_until_it_is_ordered_to_stop)
{
    scanner().arm("plain", "stall-out-always");
    for (int round = 0; round < 3; ++round) {
        expect_failed(send_read_pattern(), LIBUSB_ERROR_PIPE);
        host().clear_halt_out();
    }
    scanner().clear("plain");
    expect_served();
}

TEST_F(bus, stalls_in_again_after_each_clearing_until_it_is_ordered_to_stop)
{
    scanner().arm("plain", "stall-in-always");
    expect_done(send_read_pattern());
    for (int round = 0; round < 3; ++round) {
        expect_failed(host().read(16), LIBUSB_ERROR_PIPE);
        host().clear_halt_in();
    }
    scanner().clear("plain");
    expect_data();
}

TEST_F(bus, ends_a_short_answer_with_a_short_packet_or_an_empty_one)
{
    const std::pair<const char*, std::uint32_t> lengths[] = {
        {" 1000", 1000}, {" 1024", 1024}, {" 0", 0}, {"", kData / 2}}; // half of it without a length
    for (const auto& [amount, length] : lengths) {
        scanner().arm("plain", std::string("short-answer") + amount);
        expect_served(length);
        expect_served();
    }
}

TEST_F(bus, cuts_the_block_of_a_short_answer_without_data)
{
    scanner().arm("plain", "short-answer");
    expect_done(host().write(command(command_code::echo)));
    bytes half = answer(command_code::echo, 0);
    half.resize(8);
    expect_done(host().read(16), half);
    expect_served();
}

TEST_F(bus, gives_an_empty_packet_before_an_answer)
{
    scanner().arm("plain", "zlp-before");
    expect_done(send_read_pattern());
    expect_done(host().read(16), {});
    expect_data();
}

TEST_F(bus, gives_an_empty_packet_after_an_answer_to_that_read_or_the_next)
{
    scanner().arm("plain", "zlp-after");
    expect_done(send_read_pattern());
    expect_data(kData, 2 * kData);
    expect_served();
    scanner().arm("plain", "zlp-after");
    expect_served();
    expect_done(send_read_pattern());
    expect_done(host().read(16), {});
    expect_block();
}

TEST_F(bus, does_not_answer_in_silence_and_serves_the_next_command)
{
    scanner().arm("plain", "silence");
    expect_done(send_read_pattern());
    expect_failed(host().read(16, kShortTimeoutMs), LIBUSB_ERROR_TIMEOUT);
    expect_served();
}

TEST_F(bus, falls_silent_in_the_middle_of_an_answer)
{
    scanner().arm("plain", "silence 5000");
    expect_done(send_read_pattern());
    expect_block();
    expect_failed(host().read(kData, kLongerTimeoutMs), LIBUSB_ERROR_TIMEOUT, 4608);
    expect_served();
}

TEST_F(bus, takes_no_more_of_a_payload_when_deaf_until_it_is_ordered_to_listen)
{
    scanner().arm("plain", "deaf 4096");
    expect_failed(host().write(command(command_code::echo, 0, bytes(kData)), kLongerTimeoutMs),
                  LIBUSB_ERROR_TIMEOUT, 4096);
    scanner().clear("plain");
    expect_served();
}

TEST_F(bus, answers_late)
{
    constexpr std::chrono::milliseconds kDelay{400};
    scanner().arm("plain", "delay " + std::to_string(kDelay.count()));
    const auto start = std::chrono::steady_clock::now();
    expect_served();
    EXPECT_GE(std::chrono::steady_clock::now() - start, kDelay);
}

TEST_F(bus, leaves_when_its_answer_has_been_read)
{
    scanner().arm("plain", "unplug");
    expect_served();
    EXPECT_TRUE(support::wait_until(kSoon, is_gone));
    expect_served_after_replugging();
}

TEST_F(bus, leaves_in_the_middle_of_a_read)
{
    scanner().arm("plain", "unplug-in-read 2048");
    expect_done(send_read_pattern());
    expect_block();
    expect_lost(host().read(kData), 2048);
    EXPECT_TRUE(support::wait_until(kSoon, [] { return diary_has("link lost"); }));
    expect_served_after_replugging();
}

TEST_F(bus, leaves_in_the_middle_of_a_write)
{
    scanner().arm("plain", "unplug-in-write 2048");
    expect_lost(host().write(command(command_code::echo, 0, bytes(kData))), 2048);
    EXPECT_TRUE(support::wait_until(kSoon, [] { return diary_has("link lost"); }));
    expect_served_after_replugging();
}

TEST_F(bus, forgets_a_command_that_is_answered_after_the_device_was_plugged_in_again)
{
    scanner().arm("plain", "delay 2500"); // the device is back by then
    expect_done(send_read_pattern());
    scanner().unplug("plain");
    scanner().plug("plain");
    ASSERT_TRUE(support::wait_until(kSoon, [] { return diary_has("link lost"); }));
    open();
    expect_served();
}

TEST_F(bus, never_comes_back_once_vanished)
{
    scanner().vanish("plain");
    EXPECT_TRUE(is_gone());
    expect_refused([this] { scanner().plug("plain"); }, "it has vanished for good");
}

TEST_F(bus, strikes_with_a_fault_that_came_by_command)
{
    expect_done(
        host().write(command(command_code::fault, static_cast<std::uint32_t>(fault_kind::short_answer),
                             virtual_scanner::little_endian(100))));
    expect_done(host().read(16), answer(command_code::fault, 0));
    expect_served(100);
    expect_served();
}

TEST_F(bus, refuses_orders_that_cannot_be_obeyed)
{
    become("shapes");
    expect_refused([this] { scanner().arm("one-way", "silence"); },
                   "it serves no commands that a fault could strike");
    become("plain");
    expect_refused([this] { scanner().clear("plain"); }, "it is in no fault that can be cleared");
    expect_refused([this] { scanner().plug("nobody"); }, "no device \"nobody\"");
    expect_refused([this] { scanner().plug("plain"); }, "it is plugged in already");
}

TEST_F(bus, plugs_itself_in_after_the_time_in_its_file)
{
    become("self_plugging");
    EXPECT_TRUE(is_gone());
    EXPECT_TRUE(support::wait_until(kSoon, is_there));
}

TEST_F(bus, has_each_fault_with_the_command_that_it_is_planned_for)
{
    become("planned");
    expect_failed(send_read_pattern(), LIBUSB_ERROR_PIPE);
    host().clear_halt_out();
    expect_served();
    expect_served(4);
    expect_served();
    EXPECT_TRUE(support::wait_until(kSoon, is_gone));
    expect_refused([this] { scanner().plug("planned"); }, "it has vanished for good");
}

TEST_F(bus, has_its_planned_faults_again_after_plugging_in_again)
{
    become("planned");
    for (int plugging = 0; plugging < 2; ++plugging) {
        open();
        expect_failed(send_read_pattern(), LIBUSB_ERROR_PIPE);
        scanner().unplug("planned");
        scanner().plug("planned");
    }
}

TEST_F(bus, serves_the_last_bulk_endpoints_of_the_second_interface)
{
    become("shapes");
    open(0x0004, 1);
    expect_served();
}

TEST_F(bus, serves_the_configuration_that_the_host_chooses)
{
    constexpr std::uint16_t kProduct = 0x0005;
    become("configurations");
    EXPECT_EQ(target::active_configuration(kVendor, kProduct), 2);
    for (const int value : {1, 3, 1}) {
        target::choose_configuration(kVendor, kProduct, value);
        open(kProduct);
        expect_served();
        close();
    }
}

TEST_F(bus, identifies_itself_as_its_file_says)
{
    become("answers");
    expect_done(host().write(command(command_code::identify)));
    expect_done(host().read(16), answer(command_code::identify, 64));
    const bytes identity = host().read(64).data;
    ASSERT_EQ(identity.size(), 64U);
    EXPECT_EQ(text_at(identity, 0, 32), "Old scanner");
    EXPECT_EQ(text_at(identity, 32, 16), "0.9 beta");
    EXPECT_EQ(text_at(identity, 48, 16), "SN0009");
}

TEST_F(bus, answers_a_command_with_the_data_that_its_file_gives)
{
    become("answers");
    expect_done(host().write(command(command_code::status)));
    expect_done(host().read(16), answer(command_code::status, 16));
    expect_done(host().read(16), {0x2A, 0, 0, 0, 0, 1, 0, 0, 0, 0, 2, 0, 3, 0, 0, 0});
}

TEST_F(bus, answers_a_command_with_the_status_that_its_file_gives)
{
    become("answers");
    expect_done(host().write(command(command_code::sheet, 75)));
    expect_done(host().read(16), answer(command_code::sheet, 0, answer_status::unknown_command));
    expect_served();
}

TEST_F(bus, has_devices_of_every_shape_as_their_file_describes_them)
{
    for (const char* file : {"shapes", "configurations", "planned"}) // the last has no names
        expect_as_described(file);
}
