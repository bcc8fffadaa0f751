#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "common/log/trusted_file.h"
#include "tvkctl/src/log/log_files.h"
#include "tvkctl/src/log/log_line.h"
#include "tvkctl/src/machine/accounts.h"
#include "tvkctl/src/machine/cause.h"

namespace tarvik::tvkctl {

/// Whether a program that starts now logs, and why not.
struct log_state {
    enum class reason {
        on,
        no_directory,  ///< which is the switch
        not_directory, ///< something else has its name
        distrusted,    ///< the program does not trust the directory or the settings
        no_level,      ///< the settings file names none
        level_too_high ///< the settings file names one above FATAL
    };

    bool is_on() const { return why == reason::on; }
    /// On, and this user's programs can write their lines.
    bool reaches_file() const { return is_on() && may_write; }

    reason why = reason::no_directory;
    std::optional<log_level> least = {}; ///< lowest severity that is written; nullopt: off
    bool has_settings = false;           ///< the settings file is there and can be read by this user
    bool may_write = false;              ///< this user may add to today's file
    account owner = {};                  ///< of the directory; nothing without it
    mode_t mode = 0;                     ///< of the directory
    std::string file = {};               ///< today's, whether it is there or not
    bool has_file = false;
    /// Why the program passes over `strange_path`: directory, settings or today's file.
    vl::common::log::EDistrust distrust = vl::common::log::EDistrust::none;
    std::string strange_path = {};
};

log_state look_at_log(const log_place& place, std::time_t now);
/// One sentence without full stop: why nothing is logged. Empty when this user's programs log.
std::string why_not_logged(const log_state& state, const log_place& place);
/// What to do about something that the program does not trust, a sentence. Empty when it trusts all of it.
std::string remedy_for_distrust(const log_state& state);

inline constexpr cause kLogRefused{"log_refused"}; ///< the directory cannot be trusted or changed

/// What was done, in words for a person, one a line.
using log_change = std::vector<std::string>;

/// Makes the directory, writable for its owner and root alone, and sets the level; without one, a level that
/// is written already stays, and INFO is the default. `owner`, for root alone: whose programs shall log.
/// Throws tool_error (kLogRefused) when somebody else could redirect or rewrite what is logged.
log_change turn_log_on(const log_place& place, std::optional<log_level> least,
                       const std::optional<account>& owner);

/// Has programs that start from now on log nothing. An empty directory is removed; one that holds logs stays,
/// with a level that nothing reaches, so that no log is lost. `is_purging`: logs, settings and directory are
/// removed. Throws tool_error (kLogRefused).
log_change turn_log_off(const log_place& place, bool is_purging);

} // namespace tarvik::tvkctl
