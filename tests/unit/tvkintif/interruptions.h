#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "support/wait_until.h"

namespace unit {

/// Sends a signal to the thread that made it, again and again, while one lives; nothing else happens on it.
class interruptions {
public:
    explicit interruptions(int signal_number)
        : m_signal(signal_number), m_previous(std::signal(signal_number, count)),
          m_thread([this, target = pthread_self()] { interrupt(target); })
    {
    }
    interruptions(const interruptions&) = delete;
    interruptions& operator=(const interruptions&) = delete;
    ~interruptions()
    {
        m_isOver = true;
        m_thread.join();
        std::signal(m_signal, m_previous);
    }

    /// How many were sent so far.
    int sent() const { return m_sent; }
    /// How many arrived so far, since the start of the process.
    static int arrived() { return sm_arrived; }

private:
    static void count(int) { ++sm_arrived; }

    void interrupt(pthread_t target)
    {
        support::wait_until(std::chrono::seconds(30), [&] {
            pthread_kill(target, m_signal);
            ++m_sent;
            return m_isOver.load();
        });
    }

    static inline std::atomic<int> sm_arrived = 0; // lock-free, so a handler may touch it
    static_assert(std::atomic<int>::is_always_lock_free);

    int m_signal;
    void (*m_previous)(int);
    std::atomic<bool> m_isOver = false;
    std::atomic<int> m_sent = 0;
    std::thread m_thread;
};

} // namespace unit
