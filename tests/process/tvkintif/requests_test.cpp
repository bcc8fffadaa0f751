// Each request and its reply, byte for byte.

#include "process/tvkintif/program_test.h"

namespace process_test {

class requests : public program_test {
protected:
    /// A session with a plugin that gives back what was last sent to it.
    void open_echo()
    {
        with_plugin("plugin_echoing");
        start_connected();
        open();
    }

    void expect_transfers(const lines& expected) { expect_usb_about("plugin_", expected); }
};

TEST_F(requests, open_with_id_0_is_answered_with_id_1)
{
    start_connected();
    expect_answer(frame(0, 4, 0, text_bytes("usb:1a2b:3c4d")),
                  from_hex("00000001 00000000 00000000 00000000 00000000"));
    close_and_expect_end();
    expect_log(announced + open_served() + told_to_close);
}

TEST_F(requests, open_with_any_id_and_value_is_answered_with_id_1)
{
    start_connected();
    expect_answer(frame(0xFEDCBA98, 4, 7, text_bytes("usb:1a2b:3c4d")),
                  from_hex("00000001 00000000 00000000 00000000 00000000"));
    close_and_expect_end();
}

TEST_F(requests, failed_open_is_answered_ng_and_ends_the_process)
{
    with_no_plugin();
    start_connected();
    expect_answer(open_request(), from_hex("00000001 00000000 ffffffff 00000000 00000000"));
    expect_end();
}

TEST_F(requests, failed_open_does_not_wait_for_another_request)
{
    start_connected();
    expect_answer(open_request("usb:1a2b"), ng_reply());
    expect_end();
    expect_log(announced +
               open_refused("usb:1a2b", info({"open usb:1a2b", "open usb:1a2b",
                                              "machine: invalid UDI 'usb:1a2b'", "get pid fails"})));
}

TEST_F(requests, second_open_is_answered_ok_at_once_whatever_the_address)
{
    start_connected();
    open();
    open("nonsense");
    close_and_expect_end();
    expect_log(announced + open_served() + request(8) + info({"open nonsense", "open nonsense", "send ok"}) +
               reply() + told_to_close);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(requests, close_with_a_wrong_id_is_answered_nak_and_ends_the_process)
{
    start_connected();
    open();
    expect_answer(frame(2, 5), from_hex("00000002 00000000 ffffffff 00000001 00000000 15"));
    expect_end();
    expect_log(announced + open_served() + request() + reply(1) + left);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(requests, close_has_no_reply_and_ends_the_process)
{
    start_connected();
    open();
    close_and_expect_end();
    expect_log(announced + open_served() + told_to_close);
    expect_usb(usb_opened() + usb_closed());
}

TEST_F(requests, close_before_any_open_ends_the_process)
{
    start_connected();
    close_and_expect_end();
    expect_log(announced + told_to_close);
}

TEST_F(requests, send_before_any_open_is_answered_ng)
{
    start_connected();
    expect_answer(send_request(from_hex("01")), from_hex("00000001 00000000 ffffffff 00000000 00000000"));
    close_and_expect_end();
    expect_log(announced + request(1) + reply() + told_to_close);
}

TEST_F(requests, recv_before_any_open_is_answered_ng)
{
    start_connected();
    expect_answer(recv_request(5), ng_reply());
    close_and_expect_end();
    expect_log(announced + request() + reply() + told_to_close);
}

TEST_F(requests, recv_is_answered_with_exactly_as_many_bytes_as_were_asked_for)
{
    start_connected();
    open();
    expect_answer(recv_request(512),
                  from_hex("00000001 00000000 00000000 00000200 00000000") + device_bytes(512));
    close_and_expect_end();
}

TEST_F(requests, recv_discards_its_payload)
{
    with_plugin("plugin_odd"); // leaves the buffer as it finds it
    start_connected();
    open();
    expect_answer(frame(1, 7, 4, from_hex("99 99 99 99 99 99")), ok_reply({0, 0, 0, 0}));
    close_and_expect_end();
}

TEST_F(requests, value_field_of_a_send_is_not_looked_at)
{
    open_echo();
    expect_answer(frame(1, 6, 0xFFFFFFFF, from_hex("0102")), ok_reply());
    expect_answer(recv_request(2), ok_reply({1, 2}));
    close_and_expect_end();
}

TEST_F(requests, sent_bytes_reach_the_plugin_unchanged)
{
    open_echo();
    expect_answer(send_request(pattern(300)), ok_reply());
    expect_answer(recv_request(300), ok_reply(pattern(300)));
    close_and_expect_end();
}

// Requests that reach no plugin, and their replies.

struct exchange {
    const char* name;
    bytes request;
    std::string reply; ///< in hexadecimal digits
};

void PrintTo(const exchange& each, std::ostream* out)
{
    *out << each.name;
}

const char* const kRefused = "00000001 00000000 ffffffff 00000000 00000000";
const char* const kFourZeros = "00000001 00000000 00000000 00000004 00000000 00000000";

class each_request : public requests, public testing::WithParamInterface<exchange> {};

TEST_P(each_request, has_its_answer_and_reaches_no_plugin)
{
    open_echo();
    expect_answer(GetParam().request, from_hex(GetParam().reply));
    close_and_expect_end();
    expect_transfers({});
}

INSTANTIATE_TEST_SUITE_P(
    , each_request,
    testing::Values(exchange{"query_1", query_request(1), kFourZeros},
                    exchange{"query_2", query_request(2), kFourZeros},
                    exchange{"query_0", query_request(0), kRefused},
                    exchange{"query_of_an_unknown_selector", query_request(0xFFFFFFFF), kRefused},
                    exchange{"code_0", frame(1, 0), kRefused}, exchange{"code_3", frame(1, 3), kRefused},
                    exchange{"code_9", frame(1, 9), kRefused},
                    exchange{"code_of_all_ones", frame(1, 0xFFFFFFFF), kRefused},
                    exchange{"recv_of_0_bytes", recv_request(0), kRefused},
                    exchange{"query_with_an_error_field",
                             from_hex("00000001 00000008 ffffffff 00000000 00000001"), kFourZeros},
                    exchange{"send_with_a_wrong_id", frame(2, 6, 0, from_hex("aabbcc")),
                             "00000002 00000000 ffffffff 00000001 00000000 15"},
                    exchange{"recv_with_a_wrong_id", frame(0xFFFFFFFF, 7, 16),
                             "ffffffff 00000000 ffffffff 00000001 00000000 15"},
                    exchange{"query_with_a_wrong_id", frame(0, 8, 1),
                             "00000000 00000000 ffffffff 00000001 00000000 15"},
                    exchange{"unknown_code_with_a_wrong_id", frame(5, 9),
                             "00000005 00000000 ffffffff 00000001 00000000 15"}),
    [](const auto& test) { return test.param.name; });

// What a request without payload passes on.

TEST_F(requests, empty_send_passes_zeros_as_many_as_the_last_payload_had)
{
    open_echo();
    expect_answer(send_request(from_hex("aabbccddee")), ok_reply());
    expect_answer(send_request({}), ok_reply());
    expect_answer(recv_request(5), ok_reply({0, 0, 0, 0, 0}));
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 5", "plugin_echoing writer 5", "plugin_echoing reader 5"});
}

TEST_F(requests, empty_send_after_the_open_passes_zeros_as_many_as_the_address_had_letters)
{
    open_echo();
    expect_answer(send_request({}), ok_reply());
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 13"});
}

TEST_F(requests, empty_send_after_a_recv_passes_zeros_as_many_as_were_received)
{
    open_echo();
    expect_answer(send_request(pattern(512)), ok_reply());
    expect_answer(recv_request(512), ok_reply(pattern(512)));
    expect_answer(send_request({}), ok_reply());
    expect_answer(recv_request(512), ok_reply(bytes(512)));
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 512", "plugin_echoing reader 512", "plugin_echoing writer 512",
                      "plugin_echoing reader 512"});
}

TEST_F(requests, empty_send_after_a_recv_of_0_bytes_is_answered_ng)
{
    open_echo();
    expect_answer(recv_request(0), ng_reply());
    expect_answer(send_request({}), ng_reply());
    close_and_expect_end();
    expect_transfers({});
}

TEST_F(requests, payload_of_a_refused_request_still_sets_the_length)
{
    open_echo();
    expect_answer(frame(2, 6, 0, from_hex("11223344556677")), nak_reply(2));
    expect_answer(send_request({}), ok_reply());
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 7"});
}

TEST_F(requests, payload_of_a_query_sets_the_length)
{
    open_echo();
    expect_answer(frame(1, 8, 1, bytes(9)), ok_reply({0, 0, 0, 0}));
    expect_answer(send_request({}), ok_reply());
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 9"});
}

TEST_F(requests, refused_recv_does_not_set_the_length)
{
    open_echo();
    expect_answer(frame(2, 7, 512), nak_reply(2));
    expect_answer(send_request({}), ok_reply());
    close_and_expect_end();
    expect_transfers({"plugin_echoing writer 13"});
}

TEST_F(requests, failed_recv_sets_the_length)
{
    with_plugin("plugin_failing");
    start_connected();
    open();
    expect_answer(recv_request(100), ng_reply());
    expect_answer(send_request({}), ng_reply());
    close_and_expect_end();
    expect_transfers({"plugin_failing loaded", "plugin_failing ctor", "plugin_failing reader 100",
                      "plugin_failing writer 100", "plugin_failing dtor", "plugin_failing unloaded"});
}

TEST_F(requests, open_without_an_address_fails)
{
    start_connected();
    expect_answer(frame(0, 4), ng_reply());
    expect_end();
    expect_log(announced +
               open_refused("", info({"open ", "open ", "machine: invalid UDI ''", "get pid fails"})));
}

// Several requests at once.

TEST_F(requests, pipelined_requests_are_answered_one_by_one_in_their_order)
{
    with_plugin("plugin_echoing");
    start_connected();
    expect_answer(open_request() + send_request(from_hex("c0ffee")) + recv_request(3) + frame(7, 8, 1) +
                      query_request(0xFFFFFFFF) + query_request(2),
                  ok_reply() + ok_reply() + ok_reply(from_hex("c0ffee")) + nak_reply(7) + ng_reply() +
                      ok_reply({0, 0, 0, 0}));
    close_and_expect_end();
    expect_log(announced + open_served() + request(3) + reply() + request() + reply(3) + request() +
               reply(1) + request() + reply() + request() + reply(4) + told_to_close);
}

TEST_F(requests, requests_behind_a_close_are_not_served)
{
    with_plugin("plugin_echoing");
    start_connected();
    expect_answer(open_request() + close_request() + send_request(from_hex("01")), ok_reply());
    hang_up(); // unread requests turn the end of the connection into a reset
    expect_end();
    expect_log(announced + open_served() + told_to_close);
    expect_transfers({});
}

} // namespace process_test
