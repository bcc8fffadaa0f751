#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/process/unique_fd.h"
#include "front_end/src/bytes.h"
#include "support/bytes.h"

/// Thirty-two bits, big-endian, as hexadecimal digits.
std::string word(std::uint32_t number);

/// The accepted side of a scripted peer's connection. Throws std::runtime_error when the other side does not
/// play along.
class peer_side {
public:
    explicit peer_side(tarvik::unique_fd socket) : m_socket(std::move(socket)) {}

    void expect(const tarvik::bytes& wanted);
    void answer(const tarvik::bytes& data);
    /// The other side has ended its stream and sent nothing more.
    void expect_end();
    /// The other side has ended the connection with a reset.
    void expect_reset();
    /// The other side has ended the connection, in whichever way, and sent nothing more.
    void await_end();
    void reset();
    void close() { m_socket.reset(); }
    int descriptor() const { return m_socket.get(); }

private:
    tarvik::unique_fd m_socket;
};

using peer_step = std::function<void(peer_side&)>;
peer_step expects(const tarvik::bytes& wanted);
peer_step answers(const tarvik::bytes& data);
peer_step expects_end();
peer_step expects_reset();
peer_step closes();
peer_step resets();
peer_step waits_for(std::shared_future<void> event);

/// Plays the program on a port of its own: takes one connection, goes through its steps, and then waits for
/// the other side to end, unless a step has ended the connection. A step that fails is a failure of the
/// running test. Every wait is bounded.
class scripted_peer {
public:
    explicit scripted_peer(std::vector<peer_step> steps);
    scripted_peer(const scripted_peer&) = delete;
    scripted_peer& operator=(const scripted_peer&) = delete;
    /// Waits until all steps are done.
    ~scripted_peer() { finish(); }

    int port() const { return m_port; }
    void finish();

private:
    void play(const std::vector<peer_step>& steps);

    tarvik::unique_fd m_listening;
    int m_port;
    std::thread m_thread;
};

/// A socket bound to a port of its own on 127.0.0.1, on which nobody listens yet.
class bound_socket {
public:
    bound_socket();

    int port() const { return m_port; }
    int descriptor() const { return m_socket.get(); }
    tarvik::unique_fd release() { return std::move(m_socket); }

private:
    tarvik::unique_fd m_socket;
    int m_port = 0;
};
