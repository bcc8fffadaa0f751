#include "support/bytes.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace support {

std::string hex(const bytes& data)
{
    std::string text;
    for (const unsigned char byte : data) {
        std::array<char, 4> pair{};
        std::snprintf(pair.data(), pair.size(), "%s%02x", text.empty() ? "" : " ",
                      static_cast<unsigned>(byte));
        text += pair.data();
    }
    return text;
}

bytes from_hex(const std::string& text)
{
    std::string digits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digits), [](char c) { return c != ' '; });
    bytes data;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        data.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return data;
}

bytes bytes_of(const std::string& text)
{
    return {text.begin(), text.end()};
}

bytes pattern(std::size_t size)
{
    bytes data(size);
    std::uint32_t state = 1;
    for (unsigned char& byte : data) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24U);
    }
    return data;
}

bytes operator+(bytes first, const bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace support
