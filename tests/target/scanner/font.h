#pragma once

#include <array>
#include <cstddef>

namespace virtual_scanner {

/// The rows of a letter from top to bottom; '#' is ink.
using glyph = std::array<const char*, 7>;

constexpr std::size_t kGlyphWidth = 5;
constexpr std::size_t kGlyphHeight = 7;

/// Capitals, digits, space and some signs; any other character is a full box.
const glyph& glyph_of(char character);

} // namespace virtual_scanner
