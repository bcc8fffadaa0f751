// The steps of a script: one that was understood can be printed, and is then understood as before.

#include "tvkctl/src/session/run_steps.h"

#include <sstream>

#include "common/text/text.h"
#include "fuzz/harness.h"
#include "tvkctl/src/machine/tool_error.h"

using namespace tarvik::tvkctl;

namespace {

template <typename Bytes>
std::string in_escapes(const Bytes& content)
{
    std::string text = "\"";
    for (const auto c : content)
        text += "\\x" + tarvik::hexadecimal(static_cast<unsigned char>(c), 2);
    return text + "\"";
}

struct printer {
    std::string operator()(const send_step& step) const
    {
        std::string text = "send";
        for (const send_item& item : step.items)
            text += " " + (item.file.empty() ? in_escapes(item.literal) : "@" + in_escapes(item.file));
        return text;
    }
    std::string operator()(const recv_step& step) const
    {
        fuzz::expect(step.size > 0, "a receive asks for something");
        return "recv " + std::to_string(step.size) +
               (step.file.empty() ? "" : (step.is_appended ? " >> " : " > ") + in_escapes(step.file));
    }
    std::string operator()(const query_step& step) const { return "query " + std::to_string(step.selector); }
    std::string operator()(const sleep_step& step) const
    {
        fuzz::expect(step.time.count() >= 0 && step.time <= std::chrono::hours(24),
                     "a sleep is a day at most");
        return "sleep " + std::to_string(step.time.count()) + "ms";
    }
};

std::string printed(const run_step& step)
{
    return std::visit(printer(), step.what);
}

} // namespace

void fuzz_one(std::string_view input)
{
    std::istringstream script{std::string(input)};
    try {
        for (const run_step& step : read_script(script, "script")) {
            fuzz::expect(input.find(step.text) != std::string_view::npos, "a step keeps its text");
            fuzz::expect_equal(printed(parse_step(printed(step))), printed(step), "a step that was printed");
        }
    } catch (const tool_error& error) {
        fuzz::expect(error.why() == kBadStep, "the cause is a step");
        fuzz::expect(std::string(error.what()).compare(0, 7, "script:") == 0, "the place is told");
        fuzz::expect(!error.next().empty(), "there is advice");
    }
}
