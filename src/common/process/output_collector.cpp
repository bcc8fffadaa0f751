#include "common/process/output_collector.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tarvik {

namespace {

/// Signals are the business of the threads that the front-end knows of.
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

output_collector::output_collector(unique_fd pipe) : m_pipe(std::move(pipe)), m_stop(new_pipe())
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

template <typename Condition>
bool output_collector::wait(const deadline& until, Condition is_enough)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    drain();
    return m_changed.wait_until(lock, until.when(), [&] { return m_has_ended || is_enough(); });
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
        if (m_has_ended)
            return;
    }
}

void output_collector::drain()
{
    std::array<char, 4096> some;
    ssize_t count = 0;
    while ((count = ::read(m_pipe.get(), some.data(), some.size())) > 0)
        m_text.append(some.data(), static_cast<std::size_t>(count));
    if (count == 0)
        m_has_ended = true;
}

} // namespace tarvik
