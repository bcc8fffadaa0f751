#include "target/scenarios/conversation.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "front_end/src/front_end.h"
#include "front_end/src/port_line.h"

using tarvik::reply;

namespace target {

namespace {

reply::verdict verdict_of(const tarvik::frame_header& header)
{
    if (header.error == 0)
        return reply::verdict::ok;
    return header.size == 0 ? reply::verdict::ng : reply::verdict::nak;
}

} // namespace

conversation::conversation(const tarvik::launch& how)
    : m_process(how), m_port(tarvik::read_port_line(m_process, tarvik::kStartTimeout))
{
}

void conversation::put(tarvik::frame_header header, tarvik::byte_view payload)
{
    header.size = tarvik::size_field(payload);
    const tarvik::wire_header head = tarvik::to_wire(header);
    tarvik::bytes message(head.begin(), head.end());
    message.insert(message.end(), payload.begin(), payload.end());
    m_wire.value().write(message);
    m_observer({true, header, {payload.begin(), payload.end()}});
}

void conversation::put(tarvik::request_code code, std::uint32_t value, tarvik::byte_view payload)
{
    put({tarvik::kConnectionId, static_cast<std::uint32_t>(code), 0, 0, value}, payload);
}

reply conversation::take_reply(tarvik::milliseconds timeout)
{
    const tarvik::bytes head = m_wire.value().read(tarvik::kHeaderSize, timeout);
    tarvik::wire_header wire = {};
    std::copy(head.begin(), head.end(), wire.begin());
    const tarvik::frame_header header = tarvik::from_wire(wire);
    const reply result = {verdict_of(header), m_wire->read(header.size, timeout)};
    m_observer({false, header, result.payload});
    if (header.id != tarvik::kConnectionId)
        throw std::runtime_error("a reply with id " + std::to_string(header.id));
    return result;
}

reply conversation::ask(tarvik::request_code code, std::uint32_t value, tarvik::byte_view payload,
                        tarvik::milliseconds timeout)
{
    put(code, value, payload);
    return take_reply(timeout);
}

} // namespace target
