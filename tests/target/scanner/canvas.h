#pragma once

#include <string>
#include <utility>
#include <vector>

namespace virtual_scanner {

constexpr unsigned char kBlack = 0;
constexpr unsigned char kWhite = 255;

/// In pixels, from the upper left corner.
struct rectangle {
    int left;
    int top;
    int width;
    int height;
};

/// A white picture of grey pixels, line by line, to be drawn on. What is drawn beyond its edges is dropped.
class canvas {
public:
    canvas(int width, int height);

    int width() const { return m_width; }
    int height() const { return m_height; }
    const std::vector<unsigned char>& pixels() const& { return m_pixels; }
    std::vector<unsigned char> pixels() && { return std::move(m_pixels); }

    void put(int x, int y, unsigned char grey);
    void fill(const rectangle& where, unsigned char grey);
    /// A line of this thickness along the inside of the rectangle's edges.
    void frame(const rectangle& where, int thickness, unsigned char grey);
    /// One pixel a line, from the upper left corner of the rectangle to its lower right one, or from the
    /// upper right one to the lower left one.
    void diagonal(const rectangle& where, bool falls, unsigned char grey);
    /// Black letters, each pixel of which is `scale` pixels wide and high.
    void text(int left, int top, int scale, const std::string& what);

    static int text_height(int scale);

private:
    int m_width;
    int m_height;
    std::vector<unsigned char> m_pixels;
};

} // namespace virtual_scanner
