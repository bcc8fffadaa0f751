#include "common/process/exit_status.h"

#include <cstring>
#include <ostream>

namespace tarvik {

std::string exit_status::text() const
{
    if (end == how::exited)
        return "exit status " + std::to_string(number);
    const char* name = sigdescr_np(number);
    return "signal " + std::to_string(number) + " (" + (name != nullptr ? name : "unnamed") + ")";
}

std::ostream& operator<<(std::ostream& out, const exit_status& status)
{
    return out << status.text();
}

} // namespace tarvik
