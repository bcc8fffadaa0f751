// Requests one after the other; what each is answered is for the unit tests of dispatch.

#include "process/tvkintif/program_test.h"

namespace process_test {

using requests = program_test;

TEST_F(requests, failed_open_does_not_wait_for_another_request)
{
    start_connected();
    expect_answer(open_request("usb:1a2b"), ng_reply());
    expect_end();
    expect_log(kAnnounced +
               open_refused("usb:1a2b", info({"open usb:1a2b", "open usb:1a2b",
                                              "machine: invalid UDI 'usb:1a2b'", "get pid fails"})));
}

TEST_F(requests, close_with_a_wrong_id_is_answered_nak_and_ends_the_process)
{
    start_connected();
    open();
    expect_answer(frame(2, 5), from_hex("00000002 00000000 ffffffff 00000001 00000000 15"));
    expect_end();
    expect_log(kAnnounced + open_served() + request() + reply(1) + kLeft);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(requests, pipelined_requests_are_answered_one_by_one_in_their_order)
{
    with_plugin("plugin_echoing");
    start_connected();
    expect_answer(open_request() + send_request(from_hex("c0ffee")) + recv_request(3) + frame(7, 8, 1) +
                      query_request(0xFFFFFFFF) + query_request(2),
                  ok_reply() + ok_reply() + ok_reply(from_hex("c0ffee")) + nak_reply(7) + ng_reply() +
                      ok_reply({0, 0, 0, 0}));
    close_and_expect_end();
    expect_log(kAnnounced + open_served() + request(3) + reply() + request() + reply(3) + request() +
               reply(1) + request() + reply() + request() + reply(4) + kToldToClose);
}

TEST_F(requests, requests_behind_a_close_are_not_served)
{
    with_plugin("plugin_echoing");
    start_connected();
    expect_answer(open_request() + close_request() + send_request(from_hex("01")), ok_reply());
    hang_up(); // unread requests turn the end of the connection into a reset
    expect_end();
    expect_log(kAnnounced + open_served() + kToldToClose);
    expect_usb_about("plugin_echoing", {});
}

} // namespace process_test
