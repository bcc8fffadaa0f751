#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/process/child_process.h"
#include "common/process/deadline.h"
#include "common/process/exit_status.h"
#include "front_end/src/bytes.h"
#include "front_end/src/connection.h"
#include "front_end/src/frame.h"
#include "front_end/src/framed_connection.h"
#include "front_end/src/front_end_error.h"

namespace tarvik {

/// Starting takes a moment; an emulated machine under load is slow.
constexpr milliseconds kStartTimeout{20'000};
constexpr milliseconds kConnectTimeout{10'000};
/// Longer than an open without a device, and than one transfer without an answer, of which a plugin may make
/// several (docs/protocol.md has the times).
constexpr milliseconds kRequestTimeout{180'000};
/// The program ends after the request in hand, and a plugin may talk to the device when it is closed.
constexpr milliseconds kExitTimeout{180'000};

/// The front-end's side of the program: starts it (or joins a running one), speaks the protocol with it, ends
/// it.
///
///     front_end scanner(launch{"/usr/bin/tvkintif"});
///     scanner.connect();
///     if (scanner.open("usb:1a2b:3c4d"))
///         picture = scanner.recv(512).payload;
///     scanner.close();
///     const auto status = scanner.finish();
///
/// Owns the process that it started and the connection. On destruction a process that still runs loses its
/// connection and is told to end; if it has not after a second, it is killed. An attached process belongs to
/// somebody else and is left alone but for its connection.
///
/// Errors: ng and nak are replies, and returned. Anything else (time is up, the stream ends, a reply breaks
/// the protocol) throws front_end_error; the connection is then in the middle of something, and of no more
/// use. Requests without connect() throw std::logic_error.
///
/// Threads: one at a time.
class front_end {
public:
    /// Starts the program and takes its port line; `timeout` covers both. Does not connect. Throws
    /// failure::start_failed, exited_early, start_refused, bad_port_line or timed_out.
    explicit front_end(const launch& how, milliseconds timeout = kStartTimeout);
    /// Attaches to a process that somebody else started and that waits on `port`. Does not connect.
    explicit front_end(int port);
    front_end(const front_end&) = delete;
    front_end& operator=(const front_end&) = delete;
    ~front_end();

    /// Connects to the port. The program takes one connection in its life.
    void connect(milliseconds timeout = kConnectTimeout);

    /// Opens the scanner with this address. After ng the program ends.
    reply open(const std::string& udi, milliseconds timeout = kRequestTimeout);
    /// Passes bytes to the scanner. With no bytes at all the program passes zeros, as many as its last
    /// payload had.
    reply send(byte_view data, milliseconds timeout = kRequestTimeout);
    /// Takes `count` bytes from the scanner in one request.
    reply recv(std::uint32_t count, milliseconds timeout = kRequestTimeout);

    /// How far a receive in several requests came.
    struct received {
        std::uint64_t count; ///< bytes that went to the sink
        reply::verdict last; ///< of the last request; anything but ok ended the receive
    };
    /// Takes `total` bytes in requests of `per_request` bytes each (the last one may be smaller), handing
    /// them on as they come; what came before a failure has been handed on when it is thrown. What `take`
    /// throws reaches the caller. `timeout` counts for each request. Throws std::invalid_argument for a
    /// `per_request` of 0.
    received recv(std::uint64_t total, std::uint32_t per_request, const byte_sink& take,
                  milliseconds timeout = kRequestTimeout);

    /// Asks for the four bytes that selector 1 or 2 has; ng for any other.
    reply query(std::uint32_t selector, milliseconds timeout = kRequestTimeout);
    /// Tells the program to close the scanner and to end. There is no reply: finish() waits for the end.
    void close(milliseconds timeout = kRequestTimeout);

    /// Closes the connection, if there is one, and waits for the process's end; its status. nullopt for an
    /// attached process, whose status is its parent's to know. Throws failure::timed_out.
    std::optional<exit_status> finish(milliseconds timeout = kExitTimeout);
    /// Closes the connection; harmless when there is none.
    void disconnect() { m_frames.reset(); }

    /// The process that was started. Throws std::logic_error for an attached one.
    child_process& process();

    int port() const { return m_port; }

private:
    reply exchange(const frame_header& header, byte_view payload, std::uint32_t ok_size,
                   const std::string& step, milliseconds timeout);
    reply::verdict recv_part(std::uint32_t count, std::uint64_t offset, const byte_sink& take,
                             milliseconds timeout);
    framed_connection& frames();
    template <typename Step>
    auto with_exit_status(Step step);

    std::unique_ptr<child_process> m_process; ///< null: attached
    int m_port;
    std::unique_ptr<framed_connection> m_frames; ///< null: not connected
};

} // namespace tarvik
