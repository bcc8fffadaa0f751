#include "tvkintif/src/dispatch.h"

#include <arpa/inet.h>

#include <array>

#include "common/log/logger.h"
#include "tvkintif/src/failure_pause.h"
#include "tvkintif/src/ipc_connection.h"
#include "tvkintif/src/payload_buffer.h"
#include "tvkintif/src/scanner.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

std::atomic<int> do_cleanup{0};

namespace {

constexpr const char* kUnit = "dispatch";
constexpr std::chrono::milliseconds kFirstPause{10}; ///< between reads that fail at once
constexpr unsigned int kConnectionId = 1; ///< handed out by the open reply, asked of every later request

enum request_code : unsigned int { ipc_open = 4, ipc_close = 5, ipc_send = 6, ipc_recv = 7, ipc_query = 8 };

} // namespace

dispatch::dispatch() : m_connection(std::make_unique<ipc_connection>())
{
    scanner::instance(); // the destructor asks for it too, and may not throw
}

dispatch::~dispatch()
{
    scanner::instance().close();
}

int dispatch::port() const
{
    return m_connection->port();
}

bool dispatch::connect(const std::string& address)
{
    return scanner::instance().open(address);
}

void dispatch::disconnect()
{
    scanner::instance().close();
}

void dispatch::run()
{
    payload_buffer payload(kInitialPayloadSize);
    failure_pause pause(kFirstPause);
    while (do_cleanup == 0) {
        ipc_header header = {};
        const int result = m_connection->read(header, payload);
        if (result == ipc_connection::kPeerClosed || m_connection->is_abandoned()) {
            do_cleanup = 1;
            Logger(kUnit, __LINE__, ESeveryLevel::info)("do_cleanup %d", do_cleanup.load());
        } else if (result >= 0) {
            pause.succeeded();
            do_dispatch(header, payload);
        } else {
            pause.failed();
        }
        // The length stays: a request without payload passes this many zero bytes on.
        payload.clear();
    }
    Logger(kUnit, __LINE__, ESeveryLevel::info)("Leave do_cleanup %d", do_cleanup.load());
    scanner::instance().close();
}

void dispatch::do_dispatch(ipc_header& header, payload_buffer& payload)
{
    const unsigned int id = ntohl(header.id);
    const unsigned int code = ntohl(header.code);
    if (code != ipc_open && id != kConnectionId) {
        // A front-end that lost its id can still end the process.
        if (code == ipc_close)
            do_cleanup = 1;
        m_connection->send_nak(id);
        return;
    }
    switch (code) {
    case ipc_open:
        return open(payload);
    case ipc_close:
        return close();
    case ipc_send:
        return send(header, payload);
    case ipc_recv:
        return recv(header, payload);
    case ipc_query:
        return query(header);
    default:
        m_connection->send_ng(id);
    }
}

void dispatch::open(payload_buffer& payload)
{
    const std::string address(payload.data(), payload.data() + payload.size());
    Logger(kUnit, __LINE__, ESeveryLevel::info)("open %s", address.c_str());
    if (scanner::instance().open(address)) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("send ok");
        m_connection->send_ok(kConnectionId, nullptr, 0);
    } else {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("send ng");
        m_connection->send_ng(kConnectionId);
        do_cleanup = 1;
    }
}

void dispatch::close()
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("enter close");
    scanner::instance().close();
    do_cleanup = 1;
    Logger(kUnit, __LINE__, ESeveryLevel::info)("leave close");
}

void dispatch::send(const ipc_header& header, payload_buffer& payload)
{
    const unsigned int id = ntohl(header.id);
    const int result = scanner::instance().send(payload.data(), static_cast<unsigned int>(payload.size()),
                                                ntohl(header.value));
    if (result == scanner::kOk)
        m_connection->send_ok(id, nullptr, 0);
    else
        m_connection->send_ng(id);
}

void dispatch::recv(const ipc_header& header, payload_buffer& payload)
{
    const unsigned int id = ntohl(header.id);
    const unsigned int length = ntohl(header.value);
    payload.resize(length);
    if (scanner::instance().recv(payload.data(), length) == scanner::kOk)
        m_connection->send_ok(id, payload);
    else
        m_connection->send_ng(id);
}

void dispatch::query(const ipc_header& header)
{
    constexpr std::array<unsigned char, 4> answer = {0, 0, 0, 0};
    const unsigned int id = ntohl(header.id);
    const unsigned int selector = ntohl(header.value);
    if (selector == 1 || selector == 2)
        m_connection->send_ok(id, answer.data(), static_cast<int>(answer.size()));
    else
        m_connection->send_ng(id);
}
