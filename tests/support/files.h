#pragma once

#include <string>

namespace support {

/// All of a file; empty when it cannot be read.
std::string read_file(const std::string& path);

} // namespace support
