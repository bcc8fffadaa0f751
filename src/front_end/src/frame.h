#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "front_end/src/bytes.h"

namespace tarvik {

enum class request_code : std::uint32_t { open = 4, close = 5, send = 6, recv = 7, query = 8 };

/// The id that the reply to open hands out; every later request carries it.
constexpr std::uint32_t kConnectionId = 1;

/// The record that opens every message in both directions, in host order. docs/protocol.md has the byte
/// table.
struct frame_header {
    std::uint32_t id = 0;
    std::uint32_t code = 0; ///< a request_code, or any other number that is to be tried; 0 in a reply
    std::int32_t error = 0; ///< in a reply: 0 success, -1 failure
    std::uint32_t size = 0; ///< number of payload bytes that follow
    std::uint32_t value = 0;
};

constexpr std::size_t kHeaderSize = 20;
using wire_header = std::array<unsigned char, kHeaderSize>;

/// The header as it travels: five 32-bit fields, each big-endian.
wire_header to_wire(const frame_header& header);
frame_header from_wire(const wire_header& wire);
/// A payload's length as the header's `size`. Throws std::length_error when it does not fit.
std::uint32_t size_field(byte_view payload);

/// An answer of the program.
struct reply {
    enum class verdict {
        ok,  ///< done; the payload is what was asked for
        ng,  ///< tried, without success
        nak, ///< refused: the request carried the wrong id
    };

    explicit operator bool() const { return kind == verdict::ok; }

    verdict kind = verdict::ok;
    bytes payload = {}; ///< empty for ng, the single byte 0x15 for nak
};

/// "ok", "ng" or "nak".
const char* name_of(reply::verdict kind);
std::ostream& operator<<(std::ostream& out, reply::verdict kind);

/// Received payloads are handed on in pieces of this many bytes, so that a large one needs little memory.
constexpr std::size_t kPieceSize = 65536;

} // namespace tarvik
