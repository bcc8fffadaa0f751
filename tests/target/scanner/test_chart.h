#pragma once

#include <cstdint>
#include <vector>

namespace virtual_scanner {

/// The sheet that lies on the scanner's glass: A4, with text, ramps, fine lines, a star, rings and rulers.
/// Drawn in whole numbers only, so that it has the same bytes on every machine.
class test_chart {
public:
    static constexpr std::uint32_t kLowestResolution = 75;
    static constexpr std::uint32_t kHighestResolution = 300;

    static bool can_have(std::uint32_t dots_per_inch);

    /// Draws it; the resolution must be one that it can have.
    explicit test_chart(std::uint32_t dots_per_inch);

    std::uint32_t resolution() const { return m_resolution; }
    std::uint32_t width() const { return width_at(m_resolution); }
    std::uint32_t height() const { return height_at(m_resolution); }
    /// 8 bit grey, line by line; 0 is black.
    const std::vector<unsigned char>& pixels() const { return m_pixels; }

    static std::uint32_t width_at(std::uint32_t dots_per_inch);
    static std::uint32_t height_at(std::uint32_t dots_per_inch);

private:
    std::uint32_t m_resolution;
    std::vector<unsigned char> m_pixels;
};

} // namespace virtual_scanner
