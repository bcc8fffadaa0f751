#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/bytes.h"

namespace unit {

using support::bytes;
using support::bytes_of;
using support::hex;

/// The other end of a connection on this machine, for tests. Owns its socket. Waits at most ten seconds for
/// anything, so that a test whose other side is silent fails and does not hang.
class peer {
public:
    /// Connects to `port`; see is_connected() and error().
    explicit peer(int port, const std::string& address = "127.0.0.1");
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    ~peer();

    bool is_connected() const { return m_error == 0; }
    /// Why it is not connected, as errno.
    int error() const { return m_error; }

    /// Sends everything; false when the connection does not take it.
    bool send(const bytes& data);
    /// `count` bytes, or fewer when the stream ends or nothing comes.
    bytes receive(std::size_t count);
    /// What comes until the stream ends.
    bytes receive_all();
    /// Whether the other side ended the connection, with nothing more to read.
    bool is_cut_off();
    /// Ends this side's stream; the other one can still be read.
    void end_stream();
    void close();
    /// Closes in such a way that the other side's next transfer fails.
    void reset();

private:
    int m_socket;
    int m_error = 0;
};

/// A socket that listens on a port of its own, for tests of the client form. Accepts up to its backlog
/// without being asked.
class listener {
public:
    listener();
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;
    ~listener();

    int port() const { return m_port; }
    /// Reads `count` bytes from the next connection, sends `answer` on it, and leaves it open.
    bytes serve(std::size_t count, const bytes& answer);

private:
    int m_socket;
    int m_connected = -1;
    int m_port = 0;
};

} // namespace unit
