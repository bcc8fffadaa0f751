#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

#include "common/process/deadline.h"
#include "common/process/unique_fd.h"

namespace tarvik {

/// Takes everything that arrives on a pipe, keeps the beginning and counts the rest. A thread of its own
/// reads it, so that whoever writes is never held up by a full pipe while this process waits for something
/// else.
///
/// Owns the reading end. Threads: any.
class output_collector {
public:
    static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

    /// Takes over the reading end of a pipe, of which the first `kept` bytes are kept. Throws
    /// std::system_error.
    explicit output_collector(unique_fd pipe, std::size_t kept = kAll);
    output_collector(const output_collector&) = delete;
    output_collector& operator=(const output_collector&) = delete;
    /// Stops reading, even if the other end is still open somewhere.
    ~output_collector();

    /// Waits until the first line is complete, the text is longer than `limit`, or nobody can write any more.
    /// False when the deadline came first.
    bool wait_for_first_line(std::size_t limit, const deadline& until);
    /// Waits until nobody can write any more. False when the deadline came first.
    bool wait_for_end(const deadline& until);
    /// What was written up to this call, as far as it is kept.
    std::string text();
    /// Number of all bytes that were written up to this call.
    std::uint64_t size();

private:
    void collect();
    void drain();
    bool take_piece();
    template <typename Condition>
    bool wait(const deadline& until, Condition is_enough);

    const std::size_t m_kept; ///< bytes at the most
    unique_fd m_pipe;         ///< never blocks
    pipe_ends m_stop;         ///< closing its writing end ends the thread
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_text;       ///< under m_mutex
    std::uint64_t m_size = 0; ///< under m_mutex
    bool m_hasEnded = false;  ///< under m_mutex; nobody can write any more
    std::thread m_thread;
};

} // namespace tarvik
