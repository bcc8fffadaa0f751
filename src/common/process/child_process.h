#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/process/deadline.h"
#include "common/process/exit_status.h"
#include "common/process/output_collector.h"
#include "common/process/process_handle.h"
#include "common/process/unique_fd.h"

namespace tarvik {

/// What to start and how. Standard input is /dev/null, standard output is collected; signal mask, ignored
/// signals and limits are this process's.
struct launch {
    enum class standard_error { inherit, capture };

    std::string path;                                    ///< file to execute; PATH is not searched
    std::vector<std::string> arguments = {};             ///< without the program's own name
    std::map<std::string, std::string> environment = {}; ///< added to this process's, or replacing there
    std::string working_directory = {};                  ///< empty: this process's; `path` is relative to it
    standard_error errors = standard_error::inherit;
};

/// A program that this process has started, and what it writes. The descriptors that this library opens stay
/// out of it.
///
/// Owns the process: one that still runs is killed on destruction, and it is always reaped. Throws
/// process_error for what the child does, std::system_error when this machine refuses (no descriptors left
/// and the like).
///
/// Threads: one at a time.
class child_process {
public:
    /// Starts the program; returns when it is executing. Throws failure::start_failed otherwise.
    explicit child_process(const launch& how);
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
    ~child_process() = default;

    enum class line_end { newline, end_of_output, too_long, time_up };
    struct output_line {
        std::string text; ///< without the newline; as far as it came when there is none
        line_end end;
    };
    /// Waits for the first line on standard output, of at most `limit` bytes.
    output_line first_line(std::size_t limit, milliseconds timeout);
    /// Waits until nobody can write to standard output any more and returns all of it. Throws
    /// failure::timed_out.
    std::string standard_output(milliseconds timeout);
    /// What was written to standard error so far, that is all of it when the process has ended. Empty unless
    /// captured.
    std::string standard_error();

    /// Sends a signal; false when the process has been reaped already.
    bool signal(int number) { return m_process.signal(number); }
    /// Waits for the end; throws failure::timed_out. May be called again.
    exit_status wait_for_exit(milliseconds timeout);
    /// As wait_for_exit(), but nullopt when time is up.
    std::optional<exit_status> try_wait_for_exit(milliseconds timeout);

    pid_t pid() const { return m_process.pid(); }
    const std::string& path() const { return m_path; }

private:
    struct streams {
        pipe_ends output;
        pipe_ends errors; ///< none: inherited
    };

    child_process(const launch& how, streams ends);
    static streams new_streams(const launch& how);
    static pid_t spawn(const launch& how, const streams& ends);

    std::string m_path;
    output_collector m_output;
    std::optional<output_collector> m_errors; ///< none: inherited
    process_handle m_process;                 ///< last, so that it ends while its output is still read
};

} // namespace tarvik
