#pragma once

#include <string>

#include "tvkintif/src/failure_pause.h"

/// One TCP connection on IPv4, in one of two forms. The server form listens on 127.0.0.1, accepts exactly
/// one peer and closes its listening socket; the client form connects to a host. Either way the connection
/// is made by the first operation that needs it.
///
/// Owns both sockets and closes them on destruction. A socket whose bind, name lookup or connect failed is
/// the exception, on purpose: the object only forgets it, and a later call starts with a new one; binds that
/// go on failing forget no more than one a second. Nothing throws; failures are told by the result, and their
/// cause in the log.
///
/// Threads: one at a time.
class transceiver {
public:
    /// Client form: will connect to `host`:`port`. `timeout` in seconds bounds every wait on the socket,
    /// 0 means no bound.
    transceiver(std::string host, int port, unsigned int timeout);
    /// Server form: will listen on `port`, or on one that the kernel chooses if it is 0.
    transceiver(int port, unsigned int timeout);
    transceiver(const transceiver&) = delete;
    transceiver& operator=(const transceiver&) = delete;
    ~transceiver();

    unsigned int get_timeout() const { return m_nTimeout; }
    /// Stores the time-out and applies it to the connected socket; false when there is none.
    bool set_timeout(unsigned int timeout);

    /// Server form: makes the listening socket, unless it or the connection exists. From then on a peer
    /// can connect and waits in the queue until it is accepted.
    bool bind();
    /// The port, bound if need be.
    int port();
    /// Server form: waits for the one peer, at most for the time-out. The listening socket is closed even if
    /// nobody came; unless a signal ended the wait, another one has the same port from then on.
    bool accept();
    /// Whether the last accept() ended because nobody came in time.
    bool has_timed_out() const { return m_isTimedOut; }
    /// Client form: connects, unless connected.
    bool connect();
    /// Makes the connection in whichever form.
    bool establish();
    /// As establish(), and returns the descriptor of the connected socket; -1 on failure. Stays owned here.
    int establish_socket();
    operator int() { return establish_socket(); }

    /// Writes all `length` bytes; false as soon as one call moves nothing.
    bool send(const void* data, unsigned int length);
    /// Reads exactly `length` bytes, or with `peek` leaves them queued; false as soon as one call brings
    /// nothing.
    bool recv(void* buffer, unsigned int length, bool peek);
    /// Whether a byte is waiting, without waiting for one; false also at the end of the stream.
    bool can_recv();

    /// Closes both sockets; harmless when there are none.
    void close();

private:
    void forget_listening();
    void listen_anew();

    int m_nListening = -1; ///< -1: none
    int m_nConnected = -1; ///< -1: none
    int m_nPort;           ///< as asked for, then as bound
    unsigned int m_nTimeout;
    bool m_isClient;
    bool m_isTimedOut = false;
    std::string m_host;
    failure_pause m_forgetting{failure_pause::kLongest};
};
