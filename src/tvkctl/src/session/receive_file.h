#pragma once

#include <cstdint>
#include <string>

#include "common/process/unique_fd.h"
#include "front_end/src/bytes.h"

namespace tarvik::tvkctl {

/// A file that takes received bytes as they come: each write() has reached the file when it returns, so that
/// nothing is lost when the command ends early.
class receive_file {
public:
    /// Makes the file, or empties it, or goes to its end. Throws tool_error (kOutputFile).
    receive_file(const std::string& path, bool is_appended);

    /// Throws tool_error (kOutputFile).
    void write(byte_view piece);

private:
    std::string m_path;
    unique_fd m_file;
};

} // namespace tarvik::tvkctl
