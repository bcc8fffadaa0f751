/// The lines of device files and orders, taken apart. What is wrong with one is a std::invalid_argument.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace virtual_scanner {

using words = std::vector<std::string>;

/// The words of a line; `#` begins a comment.
words split(const std::string& line);

/// The words from `first` on, with one space between them.
std::string join(const words& parts, std::size_t first);

/// The number from 0 to `largest` that `text` is.
std::uint32_t number(const std::string& text, int base, std::uint32_t largest);

/// The value of a word that must be one of those in `known`.
template <typename Value>
Value one_of(const std::map<std::string, Value>& known, const std::string& word)
{
    const auto found = known.find(word);
    if (found != known.end())
        return found->second;
    std::string names;
    for (const auto& entry : known)
        names += " " + entry.first;
    throw std::invalid_argument("\"" + word + "\" is none of:" + names);
}

} // namespace virtual_scanner
