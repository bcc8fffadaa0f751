#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "front_end/src/front_end.h"
#include "tvkctl/src/log/log_files.h"
#include "tvkctl/src/machine/exit_code.h"
#include "tvkctl/src/machine/finding.h"
#include "tvkctl/src/machine/host.h"
#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// What was seen on one rung of the way to an open scanner.
struct rung_result {
    verdict came_out = verdict::good;
    std::string cause = {};   ///< a word for programs, stable: "missing_file"; empty when all is well
    std::string summary = {}; ///< one line
    std::vector<std::string> evidence = {};
    std::vector<std::string> next =
        {}; ///< what to try, in this order: commands as a shell takes them, or words
};

/// What each rung needs to know, and what it leaves for those above it. Lives as long as the climb.
struct situation {
    std::string udi;
    host machine;
    log_place log = {};
    milliseconds load_timeout{20'000}; ///< loading a plugin takes no time worth speaking of

    std::vector<usb_device> devices = {};           ///< from the bus rung on
    const usb_device* device = nullptr;             ///< one of these: which the program would open
    std::optional<usable_interface> interface = {}; ///< of that device, from the interface rung on
    std::optional<log_tail> news = {};              ///< what is logged from the program's start on
    std::unique_ptr<front_end> program = {};        ///< connected, from the program rung on
};

struct rung {
    const char* name;
    exit_code code; ///< of the command, when this rung is broken
    rung_result (*look)(situation&);
};

/// All of them, in the order in which an open needs them. Each may count on those below it being whole.
const std::vector<rung>& ladder();

/// Climbs until the first broken rung and tells of each that was reached; the exit code of the broken one, or
/// ok.
exit_code climb(const std::vector<rung>& rungs, situation& where,
                const std::function<void(const rung&, const rung_result&)>& tell);

} // namespace tarvik::tvkctl
