#pragma once

#include <cstdint>
#include <string>

#include "support/bytes.h"

/// Requests and replies as they travel.
namespace process_test {

using support::bytes;
using support::bytes_of;
using support::from_hex;
using support::hex;
using support::pattern;
using support::operator+;

/// What the fake USB device gives in its first `size` bytes.
bytes device_bytes(std::size_t size);

/// A request; its size field is the payload's length.
bytes frame(std::uint32_t id, std::uint32_t code, std::uint32_t value = 0, const bytes& payload = {});
/// A header that announces `size` payload bytes which do not follow.
bytes bare_header(std::uint32_t id, std::uint32_t code, std::uint32_t size, std::uint32_t value = 0);

/// Requests as a front-end sends them after an open.
bytes open_request(const std::string& udi = "usb:1a2b:3c4d");
bytes close_request();
bytes send_request(const bytes& payload);
bytes recv_request(std::uint32_t count);
bytes query_request(std::uint32_t selector);

/// Replies, byte for byte.
bytes ok_reply(const bytes& payload = {}, std::uint32_t id = 1);
bytes ng_reply(std::uint32_t id = 1);
bytes nak_reply(std::uint32_t id);

} // namespace process_test
