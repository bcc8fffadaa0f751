#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace target {

/// The log that a program should leave, put together step by step in the order of the session. Lines are in
/// the form in which support::log_dialogue() gives the real ones; all of them have the level INFO.
class expected_log {
public:
    /// The program has started.
    void start();
    /// A request with this many payload bytes has come in.
    void request(std::size_t payload);
    /// A reply with this many payload bytes has gone out.
    void reply(std::size_t payload);
    /// The handling of an open that finds its scanner at the first attempt. Which of the addresses' two
    /// forms it is shows in the serial: empty for one without.
    void open(const std::string& udi, const std::string& serial);
    /// A transfer of `length` bytes that the device stalled; `direction` is "read" or "write".
    void stall(const std::string& direction, std::size_t length);
    /// The handling of a close request, down to the end of the program.
    void close();

    const std::vector<std::string>& lines() const { return m_lines; }

private:
    void line(const std::string& text);
    void transfer(const std::string& call, const std::string& result, std::size_t length);

    std::vector<std::string> m_lines;
};

} // namespace target
