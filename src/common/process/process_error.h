#pragma once

#include <stdexcept>
#include <string>

namespace tarvik {

/// A step that failed. what() reads "STEP: expected EXPECTED, got CAME".
class step_error : public std::runtime_error {
public:
    step_error(const std::string& step, const std::string& expected, const std::string& came);

    /// What was being done: "start /usr/bin/tvkintif", "recv 512 bytes", "connect to port 40001".
    const std::string& step() const { return m_step; }
    const std::string& expected() const { return m_expected; }
    const std::string& came() const { return m_came; }

private:
    std::string m_step;
    std::string m_expected;
    std::string m_came;
};

/// A child process that did not do what it had to.
class process_error : public step_error {
public:
    enum class failure {
        start_failed, ///< its program could not be executed
        timed_out,    ///< the deadline of the call passed
    };

    process_error(failure cause, const std::string& step, const std::string& expected,
                  const std::string& came)
        : step_error(step, expected, came), m_cause(cause)
    {
    }

    failure cause() const { return m_cause; }

private:
    failure m_cause;
};

} // namespace tarvik
