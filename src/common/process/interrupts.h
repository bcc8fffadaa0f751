#pragma once

#include <csignal>

#include <chrono>

namespace tarvik {

/// While it lives, the first SIGINT or SIGTERM is only noted, so that a command can end in order; the second
/// one ends the process as usual. At most one at a time.
class interrupt_watch {
public:
    interrupt_watch();
    interrupt_watch(const interrupt_watch&) = delete;
    interrupt_watch& operator=(const interrupt_watch&) = delete;
    ~interrupt_watch();

    static bool was_interrupted();
    /// Waits for `time` to pass; false when it was interrupted before.
    static bool pause(std::chrono::milliseconds time);

private:
    struct sigaction m_onInterrupt = {}; ///< what was in force before
    struct sigaction m_onTerminate = {};
};

} // namespace tarvik
