#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "tvkctl/src/commands/exit_code.h"

namespace tarvik::tvkctl {

/// Ends a command: one line for standard error and the exit status that goes with it.
class command_error : public std::runtime_error {
public:
    /// `message` says what failed and why, without a full stop; `advice`, a sentence of its own (or empty),
    /// what to do next.
    command_error(exit_code code, const std::string& message, std::string advice = {})
        : std::runtime_error(message), m_code(code), m_advice(std::move(advice))
    {
    }

    exit_code code() const { return m_code; }
    const std::string& advice() const { return m_advice; }

private:
    exit_code m_code;
    std::string m_advice;
};

/// For a command line that cannot be understood.
inline command_error usage_error(const std::string& message, const std::string& advice)
{
    return command_error(exit_code::usage, message, advice);
}

} // namespace tarvik::tvkctl
