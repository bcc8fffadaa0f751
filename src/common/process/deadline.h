#pragma once

#include <chrono>

namespace tarvik {

using std::chrono::milliseconds;

/// The moment at which a wait is given up. Made once per call, so that a wait in many small steps takes no
/// longer than one in a single step.
class deadline {
public:
    /// `timeout` from now; zero or less has passed already.
    explicit deadline(milliseconds timeout);

    /// What is left, never negative, rounded up so that a wait of this length reaches the deadline.
    milliseconds left() const;
    std::chrono::steady_clock::time_point when() const { return m_when; }
    /// The whole time that was given.
    milliseconds timeout() const { return m_timeout; }

private:
    milliseconds m_timeout;
    std::chrono::steady_clock::time_point m_when;
};

/// Waits until poll() reports one of `events` (or an error condition) on `descriptor`. False when the
/// deadline came first; signals do not end the wait. Throws std::system_error.
bool wait_until_ready(int descriptor, short events, const deadline& until);

} // namespace tarvik
