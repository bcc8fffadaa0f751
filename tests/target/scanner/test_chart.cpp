#include "target/scanner/test_chart.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "target/scanner/canvas.h"

namespace virtual_scanner {

namespace {

/// Places on the sheet are in hundredths of an inch.
constexpr int kUnitsPerInch = 100;
constexpr int kSheetWidth = 827;
constexpr int kSheetHeight = 1169;
/// From the edge of the sheet to what is drawn on it.
constexpr int kMargin = 60;
constexpr int kDrawnWidth = kSheetWidth - 2 * kMargin;
constexpr unsigned char kLightGrey = 208;

// Draws the parts of the chart, from top to bottom.
class chart_painter {
public:
    explicit chart_painter(std::uint32_t dots_per_inch)
        : m_resolution(static_cast<int>(dots_per_inch)),
          m_sheet(static_cast<int>(test_chart::width_at(dots_per_inch)),
                  static_cast<int>(test_chart::height_at(dots_per_inch)))
    {
    }

    std::vector<unsigned char> paint()
    {
        paint_diagonals();
        paint_edges();
        paint_rulers();
        paint_title(55);
        paint_ramps(155);
        paint_steps(265);
        paint_line_patterns(375);
        paint_star({kMargin, 740, 210, 210});
        paint_rings({kMargin + 230, 740, 210, 210});
        paint_text(740);
        paint_words_for_the_reader(1005);
        return std::move(m_sheet).pixels();
    }

private:
    int at(int units) const { return units * m_resolution / kUnitsPerInch; }
    /// Letters of about that height; never smaller than their pixels allow.
    int scale_for(int units) const { return std::max(1, at(units) / canvas::text_height(1)); }
    rectangle at(const rectangle& units) const
    {
        return {at(units.left), at(units.top), at(units.width), at(units.height)};
    }

    void paint_diagonals();
    void paint_edges();
    void paint_rulers();
    void paint_mark(int units, bool is_across);
    void paint_title(int top);
    void paint_ramps(int top);
    void paint_steps(int top);
    void paint_line_patterns(int top);
    void paint_line_pattern(const rectangle& where, int thickness, int direction);
    void paint_star(const rectangle& units);
    void paint_rings(const rectangle& units);
    void paint_text(int top);
    void paint_words_for_the_reader(int top);

