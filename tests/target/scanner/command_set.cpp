#include "target/scanner/command_set.h"

#include <algorithm>

namespace virtual_scanner {

namespace {

constexpr std::array<unsigned char, 4> kCommandMagic{'V', 'S', 'C', '1'};
constexpr std::array<unsigned char, 4> kAnswerMagic{'V', 'S', 'A', '1'};

template <typename Iterator>
void put16(Iterator at, std::uint32_t value)
{
    at[0] = static_cast<unsigned char>(value & 0xFFU);
    at[1] = static_cast<unsigned char>((value >> 8U) & 0xFFU);
}

template <typename Iterator>
void put32(Iterator at, std::uint32_t value)
{
    put16(at, value & 0xFFFFU);
    put16(at + 2, value >> 16U);
}

template <typename Iterator>
std::uint16_t get16(Iterator at)
{
    return static_cast<std::uint16_t>(at[0] | (at[1] << 8));
}

template <typename Iterator>
std::uint32_t get32(Iterator at)
{
    return get16(at) | (static_cast<std::uint32_t>(get16(at + 2)) << 16U);
}

block make_block(const std::array<unsigned char, 4>& magic, command_code code, std::uint16_t tag,
                 std::uint32_t third, std::uint32_t fourth)
{
    block made{};
    std::copy(magic.begin(), magic.end(), made.begin());
    put16(made.begin() + 4, static_cast<std::uint16_t>(code));
    put16(made.begin() + 6, tag);
    put32(made.begin() + 8, third);
    put32(made.begin() + 12, fourth);
    return made;
}

bool has_magic(const block& from, const std::array<unsigned char, 4>& magic)
{
    return std::equal(magic.begin(), magic.end(), from.begin());
}

std::array<std::uint32_t, 256> make_crc_table()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1U) != 0 ? (value >> 1U) ^ 0xEDB88320U : value >> 1U;
        table[index] = value;
    }
    return table;
}

} // namespace

block encode(const command& what)
{
    return make_block(kCommandMagic, what.code, what.tag, what.argument, what.payload_length);
}

block encode(const answer& what)
{
    return make_block(kAnswerMagic, what.code, what.tag, static_cast<std::uint32_t>(what.status),
                      what.data_length);
}

bytes encode(const scanner_status& what)
{
    bytes made(16);
    put32(made.begin(), what.commands_served);
    put32(made.begin() + 4, what.payload_bytes_taken);
    put32(made.begin() + 8, what.data_bytes_given);
    put32(made.begin() + 12, what.stalls_done);
    return made;
}

bytes encode(const sheet_size& what)
{
    bytes made(8);
    put32(made.begin(), what.line_pixels);
    put32(made.begin() + 4, what.lines);
    return made;
}

block first_block(const bytes& data)
{
    block made{};
    std::copy_n(data.begin(), std::min(data.size(), made.size()), made.begin());
    return made;
}

bool decode(const block& from, command& what)
{
    if (!has_magic(from, kCommandMagic))
        return false;
    what = {static_cast<command_code>(get16(from.begin() + 4)), get16(from.begin() + 6),
            get32(from.begin() + 8), get32(from.begin() + 12)};
    return true;
}

bool decode(const block& from, answer& what)
{
    if (!has_magic(from, kAnswerMagic))
        return false;
    what = {static_cast<command_code>(get16(from.begin() + 4)), get16(from.begin() + 6),
            static_cast<answer_status>(get32(from.begin() + 8)), get32(from.begin() + 12)};
    return true;
}

scanner_status decode_status(const bytes& from)
{
    return {get32(from.begin()), get32(from.begin() + 4), get32(from.begin() + 8), get32(from.begin() + 12)};
}

line_range decode_line_range(const bytes& from)
{
    return {get32(from.begin()), get32(from.begin() + 4)};
}

std::string text_at(const bytes& data, std::size_t offset, std::size_t width)
{
    const auto first = data.begin() + static_cast<std::ptrdiff_t>(offset);
    return {first, std::find(first, first + static_cast<std::ptrdiff_t>(width), 0)};
}

bytes encode_with_payload(command what, const bytes& payload)
{
    what.payload_length = wire_length(payload.size());
    const block head = encode(what);
    bytes made(head.size() + payload.size());
    std::copy(payload.begin(), payload.end(), std::copy(head.begin(), head.end(), made.begin()));
    return made;
}

bytes little_endian(std::uint32_t value)
{
    bytes made(4);
    put32(made.begin(), value);
    return made;
}

std::uint32_t number_in(const bytes& four)
{
    return get32(four.begin());
}

bytes pattern(std::uint32_t length)
{
    bytes made(length);
    for (std::uint32_t position = 0; position < length; ++position)
        made[position] = pattern_byte(position);
    return made;
}

std::uint32_t crc32(const bytes& data)
{
    static const auto table = make_crc_table();
    std::uint32_t value = 0xFFFFFFFFU;
    for (const unsigned char byte : data)
        value = table[(value ^ byte) & 0xFFU] ^ (value >> 8U);
    return value ^ 0xFFFFFFFFU;
}

const char* name_of(command_code code)
{
    switch (code) {
    case command_code::identify:
        return "identify";
    case command_code::status:
        return "status";
    case command_code::read_pattern:
        return "read pattern";
    case command_code::echo:
        return "echo";
    case command_code::checksum:
        return "checksum";
    case command_code::fault:
        return "fault";
    case command_code::sheet:
        return "sheet";
    case command_code::read_lines:
        return "read lines";
    }
    return "unknown";
}

} // namespace virtual_scanner
