#include "target/scanner/words.h"

#include <sstream>

namespace virtual_scanner {

words split(const std::string& line)
{
    std::istringstream stream(line.substr(0, line.find('#')));
    words found;
    for (std::string word; stream >> word;)
        found.push_back(word);
    return found;
}

std::string join(const words& parts, std::size_t first)
{
    std::string joined;
    for (std::size_t index = first; index < parts.size(); ++index)
        joined += (joined.empty() ? "" : " ") + parts[index];
    return joined;
}

std::uint32_t number(const std::string& text, int base, std::uint32_t largest)
{
    std::size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used, base);
    } catch (const std::logic_error&) {
        used = 0;
    }
    if (used != text.size() || text.front() == '-' || value > largest) {
        throw std::invalid_argument("\"" + text + "\" is not a number from 0 to " + std::to_string(largest) +
                                    (base == 16 ? " in hexadecimal" : ""));
    }
    return static_cast<std::uint32_t>(value);
}

} // namespace virtual_scanner
