#include "common/process/output_collector.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tarvik {

namespace {

constexpr std::size_t kPieceSize = 4096;
constexpr int kPiecesAtOnce = 16; // a pipe's capacity

/// Signals are left to the threads that the rest of the process knows of.
class all_signals_blocked {
public:
    all_signals_blocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    all_signals_blocked(const all_signals_blocked&) = delete;
    all_signals_blocked& operator=(const all_signals_blocked&) = delete;
    ~all_signals_blocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before = {};
};

} // namespace

output_collector::output_collector(unique_fd pipe, std::size_t kept)
    : m_kept(kept), m_pipe(std::move(pipe)), m_stop(new_pipe())
{
    if (fcntl(m_pipe.get(), F_SETFL, O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "fcntl");
    const all_signals_blocked in_the_thread;
    m_thread = std::thread([this] { collect(); });
}

output_collector::~output_collector()
{
    m_stop.writing.reset();
    m_thread.join();
}

bool output_collector::wait_for_first_line(std::size_t limit, const deadline& until)
{
    return wait(until, [&] { return m_text.find('\n') != std::string::npos || m_text.size() > limit; });
}

bool output_collector::wait_for_end(const deadline& until)
{
    return wait(until, [] { return false; });
}

std::string output_collector::text()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    drain();
    return m_text;
}

std::uint64_t output_collector::size()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    drain();
    return m_size;
}

template <typename Condition>
bool output_collector::wait(const deadline& until, Condition is_enough)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    drain();
    return m_changed.wait_until(lock, until.when(), [&] { return m_hasEnded || is_enough(); });
}

void output_collector::collect()
{
    for (;;) {
        std::array<pollfd, 2> asked = {{{m_pipe.get(), POLLIN, 0}, {m_stop.reading.get(), POLLIN, 0}}};
        if (poll(asked.data(), asked.size(), -1) < 0 || asked[1].revents != 0)
            return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        drain();
        m_changed.notify_all();
        if (m_hasEnded)
            return;
    }
}

/// Takes what is there, up to a full pipe: a writer that never stops must not hold this up.
void output_collector::drain()
{
    for (int piece = 0; piece < kPiecesAtOnce; ++piece)
        if (!take_piece())
            return;
}

bool output_collector::take_piece()
{
    std::array<char, kPieceSize> piece;
    const ssize_t count = ::read(m_pipe.get(), piece.data(), piece.size());
    m_hasEnded = count == 0;
    if (count <= 0)
        return false;
    const auto size = static_cast<std::size_t>(count);
    m_size += size;
    m_text.append(piece.data(), std::min(size, m_kept - m_text.size()));
    return true;
}

} // namespace tarvik
