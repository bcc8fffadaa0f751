#pragma once

#include <sys/types.h>

#include <optional>

#include "common/process/deadline.h"
#include "common/process/exit_status.h"
#include "common/process/unique_fd.h"

namespace tarvik {

/// A child of this process, however it was started.
///
/// Owns it: one that still runs is killed on destruction, and it is always reaped, after which its number is
/// free for others. Throws std::system_error when this machine refuses.
///
/// Threads: one at a time.
class process_handle {
public:
    /// Takes over a child that nobody has waited for yet. Kills and reaps it before it throws.
    explicit process_handle(pid_t child);
    process_handle(const process_handle&) = delete;
    process_handle& operator=(const process_handle&) = delete;
    ~process_handle();

    /// Waits for the end; nullopt when the deadline came first. May be called again.
    std::optional<exit_status> wait(const deadline& until);
    /// Sends a signal; false when the process has been reaped already.
    bool signal(int number);
    /// Kills the process, should it still run, and returns how it ended.
    exit_status end();

    /// The same after it has been reaped, though another process may have it by then.
    pid_t pid() const { return m_pid; }

private:
    exit_status reap();

    pid_t m_pid;
    unique_fd m_end;                     ///< readable once the process has ended
    std::optional<exit_status> m_status; ///< set when it has been reaped
};

} // namespace tarvik
