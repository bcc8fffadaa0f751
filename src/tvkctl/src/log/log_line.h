#pragma once

#include <optional>
#include <string>

#include "common/log/logger.h"

namespace tarvik::tvkctl {

using log_level = vl::common::log::ESeveryLevel;

/// "TRACE, INFO, WARNING, ERROR, FATAL, or a number from 0 to 4": what level_named() takes, for help.
std::string level_choice();
/// The level with this name, in any case, or with this number from 0 to 4; nullopt for anything else.
std::optional<log_level> level_named(const std::string& text);

/// One line of the log, taken apart.
struct log_line {
    std::string text;                 ///< the whole of it
    std::string clock = {};           ///< "10:23:45.45000"
    int process = 0;                  ///< id
    int thread = 0;                   ///< id
    std::string level_name = {};      ///< as it is written
    std::optional<log_level> level{}; ///< nullopt: an unknown name
    std::string source = {};          ///< "main(93)", in the verbose form only
    std::string message = {};
};

/// nullopt for a line without a header: the rest of a message that has several lines.
std::optional<log_line> parse_log_line(const std::string& text);

/// Lets the lines of a severity and above pass, each with the lines without header that follow it.
class log_filter {
public:
    explicit log_filter(log_level least) : m_least(least) {}

    bool passes(const std::string& text);

private:
    log_level m_least;
    bool m_isPassing = true; ///< what holds for lines without header
};

} // namespace tarvik::tvkctl
