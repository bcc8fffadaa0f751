// Messages that arrive in pieces, and large ones.

#include "process/tvkintif/program_test.h"

namespace process_test {

using framing = program_test;

namespace {

constexpr int kMegabyte = 1'000'000;

/// One of the calls that together read `size` bytes, bringing one more byte than `before`.
lines one_byte_read(int before, int size)
{
    const std::string rest = std::to_string(size - before);
    return {"INFO ipc connection read get called = " + rest, "INFO ipc connection read get bail rv = 1",
            "INFO transferred 1 bytes, total " + std::to_string(before + 1) + "/" + std::to_string(size)};
}

lines read_byte_by_byte(int size)
{
    lines all;
    for (int before = 0; before < size; ++before)
        all += one_byte_read(before, size);
    return all;
}

} // namespace

TEST_F(framing, request_is_served_when_it_dribbles_in_byte_by_byte)
{
    with_plugin("plugin_echoing");
    start_connected();
    open();
    const bytes slow = send_request(from_hex("a1a2a3a4a5"));
    for (int position = 0; position < 25; ++position) {
        // The next byte goes out only when the call that waits for it is under way.
        const int rest = position < 20 ? 20 - position : 25 - position;
        wait_for_log_end({"INFO ipc connection read get called = " + std::to_string(rest)});
        tell({slow[static_cast<std::size_t>(position)]});
    }
    expect_reply(ok_reply());
    tell(recv_request(5));
    expect_reply(ok_reply(from_hex("a1a2a3a4a5")));
    close();
    expect_end();
    expect_log(announced + open_served() + read_byte_by_byte(20) + read_byte_by_byte(5) + reply() +
               request() + reply(5) + told_to_close);
}

TEST_F(framing, payload_that_comes_after_its_header_is_waited_for)
{
    start_connected();
    open();
    tell(bare_header(1, 6, 4));
    wait_for_log_end(got(20) + lines{"INFO ipc connection read get called = 4"});
    tell(from_hex("01020304"));
    expect_reply(ok_reply());
    close();
    expect_end();
    expect_log(announced + open_served() + request(4) + reply() + told_to_close);
}

TEST_F(framing, one_megabyte_is_received_whole)
{
    start_connected();
    open();
    tell(recv_request(kMegabyte));
    expect_reply(ok_reply(device_bytes(kMegabyte)));
    close();
    expect_end();
    expect_log_with_whole_transfers(announced + open_served() + request() + reply(kMegabyte) + told_to_close);
    expect_usb(
        usb_opened() +
        lines{"plugin_good reader 1000000", "bulk_transfer scanner 0x81 1000000 60000 -> 0 (1000000)"} +
        usb_closed());
}

TEST_F(framing, one_megabyte_is_sent_whole)
{
    with_plugin("plugin_echoing");
    start_connected();
    open();
    tell(send_request(pattern(kMegabyte)));
    expect_reply(ok_reply());
    tell(recv_request(kMegabyte));
    expect_reply(ok_reply(pattern(kMegabyte)));
    close();
    expect_end();
    expect_log_with_whole_transfers(announced + open_served() + request(kMegabyte) + reply() + request() +
                                    reply(kMegabyte) + told_to_close);
}

TEST_F(framing, small_payload_after_a_large_one_is_exactly_its_own_length)
{
    with_plugin("plugin_echoing");
    start_connected();
    open();
    tell(send_request(pattern(kMegabyte)));
    expect_reply(ok_reply());
    tell(send_request(from_hex("0a0b0c")));
    expect_reply(ok_reply());
    tell(recv_request(6));
    expect_reply(ok_reply(from_hex("0a0b0c 000000")));
    close();
    expect_end();
    EXPECT_EQ(usb_lines_about("plugin_echoing ").text(),
              lines({"plugin_echoing writer 1000000", "plugin_echoing writer 3", "plugin_echoing reader 6"})
                  .text());
}

} // namespace process_test
