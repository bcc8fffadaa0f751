#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Bytes as tests write and compare them.
namespace support {

using bytes = std::vector<unsigned char>;

/// "00 0a ff"
std::string hex(const bytes& data);
/// The other way round; blanks stand where they read best.
bytes from_hex(const std::string& text);

/// The bytes of a text, without a terminator.
bytes bytes_of(const std::string& text);
/// `size` bytes in which a lost, doubled or exchanged piece shows.
bytes pattern(std::size_t size);

bytes operator+(bytes first, const bytes& second);

} // namespace support
