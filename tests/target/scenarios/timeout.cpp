#include <chrono>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"
#include "tvkintif/src/usb.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

/// A transfer that the scanner does not finish, in real time: alone in its boot, beside the others.
class timeout : public target::scanner_session {};

} // namespace

TEST_F(timeout, transfer_that_stays_unfinished_ends_after_its_time_out_with_what_came)
{
    constexpr std::chrono::milliseconds kTransferLimit{usb_transceiver::kTransferMilliseconds};
    constexpr tarvik::milliseconds kPatience{90'000};
    constexpr std::uint32_t kGiven = 512; // a whole packet, which does not end a transfer
    constexpr std::uint32_t kAsked = 1024;
    // Makes one transfer of each request, and takes what it brings.
    const target::plugin_folder plugin(target::test_plugin("plugin_good"), kDefaultPlugin);
    plug_in("plain");
    open(kByIds);
    command(command_code::read_pattern, kGiven);
    answer_block(command_code::read_pattern);

    const auto begin = std::chrono::steady_clock::now();
    const tarvik::reply reply = program().ask(tarvik::request_code::recv, kAsked, {}, kPatience);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kTransferLimit);
    EXPECT_EQ(reply.kind, tarvik::reply::verdict::ok) << "the plugin decides, and this one is content";
    bytes expected = virtual_scanner::pattern(kGiven);
    expected.resize(kAsked, 0);
    EXPECT_EQ(reply.payload, expected);
    log() += expected::request();
    log() += expected::usb_failed("read", kGiven, kAsked, "LIBUSB_ERROR_TIMEOUT");
    log() += expected::reply(kAsked);

    EXPECT_EQ(status().commands_served, 1U) << "the next transfer";
    close();
}
