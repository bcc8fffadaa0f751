// Whatever reaches main as an exception ends the process with status 1, and the log says why.

#include <algorithm>

#include "process/tvkintif/program_test.h"

namespace process_test {

using exceptions = program_test;

namespace {

const lines kOnlyLeft = info({"--- Leave int interface ---"});
const lines kMemoryExhausted = lines{"ERROR std::bad_alloc"} + kOnlyLeft;
constexpr std::size_t kGibibyte = std::size_t{1} << 30U;

} // namespace

TEST_F(exceptions, dispatcher_that_cannot_be_made_is_reported_as_port_minus_1)
{
    with_mishap("exhaust signal");
    start_in_vain();
    expect_end({1});
    expect_log(kMemoryExhausted);
}

TEST_F(exceptions, settings_that_cannot_be_kept_are_reported_as_port_minus_1)
{
    with_mishap("exhaust setlocale");
    start_in_vain();
    expect_end({1});
}

TEST_F(exceptions, port_that_cannot_be_found_out_is_reported_as_minus_1_and_the_socket_closed)
{
    with_mishap("throw print no room for the port");
    with_mishap("record sockets");
    start_in_vain();
    expect_end({1});
    expect_log(lines{"ERROR no room for the port"} + kOnlyLeft);
    expect_usb_about("close", {"close listening"});
}

TEST_F(exceptions, exception_of_unknown_kind_at_the_start_leaves_no_error_line)
{
    with_mishap("throw_number print");
    start_in_vain();
    expect_end({1});
    expect_log(kOnlyLeft);
}

TEST_F(exceptions, start_that_fails_without_logging_still_prints_minus_1)
{
    with_no_log_directory();
    with_mishap("exhaust signal");
    start_in_vain();
    expect_end({1});
}

TEST_F(exceptions, recv_of_more_than_memory_holds_ends_the_process_without_a_reply)
{
    start_with_memory_for(kGibibyte);
    open();
    tell(recv_request(0xFFFFFFFF));
    expect_end({1});
    expect_log(kAnnounced + open_served() + request() + kMemoryExhausted);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(exceptions, payload_of_more_than_memory_holds_ends_the_process_without_a_reply)
{
    start_with_memory_for(kGibibyte);
    open();
    tell(bare_header(1, 6, 0xFFFFFFFF));
    expect_end({1});
    expect_log(kAnnounced + open_served() + request() + kMemoryExhausted);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(exceptions, wrong_id_does_not_keep_a_payload_from_being_read)
{
    start_with_memory_for(kGibibyte);
    tell(bare_header(2, 6, 0xFFFFFFFF));
    expect_end({1});
    expect_log(kAnnounced + request() + kMemoryExhausted);
}

TEST_F(exceptions, exception_in_the_loop_is_logged_after_the_device_was_closed)
{
    with_mishap("record log");
    with_bus("device scanner 1a2b:3c4d\nthrow release_interface 1 the bus is gone\n");
    start_connected();
    open();
    close();
    expect_end({1});
    const lines all = usb();
    const auto begin = std::find(all.begin(), all.end(), "log INFO enter close");
    EXPECT_EQ(
        support::text({begin, all.end()}),
        lines({"log INFO enter close", "plugin_good dtor", "plugin_good unloaded",
               "release_interface scanner 0 -> throws", "release_interface scanner 0 -> 0", "close scanner",
               "exit", "log ERROR the bus is gone", "log INFO --- Leave int interface ---", "end of process"})
            .text());
}

TEST_F(exceptions, exception_of_unknown_kind_in_the_loop_leaves_no_error_line)
{
    with_bus("device scanner 1a2b:3c4d\nthrow_number release_interface 1\n");
    start_connected();
    open();
    close();
    expect_end({1});
    expect_log(kAnnounced + open_served() + request() + info({"enter close"}) + kOnlyLeft);
}

TEST_F(exceptions, plugin_sees_an_exception_in_a_transfer_as_a_transfer_of_nothing)
{
    with_bus("device scanner 1a2b:3c4d\nthrow bulk_transfer 1 out of memory\n");
    start_connected();
    open();
    expect_answer(recv_request(5), ng_reply());
    expect_answer(recv_request(5), ok_reply(device_bytes(5)));
    close_and_expect_end();
}

} // namespace process_test
