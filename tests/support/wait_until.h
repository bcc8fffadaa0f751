#pragma once

#include <chrono>
#include <functional>

namespace support {

/// How long to wait for anything that should come at once.
inline constexpr std::chrono::milliseconds kPatience{30'000};

/// Waits for `condition` to hold, for at most `deadline` from now; false when it never did.
bool wait_until(std::chrono::milliseconds deadline, const std::function<bool()>& condition);

} // namespace support
