#include "process/wire.h"

#include <algorithm>

namespace process_test {

namespace {

bytes big_endian(std::uint32_t number)
{
    return {static_cast<unsigned char>(number >> 24U), static_cast<unsigned char>(number >> 16U & 0xFFU),
            static_cast<unsigned char>(number >> 8U & 0xFFU), static_cast<unsigned char>(number & 0xFFU)};
}

/// Written out rather than borrowed from the front-end library: an error that both sides of the wire share
/// must not go unseen.
bytes header(std::uint32_t id, std::uint32_t code, std::uint32_t error, std::uint32_t size,
             std::uint32_t value)
{
    return big_endian(id) + big_endian(code) + big_endian(error) + big_endian(size) + big_endian(value);
}

constexpr std::uint32_t kFailed = 0xFFFFFFFF;

} // namespace

bytes device_bytes(std::size_t size)
{
    bytes result(size);
    std::size_t position = 0;
    std::generate(result.begin(), result.end(), [&] { return static_cast<unsigned char>(position++ % 251); });
    return result;
}

bytes frame(std::uint32_t id, std::uint32_t code, std::uint32_t value, const bytes& payload)
{
    return bare_header(id, code, static_cast<std::uint32_t>(payload.size()), value) + payload;
}

bytes bare_header(std::uint32_t id, std::uint32_t code, std::uint32_t size, std::uint32_t value)
{
    return header(id, code, 0, size, value);
}

bytes open_request(const std::string& udi)
{
    return frame(0, 4, 0, bytes_of(udi));
}

bytes close_request()
{
    return frame(1, 5);
}

bytes send_request(const bytes& payload)
{
    return frame(1, 6, 0, payload);
}

bytes recv_request(std::uint32_t count)
{
    return frame(1, 7, count);
}

bytes query_request(std::uint32_t selector)
{
    return frame(1, 8, selector);
}

bytes ok_reply(const bytes& payload, std::uint32_t id)
{
    return header(id, 0, 0, static_cast<std::uint32_t>(payload.size()), 0) + payload;
}

bytes ng_reply(std::uint32_t id)
{
    return header(id, 0, kFailed, 0, 0);
}

bytes nak_reply(std::uint32_t id)
{
    return header(id, 0, kFailed, 1, 0) + bytes{0x15};
}

} // namespace process_test
