#pragma once

#include <ctime>
#include <optional>

/// Linking this library puts its own sleep(), usleep() and time() before those of the C library: the two
/// sleeps return at once and leave a line in the dialogue ("sleep 3", "usleep 100"), and the calendar time
/// can be set.
namespace support {

/// What time() answers from now on; without a value, the real time again.
void set_time(std::optional<std::time_t> now);

} // namespace support
