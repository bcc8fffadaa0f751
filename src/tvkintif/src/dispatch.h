#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "tvkintif/src/ipc_header.h"

class ipc_connection;
class payload_buffer;

/// Non-zero: finish the request in hand, then end. Only ever set to 1: by a termination signal, the end of
/// the connection, a close request, a failed open.
extern std::atomic<int> do_cleanup;
// libusb runs an event thread of its own, and a signal handler may run there.
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores into do_cleanup");

/// The server side of the protocol: reads the front-end's requests one after the other, has the scanner
/// session carry them out, and answers each with ok, ng or nak.
///
/// Owns the connection to the front-end; the session is the process's own (scanner::instance()) and is
/// closed when the loop ends and again on destruction. Catches nothing: an exception leaves run() and is
/// main's to report.
///
/// Threads: one. Signal handlers touch do_cleanup only.
class dispatch {
public:
    /// Bytes in the payload buffer before the first request, which an empty one passes on.
    static constexpr std::size_t kInitialPayloadSize = 1024;

    dispatch();
    dispatch(const dispatch&) = delete;
    dispatch& operator=(const dispatch&) = delete;
    ~dispatch();

    /// The TCP port on 127.0.0.1 where the front-end is awaited.
    int port() const;

    /// Opens the scanner named by `address`, outside the request loop.
    bool connect(const std::string& address);
    /// Closes the scanner, outside the request loop.
    void disconnect();

    /// Serves requests until do_cleanup is set, then closes the session.
    void run();

    /// Carries out one request and sends its reply. `payload` is the request's on entry; a receive request
    /// leaves the bytes that it replied with.
    void do_dispatch(ipc_header& header, payload_buffer& payload);

private:
    void open(payload_buffer& payload);
    void close();
    void send(const ipc_header& header, payload_buffer& payload);
    void recv(const ipc_header& header, payload_buffer& payload);
    void query(const ipc_header& header);

    std::unique_ptr<ipc_connection> m_connection;
};
