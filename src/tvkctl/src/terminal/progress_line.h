#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>

namespace tarvik::tvkctl {

/// One line on a terminal that follows a long transfer: how much of it has come, how fast, how long it will
/// still take. Appears when the transfer takes longer than a second, so that short ones leave no trace, and
/// wipes itself out at the end. Borrows the stream.
class progress_line {
public:
    using clock = std::function<std::chrono::steady_clock::time_point()>;

    /// `total` is the number of bytes that are to come.
    progress_line(std::ostream& to, std::uint64_t total, clock now = std::chrono::steady_clock::now);
    progress_line(const progress_line&) = delete;
    progress_line& operator=(const progress_line&) = delete;
    ~progress_line();

    void add(std::uint64_t count);

private:
    void show(std::chrono::steady_clock::time_point now);

    std::ostream& m_to;
    std::uint64_t m_total;
    std::uint64_t m_done = 0;
    clock m_now;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_next; ///< before that nothing is shown
    bool m_isShown = false;
};

} // namespace tarvik::tvkctl
