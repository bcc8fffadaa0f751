#include "tvkctl/src/machine/finding.h"

namespace tarvik::tvkctl {

const char* name_of(verdict came_out)
{
    switch (came_out) {
    case verdict::good:
        return "good";
    case verdict::warning:
        return "warning";
    case verdict::bad:
        return "bad";
    case verdict::not_checked:
        break;
    }
    return "not_checked";
}

} // namespace tarvik::tvkctl
