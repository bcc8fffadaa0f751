// Messages that arrive in pieces, and large ones.

#include "process/tvkintif/program_test.h"
#include "support/proc_files.h"

namespace process_test {

using framing = program_test;

namespace {

constexpr std::uint32_t kMegabyte = 1'000'000;

lines read_byte_by_byte(std::size_t size)
{
    lines all;
    for (std::size_t before = 0; before < size; ++before)
        all += got_part(1, before, size);
    return all;
}

} // namespace

TEST_F(framing, request_is_served_when_it_dribbles_in_byte_by_byte)
{
    with_plugin("plugin_echoing");
    start_connected();
    open();
    const bytes slow = send_request(from_hex("a1a2a3a4a5"));
    for (std::size_t position = 0; position < slow.size(); ++position) {
        // The next byte goes out only when the call that waits for it is under way.
        wait_for_log_end(reading((position < kHeaderSize ? kHeaderSize : slow.size()) - position));
        tell({slow[position]});
    }
    expect_reply(ok_reply());
    expect_answer(recv_request(5), ok_reply(from_hex("a1a2a3a4a5")));
    close_and_expect_end();
    expect_log(kAnnounced + open_served() + read_byte_by_byte(kHeaderSize) + read_byte_by_byte(5) + reply() +
               request() + reply(5) + kToldToClose);
}

TEST_F(framing, one_megabyte_is_received_whole)
{
    start_connected();
    open();
    expect_answer(recv_request(kMegabyte), ok_reply(device_bytes(kMegabyte)));
    close_and_expect_end();
    expect_log_with_whole_transfers(kAnnounced + open_served() + request() + reply(kMegabyte) + kToldToClose);
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
    expect_answer(send_request(pattern(kMegabyte)), ok_reply());
    expect_answer(recv_request(kMegabyte), ok_reply(pattern(kMegabyte)));
    close_and_expect_end();
    expect_log_with_whole_transfers(kAnnounced + open_served() + request(kMegabyte) + reply() + request() +
                                    reply(kMegabyte) + kToldToClose);
}

TEST_F(framing, payload_that_is_only_announced_takes_no_memory)
{
    start_connected();
    const std::size_t before = support::resident_memory(pid());
    tell(bare_header(1, 6, 0xFFFFFFFE));
    wait_for_log_end({"INFO ipc connection read get called = -2"}); // as a signed number
    EXPECT_LT(support::resident_memory(pid()), before + 16 * 1024);
    hang_up();
    expect_end();
}

} // namespace process_test
