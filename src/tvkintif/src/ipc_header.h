#pragma once

#include <cstdint>

/// The fixed record that opens every message in both directions; `size` payload bytes follow it.
/// All fields stay in network byte order (big-endian), as they travel: whoever reads one converts it.
/// docs/protocol.md has the byte table and worked bytes.
struct ipc_header {
    std::uint32_t id;    ///< connection id; a reply echoes the request's
    std::uint32_t code;  ///< request code; 0 in a reply
    std::int32_t error;  ///< 0 success, -1 failure; not looked at in a request
    std::uint32_t size;  ///< number of payload bytes that follow
    std::uint32_t value; ///< numeric argument of a request; 0 in a reply
};
static_assert(sizeof(ipc_header) == 20, "the record is sent and read as it lies in memory");
