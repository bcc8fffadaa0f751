#include "tvkctl/src/terminal/hex_dump.h"

#include <cstdio>
#include <ostream>
#include <string>

namespace tarvik::tvkctl {

namespace {

std::string offset_text(std::uint64_t offset)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%08llx", static_cast<unsigned long long>(offset));
    return text.data();
}

void append_hex(std::string& line, unsigned char byte)
{
    constexpr const char* digits = "0123456789abcdef";
    line += ' ';
    line += digits[byte >> 4U];
    line += digits[byte & 15U];
}

char as_text(unsigned char byte)
{
    return byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
}

} // namespace

void hex_dump::add(byte_view piece)
{
    for (const unsigned char byte : piece) {
        m_line.at(m_filled++) = byte;
        if (m_filled == kBytesPerLine)
            write_line();
    }
}

void hex_dump::finish()
{
    if (m_filled != 0)
        write_line();
    m_offset = 0;
}

void hex_dump::write_line()
{
    std::string line = offset_text(m_offset) + " ";
    std::string text;
    for (std::size_t i = 0; i < m_filled; ++i) {
        append_hex(line, m_line.at(i));
        text += as_text(m_line.at(i));
    }
    line.append(3 * (kBytesPerLine - m_filled), ' ');
    m_to << line << "  |" << text << "|\n";
    m_offset += m_filled;
    m_filled = 0;
}

} // namespace tarvik::tvkctl
