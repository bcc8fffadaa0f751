#include "tvkctl/src/commands/check_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "tvkctl/src/commands/advice_text.h"

namespace tarvik::tvkctl {

namespace {

style style_of(outcome came_out)
{
    switch (came_out) {
    case outcome::ok:
        return style::good;
    case outcome::warning:
        return style::warning;
    case outcome::failed:
        return style::bad;
    case outcome::not_checked:
        break;
    }
    return style::dim;
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

} // namespace

void print(const check_result& result, std::size_t name_width, console& io)
{
    constexpr std::size_t outcome_width = 13; // two blanks behind the longest, "not checked"
    io.out() << io.styled(style_of(result.came_out), padded(name_of(result.came_out), outcome_width))
             << padded(result.check, name_width) << result.summary << '\n';
    for (const std::string& line : result.evidence)
        io.out() << "        - " << line << '\n';
    if (!result.next.empty())
        io.out() << "      Next:\n";
    for (const advice& what : result.next)
        io.out() << "        " << text_of(what) << '\n';
    io.out().flush();
}

json to_json(const check_result& result)
{
    json next = json::array();
    for (const advice& what : result.next)
        next.push_back(text_of(what));
    return {{"check", result.check},
            {"outcome", name_of(result.came_out)},
            {"cause", result.why.word.empty() ? json() : json(std::string(result.why.word))},
            {"summary", result.summary},
            {"evidence", result.evidence},
            {"next", std::move(next)}};
}

} // namespace tarvik::tvkctl
