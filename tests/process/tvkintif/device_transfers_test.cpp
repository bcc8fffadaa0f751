// Send and recv requests through the plugin to the device, and what is made of a device that fails.

#include "process/tvkintif/program_test.h"

namespace process_test {

class device_transfers : public program_test {
protected:
    void start_open(const std::string& script, const std::string& plugin = "plugin_good")
    {
        m_plugin = plugin;
        with_plugin(plugin);
        with_bus("device scanner 1a2b:3c4d\n" + script);
        start_connected();
        open();
    }

    void close_and_expect(const lines& log, const lines& usb_between)
    {
        close();
        expect_end();
        expect_log(announced + open_served() + log + told_to_close);
        expect_usb(usb_opened(m_plugin) + usb_between + usb_closed(m_plugin));
    }

private:
    std::string m_plugin;
};

TEST_F(device_transfers, plugin_that_fails_a_recv_has_it_answered_ng)
{
    start_open("", "plugin_failing");
    expect_answer(recv_request(5), ng_reply());
    close_and_expect(request() + reply(), {"plugin_failing reader 5"});
}

TEST_F(device_transfers, plugin_that_fails_a_send_has_it_answered_ng)
{
    start_open("", "plugin_failing");
    expect_answer(send_request({1, 2, 3}), ng_reply());
    close_and_expect(request(3) + reply(), {"plugin_failing writer 3"});
}

TEST_F(device_transfers, recv_goes_by_the_plugin_and_not_by_the_number_that_it_returns)
{
    start_open("", "plugin_odd"); // answers 42 and leaves the buffer alone
    expect_answer(recv_request(3), ok_reply({0, 0, 0}));
    close_and_expect(request() + reply(3), {"plugin_odd reader 3"});
}

TEST_F(device_transfers, negative_number_from_the_plugin_is_a_success)
{
    start_open("", "plugin_odd"); // answers -3
    expect_answer(send_request({1}), ok_reply());
    close_and_expect(request(1) + reply(), {"plugin_odd writer 1"});
}

TEST_F(device_transfers, short_read_is_logged_and_the_reply_filled_up_with_zeros)
{
    start_open("transfer scanner 81 bytes a1a2a3\n");
    expect_answer(recv_request(5), ok_reply(from_hex("a1a2a30000")));
    close_and_expect(request() + usb_short("read", 3, 5) + reply(5),
                     {"plugin_good reader 5", "bulk_transfer scanner 0x81 5 60000 -> 0 (3)"});
}

TEST_F(device_transfers, stalled_write_is_logged_cleared_and_answered_ng)
{
    start_open("transfer scanner 02 result LIBUSB_ERROR_PIPE count 0\n");
    expect_answer(send_request({1, 2, 3, 4}), ng_reply());
    expect_answer(send_request({5}), ok_reply());
    close_and_expect(request(4) + usb_stalled("write", 4) + reply() + request(1) + reply(),
                     {"plugin_good writer 4", "bulk_transfer scanner 0x02 4 60000 -> LIBUSB_ERROR_PIPE (0)",
                      "clear_halt scanner 0x02 -> 0", "plugin_good writer 1",
                      "bulk_transfer scanner 0x02 1 60000 -> 0 (1)"});
}

TEST_F(device_transfers, stalled_read_is_logged_cleared_and_answered_ng)
{
    start_open("transfer scanner 81 result LIBUSB_ERROR_PIPE count 0\n");
    expect_answer(recv_request(4), ng_reply());
    expect_answer(recv_request(2), ok_reply(device_bytes(2)));
    close_and_expect(request() + usb_stalled("read", 4) + reply() + request() + reply(2),
                     {"plugin_good reader 4", "bulk_transfer scanner 0x81 4 60000 -> LIBUSB_ERROR_PIPE (0)",
                      "clear_halt scanner 0x81 -> 0", "plugin_good reader 2",
                      "bulk_transfer scanner 0x81 2 60000 -> 0 (2)"});
}

TEST_F(device_transfers, read_that_times_out_hands_on_what_came_before)
{
    start_open("transfer scanner 81 result LIBUSB_ERROR_TIMEOUT count 2\n");
    expect_answer(recv_request(4), ok_reply(device_bytes(2) + bytes{0, 0}));
    close_and_expect(
        request() + usb_failed("read", 2, 4, "LIBUSB_ERROR_TIMEOUT") + reply(4),
        {"plugin_good reader 4", "bulk_transfer scanner 0x81 4 60000 -> LIBUSB_ERROR_TIMEOUT (2)"});
}

TEST_F(device_transfers, transfer_that_cannot_even_begin_moves_nothing)
{
    start_open("transfer scanner 02 result LIBUSB_ERROR_NO_MEM untouched\n");
    expect_answer(send_request({1, 2}), ng_reply());
    close_and_expect(
        request(2) + usb_failed("write", 0, 2, "LIBUSB_ERROR_NO_MEM") + reply(),
        {"plugin_good writer 2", "bulk_transfer scanner 0x02 2 60000 -> LIBUSB_ERROR_NO_MEM (-)"});
}

TEST_F(device_transfers, device_that_was_pulled_out_fails_each_request_and_the_process_goes_on)
{
    start_open("unplug scanner bulk_transfer 2\n");
    expect_answer(recv_request(2), ok_reply(device_bytes(2)));
    expect_answer(recv_request(2), ng_reply());
    expect_answer(send_request({7}), ng_reply());
    close_and_expect_end();
    expect_log(announced + open_served() + request() + reply(2) + request() +
               usb_failed("read", 0, 2, "LIBUSB_ERROR_NO_DEVICE") + reply() + request(1) +
               usb_failed("write", 0, 1, "LIBUSB_ERROR_NO_DEVICE") + reply() + told_to_close);
}

TEST_F(device_transfers, many_requests_in_a_row_keep_their_bytes_in_order)
{
    constexpr std::size_t kRequests = 100;
    constexpr std::size_t kSize = 257;
    start_open("");
    const bytes all = device_bytes(kRequests * kSize);
    for (std::size_t i = 0; i < kRequests; ++i) {
        const auto begin = all.begin() + static_cast<std::ptrdiff_t>(i * kSize);
        expect_answer(recv_request(kSize), ok_reply({begin, begin + static_cast<std::ptrdiff_t>(kSize)}));
    }
    close_and_expect_end();
}

} // namespace process_test
