#include "front_end/src/bytes.h"

#include <algorithm>

#include "common/text/text.h"

namespace tarvik {

namespace {

constexpr std::size_t kLongestQuote = 200;

} // namespace

std::string in_quotes(byte_view text)
{
    const std::string shown(text.begin(), text.begin() + std::min(text.size, kLongestQuote));
    return '"' + harmless(shown, keep::ascii) + (text.size > kLongestQuote ? "\"..." : "\"");
}

} // namespace tarvik
