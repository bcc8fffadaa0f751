#include "support/wait_until.h"

#include <thread>

namespace support {

bool wait_until(std::chrono::milliseconds deadline, const std::function<bool()>& condition)
{
    constexpr std::chrono::milliseconds kBetweenLooks{1};
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(kBetweenLooks);
    }
    return true;
}

} // namespace support
