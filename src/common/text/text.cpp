#include "common/text/text.h"

namespace tarvik {

namespace {

bool is_kept(unsigned char byte, keep kept)
{
    const bool is_control = byte < 0x20 || byte == 0x7f;
    return kept == keep::ascii ? !is_control && byte < 0x80 : !is_control || byte == '\t';
}

} // namespace

std::string hexadecimal(std::uint64_t number, std::size_t digits)
{
    std::string text;
    for (; number != 0 || text.size() < digits; number >>= 4U)
        text.insert(text.begin(), "0123456789abcdef"[number & 15U]);
    return text;
}

std::string count_of(std::uint64_t number, std::string_view what)
{
    return std::to_string(number).append(" ").append(what).append(number == 1 ? "" : "s");
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    while (!text.empty()) {
        const std::size_t length = text.find(separator);
        parts.emplace_back(text.substr(0, length));
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    }
    return parts;
}

bool is_number(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string harmless(std::string_view text, keep kept, std::string_view substitute)
{
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_kept(byte, kept))
            result += c;
        else if (substitute.empty())
            result += "\\x" + hexadecimal(byte, 2);
        else
            result += substitute;
    }
    return result;
}

} // namespace tarvik
