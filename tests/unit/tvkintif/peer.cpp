#include "unit/tvkintif/peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace unit {

namespace {

void set_deadline(int socket)
{
    constexpr timeval kDeadline = {10, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kDeadline, sizeof kDeadline);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kDeadline, sizeof kDeadline);
}

sockaddr_in address_of(const std::string& address, int port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<in_port_t>(port));
    inet_pton(AF_INET, address.c_str(), &result.sin_addr);
    return result;
}

const sockaddr* generic(const sockaddr_in* address)
{
    return reinterpret_cast<const sockaddr*>(address); // the sockets interface asks for this cast
}

bytes receive_from(int socket, std::size_t count)
{
    bytes data(count);
    std::size_t total = 0;
    for (ssize_t moved = 1; total < count && moved > 0;) {
        moved = ::recv(socket, data.data() + total, count - total, 0);
        total += moved > 0 ? static_cast<std::size_t>(moved) : 0;
    }
    data.resize(total);
    return data;
}

bool send_to(int socket, const bytes& data)
{
    for (std::size_t total = 0; total < data.size();) {
        const ssize_t moved = ::send(socket, data.data() + total, data.size() - total, MSG_NOSIGNAL);
        if (moved <= 0)
            return false;
        total += static_cast<std::size_t>(moved);
    }
    return true;
}

} // namespace

peer::peer(int port, const std::string& address) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    set_deadline(m_socket);
    const sockaddr_in target = address_of(address, port);
    if (::connect(m_socket, generic(&target), sizeof target) != 0)
        m_error = errno;
}

peer::~peer()
{
    close();
}

bool peer::send(const bytes& data)
{
    return send_to(m_socket, data);
}

bytes peer::receive(std::size_t count)
{
    return receive_from(m_socket, count);
}

bytes peer::receive_all()
{
    bytes all;
    for (bytes byte = receive(1); !byte.empty(); byte = receive(1))
        all.push_back(byte.front());
    return all;
}

bool peer::is_cut_off()
{
    unsigned char byte = 0;
    const ssize_t moved = ::recv(m_socket, &byte, 1, 0);
    return moved == 0 || (moved < 0 && errno == ECONNRESET);
}

void peer::end_stream()
{
    shutdown(m_socket, SHUT_WR);
}

void peer::close()
{
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

void peer::reset()
{
    constexpr linger kAtOnce = {1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &kAtOnce, sizeof kAtOnce);
    close();
}

listener::listener() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    set_deadline(m_socket);
    sockaddr_in address = address_of("127.0.0.1", 0);
    socklen_t length = sizeof address;
    ::bind(m_socket, generic(&address), sizeof address);
    ::listen(m_socket, 5);
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) // as for generic()
        m_port = ntohs(address.sin_port);
}

listener::~listener()
{
    ::close(m_socket);
    if (m_connected >= 0)
        ::close(m_connected);
}

bytes listener::serve(std::size_t count, const bytes& answer)
{
    m_connected = ::accept(m_socket, nullptr, nullptr);
    set_deadline(m_connected);
    bytes data = receive_from(m_connected, count);
    send_to(m_connected, answer);
    return data;
}

} // namespace unit
