#include "tvkintif/src/ipc_connection.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log/logger.h"
#include "tvkintif/src/move_all.h"
#include "tvkintif/src/payload_buffer.h"
#include "tvkintif/src/transceiver.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "ipc_connection";
constexpr int kAnyPort = 0;
constexpr std::int32_t kErrorOk = 0;
constexpr std::int32_t kErrorFailed = -1;
constexpr unsigned char kNak = 0x15;

/// Holds SIGTERM and SIGINT back for its lifetime. One that came meanwhile is delivered at its end.
class termination_blocker {
public:
    termination_blocker()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, &m_previous);
    }
    termination_blocker(const termination_blocker&) = delete;
    termination_blocker& operator=(const termination_blocker&) = delete;
    ~termination_blocker() { sigprocmask(SIG_SETMASK, &m_previous, nullptr); }

private:
    sigset_t m_previous = {};
};

ssize_t read_once(int fd, void* buffer, unsigned int size)
{
    const termination_blocker blocker;
    errno = 0;
    const ssize_t result = ::read(fd, buffer, size);
    if (result < 0) {
        const int cause = errno;
        Logger(kUnit, __LINE__, ESeveryLevel::info)("read failed: %s", std::strerror(cause));
    }
    return result;
}

ssize_t write_once(int fd, const void* buffer, unsigned int size)
{
    const termination_blocker blocker;
    errno = 0;
    const ssize_t result = ::write(fd, buffer, size);
    if (result < 0) {
        const int cause = errno;
        Logger(kUnit, __LINE__, ESeveryLevel::info)("write failed: %s", std::strerror(cause));
    }
    return result;
}

/// What the last call moved, and how much of `size` has moved with it.
void log_progress(ssize_t moved, unsigned int total, unsigned int size)
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("transferred %zd bytes, total %zd/%zd", moved,
                                                static_cast<ssize_t>(total), static_cast<ssize_t>(size));
}

/// No retry, not even after an interruption or a time-out: the caller looks at the termination flag and then
/// reads on from here as if a message began.
moved_bytes read_all(int fd, void* buffer, unsigned int size)
{
    return move_all(size, [&](unsigned int offset, unsigned int rest) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("ipc connection read get called = %d",
                                                    static_cast<int>(rest));
        const ssize_t result = read_once(fd, static_cast<unsigned char*>(buffer) + offset, rest);
        Logger(kUnit, __LINE__, ESeveryLevel::info)("ipc connection read get bail rv = %d",
                                                    static_cast<int>(result));
        if (result >= 0)
            log_progress(result, offset + static_cast<unsigned int>(result), size);
        return result;
    });
}

int result_of_reading(const moved_bytes& moved)
{
    if (moved.last < 0)
        return ipc_connection::kFailed;
    return moved.last == 0 ? ipc_connection::kPeerClosed : static_cast<int>(moved.total);
}

/// Unlike read_all, ends with the short count when a call makes no progress.
int write_all(int fd, const void* buffer, unsigned int size)
{
    if (buffer == nullptr || size == 0)
        return ipc_connection::kFailed;
    const moved_bytes moved = move_all(size, [&](unsigned int offset, unsigned int rest) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("ipc connection wrute get called = %d",
                                                    static_cast<int>(rest));
        const ssize_t result = write_once(fd, static_cast<const unsigned char*>(buffer) + offset, rest);
        Logger(kUnit, __LINE__, ESeveryLevel::info)("ipc connection wrte  bail rv = %d",
                                                    static_cast<int>(result));
        if (result >= 0)
            log_progress(result, offset + static_cast<unsigned int>(result), size);
        return result;
    });
    return moved.last < 0 ? ipc_connection::kFailed : static_cast<int>(moved.total);
}

ipc_header reply_header(unsigned int id, std::int32_t error, unsigned int size)
{
    ipc_header header = {};
    header.id = htonl(id);
    header.error = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(error)));
    header.size = htonl(size);
    return header;
}

bool has_lost_its_reader(int descriptor)
{
    pollfd end = {descriptor, 0, 0};
    poll(&end, 1, 0);
    return (end.revents & POLLERR) != 0;
}

unsigned int length_of(const std::vector<unsigned char>& payload)
{
    return static_cast<unsigned int>(payload.size());
}

} // namespace

ipc_connection::ipc_connection() : ipc_connection(kAnyPort) {}

ipc_connection::ipc_connection(int port) : m_transceiver(std::make_unique<transceiver>(port, kTimeoutSeconds))
{
}

ipc_connection::~ipc_connection() = default;

int ipc_connection::port() const
{
    return m_transceiver->port();
}

bool ipc_connection::is_abandoned() const
{
    return m_transceiver->has_timed_out() && has_lost_its_reader(STDOUT_FILENO);
}

int ipc_connection::read(ipc_header& header, payload_buffer& payload)
{
    header = {};
    const int result = result_of_reading(read_all(m_transceiver->establish_socket(), &header, sizeof header));
    if (result < 0)
        return result;
    const std::uint32_t size = ntohl(header.size);
    // The payload keeps its earlier length: a request without payload passes that many zero bytes on.
    if (size == 0)
        return 0;
    payload.resize(size);
    const moved_bytes moved = read_all(m_transceiver->establish_socket(), payload.storage(), size);
    payload.store(moved.total);
    return result_of_reading(moved);
}

void ipc_connection::send_ok(unsigned int id, const void* data, int size)
{
    const auto length = static_cast<unsigned int>(size);
    const bool has_payload = data != nullptr && size != 0;
    send_reply(reply_header(id, kErrorOk, length), data, has_payload ? length : 0);
}

int ipc_connection::send_ok(unsigned int id, payload_buffer& payload)
{
    const auto length = static_cast<unsigned int>(payload.size());
    return send_reply(reply_header(id, kErrorOk, length), payload.data(), length);
}

int ipc_connection::send_ng(unsigned int id)
{
    return send_reply(reply_header(id, kErrorFailed, 0), nullptr, 0);
}

int ipc_connection::send_nak(unsigned int id)
{
    return send_reply(reply_header(id, kErrorFailed, sizeof kNak), &kNak, sizeof kNak);
}

int ipc_connection::write(unsigned int id, unsigned int error, const void* data, int size)
{
    return write(reply_header(id, static_cast<std::int32_t>(error), static_cast<unsigned int>(size)), data,
                 size);
}

int ipc_connection::write(unsigned int id, unsigned int error, std::vector<unsigned char>& payload)
{
    return write(reply_header(id, static_cast<std::int32_t>(error), length_of(payload)), payload);
}

int ipc_connection::write(ipc_header header, const void* data, int size)
{
    if (send(&header, sizeof header) <= 0)
        return kFailed;
    if (size == 0)
        return 0;
    return send(data, static_cast<unsigned int>(size));
}

int ipc_connection::write(ipc_header header, std::vector<unsigned char>& payload)
{
    return write(header, payload.data(), static_cast<int>(payload.size()));
}

/// A payload follows a header of which anything went out: one that was cut short counts as sent.
int ipc_connection::send_reply(const ipc_header& header, const void* data, unsigned int size)
{
    const int result = send(&header, sizeof header);
    if (result <= 0 || size == 0)
        return result;
    return send(data, size);
}

int ipc_connection::send(const void* data, unsigned int size)
{
    return write_all(m_transceiver->establish_socket(), data, size);
}
