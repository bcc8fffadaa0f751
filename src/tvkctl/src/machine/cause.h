#pragma once

#include <string_view>

namespace tarvik::tvkctl {

/// Why something is not as it should be, in a word that stays the same, so that programs can decide by it:
/// "no_rights". A constant where others ask for it, else said at the one place that finds it.
struct cause {
    constexpr cause() = default;
    constexpr explicit cause(const char* a_word) : word(a_word) {}

    std::string_view word; ///< empty: all is well
};

constexpr bool operator==(cause one, cause other)
{
    return one.word == other.word;
}

} // namespace tarvik::tvkctl
