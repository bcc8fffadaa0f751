#include "support/clock_seam.h"

#include <unistd.h>

#include <atomic>
#include <string>

#include "support/dialogue.h"

namespace support {

namespace {

constexpr std::time_t kRealTime = -1;
std::atomic<std::time_t> fixed_time = kRealTime;

std::time_t real_time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

} // namespace

void set_time(std::optional<std::time_t> now)
{
    fixed_time = now.value_or(kRealTime);
}

} // namespace support

extern "C" {

unsigned int sleep(unsigned int seconds)
{
    support::record("sleep " + std::to_string(seconds));
    return 0;
}

int usleep(useconds_t microseconds)
{
    support::record("usleep " + std::to_string(microseconds));
    return 0;
}

time_t time(time_t* result) noexcept
{
    const std::time_t fixed = support::fixed_time;
    const std::time_t now = fixed == support::kRealTime ? support::real_time() : fixed;
    if (result != nullptr)
        *result = now;
    return now;
}
}
