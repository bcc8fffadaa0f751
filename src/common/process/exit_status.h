#pragma once

#include <iosfwd>
#include <string>

namespace tarvik {

/// How a process ended: by itself with a status, or killed by a signal.
struct exit_status {
    enum class how { exited, killed };

    static exit_status exited(int status) { return {how::exited, status}; }
    static exit_status killed_by(int signal_number) { return {how::killed, signal_number}; }

    bool operator==(const exit_status& other) const { return end == other.end && number == other.number; }
    bool operator!=(const exit_status& other) const { return !(*this == other); }

    /// In words: "exit status 1", "signal 9 (Killed)".
    std::string text() const;

    how end;
    int number; ///< the status from 0 to 255, or the signal's number
};

std::ostream& operator<<(std::ostream& out, const exit_status& status);

} // namespace tarvik
