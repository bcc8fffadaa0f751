#pragma once

#include <string>

namespace virtual_scanner {

/// Owns one file descriptor, or none.
class posix_file {
public:
    posix_file() = default;
    /// Opens `path` with the flags of open(2). Throws std::system_error, naming the path.
    posix_file(const std::string& path, int flags);
    posix_file(posix_file&& other) noexcept;
    posix_file& operator=(posix_file&& other) noexcept;
    posix_file(const posix_file&) = delete;
    posix_file& operator=(const posix_file&) = delete;
    ~posix_file();

    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor = -1;
};

/// Kernel attributes want their text in one write. Throws std::system_error, naming the path.
void write_attribute(const std::string& path, const std::string& text);

/// Throws the error in errno with `what` in front.
[[noreturn]] void throw_errno(const std::string& what);

} // namespace virtual_scanner
