#include "front_end/src/frame.h"

#include <limits>
#include <ostream>
#include <stdexcept>

namespace tarvik {

namespace {

void put(unsigned char* to, std::uint32_t number)
{
    to[0] = static_cast<unsigned char>(number >> 24);
    to[1] = static_cast<unsigned char>(number >> 16);
    to[2] = static_cast<unsigned char>(number >> 8);
    to[3] = static_cast<unsigned char>(number);
}

std::uint32_t take(const unsigned char* from)
{
    return std::uint32_t{from[0]} << 24 | std::uint32_t{from[1]} << 16 | std::uint32_t{from[2]} << 8 |
           std::uint32_t{from[3]};
}

} // namespace

wire_header to_wire(const frame_header& header)
{
    wire_header wire = {};
    put(&wire[0], header.id);
    put(&wire[4], header.code);
    put(&wire[8], static_cast<std::uint32_t>(header.error));
    put(&wire[12], header.size);
    put(&wire[16], header.value);
    return wire;
}

frame_header from_wire(const wire_header& wire)
{
    frame_header header;
    header.id = take(&wire[0]);
    header.code = take(&wire[4]);
    header.error = static_cast<std::int32_t>(take(&wire[8]));
    header.size = take(&wire[12]);
    header.value = take(&wire[16]);
    return header;
}

std::uint32_t size_field(byte_view payload)
{
    const std::uint64_t size = payload.size;
    if (size > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("a payload of " + std::to_string(size) +
                                " bytes does not fit the header's size field");
    return static_cast<std::uint32_t>(size);
}

const char* name_of(reply::verdict kind)
{
    switch (kind) {
    case reply::verdict::ok:
        return "ok";
    case reply::verdict::ng:
        return "ng";
    case reply::verdict::nak:
        break;
    }
    return "nak";
}

std::ostream& operator<<(std::ostream& out, reply::verdict kind)
{
    return out << name_of(kind);
}

} // namespace tarvik
