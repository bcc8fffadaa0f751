#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include "fuzz/harness.h"

namespace fuzz {

/// A connection of which a target holds the far end. The near end goes to the code under test, which owns it.
class socket_pair {
public:
    socket_pair()
    {
        std::array<int, 2> ends{};
        expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "there are sockets");
        near_end = ends[0];
        m_farEnd = ends[1];
    }
    socket_pair(const socket_pair&) = delete;
    socket_pair& operator=(const socket_pair&) = delete;
    ~socket_pair() { close(m_farEnd); }

    /// Sends these bytes, and nothing after them.
    void say(std::string_view all) const
    {
        expect(send(m_farEnd, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size()),
               "a socket takes all");
        shutdown(m_farEnd, SHUT_WR);
    }

    /// Takes what has come.
    void hear()
    {
        std::array<char, 65536> piece;
        for (ssize_t count = 0; (count = recv(m_farEnd, piece.data(), piece.size(), MSG_DONTWAIT)) > 0;)
            heard.append(piece.data(), static_cast<std::size_t>(count));
    }

    int near_end;
    std::string heard;

private:
    int m_farEnd;
};

/// The descriptor that would be the next one: it stays the same when none is left open.
inline int next_descriptor()
{
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    return next;
}

/// A number as it travels.
inline std::string big_endian(std::uint32_t number)
{
    std::string wire;
    for (const unsigned int shift : {24U, 16U, 8U, 0U})
        wire += static_cast<char>(number >> shift & 0xFFU);
    return wire;
}

inline std::uint32_t number_at(std::string_view wire, std::size_t at)
{
    std::uint32_t number = 0;
    for (const char c : wire.substr(at, 4))
        number = number << 8U | static_cast<unsigned char>(c);
    return number;
}

} // namespace fuzz
