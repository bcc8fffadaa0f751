#include "tvkctl/src/terminal/numbers.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

struct unit {
    std::string_view name;
    std::uint64_t factor;
};
constexpr std::array<unit, 3> kUnits = {{{"KiB", 1ULL << 10U}, {"MiB", 1ULL << 20U}, {"GiB", 1ULL << 30U}}};
constexpr double kLongestSeconds = 86'400;

bool takes_end(std::string& text, std::string_view end)
{
    if (text.size() <= end.size() || text.compare(text.size() - end.size(), end.size(), end) != 0)
        return false;
    text.resize(text.size() - end.size());
    return true;
}

bool is_hexadecimal(const std::string& text)
{
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

/// Only digits: no sign, no blanks, which the library's own conversions would let pass.
std::optional<std::uint64_t> parse_digits(const std::string& text)
{
    const bool is_hex = is_hexadecimal(text);
    const std::string digits = is_hex ? text.substr(2) : text;
    const char* allowed = is_hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos)
        return std::nullopt;
    try {
        return std::stoull(digits, nullptr, is_hex ? 16 : 10);
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

std::string decimal(double number, int places)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", places, number);
    return text.data();
}

} // namespace

std::optional<std::uint64_t> parse_size(const std::string& text)
{
    std::string number = text;
    std::uint64_t factor = 1;
    for (const unit& candidate : kUnits)
        if (takes_end(number, candidate.name)) {
            factor = candidate.factor;
            break;
        }
    const auto count = parse_number(number, std::numeric_limits<std::uint64_t>::max() / factor);
    return count ? std::optional(*count * factor) : std::nullopt;
}

std::optional<std::uint64_t> parse_number(const std::string& text, std::uint64_t largest)
{
    const auto number = parse_digits(text);
    return number && *number <= largest ? number : std::nullopt;
}

std::optional<std::chrono::milliseconds> parse_duration(const std::string& text)
{
    std::string number = text;
    const double factor = takes_end(number, "ms") ? 0.001 : 1;
    if (factor == 1)
        takes_end(number, "s");
    if (number.find_first_not_of("0123456789.") != std::string::npos)
        return std::nullopt;
    double value = 0;
    const char* end = number.data() + number.size();
    const auto parsed = std::from_chars(number.data(), end, value);
    const double seconds = value * factor;
    if (parsed.ec != std::errc() || parsed.ptr != end || seconds > kLongestSeconds)
        return std::nullopt;
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

std::string size_text(std::uint64_t size)
{
    for (auto candidate = kUnits.rbegin(); candidate != kUnits.rend(); ++candidate)
        if (size >= candidate->factor)
            return decimal(static_cast<double>(size) / static_cast<double>(candidate->factor), 1) + " " +
                   std::string(candidate->name);
    return count_of(size, "byte");
}

std::string seconds_text(std::chrono::nanoseconds time)
{
    return decimal(std::chrono::duration<double>(time).count(), 3) + " s";
}

} // namespace tarvik::tvkctl
