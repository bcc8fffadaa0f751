/// What the virtual scanner and its front-ends say to each other; COMMANDS.md has the byte tables.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "target/scanner/fault.h"

namespace virtual_scanner {

using bytes = std::vector<unsigned char>;

enum class command_code : std::uint16_t {
    identify = 1,
    status = 2,
    read_pattern = 3,
    echo = 4,
    checksum = 5,
    fault = 6,
    sheet = 7,
    read_lines = 8,
};

enum class answer_status : std::uint32_t {
    ok = 0,
    unknown_command = 1,
    bad_argument = 2,
    payload_too_long = 3,
    not_a_command = 4,
};

/// Commands and answers both start with a block of this many bytes.
constexpr std::size_t kBlockSize = 16;
constexpr std::size_t kLongestPayload = 16 * 1024 * 1024;
/// Of its field in the data of the answer to command_code::identify.
constexpr std::size_t kFirmwareWidth = 16;

/// Lengths are 32 bits wide on the wire, and nothing that is sent is longer.
constexpr std::uint32_t wire_length(std::uint64_t length)
{
    return static_cast<std::uint32_t>(length);
}

struct command {
    command_code code;
    std::uint16_t tag; ///< given back in the answer
    std::uint32_t argument;
    std::uint32_t payload_length;
};

struct answer {
    command_code code;
    std::uint16_t tag;
    answer_status status;
    std::uint32_t data_length; ///< bytes that follow the answer block
};

/// The data of the answer to command_code::status.
struct scanner_status {
    std::uint32_t commands_served; ///< this one not counted
    std::uint32_t payload_bytes_taken;
    std::uint32_t data_bytes_given;
    std::uint32_t stalls_done;
};

/// The data of the answer to command_code::sheet.
struct sheet_size {
    std::uint32_t line_pixels;
    std::uint32_t lines;
};

/// The payload of command_code::read_lines.
struct line_range {
    std::uint32_t first; ///< counted from 0
    std::uint32_t count;
};

using block = std::array<unsigned char, kBlockSize>;

block encode(const command& what);
block encode(const answer& what);
bytes encode(const scanner_status& what);
bytes encode(const sheet_size& what);

/// The bytes that `data` begins with; zeros for those that it does not have.
block first_block(const bytes& data);

/// Decoding answers whether the bytes are such a block at all; `what` is filled only then.
bool decode(const block& from, command& what);
bool decode(const block& from, answer& what);
/// `from` must hold the 16 bytes of the answer's data.
scanner_status decode_status(const bytes& from);
/// It must hold 8 bytes.
line_range decode_line_range(const bytes& from);

/// The text in a field of zero-padded data, which must be there as a whole.
std::string text_at(const bytes& data, std::size_t offset, std::size_t width);

/// A command with its payload behind it, as it goes out in one transfer.
bytes encode_with_payload(command what, const bytes& payload);

/// A number of 4 bytes, as payloads and data have them.
bytes little_endian(std::uint32_t value);
/// `four` must be that many bytes.
std::uint32_t number_in(const bytes& four);

/// Byte `position` of the pattern. Packets less than 64 KiB apart differ, and so do pieces of 64 KiB, so that
/// a lost, doubled or swapped one shows.
constexpr unsigned char pattern_byte(std::uint32_t position)
{
    return static_cast<unsigned char>(position * 7U + (position >> 8U) * 13U + (position >> 16U) * 29U);
}

/// The first `length` bytes of the pattern.
bytes pattern(std::uint32_t length);

/// CRC-32 as in zlib and PNG (reflected, polynomial 0xEDB88320).
std::uint32_t crc32(const bytes& data);

const char* name_of(command_code code);

} // namespace virtual_scanner
