#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "common/process/child_process.h"
#include "front_end/src/bytes.h"
#include "front_end/src/frame.h"
#include "support/raw_connection.h"

namespace target {

/// A frame that crossed the wire.
struct frame {
    bool is_request;
    tarvik::frame_header header;
    tarvik::bytes payload;
};

/// The real program and the wire to it. Unlike the front-end library it lets a request and its reply be far
/// apart, and shows every frame. What fails throws, as in that library.
class conversation {
public:
    /// Starts the program, which then awaits its front-end.
    explicit conversation(const tarvik::launch& how);

    void connect() { m_wire.emplace(m_port); }

    /// Sends any request; its `size` becomes the payload's.
    void put(tarvik::frame_header header, tarvik::byte_view payload);
    /// Sends one of an open connection.
    void put(tarvik::request_code code, std::uint32_t value = 0, tarvik::byte_view payload = {});
    /// Takes the next reply. Throws std::runtime_error for one that carries a wrong id.
    tarvik::reply take_reply(tarvik::milliseconds timeout = support::kPatience);
    /// A request and its reply.
    tarvik::reply ask(tarvik::request_code code, std::uint32_t value, tarvik::byte_view payload = {},
                      tarvik::milliseconds timeout = support::kPatience);
    /// What comes until the program closes the connection.
    tarvik::bytes read_to_end() { return m_wire.value().read_to_end(); }

    /// Shows every frame from now on.
    void observe(std::function<void(const frame&)> observer) { m_observer = std::move(observer); }

    int port() const { return m_port; }
    tarvik::child_process& process() { return m_process; }

private:
    tarvik::child_process m_process;
    int m_port;
    std::optional<support::raw_connection> m_wire; ///< none: not connected
    std::function<void(const frame&)> m_observer = [](const frame&) {};
};

} // namespace target
