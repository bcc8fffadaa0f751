// Lines of the log: what was read can be printed and reads as before, and the filter follows the levels.

#include "tvkctl/src/log/log_line.h"

#include <algorithm>

#include "common/text/text.h"
#include "fuzz/harness.h"

using tarvik::tvkctl::log_line;
using tarvik::tvkctl::parse_log_line;

namespace {

std::string printed(const log_line& line)
{
    return "[" + line.clock + "][" + std::to_string(line.process) + "](" + std::to_string(line.thread) +
           ")[" + line.level_name + "]" + line.source + (line.source.empty() ? "" : " ") + line.message;
}

void check(const std::string& text)
{
    const auto line = parse_log_line(text);
    if (!line) // a line that the program writes is always read
        return fuzz::expect(!parse_log_line("[1][2](3)[INFO]" + text)->text.empty(),
                            "a line with a header is read");
    fuzz::expect_equal(line->text, text, "the text of a line");
    const std::string end = line->source + (line->source.empty() ? "" : " ") + line->message;
    fuzz::expect(text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0,
                 "a line ends with its source and message");
    const std::size_t open = line->source.find('(');
    const std::string number = line->source.substr(std::min(open, line->source.size()));
    fuzz::expect(line->source.empty() || (open > 0 && number.size() > 2 &&
                                          number.find_first_not_of("0123456789", 1) == number.size() - 1),
                 "a source has a name and a line");
    const auto again = parse_log_line(printed(*line));
    fuzz::expect(again.has_value(), "a line that was printed can be read");
    fuzz::expect_equal(printed(*again), printed(*line), "a line that was printed");
    fuzz::expect(again->level == line->level && again->source == line->source &&
                     again->message == line->message,
                 "a line that was printed reads as before");
}

} // namespace

void fuzz_one(std::string_view input)
{
    tarvik::tvkctl::log_filter filter(tarvik::tvkctl::log_level::warning);
    bool is_passing = true;
    for (const std::string& text : tarvik::split(input, '\n')) {
        check(text);
        if (const auto line = parse_log_line(text))
            is_passing = !line->level || static_cast<int>(*line->level) >= 2;
        fuzz::expect(filter.passes(text) == is_passing, "the filter lets through what is as severe");
    }
}
