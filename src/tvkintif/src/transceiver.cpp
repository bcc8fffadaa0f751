#include "tvkintif/src/transceiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/log/logger.h"
#include "tvkintif/src/move_all.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "transceiver";
constexpr int kBacklog = 5;

template <typename T>
bool set_option(int descriptor, int option, const T& value)
{
    return setsockopt(descriptor, SOL_SOCKET, option, &value, sizeof value) == 0;
}

bool set_time_outs(int descriptor, unsigned int timeout)
{
    timeval limit = {};
    limit.tv_sec = static_cast<time_t>(timeout);
    return set_option(descriptor, SO_RCVTIMEO, limit) && set_option(descriptor, SO_SNDTIMEO, limit);
}

bool set_sock_opts(int descriptor, unsigned int timeout)
{
    const bool ok = set_option(descriptor, SO_REUSEADDR, 1) && set_option(descriptor, SO_KEEPALIVE, 0) &&
                    (timeout == 0 || set_time_outs(descriptor, timeout));
    if (!ok)
        Logger(kUnit, __LINE__, ESeveryLevel::error)("ERROR: setsockopt failed");
    return ok;
}

/// A reply goes out as two writes; without this the second one waits for the peer's delayed
/// acknowledgement of the first, some 40 ms each time.
void send_without_delay(int descriptor)
{
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// A helper that a plugin starts must not inherit the connection: it would keep a dead process's socket
/// open.
void close_on_exec(int descriptor)
{
    if (descriptor >= 0)
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

int new_socket()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    close_on_exec(descriptor);
    return descriptor;
}

sockaddr_in address_of(in_addr host, int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

/// The socket calls take every kind of address through one generic type.
template <typename Generic, typename Specific>
Generic* generic(Specific* address)
{
    return reinterpret_cast<Generic*>(address); // the sockets interface asks for this cast
}

bool bind_to_loopback(int descriptor, int port)
{
    const sockaddr_in address = address_of({htonl(INADDR_LOOPBACK)}, port);
    return ::bind(descriptor, generic<const sockaddr>(&address), sizeof address) == 0;
}

/// The port that the socket is bound to, or -1 with `errno` set.
int bound_port(int descriptor)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    if (getsockname(descriptor, generic<sockaddr>(&address), &length) != 0)
        return -1;
    return ntohs(address.sin_port);
}

int accept_peer(int descriptor)
{
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    const int connected = ::accept(descriptor, generic<sockaddr>(&peer), &length);
    close_on_exec(connected);
    return connected;
}

void close_socket(int& descriptor)
{
    if (descriptor <= 0)
        return;
    const int result = ::close(descriptor);
    descriptor = -1;
    if (result == -1)
        Logger(kUnit, __LINE__, ESeveryLevel::error)("ERROR: socket close failed");
}

} // namespace

transceiver::transceiver(std::string host, int port, unsigned int timeout)
    : m_nPort(port), m_nTimeout(timeout), m_isClient(true), m_host(std::move(host))
{
}

transceiver::transceiver(int port, unsigned int timeout)
    : m_nPort(port), m_nTimeout(timeout), m_isClient(false)
{
}

transceiver::~transceiver()
{
    close();
}

bool transceiver::set_timeout(unsigned int timeout)
{
    m_nTimeout = timeout;
    return set_sock_opts(m_nConnected, m_nTimeout);
}

bool transceiver::bind()
{
    if (m_isClient)
        return false;
    if (m_nConnected >= 1 || m_nListening >= 1)
        return true;
    m_nListening = new_socket();
    if (m_nListening < 0) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("bind socket fails");
        return false;
    }
    set_sock_opts(m_nListening, m_nTimeout);
    if (!bind_to_loopback(m_nListening, m_nPort)) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("bind fails");
        forget_listening();
        return false;
    }
    const int port = bound_port(m_nListening);
    if (port < 0) {
        std::fprintf(stderr, "%s\n", std::strerror(errno));
        Logger(kUnit, __LINE__, ESeveryLevel::info)("getsockname fails");
        forget_listening();
        return false;
    }
    m_forgetting.succeeded();
    m_nPort = port;
    // The port may be announced as soon as this returns: a front-end that connects at once must find it
    // open. Should it fail, accept() tries again.
    ::listen(m_nListening, kBacklog);
    return true;
}

int transceiver::port()
{
    bind();
    return m_nPort;
}

