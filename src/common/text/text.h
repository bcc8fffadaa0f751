#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How texts are put together and taken apart. Nothing here throws, unless memory runs out.

namespace tarvik {

/// Lower-case, with leading zeros up to `digits`.
std::string hexadecimal(std::uint64_t number, std::size_t digits = 1);

/// "1 byte", "2 bytes": adds an s for the plural.
std::string count_of(std::uint64_t number, std::string_view what);

/// The parts between separators. A separator at the very end is followed by no part.
std::vector<std::string> split(std::string_view text, char separator);

/// Whether there are decimal digits, and nothing else.
bool is_number(std::string_view text);

/// Which bytes of foreign text are kept; a terminal might obey the others.
enum class keep {
    ascii,          ///< what has a width of one
    all_but_control ///< tabs as well
};
/// Foreign text with `substitute` for each byte that is not kept; with \xNN without one.
std::string harmless(std::string_view text, keep kept, std::string_view substitute = {});

} // namespace tarvik
