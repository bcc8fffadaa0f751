#pragma once

#include "tvkctl/src/plugin/plugin_trial.h"
#include "tvkctl/src/plugin/trial_notes.h"

namespace tarvik::tvkctl {

/// How long a thread that was told to end may take to vanish, after which it is taken for one that stays.
constexpr milliseconds kThreadsMayTake{1000};

/// The inside of a trial: loads the plugin into this process, calls it, writes down what happens. Ends the
/// process.
[[noreturn]] void run_trial_here(const trial_plan& plan, trial_notes& notes);

} // namespace tarvik::tvkctl
