#pragma once

#include <memory>
#include <vector>

#include "tvkintif/src/ipc_header.h"

class payload_buffer;
class transceiver;

/// The framed conversation with the one front-end: reads a request (header and payload), sends a reply.
///
/// Owns the socket under it. The connection is made by the first transfer. All transfers block; signals
/// 15 and 2 are held back during each system call, so that none of them cuts a transfer in half.
/// Transfers return a byte count, or one of the two constants below; their causes are in the log.
///
/// Threads: one at a time.
class ipc_connection {
public:
    static constexpr int kFailed = -1;
    static constexpr int kPeerClosed = -2;

    /// How long nothing may come, or be taken, before a transfer ends.
    static constexpr unsigned int kTimeoutSeconds = 300;

    /// Waits on a port that the kernel chooses.
    ipc_connection();
    /// Waits on the given port.
    explicit ipc_connection(int port);
    ipc_connection(const ipc_connection&) = delete;
    ipc_connection& operator=(const ipc_connection&) = delete;
    ~ipc_connection();

    /// The TCP port on 127.0.0.1 where the front-end is awaited.
    int port() const;

    /// Whether nobody has connected in time, and nobody can come to know the port any more: standard output,
    /// on which it was told, is a pipe that has lost its reader.
    bool is_abandoned() const;

    /// Reads one message. `payload` becomes exactly the announced length, but for a length of 0 it is left
    /// untouched. Returns the payload's length, kFailed or kPeerClosed. An impossible length throws.
    int read(ipc_header& header, payload_buffer& payload);

    /// Success, with `size` bytes of `data` unless there are none.
    void send_ok(unsigned int id, const void* data, int size);
    /// Success, with the payload if it is not empty. Returns the last transfer's result.
    int send_ok(unsigned int id, payload_buffer& payload);
    /// Failure. Returns the transfer's result.
    int send_ng(unsigned int id);
    /// Refusal: failure with the one byte 0x15. Returns the last transfer's result.
    int send_nak(unsigned int id);

    /// General senders. The forms that take a header send it as it lies in memory: every field already in
    /// network byte order. Return the payload transfer's result, 0 for an empty payload, kFailed when the
    /// header could not be sent or `data` is null though `size` is not 0.
    int write(unsigned int id, unsigned int error, const void* data, int size);
    int write(unsigned int id, unsigned int error, std::vector<unsigned char>& payload);
    int write(ipc_header header, const void* data, int size);
    int write(ipc_header header, std::vector<unsigned char>& payload);

private:
    int send_reply(const ipc_header& header, const void* data, unsigned int size);
    // The way of all bytes. The first of these calls waits for the front-end to connect.
    int send(const void* data, unsigned int size);

    std::unique_ptr<transceiver> m_transceiver;
};
