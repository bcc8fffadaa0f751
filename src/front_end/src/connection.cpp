#include "front_end/src/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "common/text/text.h"
#include "front_end/src/front_end_error.h"

namespace tarvik {

namespace {

std::string system_text(int cause)
{
    return std::generic_category().message(cause);
}

[[noreturn]] void throw_time_up(const transfer& what)
{
    throw front_end_error(failure::timed_out, what.step, what.expected,
                          count_of(what.moved, "byte") + " and nothing more within " +
                              std::to_string(what.until.timeout().count()) + " ms");
}

[[noreturn]] void throw_lost(const transfer& what, int cause)
{
    throw front_end_error(failure::connection_lost, what.step, what.expected,
                          system_text(cause) + " after " + count_of(what.moved, "byte"));
}

[[noreturn]] void throw_end_of_stream(const transfer& what)
{
    throw front_end_error(failure::end_of_stream, what.step, what.expected,
                          "the end of the stream after " + count_of(what.moved, "byte"));
}

bool is_worth_waiting(int cause)
{
    return cause == EAGAIN || cause == EINTR;
}

unique_fd new_socket()
{
    unique_fd socket =
        own_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    // The tail of a large request must not wait for the acknowledgement of its head.
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

/// Starts connecting; 0, EINPROGRESS, or the errno of a failure.
int start_connecting(int socket, int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    const auto* generic = reinterpret_cast<const sockaddr*>(&address); // the sockets interface asks for it
    return ::connect(socket, generic, sizeof address) == 0 ? 0 : errno;
}

/// How connecting ended: 0 or an errno.
int outcome_of_connecting(int socket)
{
    int cause = 0;
    socklen_t length = sizeof cause;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &cause, &length) == 0 ? cause : errno;
}

/// What is left to write of two buffers, in the form that sendmsg() takes.
class unwritten {
public:
    unwritten(byte_view head, byte_view body) : m_parts{{as_part(head), as_part(body)}} {}

    bool is_empty() const { return m_parts[0].iov_len == 0 && m_parts[1].iov_len == 0; }

    ssize_t send(int socket)
    {
        msghdr message = {};
        message.msg_iov = m_parts.data();
        message.msg_iovlen = m_parts.size();
        return sendmsg(socket, &message, MSG_NOSIGNAL);
    }

    void drop(std::size_t count)
    {
        for (iovec& part : m_parts) {
            const std::size_t here = std::min(count, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + here;
            part.iov_len -= here;
            count -= here;
        }
    }

private:
    static iovec as_part(byte_view data)
    {
        return {const_cast<unsigned char*>(data.data), data.size}; // sendmsg() reads through it only
    }

    std::array<iovec, 2> m_parts;
};

} // namespace

connection::connection(int port, milliseconds timeout) : m_socket(new_socket())
{
    const std::string step = "connect to port " + std::to_string(port);
    if (port < 1 || port > kLargestPort)
        throw front_end_error(failure::connect_failed, step,
                              "a port from 1 to " + std::to_string(kLargestPort), std::to_string(port));
    const char* expected = "a listener on 127.0.0.1";
    int cause = start_connecting(m_socket.get(), port);
    if (cause == EINPROGRESS || cause == EINTR) {
        if (!wait_until_ready(m_socket.get(), POLLOUT, deadline(timeout)))
            throw front_end_error(failure::timed_out, step, expected,
                                  "no answer within " + std::to_string(timeout.count()) + " ms");
        cause = outcome_of_connecting(m_socket.get());
    }
    if (cause != 0)
        throw front_end_error(cause == ECONNREFUSED ? failure::connection_refused : failure::connect_failed,
                              step, expected, system_text(cause));
}

void connection::write(byte_view head, byte_view body, transfer& what)
{
    unwritten rest(head, body);
    while (!rest.is_empty()) {
        const ssize_t count = rest.send(m_socket.get());
        if (count >= 0) {
            rest.drop(static_cast<std::size_t>(count));
            what.moved += static_cast<std::size_t>(count);
        } else if (!is_worth_waiting(errno)) {
            throw_lost(what, errno);
        } else if (!wait_until_ready(m_socket.get(), POLLOUT, what.until)) {
            throw_time_up(what);
        }
    }
}

void connection::read(void* buffer, std::size_t size, transfer& what)
{
    for (std::size_t taken = 0; taken < size;) {
        const std::size_t count = receive(static_cast<char*>(buffer) + taken, size - taken, what);
        if (count == 0)
            throw_end_of_stream(what);
        taken += count;
    }
}

/// At least one byte, or 0 at the end of the stream.
std::size_t connection::receive(void* buffer, std::size_t size, transfer& what)
{
    for (;;) {
        const ssize_t count = recv(m_socket.get(), buffer, size, 0);
        if (count >= 0) {
            what.moved += static_cast<std::size_t>(count);
            return static_cast<std::size_t>(count);
        }
        if (!is_worth_waiting(errno))
            throw_lost(what, errno);
        if (!wait_until_ready(m_socket.get(), POLLIN, what.until))
            throw_time_up(what);
    }
}

} // namespace tarvik
