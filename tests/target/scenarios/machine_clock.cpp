#include "target/scenarios/machine_clock.h"

#include <time.h>

#include <cerrno>
#include <system_error>

namespace target {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

nanoseconds read(clockid_t clock)
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

bool write(nanoseconds since_epoch)
{
    const auto whole = std::chrono::duration_cast<seconds>(since_epoch);
    timespec time{};
    time.tv_sec = static_cast<std::time_t>(whole.count());
    time.tv_nsec = static_cast<long>((since_epoch - whole).count());
    return ::clock_settime(CLOCK_REALTIME, &time) == 0;
}

} // namespace

machine_clock::machine_clock() : m_start(read(CLOCK_REALTIME) - read(CLOCK_MONOTONIC)) {}

machine_clock::~machine_clock()
{
    write(m_start + read(CLOCK_MONOTONIC));
}

void machine_clock::set(nanoseconds since_epoch)
{
    if (!write(since_epoch))
        throw std::system_error(errno, std::generic_category(), "set the clock");
}

} // namespace target
