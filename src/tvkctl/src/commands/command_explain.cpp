#include "tvkctl/src/commands/command_explain.h"

#include <CLI/CLI.hpp>
#include <iomanip>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tvkctl/src/commands/check_report.h"
#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

struct explain_options {
    std::string udi = {};
    std::string program = {};
};

exit_code explain(const explain_options& options, cli& shared)
{
    constexpr std::size_t name_width = 11; // two blanks behind the longest name, "interface"
    check_context context{options.udi, shared.machine};
    if (!options.program.empty())
        context.machine.program = options.program;
    json checks = json::array();
    const check* failed = diagnose(kChecks.begin(), kChecks.end(), context, [&](const check_result& result) {
        if (shared.is_json)
            checks.push_back(to_json(result));
        else
            print(result, name_width, shared.io);
    });
    const exit_code code = failed == nullptr ? exit_code::ok : exit_code_of(*failed);
    if (shared.is_json)
        shared.io.write({{"udi", options.udi},
                         {"opens", failed == nullptr},
                         {"checks", checks},
                         {"exit_status", static_cast<int>(code)}});
    return code;
}

constexpr const char* kExplainSummary = "Find out why a scanner cannot be opened";
constexpr const char* kExplainExamples =
    R"(  tvkctl explain usb:1a2b:3c4d
      checks all that an open needs, from the address to the open itself, and
      stops at the first check that fails
  tvkctl explain usb:1a2b:3c4d:SN0042 --json | jq -r '.checks[-1].next[]'
      only what to try next
  sudo -u scanner tvkctl explain usb:1a2b:3c4d
      as another user, with that user's rights

When all is well the scanner was really opened and closed again.

Checks, in this order, with the exit status when one fails:
)";

std::string examples_and_checks()
{
    std::ostringstream text;
    text << kExplainExamples;
    for (const check& one : kChecks)
        text << std::setw(4) << static_cast<int>(exit_code_of(one)) << "  " << std::left << std::setw(11)
             << one.name << std::right << one.failure << '\n';
    return text.str();
}

} // namespace

void add_explain_command(CLI::App& app, cli& shared)
{
    const auto options = std::make_shared<explain_options>();
    const std::string examples = examples_and_checks();
    CLI::App& command = add_command(app, shared, {"explain", kExplainSummary, examples},
                                    [=, &shared] { return explain(*options, shared); });
    command.add_option("UDI", options->udi, "Address of the scanner, as tvkctl list shows it")->required();
    command.add_option("--program", options->program, kProgramHelp)->type_name("FILE");
}

} // namespace tarvik::tvkctl
