#include "common/process/interrupts.h"

#include <poll.h>

#include <algorithm>

#include "common/process/deadline.h"

namespace tarvik {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void note_interrupt(int)
{
    g_interrupted = 1;
}

} // namespace

interrupt_watch::interrupt_watch()
{
    g_interrupted = 0;
    struct sigaction once = {};
    once.sa_handler = note_interrupt;
    once.sa_flags = static_cast<int>(SA_RESETHAND); // the macro is unsigned, the field is not
    sigaction(SIGINT, &once, &m_onInterrupt);
    sigaction(SIGTERM, &once, &m_onTerminate);
}

interrupt_watch::~interrupt_watch()
{
    sigaction(SIGINT, &m_onInterrupt, nullptr);
    sigaction(SIGTERM, &m_onTerminate, nullptr);
}

bool interrupt_watch::was_interrupted()
{
    return g_interrupted != 0;
}

bool interrupt_watch::pause(std::chrono::milliseconds time)
{
    // A signal that comes just before a wait does not end it: waiting is done in short pieces.
    constexpr std::chrono::milliseconds piece{100};
    const deadline until(time);
    while (!was_interrupted() && until.left().count() > 0)
        poll(nullptr, 0, static_cast<int>(std::min(until.left(), piece).count()));
    return !was_interrupted();
}

} // namespace tarvik
