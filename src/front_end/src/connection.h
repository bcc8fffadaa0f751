#pragma once

#include <cstddef>
#include <string>

#include "common/process/deadline.h"
#include "common/process/unique_fd.h"
#include "front_end/src/bytes.h"

namespace tarvik {

/// Ports are numbers from 1 to this one.
constexpr int kLargestPort = 65535;

/// One move of bytes, in as many system calls as it takes: what it is for, how long it may take, how far it
/// got. Errors say all of it.
struct transfer {
    std::string step;      ///< "recv 512 bytes"
    std::string expected;  ///< "a reply's header of 20 bytes"
    deadline until;        ///< for all of it
    std::size_t moved = 0; ///< bytes so far
};

/// A TCP connection to the program, as plain bytes: knows nothing of frames.
///
/// Owns the socket. Every wait ends at its deadline. Failures are front_end_error: timed_out,
/// connection_lost, and end_of_stream where the peer's end comes too early. No signal is raised when the
/// peer is gone.
///
/// Threads: one at a time.
class connection {
public:
    /// Connects to 127.0.0.1. Throws failure::connection_refused, connect_failed or timed_out.
    connection(int port, milliseconds timeout);
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    ~connection() = default;

    /// Writes all of `head` and `body`, together in one system call as far as the kernel takes them.
    void write(byte_view head, byte_view body, transfer& what);
    /// Fills `buffer` with exactly `size` bytes.
    void read(void* buffer, std::size_t size, transfer& what);

    /// For socket options and to wait for other events; stays owned here.
    int descriptor() const { return m_socket.get(); }

private:
    std::size_t receive(void* buffer, std::size_t size, transfer& what);

    unique_fd m_socket; ///< never blocks
};

} // namespace tarvik
