// The floor under the program's costs: a server of the same exchange with nothing to it. It prints its port,
// takes one connection, and answers until that ends.
//
//     floor nothing   prints a number and ends: what any process costs
//     floor bare      the exchange alone: a header and a payload, in two writes
//     floor owed      the same with what the program cannot leave out: signals held around each transfer, a
//                     plugin that fills what is received, a buffer that is clean for the next request

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr std::uint32_t kSend = 6;
constexpr std::uint32_t kRecv = 7;
constexpr std::size_t kMostBytes = std::size_t{16} * 1024 * 1024;

using header = std::array<std::uint32_t, 5>; // id, code, error, size, value; as they travel

class connection {
public:
    connection(int descriptor, bool is_owed) : m_descriptor(descriptor), m_isOwed(is_owed) {}

    bool take(void* to, std::size_t size) { return move(::read, static_cast<char*>(to), size); }
    bool give(const void* from, std::size_t size)
    {
        return move(::write, static_cast<const char*>(from), size);
    }

private:
    template <typename Call, typename Byte>
    bool move(Call call, Byte* next, std::size_t left)
    {
        while (left > 0) {
            const ssize_t moved = m_isOwed ? held(call, next, left) : call(m_descriptor, next, left);
            if (moved <= 0)
                return false;
            next += moved;
            left -= static_cast<std::size_t>(moved);
        }
        return true;
    }

    template <typename Call, typename Byte>
    ssize_t held(Call call, Byte* next, std::size_t left)
    {
        sigset_t blocked;
        sigset_t before;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigaddset(&blocked, SIGINT);
        sigprocmask(SIG_BLOCK, &blocked, &before);
        const ssize_t moved = call(m_descriptor, next, left);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return moved;
    }

    int m_descriptor;
    bool m_isOwed;
};

/// An open, or anything else that is neither sent nor received, is answered with an empty ok.
void serve(connection wire, bool is_owed)
{
    // As the program's: its pages begin where memory's do, which the kernel copies from faster.
    void* const memory =
        mmap(nullptr, kMostBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const buffer = static_cast<char*>(memory);
    for (header request{}; wire.take(request.data(), sizeof request);) {
        const std::uint32_t code = ntohl(request[1]);
        const std::size_t sent = ntohl(request[3]);
        const std::size_t asked = code == kRecv ? ntohl(request[4]) : 0;
        if (sent > kMostBytes || asked > kMostBytes || !wire.take(buffer, sent))
            return;
        if (is_owed)
            std::memset(buffer, 7, asked);
        const header reply = {htonl(1), 0, 0, htonl(static_cast<std::uint32_t>(asked)), 0};
        if (!wire.give(reply.data(), sizeof reply) || !wire.give(buffer, asked))
            return;
        if (is_owed && (code == kSend || code == kRecv))
            std::memset(buffer, 0, sent + asked);
    }
}

bool listen_and_serve(bool is_owed)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener, any, size) != 0 || listen(listener, 1) != 0 || getsockname(listener, any, &size) != 0)
        return false;
    std::printf("%d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    const int descriptor = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    serve({descriptor, is_owed}, is_owed);
    return true;
}

} // namespace

int main(int count, char** arguments)
{
    const std::string_view kind = count == 2 ? arguments[1] : "";
    if (kind == "nothing")
        return std::puts("1") < 0;
    if (kind == "bare" || kind == "owed")
        return listen_and_serve(kind == "owed") ? 0 : 1;
    std::fputs("usage: floor nothing | bare | owed\n", stderr);
    return 2;
}
