#include "process/tvkintif/model/session.h"

#include <algorithm>

namespace session_model {

namespace {

constexpr std::size_t kBytesShown = 64;

const char* name_of(logging log)
{
    switch (log) {
    case logging::off:
        return "off";
    case logging::errors:
        return "errors";
    case logging::at_info:
        return "info";
    case logging::in_order:
        return "info, in order with the bus";
    case logging::verbose:
        break;
    }
    return "verbose";
}

const char* name_of(departure end)
{
    switch (end) {
    case departure::ends_stream:
        return "ends its stream";
    case departure::hangs_up:
        return "hangs up";
    case departure::resets:
        break;
    }
    return "resets the connection";
}

std::string beginning_of(const bytes& data)
{
    const std::size_t shown = std::min(kBytesShown, data.size());
    const bytes beginning(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(shown));
    return process_test::hex(beginning) +
           (shown < data.size() ? " ... " + std::to_string(data.size()) + " bytes" : "");
}

} // namespace

bytes session::stream() const
{
    bytes all;
    for (const message& each : messages)
        all.insert(all.end(), each.data.begin(), each.data.end());
    return all;
}

std::ostream& operator<<(std::ostream& out, const session& shown)
{
    out << "session " << shown.number << " of seed " << shown.seed
        << "\nplugin: " << (shown.plugin.empty() ? "none" : shown.plugin + " as " + shown.plugin_file)
        << "\nlog: " << name_of(shown.log) << "\nbus:\n"
        << shown.bus << "the front-end sends\n";
    for (const message& each : shown.messages)
        out << "  " << each.what << ": " << beginning_of(each.data) << "\n";
    out << "in pieces of";
    for (const std::size_t size : shown.writes)
        out << " " << size;
    return out << (shown.is_patient ? ", waiting for each reply" : ", without waiting for replies")
               << ", and " << name_of(shown.end) << "\n";
}

} // namespace session_model
