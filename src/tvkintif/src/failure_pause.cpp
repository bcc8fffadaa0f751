#include "tvkintif/src/failure_pause.h"

#include <unistd.h>

#include <algorithm>

void failure_pause::failed(clock::time_point now)
{
    const bool is_close = m_isInARow && now - m_over <= kLongest;
    m_isInARow = true;
    m_over = now;
    if (!is_close) {
        m_next = m_first;
        return;
    }
    usleep(static_cast<useconds_t>(std::chrono::microseconds(m_next).count()));
    m_over += m_next;
    m_next = std::min(2 * m_next, kLongest);
}
