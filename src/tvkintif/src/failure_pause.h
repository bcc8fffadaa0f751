#pragma once

#include <chrono>

/// Keeps what fails again and again from doing so at full speed: from the second failure in a row on, each is
/// followed by a pause, which doubles until it takes a second. A signal cuts a pause short.
///
/// Threads: one.
class failure_pause {
public:
    using clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds kLongest{1000};

    explicit failure_pause(std::chrono::milliseconds first) : m_first(first) {}
    failure_pause(const failure_pause&) = delete;
    failure_pause& operator=(const failure_pause&) = delete;

    /// Pauses if this failure, which was at `now`, follows another one closely. One that took longer than any
    /// pause, as a time-out does, does no harm and begins a new row.
    void failed(clock::time_point now = clock::now());
    void succeeded() { m_isInARow = false; }

private:
    const std::chrono::milliseconds m_first;
    std::chrono::milliseconds m_next{0};
    bool m_isInARow = false;  ///< there was a failure, and no success since
    clock::time_point m_over; ///< when the last failure was over, its pause included
};
