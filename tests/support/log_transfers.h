#pragma once

#include <string>
#include <vector>

namespace support {

/// A log in the form of log_dialogue(), with each transfer on the connection that took several calls shown as
/// if it had taken one: how many the kernel needs cannot be known. A transfer whose calls do not add up is
/// left as it is.
std::vector<std::string> with_whole_transfers(const std::vector<std::string>& log);

} // namespace support
