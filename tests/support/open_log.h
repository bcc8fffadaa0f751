#pragma once

#include <optional>

namespace support {

/// Starts this process's own log afresh, as the program does at start: log directory made, level set (INFO
/// when absent), settings read again.
void open_log(std::optional<int> level = std::nullopt);

/// Ends it: no log directory, settings read again, every level disabled.
void close_log();

} // namespace support
