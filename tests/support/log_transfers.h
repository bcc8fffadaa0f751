#pragma once

#include <string>
#include <vector>

namespace support {

/// A log in the form of log_dialogue(), with each transfer on the connection that took several calls shown as
/// if it had taken one, as far as it came: how many the kernel needs cannot be known. Calls that moved
/// nothing or do not add up are left as they are.
std::vector<std::string> with_whole_transfers(const std::vector<std::string>& log);

} // namespace support
