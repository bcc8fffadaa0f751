#include "tvkctl/src/commands/command_explain.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "tvkctl/src/diagnosis/ladder.h"

namespace tarvik::tvkctl {

namespace {

struct explain_options {
    std::string udi = {};
    std::string program = {};
};

json to_json(const rung& which, const rung_result& result)
{
    return {{"rung", which.name},
            {"verdict", name_of(result.came_out)},
            {"cause", result.cause.empty() ? json() : json(result.cause)},
            {"summary", result.summary},
            {"evidence", result.evidence},
            {"next", result.next}};
}

std::string mark_of(verdict came_out, const console& io)
{
    switch (came_out) {
    case verdict::good:
        return io.styled(style::good, "ok  ");
    case verdict::warning:
        return io.styled(style::warning, "warn");
    case verdict::bad:
        return io.styled(style::bad, "FAIL");
    case verdict::not_checked:
        break;
    }
    return io.styled(style::dim, "?   ");
}

void print(const rung& which, const rung_result& result, console& io)
{
    constexpr std::size_t column = 11; // one blank behind the longest name, "interface"
    std::string name = which.name;
    name.resize(column, ' ');
    io.out() << mark_of(result.came_out, io) << "  " << name << result.summary << '\n';
    for (const std::string& line : result.evidence)
        io.out() << "        - " << line << '\n';
    if (!result.next.empty())
        io.out() << "      Next:\n";
    for (const std::string& line : result.next)
        io.out() << "        " << line << '\n';
    io.out().flush(); // the next rung may take a while
}

exit_code explain(const explain_options& options, cli& shared)
{
    situation where{options.udi, shared.machine};
    if (!options.program.empty())
        where.machine.program = options.program;
    json rungs = json::array();
    const exit_code code = climb(ladder(), where, [&](const rung& which, const rung_result& result) {
        if (shared.is_json)
            rungs.push_back(to_json(which, result));
        else
            print(which, result, shared.io);
    });
    if (shared.is_json)
        shared.io.write({{"udi", options.udi},
                         {"opens", code == exit_code::ok},
                         {"rungs", rungs},
                         {"exit_status", static_cast<int>(code)}});
    return code;
}

constexpr const char* kExplainSummary = "Find out why a scanner cannot be opened";
constexpr const char* kExplainExamples =
    R"(  tvkctl explain usb:1a2b:3c4d
      looks at all that an open needs, from the address to the open itself, and
      stops at the first thing that is broken
  tvkctl explain usb:1a2b:3c4d:SN0042 --json | jq -r '.rungs[-1].next[]'
      only what to try next
  sudo -u scanner tvkctl explain usb:1a2b:3c4d
      as another user, with that user's rights

When all is well the scanner was really opened and closed again. Each kind of
broken rung has its own exit status: 20 address, 21 bus, 22 rights,
23 interface, 24 driver, 25 plugin, 26 program, 27 open.)";

} // namespace

void add_explain_command(CLI::App& app, cli& shared)
{
    const auto options = std::make_shared<explain_options>();
    CLI::App& command = add_command(app, shared, {"explain", kExplainSummary, kExplainExamples},
                                    [=, &shared] { return explain(*options, shared); });
    command.add_option("UDI", options->udi, "Address of the scanner, as tvkctl list shows it")->required();
    command.add_option("--program", options->program, "Start this tvkintif")->type_name("FILE");
}

} // namespace tarvik::tvkctl
