#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include "front_end/src/bytes.h"

namespace tarvik::tvkctl {

/// Shows bytes as lines of offset, sixteen bytes and their text:
///
///     00000000  1b 45 0a ff                                      |.E..|
///
/// Takes them in pieces of any size; what is left over is shown by finish(), which destruction does not do.
/// Borrows the stream.
class hex_dump {
public:
    explicit hex_dump(std::ostream& to) : m_to(to) {}

    void add(byte_view piece);
    /// Shows the last, shorter line; the next byte begins at offset 0 again.
    void finish();

private:
    void write_line();

    static constexpr std::size_t kBytesPerLine = 16;

    std::ostream& m_to;
    std::uint64_t m_offset = 0; ///< of the line that is being filled
    std::array<unsigned char, kBytesPerLine> m_line{};
    std::size_t m_filled = 0; ///< bytes in m_line
};

} // namespace tarvik::tvkctl
