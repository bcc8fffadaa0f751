#include "tvkctl/src/terminal/progress_line.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::milliseconds kPeriod{200}; // often enough to look alive, seldom enough to be read
constexpr const char* kWipe = "\r\033[K";

} // namespace

progress_line::progress_line(std::ostream& to, std::uint64_t total, clock now)
    : m_to(to), m_total(total), m_now(std::move(now)), m_start(m_now()), m_next(m_start + kPatience)
{
}

progress_line::~progress_line()
{
    if (m_isShown)
        m_to << kWipe << std::flush;
}

void progress_line::add(std::uint64_t count)
{
    m_done += count;
    const auto now = m_now();
    if (now < m_next)
        return;
    show(now);
    m_next = now + kPeriod;
}

void progress_line::show(std::chrono::steady_clock::time_point now)
{
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = static_cast<double>(m_done) / seconds;
    const std::uint64_t left = m_total - std::min(m_done, m_total);
    const double seconds_left = rate > 0 ? std::ceil(static_cast<double>(left) / rate) : 0;
    m_to << kWipe << size_text(m_done) << " of " << size_text(m_total) << ", "
         << size_text(static_cast<std::uint64_t>(rate)) << "/s, " << std::llround(seconds_left) << " s left"
         << std::flush;
    m_isShown = true;
}

} // namespace tarvik::tvkctl
