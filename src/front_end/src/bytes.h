#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarvik {

using bytes = std::vector<unsigned char>;

/// Bytes that somebody else owns and keeps alive for as long as the view is used.
struct byte_view {
    byte_view() = default;
    byte_view(const void* first, std::size_t count)
        : data(static_cast<const unsigned char*>(first)), size(count)
    {
    }
    byte_view(const bytes& whole) : byte_view(whole.data(), whole.size()) {}
    byte_view(std::string_view text) : byte_view(text.data(), text.size()) {}
    byte_view(const std::string& text) : byte_view(text.data(), text.size()) {}
    byte_view(const char* text) : byte_view(std::string_view(text)) {}

    const unsigned char* begin() const { return data; }
    const unsigned char* end() const { return data + size; }
    bool empty() const { return size == 0; }

    const unsigned char* data = nullptr;
    std::size_t size = 0;
};

/// Foreign bytes for a message to a person: in quotes, control and non-ASCII bytes as \xNN, cut after 200.
std::string in_quotes(byte_view text);

} // namespace tarvik
