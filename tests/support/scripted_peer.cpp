#include "support/scripted_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

using tarvik::bytes;
using tarvik::unique_fd;

namespace {

constexpr int kPatience = 10; ///< seconds that any wait of the peer may take

void bound_waits(int socket)
{
    timeval limit = {};
    limit.tv_sec = kPatience;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error("scripted peer: " + what);
}

/// As recv(), of which a signal may not make a failure: the tests start and end processes.
ssize_t receive(int socket, void* buffer, std::size_t size)
{
    return TEMP_FAILURE_RETRY(recv(socket, buffer, size, 0));
}

unique_fd accepted(int listening)
{
    const auto socket = TEMP_FAILURE_RETRY(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    return tarvik::own_descriptor(static_cast<int>(socket), "accept4");
}

bytes received(int socket, std::size_t size)
{
    bytes data(size);
    std::size_t taken = 0;
    ssize_t count = 1;
    while (taken < size && (count = receive(socket, data.data() + taken, size - taken)) > 0)
        taken += static_cast<std::size_t>(count);
    data.resize(taken);
    return data;
}

} // namespace

std::string word(std::uint32_t number)
{
    const std::string digits = "0123456789abcdef";
    std::string text;
    for (unsigned int shift = 32; shift > 0; shift -= 4)
        text += digits[number >> (shift - 4) & 15];
    return text + " ";
}

void peer_side::expect(const bytes& wanted)
{
    const bytes came = received(descriptor(), wanted.size());
    if (came != wanted)
        fail("expected " + tarvik::in_quotes(wanted) + ", got " + tarvik::in_quotes(came));
}

void peer_side::answer(const bytes& data)
{
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t count = send(descriptor(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            fail("could not answer: " + std::generic_category().message(errno));
        sent += static_cast<std::size_t>(count);
    }
}

void peer_side::expect_end()
{
    char byte = 0;
    const ssize_t count = receive(descriptor(), &byte, 1);
    if (count != 0)
        fail(count > 0 ? "expected the end, got more bytes"
                       : "expected the end, got " + std::generic_category().message(errno));
}

void peer_side::expect_reset()
{
    char byte = 0;
    const ssize_t count = receive(descriptor(), &byte, 1);
    if (count != -1 || errno != ECONNRESET)
        fail("expected a reset, got " +
             (count >= 0 ? std::to_string(count) + " bytes" : std::generic_category().message(errno)));
}

void peer_side::await_end()
{
    char byte = 0;
    const ssize_t count = receive(descriptor(), &byte, 1);
    if (count > 0)
        fail("more bytes came than were expected");
    if (count < 0 && errno != ECONNRESET)
        fail("the other side did not end: " + std::generic_category().message(errno));
}

void peer_side::reset()
{
    const linger at_once = {1, 0};
    setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close();
}

peer_step expects(const bytes& wanted)
{
    return [wanted](peer_side& side) { side.expect(wanted); };
}

peer_step answers(const bytes& data)
{
    return [data](peer_side& side) { side.answer(data); };
}

peer_step expects_end()
{
    return [](peer_side& side) { side.expect_end(); };
}

peer_step expects_reset()
{
    return [](peer_side& side) {
        side.expect_reset();
        side.close();
    };
}

peer_step closes()
{
    return [](peer_side& side) { side.close(); };
}

peer_step resets()
{
    return [](peer_side& side) { side.reset(); };
}

peer_step waits_for(std::shared_future<void> event)
{
    return [event](peer_side&) {
        if (event.wait_for(std::chrono::seconds(kPatience)) != std::future_status::ready)
            fail("the event that it waits for did not happen");
    };
}

scripted_peer::scripted_peer(std::vector<peer_step> steps)
{
    bound_socket socket;
    bound_waits(socket.descriptor());
    listen(socket.descriptor(), 1);
    m_port = socket.port();
    m_listening = socket.release();
    m_thread = std::thread([this, steps = std::move(steps)] { play(steps); });
}

void scripted_peer::finish()
{
    if (m_thread.joinable())
        m_thread.join();
}

void scripted_peer::play(const std::vector<peer_step>& steps)
{
    try {
        peer_side side(accepted(m_listening.get()));
        m_listening.reset();
        bound_waits(side.descriptor());
        for (const peer_step& step : steps)
            step(side);
        if (side.descriptor() >= 0)
            side.await_end();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
        m_listening.reset(); // or the front-end would wait in the queue for a reply
    }
}

bound_socket::bound_socket()
    : m_socket(tarvik::own_descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address); // the sockets interface asks for it
    socklen_t length = sizeof address;
    if (bind(descriptor(), generic, length) != 0 || getsockname(descriptor(), generic, &length) != 0)
        throw std::system_error(errno, std::generic_category(), "bind to 127.0.0.1");
    m_port = ntohs(address.sin_port);
}
