#pragma once

#include <unistd.h>

#include <utility>

namespace tarvik {

/// Sole owner of a file descriptor; closes it on destruction.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int descriptor) : m_descriptor(descriptor) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~unique_fd() { reset(); }

    void reset()
    {
        if (m_descriptor >= 0)
            ::close(std::exchange(m_descriptor, -1));
    }

    int get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

private:
    int m_descriptor = -1; ///< -1: none
};

/// Throws std::system_error("`call`") when `descriptor` is -1; otherwise takes it over, moved out of the way
/// of the standard streams, onto which it may have to be copied.
unique_fd own_descriptor(int descriptor, const char* call);

struct pipe_ends {
    unique_fd reading;
    unique_fd writing;
};

/// A pipe whose ends are closed by exec. Throws std::system_error.
pipe_ends new_pipe();

} // namespace tarvik
