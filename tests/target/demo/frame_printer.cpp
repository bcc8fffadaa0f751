#include "target/demo/frame_printer.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "support/bytes.h"

namespace target {

using tarvik::byte_view;
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

} // namespace

void frame_printer::operator()(const frame& shown) const
{
    std::printf("  %s %-5s  id %u code %u error %2d size %7u value %7u%s\n", shown.is_request ? "-->" : "<--",
                name_of(shown).c_str(), shown.header.id, shown.header.code, shown.header.error,
                shown.header.size, shown.header.value, preview(shown).c_str());
    std::fflush(stdout);
}

std::string frame_printer::name_of(const frame& shown)
{
    if (shown.is_request)
        return request_name(shown.header.code);
    if (shown.header.error == 0)
        return "ok";
    return shown.header.size == 0 ? "ng" : "nak";
}

std::string frame_printer::preview(const frame& shown)
{
    if (shown.payload.empty())
        return "";
    if (shown.is_request && is_printable(shown.payload))
        return "  \"" + std::string(shown.payload.begin(), shown.payload.end()) + "\"";
    const byte_view head(shown.payload.data(), std::min(shown.payload.size(), kShownBytes));
    return "   " + support::hex({head.begin(), head.end()}) +
           (shown.payload.size() > head.size ? " ..." : "");
}

} // namespace target