bool transceiver::accept()
{
    if (m_isClient)
        return false;
    if (m_nConnected >= 1)
        return true;
    if (m_nListening < 0)
        return false;
    ::listen(m_nListening, kBacklog);
    m_nConnected = accept_peer(m_nListening);
    const int cause = m_nConnected < 0 ? errno : 0;
    m_isTimedOut = cause == EAGAIN;
    set_sock_opts(m_nListening, m_nTimeout);
    // One peer only: whoever comes later is to be refused, not left waiting in the queue. A signal asks for
    // the end.
    if (cause == 0 || cause == EINTR)
        ::close(std::exchange(m_nListening, -1));
    else
        listen_anew();
    if (cause != 0)
        return false;
    set_sock_opts(m_nConnected, m_nTimeout);
    send_without_delay(m_nConnected);
    return true;
}

/// Exchanges the listening socket for a new one with the same port. Somebody else may be waiting for that
/// port: nothing happens between the close and the bind.
void transceiver::listen_anew()
{
    const int next = new_socket();
    if (next >= 0)
        set_sock_opts(next, m_nTimeout);
    ::close(std::exchange(m_nListening, -1));
    if (next < 0)
        return;
    if (!bind_to_loopback(next, m_nPort)) {
        ::close(next); // bind() tries again, and tells
        return;
    }
    m_nListening = next;
    ::listen(m_nListening, kBacklog);
}

/// Forgets the socket without closing it, on purpose.
void transceiver::forget_listening()
{
    m_nListening = -1;
    m_forgetting.failed();
}

bool transceiver::connect()
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("connect");
    if (!m_isClient)
        return false;
    if (m_nConnected >= 1)
        return true;
    m_nConnected = new_socket();
    if (m_nConnected < 0) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("socket fails");
        return false;
    }
    set_sock_opts(m_nConnected, m_nTimeout);
    send_without_delay(m_nConnected);
    const hostent* host = gethostbyname(m_host.c_str());
    if (host == nullptr) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("gethostbyname fails");
        m_nConnected = -1;
        return false;
    }
    in_addr first = {};
    std::memcpy(&first, host->h_addr_list[0], sizeof first);
    const sockaddr_in address = address_of(first, m_nPort);
    if (::connect(m_nConnected, generic<const sockaddr>(&address), sizeof address) != 0) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("connect fails");
        m_nConnected = -1;
        return false;
    }
    Logger(kUnit, __LINE__, ESeveryLevel::info)("connect ok");
    return true;
}

bool transceiver::establish()
{
    if (m_isClient)
        return connect();
    bind();
    return accept();
}

int transceiver::establish_socket()
{
    return establish() ? m_nConnected : -1;
}

bool transceiver::send(const void* data, unsigned int length)
{
    if (!establish())
        return false;
    const moved_bytes moved = move_all(length, [&](unsigned int offset, unsigned int rest) {
        return ::write(m_nConnected, static_cast<const char*>(data) + offset, rest);
    });
    return moved.total == length;
}

bool transceiver::recv(void* buffer, unsigned int length, bool peek)
{
    if (!establish())
        return false;
    // A peek leaves the bytes queued, so a second call for the rest brings the head of the queue again and
    // puts it behind what the first one brought: on purpose, a peek is exact only for what has arrived.
    const moved_bytes moved = move_all(length, [&](unsigned int offset, unsigned int rest) {
        char* target = static_cast<char*>(buffer) + offset;
        return peek ? ::recv(m_nConnected, target, rest, MSG_PEEK) : ::read(m_nConnected, target, rest);
    });
    return moved.total == length;
}

bool transceiver::can_recv()
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("can_recv");
    if (m_nConnected == 0)
        return false;
    const int flags = fcntl(m_nConnected, F_GETFL);
    if (flags == -1 || fcntl(m_nConnected, F_SETFL, flags | O_NONBLOCK) == -1) {
        const int cause = errno;
        Logger(kUnit, __LINE__, ESeveryLevel::error)("%s", std::strerror(cause));
        return false;
    }
    char byte = 0;
    const bool is_waiting = ::recv(m_nConnected, &byte, sizeof byte, MSG_PEEK) == 1;
    errno = 0;
    if (fcntl(m_nConnected, F_SETFL, flags) == -1) {
        const int cause = errno;
        Logger(kUnit, __LINE__, ESeveryLevel::error)("%s", std::strerror(cause));
    }
    return is_waiting;
}

void transceiver::close()
{
    close_socket(m_nConnected);
    close_socket(m_nListening);
}
