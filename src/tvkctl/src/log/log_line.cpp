#include "tvkctl/src/log/log_line.h"

#include <strings.h>

#include <charconv>

namespace tarvik::tvkctl {

using vl::common::log::kLevels;
using vl::common::log::named_level;

namespace {

/// Takes apart a text from its front.
class header_reader {
public:
    explicit header_reader(const std::string& text) : m_text(text) {}

    /// Takes OPEN text CLOSE; false when it does not stand here.
    bool field(char open, char close, std::string& value)
    {
        const std::size_t end = m_text.find(close, m_at);
        if (m_at >= m_text.size() || m_text[m_at] != open || end == std::string::npos)
            return false;
        value = m_text.substr(m_at + 1, end - m_at - 1);
        m_at = end + 1;
        return true;
    }

    bool number(char open, char close, int& value)
    {
        std::string digits;
        return field(open, close, digits) && is_number(digits, value);
    }

    std::string rest() const { return m_text.substr(m_at); }

private:
    static bool is_number(const std::string& digits, int& value)
    {
        const char* end = digits.data() + digits.size();
        const auto parsed = std::from_chars(digits.data(), end, value);
        return parsed.ec == std::errc() && parsed.ptr == end;
    }

    const std::string& m_text;
    std::size_t m_at = 0;
};

/// Length of a leading "source(line) ", the blank included; 0 when there is none.
std::size_t source_length(const std::string& message)
{
    const std::size_t open = message.find('(');
    const std::size_t close = message.find(") ");
    if (open == std::string::npos || close == std::string::npos || close < open + 2)
        return 0;
    const bool is_line = message.find_first_not_of("0123456789", open + 1) == close;
    const bool is_name = open > 0 && message.find(' ') == close + 1;
    return is_line && is_name ? close + 2 : 0;
}

std::string number_of(const named_level& named)
{
    return std::to_string(static_cast<int>(named.level));
}

} // namespace

std::string level_choice()
{
    std::string names;
    for (const named_level& each : kLevels)
        names += (names.empty() ? "" : ", ") + std::string(each.name);
    return names + ", or a number from " + number_of(kLevels.front()) + " to " + number_of(kLevels.back());
}

std::optional<log_level> level_named(const std::string& text)
{
    for (const named_level& each : kLevels)
        if (strcasecmp(text.c_str(), each.name) == 0 || text == number_of(each))
            return each.level;
    return std::nullopt;
}

std::optional<log_line> parse_log_line(const std::string& text)
{
    log_line line{text};
    header_reader header(text);
    if (!header.field('[', ']', line.clock) || !header.number('[', ']', line.process) ||
        !header.number('(', ')', line.thread) || !header.field('[', ']', line.level_name))
        return std::nullopt;
    line.level = level_named(line.level_name);
    line.message = header.rest();
    if (const std::size_t length = source_length(line.message); length > 0) {
        line.source = line.message.substr(0, length - 1);
        line.message.erase(0, length);
    }
    return line;
}

bool log_filter::passes(const std::string& text)
{
    // A line of an unknown level is never held back: nobody could ask for it.
    if (const auto line = parse_log_line(text))
        m_isPassing = !line->level || *line->level >= m_least;
    return m_isPassing;
}

} // namespace tarvik::tvkctl
