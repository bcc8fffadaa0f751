// Send and recv requests through the plugin to the device, and what is made of a device that fails.

#include "process/tvkintif/program_test.h"

namespace process_test {

class device_transfers : public program_test {
protected:
    void start_open(const std::string& script)
    {
        with_bus("device scanner 1a2b:3c4d\n" + script);
        start_connected();
        open();
    }

    void close_and_expect(const lines& log, const lines& usb_between)
    {
        close_and_expect_end();
        expect_log(kAnnounced + open_served() + log + kToldToClose);
        expect_usb(usb_opened() + usb_between + usb_closed());
    }
};

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

TEST_F(device_transfers, device_that_was_pulled_out_fails_each_request_and_the_process_goes_on)
{
    start_open("unplug scanner bulk_transfer 2\n");
    expect_answer(recv_request(2), ok_reply(device_bytes(2)));
    expect_answer(recv_request(2), ng_reply());
    expect_answer(send_request({7}), ng_reply());
    close_and_expect_end();
    expect_log(kAnnounced + open_served() + request() + reply(2) + request() +
               usb_failed("read", 0, 2, "LIBUSB_ERROR_NO_DEVICE") + reply() + request(1) +
               usb_failed("write", 0, 1, "LIBUSB_ERROR_NO_DEVICE") + reply() + kToldToClose);
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
