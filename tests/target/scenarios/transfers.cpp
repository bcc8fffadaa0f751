#include <string>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

/// Bytes of all sizes, in both directions, each in one request.
class transfers : public target::scanner_session {
protected:
    static constexpr std::uint32_t kPacketSize = 512;
};

} // namespace

TEST_F(transfers, any_number_of_bytes_passes_both_ways_in_one_request)
{
    plug_in("plain");
    open(kByIds);
    for (const std::uint32_t count : {1U, kPacketSize - 1, kPacketSize, kPacketSize + 1, 16U * 1024,
                                      target::kMebibyte, 16 * target::kMebibyte}) {
        const bytes data = virtual_scanner::pattern(count);
        announce(command_code::echo, count);
        send(data);
        EXPECT_TRUE(answer_to(command_code::echo) == data) << "not the " << count << " bytes that were sent";
    }
    close();
}

TEST_F(transfers, scanner_tells_the_checksum_of_a_mebibyte_that_was_sent)
{
    const bytes data = virtual_scanner::pattern(target::kMebibyte);
    plug_in("plain");
    open(kByIds);
    command(command_code::checksum, 0, data);
    EXPECT_EQ(virtual_scanner::number_in(answer_to(command_code::checksum)), virtual_scanner::crc32(data));
    close();
}

TEST_F(transfers, short_packet_ends_a_transfer_and_the_plugin_asks_for_the_rest)
{
    constexpr std::uint32_t kData = 64;
    constexpr std::uint32_t kAll = virtual_scanner::kBlockSize + kData;
    plug_in("plain");
    open(kByIds);
    command(command_code::read_pattern, kData);
    const tarvik::reply reply = program().ask(tarvik::request_code::recv, kAll);
    log() += expected::request();
    log() += expected::usb_short("read", virtual_scanner::kBlockSize, kAll);
    log() += expected::reply(kAll);
    ASSERT_EQ(reply.payload.size(), kAll);
    EXPECT_EQ(bytes(reply.payload.begin() + virtual_scanner::kBlockSize, reply.payload.end()),
              virtual_scanner::pattern(kData));
    close();
}

TEST_F(transfers, sixteen_mebibytes_in_one_usb_transfer_are_refused_and_the_next_one_is_served)
{
    constexpr std::uint32_t kMoreThanTheKernelLends = 16 * target::kMebibyte;
    const target::plugin_folder plugin(target::test_plugin("plugin_good"), kDefaultPlugin);
    plug_in("plain");
    open(kByIds);
    log() += expected::request();
    log() += expected::usb_failed("read", 0, kMoreThanTheKernelLends, "LIBUSB_ERROR_NO_MEM");
    expect_refusal(program().ask(tarvik::request_code::recv, kMoreThanTheKernelLends));
    expect_pattern(target::kMebibyte);
    close();
}

TEST_F(transfers, empty_packet_is_refused_and_the_answer_behind_it_is_received)
{
    plug_in("plain");
    open(kByIds);
    arm(virtual_scanner::fault_kind::zlp_before);
    command(command_code::status);
    log() += expected::request();
    log() += expected::usb_short("read", 0, virtual_scanner::kBlockSize);
    expect_refusal(program().ask(tarvik::request_code::recv, virtual_scanner::kBlockSize));
    EXPECT_EQ(virtual_scanner::decode_status(answer_to(command_code::status)).commands_served, 1U);
    close();
}
