#include "tvkctl/src/terminal/hex_dump.h"

#include <ostream>
#include <string>

#include "common/text/text.h"

namespace tarvik::tvkctl {

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
    const std::string text(m_line.begin(), m_line.begin() + m_filled);
    m_to << hexadecimal(m_offset, 8) << ' ';
    for (std::size_t i = 0; i < m_filled; ++i)
        m_to << ' ' << hexadecimal(m_line.at(i), 2);
    m_to << std::string(3 * (kBytesPerLine - m_filled), ' ') << "  |" << harmless(text, keep::ascii, ".")
         << "|\n";
    m_offset += m_filled;
    m_filled = 0;
}

} // namespace tarvik::tvkctl
