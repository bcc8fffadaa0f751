#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

#include "common/process/deadline.h"
#include "common/process/unique_fd.h"

namespace tarvik {

/// Keeps everything that arrives on a pipe. A thread of its own reads it, so that whoever writes is never
/// held up by a full pipe while the front-end waits for something else.
///
/// Owns the reading end. Threads: any.
class output_collector {
public:
    /// Takes over the reading end of a pipe. Throws std::system_error.
    explicit output_collector(unique_fd pipe);
    output_collector(const output_collector&) = delete;
    output_collector& operator=(const output_collector&) = delete;
    /// Stops reading, even if the other end is still open somewhere.
    ~output_collector();

    /// Waits until the first line is complete, the text is longer than `limit`, or nobody can write any more.
    /// False when the deadline came first.
    bool wait_for_first_line(std::size_t limit, const deadline& until);
    /// Waits until nobody can write any more. False when the deadline came first.
    bool wait_for_end(const deadline& until);
    /// Everything that was written up to this call.
    std::string text();

private:
    void collect();
    void drain();
    template <typename Condition>
    bool wait(const deadline& until, Condition is_enough);

    unique_fd m_pipe; ///< never blocks
    pipe_ends m_stop; ///< closing its writing end ends the thread
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_text;       ///< under m_mutex
    bool m_has_ended = false; ///< under m_mutex; nobody can write any more
    std::thread m_thread;
};

} // namespace tarvik
