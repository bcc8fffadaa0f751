#pragma once

#include <vector>

#include "tvkctl/src/machine/check_result.h"
#include "tvkctl/src/plugin/plugin_trial.h"

namespace tarvik::tvkctl {

/// Judges what came of a trial, in the order in which it happened. What a plugin may do when it does not get
/// its own device's answers is not a fault.
std::vector<check_result> judge_trial(const trial_plan& plan, const trial_report& report);

} // namespace tarvik::tvkctl