    int m_resolution;
    canvas m_sheet;
};

/// Where bytes are missing, these lines are broken.
void chart_painter::paint_diagonals()
{
    const rectangle whole{0, 0, m_sheet.width(), m_sheet.height()};
    m_sheet.diagonal(whole, true, kLightGrey);
    m_sheet.diagonal(whole, false, kLightGrey);
}

/// The outermost pixels: black all around, with nothing beyond.
void chart_painter::paint_edges()
{
    m_sheet.frame({0, 0, m_sheet.width(), m_sheet.height()}, 1, kBlack);
    const int inset = at(40);
    m_sheet.frame({inset, inset, m_sheet.width() - 2 * inset, m_sheet.height() - 2 * inset}, 1, kBlack);
}

void chart_painter::paint_rulers()
{
    for (int units = 10; units < kSheetWidth; units += 10)
        paint_mark(units, true);
    for (int units = 10; units < kSheetHeight; units += 10)
        paint_mark(units, false);
}

/// One mark on two edges that face each other; a tenth of an inch, a half, or a whole one with its number.
void chart_painter::paint_mark(int units, bool is_across)
{
    const bool is_inch = units % kUnitsPerInch == 0;
    const int length = at(is_inch ? 20 : units % (kUnitsPerInch / 2) == 0 ? 14 : 8);
    const int place = at(units);
    const int scale = scale_for(8);
    const std::string number = is_inch ? std::to_string(units / kUnitsPerInch) : "";
    if (is_across) {
        m_sheet.fill({place, 0, 1, length}, kBlack);
        m_sheet.fill({place, m_sheet.height() - length, 1, length}, kBlack);
        m_sheet.text(place + at(3), at(12), scale, number);
    } else {
        m_sheet.fill({0, place, length, 1}, kBlack);
        m_sheet.fill({m_sheet.width() - length, place, length, 1}, kBlack);
        m_sheet.text(at(12), place + at(3), scale, number);
    }
}

void chart_painter::paint_title(int top)
{
    const int left = at(kMargin);
    m_sheet.text(left, at(top), scale_for(36), "VIRTUAL SCANNER");
    m_sheet.text(left, at(top + 55), scale_for(14),
                 "TEST CHART - " + std::to_string(m_resolution) + " DPI - " +
                     std::to_string(m_sheet.width()) + " X " + std::to_string(m_sheet.height()) +
                     " PIXELS - 8 BIT GREY");
}

/// Every grey from black to white, and back below.
void chart_painter::paint_ramps(int top)
{
    const rectangle where = at({kMargin, top, kDrawnWidth, 90});
    const int half = where.height / 2;
    for (int column = 0; column < where.width; ++column) {
        const auto grey = static_cast<unsigned char>(column * 255 / (where.width - 1));
        m_sheet.fill({where.left + column, where.top, 1, half}, grey);
        m_sheet.fill({where.left + column, where.top + half, 1, where.height - half},
                     static_cast<unsigned char>(255 - grey));
    }
    m_sheet.frame(where, 1, kBlack);
}

void chart_painter::paint_steps(int top)
{
    constexpr int kSteps = 16;
    const rectangle where = at({kMargin, top, kDrawnWidth, 60});
    for (int step = 0; step < kSteps; ++step) {
        const int grey = step * 255 / (kSteps - 1);
        const int left = where.left + where.width * step / kSteps;
        const int right = where.left + where.width * (step + 1) / kSteps;
        m_sheet.fill({left, where.top, right - left, where.height}, static_cast<unsigned char>(grey));
        m_sheet.text(left, at(top + 67), scale_for(10), std::to_string(grey));
    }
    m_sheet.frame(where, 1, kBlack);
}

/// Rows of 1, 2 and 3 pixels; columns of lines down, across, and both ways aslant.
void chart_painter::paint_line_patterns(int top)
{
    constexpr int kDirections = 4;
    for (int thickness = 1; thickness <= 3; ++thickness) {
        const int row = top + (thickness - 1) * 115;
        m_sheet.text(at(kMargin), at(row + 45), scale_for(10), std::to_string(thickness) + " PX");
        for (int direction = 0; direction < kDirections; ++direction)
            paint_line_pattern(at({kMargin + 55 + direction * 165, row, 157, 105}), thickness, direction);
    }
}

void chart_painter::paint_line_pattern(const rectangle& where, int thickness, int direction)
{
    for (int y = 0; y < where.height; ++y) {
        for (int x = 0; x < where.width; ++x) {
            const std::array<int, 4> across{x, y, x + y, x - y + where.height};
            const bool is_ink = across[static_cast<std::size_t>(direction)] / thickness % 2 == 0;
            m_sheet.put(where.left + x, where.top + y, is_ink ? kBlack : kWhite);
        }
    }
}

/// Which ray of its quarter a point belongs to, seen from the centre of the star.
int ray_at(int x, int y)
{
    // The sine of 0 to 90 degrees in steps of 5, times 10000.
    constexpr std::array<int, 19> kSines{0,    872,  1736, 2588, 3420, 4226, 5000, 5736, 6428, 7071,
                                         7660, 8192, 8660, 9063, 9397, 9659, 9848, 9962, 10000};
    // The four quarters are alike, each turned by a right angle.
    const bool is_turned = (x < 0) != (y < 0);
    const int along = is_turned ? std::abs(y) : std::abs(x);
    const int up = is_turned ? std::abs(x) : std::abs(y);
    int ray = 0;
    for (std::size_t step = 1; step + 1 < kSines.size(); ++step)
        ray += up * kSines[kSines.size() - 1 - step] >= along * kSines[step] ? 1 : 0;
    return ray;
}

/// 36 rays; they run into one another where the resolution ends.
void chart_painter::paint_star(const rectangle& units)
{
    const rectangle where = at(units);
    const int radius = where.width / 2;
    for (int y = -radius; y < radius; ++y) {
        for (int x = -radius; x < radius; ++x) {
            if (x * x + y * y >= radius * radius)
                continue;
            m_sheet.put(where.left + radius + x, where.top + radius + y,
                        ray_at(x, y) % 2 == 0 ? kBlack : kWhite);
        }
    }
}

/// Rings of equal area, so that they become finer outwards.
void chart_painter::paint_rings(const rectangle& units)
{
    constexpr int kRings = 40;
    const rectangle where = at(units);
    const int radius = where.width / 2;
    for (int y = -radius; y < radius; ++y) {
        for (int x = -radius; x < radius; ++x) {
            const int distance = x * x + y * y;
            if (distance < radius * radius)
                m_sheet.put(where.left + radius + x, where.top + radius + y,
                            distance * kRings / (radius * radius) % 2 == 0 ? kBlack : kWhite);
        }
    }
}

/// From the smallest letters that there can be to large ones.
void chart_painter::paint_text(int top)
{
    const int left = at(kMargin + 460);
    int line = at(top);
    for (const int scale : {1, scale_for(10), scale_for(14), scale_for(21)}) {
        for (const char* words : {"SPHINX OF", "QUARTZ, MY", "0123456789"}) {
            m_sheet.text(left, line, scale, words);
            line += canvas::text_height(scale) + 3 * scale;
        }
        line += 4 * scale;
    }
}

void chart_painter::paint_words_for_the_reader(int top)
{
    const int scale = scale_for(12);
    m_sheet.text(at(kMargin), at(top), scale, "LOOK AT THE EDGES AND AT THE TWO LONG DIAGONALS:");
    m_sheet.text(at(kMargin), at(top + 25), scale, "WHERE THEY BREAK OR SHIFT, BYTES WERE LOST.");
}

} // namespace

bool test_chart::can_have(std::uint32_t dots_per_inch)
{
    return dots_per_inch >= kLowestResolution && dots_per_inch <= kHighestResolution;
}

test_chart::test_chart(std::uint32_t dots_per_inch)
    : m_resolution(dots_per_inch), m_pixels(chart_painter(dots_per_inch).paint())
{
}

std::uint32_t test_chart::width_at(std::uint32_t dots_per_inch)
{
    return dots_per_inch * kSheetWidth / kUnitsPerInch;
}

std::uint32_t test_chart::height_at(std::uint32_t dots_per_inch)
{
    return dots_per_inch * kSheetHeight / kUnitsPerInch;
}

} // namespace virtual_scanner
