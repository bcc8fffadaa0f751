// From the start to the announced port, and the ordinary end.

#include <signal.h>

#include "front_end/src/port_line.h"
#include "process/tvkintif/program_test.h"
#include "tvkintif/src/models.h"

namespace process_test {

using start_and_end = program_test;

TEST_F(start_and_end, one_session_leaves_exactly_these_lines_in_the_log)
{
    start_connected();
    expect_answer(open_request(), from_hex("00000001 00000000 00000000 00000000 00000000"));
    expect_answer(send_request(from_hex("1b 40 00")),
                  from_hex("00000001 00000000 00000000 00000000 00000000"));
    expect_answer(recv_request(4), from_hex("00000001 00000000 00000000 00000004 00000000 00010203"));
    expect_answer(query_request(1), from_hex("00000001 00000000 00000000 00000004 00000000 00000000"));
    close_and_expect_end();
    expect_log({"INFO port = 0",
                // open
                "INFO ipc connection read get called = 20", "INFO ipc connection read get bail rv = 20",
                "INFO transferred 20 bytes, total 20/20", "INFO ipc connection read get called = 13",
                "INFO ipc connection read get bail rv = 13", "INFO transferred 13 bytes, total 13/13",
                "INFO open usb:1a2b:3c4d", "INFO open usb:1a2b:3c4d",
                "INFO interpName libryo-mora-hk-t210.so",
                "INFO interpreter load " + lib_path("libryo-mora-hk-t210.so"), "INFO usb_transceiver start",
                "INFO usb_transceiver open start", "INFO usb_transceiver open ",
                "INFO usb_transceiver set_bulk_endpoints", "INFO connection open isSuccess = 1", "INFO break",
                "INFO send ok", "INFO ipc connection wrute get called = 20",
                "INFO ipc connection wrte  bail rv = 20", "INFO transferred 20 bytes, total 20/20",
                // send
                "INFO ipc connection read get called = 20", "INFO ipc connection read get bail rv = 20",
                "INFO transferred 20 bytes, total 20/20", "INFO ipc connection read get called = 3",
                "INFO ipc connection read get bail rv = 3", "INFO transferred 3 bytes, total 3/3",
                "INFO ipc connection wrute get called = 20", "INFO ipc connection wrte  bail rv = 20",
                "INFO transferred 20 bytes, total 20/20",
                // recv
                "INFO ipc connection read get called = 20", "INFO ipc connection read get bail rv = 20",
                "INFO transferred 20 bytes, total 20/20", "INFO ipc connection wrute get called = 20",
                "INFO ipc connection wrte  bail rv = 20", "INFO transferred 20 bytes, total 20/20",
                "INFO ipc connection wrute get called = 4", "INFO ipc connection wrte  bail rv = 4",
                "INFO transferred 4 bytes, total 4/4",
                // query
                "INFO ipc connection read get called = 20", "INFO ipc connection read get bail rv = 20",
                "INFO transferred 20 bytes, total 20/20", "INFO ipc connection wrute get called = 20",
                "INFO ipc connection wrte  bail rv = 20", "INFO transferred 20 bytes, total 20/20",
                "INFO ipc connection wrute get called = 4", "INFO ipc connection wrte  bail rv = 4",
                "INFO transferred 4 bytes, total 4/4",
                // close
                "INFO ipc connection read get called = 20", "INFO ipc connection read get bail rv = 20",
                "INFO transferred 20 bytes, total 20/20", "INFO enter close", "INFO leave close",
                "INFO Leave do_cleanup 1", "INFO End Run", "INFO --- Leave int interface ---"});
}

TEST_F(start_and_end, one_session_has_exactly_this_dialogue_with_the_device)
{
    start_connected();
    open();
    expect_answer(send_request(from_hex("1b 40 00")), ok_reply());
    expect_answer(recv_request(4), ok_reply(device_bytes(4)));
    close_and_expect_end();
    expect_usb(usb_opened() +
               lines{"plugin_good writer 3", "bulk_transfer scanner 0x02 3 60000 -> 0 (3)",
                     "plugin_good reader 4", "bulk_transfer scanner 0x81 4 60000 -> 0 (4)"} +
               usb_closed());
}

TEST_F(start_and_end, standard_output_is_one_line_with_the_port_in_decimal)
{
    start_connected();
    close_and_expect_end();
    EXPECT_GT(port(), 0);
    EXPECT_EQ(program().standard_output(kPatience), std::to_string(port()) + "\n");
}

TEST_F(start_and_end, each_start_chooses_a_port_of_its_own)
{
    start();
    tarvik::launch second;
    second.path = PROGRAM_PATH;
    second.environment = {{"LD_PRELOAD", FAKE_USB_PATH}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    tarvik::child_process other(second);
    EXPECT_NE(tarvik::read_port_line(other, kPatience), port());
    connect();
    close_and_expect_end();
}

TEST_F(start_and_end, arguments_are_ignored)
{
    with_argument("--help");
    with_argument("12345");
    start_connected();
    close_and_expect_end();
    expect_log(kAnnounced + kToldToClose);
}

TEST_F(start_and_end, the_announced_port_takes_a_connection_before_the_program_asks_for_one)
{
    with_mishap("raise writev " + std::to_string(SIGSTOP)); // at the first log line, right after the port's
    start();
    wait_until_stopped();
    connect();
    send_signal(SIGCONT);
    close_and_expect_end();
    expect_log(kAnnounced + kToldToClose);
}

TEST_F(start_and_end, a_front_end_that_connects_and_hangs_up_ends_the_process)
{
    start_connected();
    hang_up();
    expect_end();
    expect_log(kAnnounced + kHungUp);
    expect_usb({});
}

TEST_F(start_and_end, hanging_up_without_a_close_request_closes_the_device)
{
    start_connected();
    open();
    hang_up();
    expect_end();
    expect_log(kAnnounced + open_served() + kHungUp);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(start_and_end, without_usb_requests_libusb_is_not_touched)
{
    start_connected();
    expect_answer(query_request(1), ok_reply({0, 0, 0, 0}));
    close_and_expect_end();
    expect_usb({});
}

} // namespace process_test
