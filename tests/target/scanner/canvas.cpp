#include "target/scanner/canvas.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "target/scanner/font.h"

namespace virtual_scanner {

namespace {

constexpr int kAdvance = static_cast<int>(kGlyphWidth) + 1;

} // namespace

canvas::canvas(int width, int height)
    : m_width(width), m_height(height),
      m_pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), kWhite)
{
}

void canvas::put(int x, int y, unsigned char grey)
{
    if (x >= 0 && x < m_width && y >= 0 && y < m_height)
        m_pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) +
                 static_cast<std::size_t>(x)] = grey;
}

void canvas::fill(const rectangle& where, unsigned char grey)
{
    const int first = std::max(where.left, 0);
    const int last = std::min(where.left + where.width, m_width);
    const int end = std::min(where.top + where.height, m_height);
    for (int y = std::max(where.top, 0); y < end && first < last; ++y)
        std::fill_n(m_pixels.begin() + std::ptrdiff_t{y} * m_width + first, last - first, grey);
}

void canvas::frame(const rectangle& where, int thickness, unsigned char grey)
{
    fill({where.left, where.top, where.width, thickness}, grey);
    fill({where.left, where.top + where.height - thickness, where.width, thickness}, grey);
    fill({where.left, where.top, thickness, where.height}, grey);
    fill({where.left + where.width - thickness, where.top, thickness, where.height}, grey);
}

void canvas::diagonal(const rectangle& where, bool falls, unsigned char grey)
{
    for (int line = 0; line < where.height; ++line) {
        const int along = static_cast<int>(std::int64_t{line} * (where.width - 1) / (where.height - 1));
        put(where.left + (falls ? along : where.width - 1 - along), where.top + line, grey);
    }
}

void canvas::text(int left, int top, int scale, const std::string& what)
{
    for (const char character : what) {
        const glyph& letter = glyph_of(character);
        for (int row = 0; row < static_cast<int>(kGlyphHeight); ++row)
            for (int column = 0; column < static_cast<int>(kGlyphWidth); ++column)
                if (letter[static_cast<std::size_t>(row)][column] == '#')
                    fill({left + column * scale, top + row * scale, scale, scale}, kBlack);
        left += kAdvance * scale;
    }
}

int canvas::text_height(int scale)
{
    return static_cast<int>(kGlyphHeight) * scale;
}

} // namespace virtual_scanner
