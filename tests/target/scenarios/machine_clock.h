#pragma once

#include <chrono>

namespace target {

/// The machine's calendar clock, to be set; on destruction it goes on as if nobody had. Time-outs do not
/// notice: they count the time since the machine's start.
class machine_clock {
public:
    machine_clock();
    machine_clock(const machine_clock&) = delete;
    machine_clock& operator=(const machine_clock&) = delete;
    ~machine_clock();

    /// Throws std::system_error.
    static void set(std::chrono::nanoseconds since_epoch);

private:
    std::chrono::nanoseconds m_start; ///< of the machine, in calendar time
};

} // namespace target
