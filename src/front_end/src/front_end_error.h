#pragma once

#include <string>

#include "common/process/process_error.h"

namespace tarvik {

/// What went wrong between a front-end and the program, coarse enough to act on.
enum class failure {
    start_failed,       ///< the program could not be executed
    exited_early,       ///< it ended before it wrote its port line
    start_refused,      ///< it wrote -1 instead of a port
    bad_port_line,      ///< it wrote something other than a port
    timed_out,          ///< the deadline of the call passed
    connection_refused, ///< nobody listens on the port
    connect_failed,     ///< any other reason why there is no connection
    end_of_stream,      ///< the program closed the connection before all was read
    connection_lost,    ///< reset, broken pipe, or any other failed transfer
    wrong_id,           ///< a reply that carries the wrong id
    unexpected_reply,   ///< a reply that is not ok, ng or nak, or has a payload of the wrong size
};

/// A step between front-end and program that failed. The replies ng and nak are answers, not errors.
class front_end_error : public step_error {
public:
    front_end_error(failure cause, const std::string& step, const std::string& expected,
                    const std::string& came)
        : step_error(step, expected, came), m_cause(cause)
    {
    }

    /// Of the program as a process.
    explicit front_end_error(const process_error& error);

    failure cause() const { return m_cause; }
    /// What a person can try next: a sentence of its own.
    const char* advice() const;

private:
    failure m_cause;
};

} // namespace tarvik
