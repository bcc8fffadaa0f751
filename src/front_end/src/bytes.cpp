#include "front_end/src/bytes.h"

#include <algorithm>

namespace tarvik {

namespace {

constexpr std::size_t kLongestQuote = 200;

bool is_printable(unsigned char byte)
{
    return byte >= 0x20 && byte < 0x7f;
}

} // namespace

std::string in_quotes(byte_view text)
{
    constexpr const char* hex = "0123456789abcdef";
    std::string result = "\"";
    for (const unsigned char byte : byte_view(text.data, std::min(text.size, kLongestQuote))) {
        if (is_printable(byte))
            result += static_cast<char>(byte);
        else
            result.append("\\x").append(1, hex[byte >> 4]).append(1, hex[byte & 15]);
    }
    return result + (text.size > kLongestQuote ? "\"..." : "\"");
}

} // namespace tarvik
