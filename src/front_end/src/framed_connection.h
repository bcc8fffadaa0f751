#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common/process/deadline.h"
#include "front_end/src/bytes.h"
#include "front_end/src/connection.h"
#include "front_end/src/frame.h"

namespace tarvik {

/// Takes bytes in order, in pieces of any size up to kPieceSize.
using byte_sink = std::function<void(byte_view)>;

/// Requests and replies on one connection: puts headers before payloads, tells ok, ng and nak apart, checks
/// that replies are as they must be.
///
/// Owns the connection. Failures are front_end_error with the caller's `step`, after which the connection
/// stands in the middle of a message. What a sink throws reaches the caller.
///
/// Threads: one at a time.
class framed_connection {
public:
    /// Connects to 127.0.0.1.
    framed_connection(int port, milliseconds timeout) : m_wire(port, timeout) {}

    /// Sends a request in one write; its `size` becomes the payload's.
    void put_request(frame_header header, byte_view payload, const std::string& step, const deadline& until);
    /// Takes a whole reply; an ok must have `ok_size` payload bytes.
    reply take_reply(std::uint32_t ok_size, const std::string& step, const deadline& until);
    /// Takes a reply, handing the payload of an ok to `take` as it comes: also what came before a failure.
    reply::verdict stream_reply(std::uint32_t ok_size, const byte_sink& take, const std::string& step,
                                const deadline& until);

private:
    frame_header take_header(std::uint32_t ok_size, const std::string& step, const deadline& until);
    void take_payload(const frame_header& header, const byte_sink& take, const std::string& step,
                      const deadline& until);

    connection m_wire;
};

} // namespace tarvik
