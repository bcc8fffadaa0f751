#include "target/demo/frame_printer.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace target {

using tarvik::byte_view;
using tarvik::frame_event;
using tarvik::request_code;

namespace {

constexpr std::size_t kShownBytes = 16;

const char* request_name(std::uint32_t code)
{
    switch (static_cast<request_code>(code)) {
    case request_code::open:
        return "open";
    case request_code::close:
        return "close";
    case request_code::send:
        return "send";
    case request_code::recv:
        return "recv";
    case request_code::query:
        return "query";
    }
    return "?";
}

bool is_printable(byte_view data)
{
    return std::all_of(data.begin(), data.end(), [](int byte) { return std::isprint(byte) != 0; });
}

std::string hex(byte_view data)
{
    std::string text;
    for (const unsigned char byte : data) {
        char digits[4];
        std::snprintf(digits, sizeof digits, " %02x", byte);
        text += digits;
    }
    return text;
}

} // namespace

void frame_printer::operator()(const frame_event& event) const
{
    if (event.offset != 0)
        return; // a later piece of a payload whose beginning was shown
    const bool is_request = event.way == frame_event::direction::sent;
    std::printf("  %s %-5s  id %u code %u error %2d size %7u value %7u%s\n", is_request ? "-->" : "<--",
                name_of(event).c_str(), event.header.id, event.header.code, event.header.error,
                event.header.size, event.header.value, preview(event).c_str());
    std::fflush(stdout);
}

std::string frame_printer::name_of(const frame_event& event)
{
    if (event.way == frame_event::direction::sent)
        return request_name(event.header.code);
    if (event.header.error == 0)
        return "ok";
    return event.header.size == 0 ? "ng" : "nak";
}

std::string frame_printer::preview(const frame_event& event)
{
    if (event.payload.empty())
        return "";
    if (event.way == frame_event::direction::sent && is_printable(event.payload))
        return "  \"" + std::string(event.payload.begin(), event.payload.end()) + "\"";
    const byte_view shown(event.payload.data, std::min(event.payload.size, kShownBytes));
    return "  " + hex(shown) + (event.header.size > shown.size ? " ..." : "");
}

} // namespace target
