#include "tvkctl/src/diagnosis/ladder.h"

#include "tvkctl/src/diagnosis/rungs.h"
#include "tvkctl/src/machine/command_error.h"

namespace tarvik::tvkctl {

namespace {

rung_result look(const rung& which, situation& where)
{
    try {
        return which.look(where);
    } catch (const command_error& error) {
        return {verdict::bad, "failed", error.what(), {}, {error.advice()}};
    }
}

} // namespace

const std::vector<rung>& ladder()
{
    static const std::vector<rung> rungs = {
        {"address", exit_code::bad_address, look_at_address},
        {"bus", exit_code::device_absent, look_at_bus},
        {"rights", exit_code::no_rights, look_at_rights},
        {"interface", exit_code::no_interface, look_at_interface},
        {"driver", exit_code::device_busy, look_at_driver},
        {"plugin", exit_code::plugin_unusable, look_at_plugin},
        {"program", exit_code::program_unusable, look_at_program},
        {"open", exit_code::open_fails, look_at_open},
    };
    return rungs;
}

exit_code climb(const std::vector<rung>& rungs, situation& where,
                const std::function<void(const rung&, const rung_result&)>& tell)
{
    for (const rung& next : rungs) {
        const rung_result result = look(next, where);
        tell(next, result);
        if (result.came_out == verdict::bad)
            return next.code;
    }
    return exit_code::ok;
}

} // namespace tarvik::tvkctl
