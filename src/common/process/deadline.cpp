#include "common/process/deadline.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace tarvik {

namespace {

/// poll() takes an int; a longer wait is made of several.
int poll_timeout(milliseconds left)
{
    constexpr milliseconds::rep longest = std::numeric_limits<int>::max();
    return static_cast<int>(std::min<milliseconds::rep>(left.count(), longest));
}

} // namespace

deadline::deadline(milliseconds timeout)
    : m_timeout(timeout), m_when(std::chrono::steady_clock::now() + timeout)
{
}

milliseconds deadline::left() const
{
    const auto rest = std::chrono::ceil<milliseconds>(m_when - std::chrono::steady_clock::now());
    return std::max(rest, milliseconds::zero());
}

bool wait_until_ready(int descriptor, short events, const deadline& until)
{
    for (;;) {
        pollfd asked = {descriptor, events, 0};
        const milliseconds left = until.left();
        const int ready = poll(&asked, 1, poll_timeout(left));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        if (ready == 0 && left == milliseconds::zero())
            return false;
    }
}

} // namespace tarvik
